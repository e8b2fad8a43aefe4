// SPDX-License-Identifier: GPL-2.0-only
/*
 * First writes.
 *
 * A first write is put aside, and its submitter goes on: no task sleeps here.
 * The submitter reads the old content, a worker lets the bio go once the
 * content is in memory.  Nothing is kept for a bio: it hangs by bi_next at one
 * read that it depends on, and is looked at again when that is finished.
 *
 * No lock is held across I/O or an allocation that waits.
 */
#define pr_fmt(fmt) "mirelsnap: " fmt

#include <linux/mm.h>
#include <linux/module.h>
#include <linux/percpu.h>
#include <linux/slab.h>
#include "cow.h"
#include "inject.h"
#include "intercept.h"
#include "snapdev.h"

/*
 * From this many reads in flight on, further first writes are gathered, so
 * that their reads go out together: with the next finished read, or after
 * GATHER_NS on a disk that is slow but takes many at once.
 */
#define GATHER_FROM	2
#define GATHER_NS	(100 * NSEC_PER_USEC)
/* A write that continues the last run is the start of a stream: blocks ahead. */
#define AHEAD		16
/* Reads that one look at one bio starts at most. */
#define MOST_READS	16

unsigned int injections;
module_param_named(inject, injections, uint, 0644);
MODULE_PARM_DESC(inject, "failures on purpose, for tests (bits; 1: table, 2: memory)");

static unsigned int ring_mib = 64;
module_param(ring_mib, uint, 0644);
MODULE_PARM_DESC(ring_mib, "memory for old content on its way, MiB a snapshot at most");

/* Finished reads, a list a CPU. */
struct done_here {
	struct llist_head reads;
	struct work_struct work;
	struct snapshot *snapshot;
};

/* A read of old content. */
struct copy {
	struct llist_node node;
	struct snapshot *snapshot;
	struct bio_list waiters;
	u64 block;
	u32 slot, count;
	int error;
	struct bio bio;		/* last */
};

/*
 * Two that let bios go (on the CPU that the read finished on, or on any), and
 * one for what may wait for memory: that one is freed by the first two.
 */
static struct workqueue_struct *here_queue, *any_queue, *todo_queue;

/* ---- blocks ---- */

bool cow_blocks(const struct snapshot *snapshot, struct bio *bio, u64 *block, u64 *end)
{
	sector_t first = bio->bi_iter.bi_sector, last;

	if (!bio_flagged(bio, BIO_REMAPPED))
		first += bio->bi_bdev->bd_start_sect;
	last = first + bio_sectors(bio);
	first = max(first, snapshot->start);
	last = min(last, snapshot->start + snapshot->sectors);
	if (first >= last)
		return false;
	*block = (first - snapshot->start) >> COW_SHIFT;
	*end = (last - snapshot->start + COW_SECTORS - 1) >> COW_SHIFT;
	return true;
}

bool cow_all_kept(const struct snapshot *snapshot, u64 block, u64 end)
{
	if (end - block == 1)
		return test_bit(block, snapshot->kept);
	return find_next_zero_bit(snapshot->kept, end, block) >= end;
}

/* Atomic on the words: reads that finish beside each other mark neighbours. */
static void mark_kept(struct snapshot *snapshot, u64 block, u32 count)
{
	u64 end = block + count;

	while (block < end) {
		u64 word = block / BITS_PER_LONG;
		u64 upto = min(end, (word + 1) * BITS_PER_LONG);
		unsigned long mask = GENMASK((upto - 1) % BITS_PER_LONG, block % BITS_PER_LONG);

		atomic_long_or(mask, (atomic_long_t *)&snapshot->kept[word]);
		block = upto;
	}
}

/* ---- a broken snapshot ---- */

static const char *why_broken(int error)
{
	switch (error) {
	case -ENOSPC:
		return "its relocation file is full";
	case -ENOMEM:
		return "no memory for its table";
	default:
		return "an I/O error";
	}
}

void cow_break_locked(struct snapshot *snapshot, int error)
{
	if (!snapshot->live)
		return;
	WRITE_ONCE(snapshot->broken, error);
	WRITE_ONCE(snapshot->live, false);
	pr_err("%s (%u:%u): the snapshot is broken: %s (error %d); the volume itself goes on\n",
	       snapshot->entry.volume_name, MAJOR(snapshot->dev), MINOR(snapshot->dev),
	       why_broken(error), -error);
	cow_room_locked(snapshot);
	queue_work(system_unbound_wq, &snapshot->shed_work);
}

void cow_break(struct snapshot *snapshot, int error)
{
	spin_lock(&snapshot->lock);
	cow_break_locked(snapshot, error);
	spin_unlock(&snapshot->lock);
}

void cow_room_locked(struct snapshot *snapshot)
{
	bio_list_merge(&snapshot->todo, &snapshot->full);
	bio_list_init(&snapshot->full);
	if (!bio_list_empty(&snapshot->todo))
		queue_work(todo_queue, &snapshot->todo_work);
}

/* ---- reads of old content ---- */

static void copy_end(struct bio *bio)
{
	struct copy *copy = container_of(bio, struct copy, bio);
	struct snapshot *snapshot = copy->snapshot;
	struct done_here *here = raw_cpu_ptr(snapshot->done);

	copy->error = blk_status_to_errno(bio->bi_status);
	if (!copy->error)
		mark_kept(snapshot, copy->block, copy->count);
	/* Nothing is submitted from here: this may be an interrupt. */
	if (!llist_add(&copy->node, &here->reads))
		return;
	/*
	 * With one writer this CPU is idle, or waits for just this read.  With
	 * many it is busy submitting: let another one let go, in batches.
	 */
	queue_work(READ_ONCE(snapshot->waiting) > 1 ? any_queue : here_queue, &here->work);
}

static struct copy *alloc_copy(struct snapshot *snapshot, gfp_t gfp)
{
	struct copy *copy;
	struct bio *bio;

	if (!(gfp & __GFP_DIRECT_RECLAIM) && inject(INJECT_MEMORY))
		return NULL;
	bio = bio_alloc_bioset(snapshot->bdev, store_segments(COW_RUN), REQ_OP_READ, gfp,
			       &snapshot->copies);
	if (!bio)
		return NULL;
	copy = container_of(bio, struct copy, bio);
	copy->snapshot = snapshot;
	bio_list_init(&copy->waiters);
	bio->bi_end_io = copy_end;
	return copy;
}

/* Gives the blocks from `block` on slots; under the lock, and there is room. */
static void start_copy(struct snapshot *snapshot, struct copy *copy, u64 block, u32 count)
{
	struct store *store = &snapshot->store;
	u32 i;

	copy->block = block;
	copy->slot = store->next;
	copy->count = count;
	for (i = 0; i < count; i++) {
		table_add(&snapshot->table, block + i, copy->slot + i);
		store->readers[(copy->slot + i) & (store->ring - 1)] = copy;
	}
	store->next += count;
	bitmap_set(snapshot->seen, block, count);
	snapshot->next = block + count;
	WRITE_ONCE(snapshot->reading, snapshot->reading + 1);
}

static void submit_copies(struct snapshot *snapshot, struct bio_list *bios)
{
	struct bio *bio;

	while ((bio = bio_list_pop(bios))) {
		struct copy *copy = container_of(bio, struct copy, bio);
		sector_t first = copy->block << COW_SHIFT;
		/* The last block of a volume may be cut short. */
		sector_t sectors = min_t(sector_t, copy->count << COW_SHIFT,
					 snapshot->sectors - first);

		bio->bi_iter.bi_sector = first;
		store_add_pages(&snapshot->store, bio, copy->slot, sectors << 9);
		submit_bio_noacct(bio);
	}
}

/* How many blocks from `block` on are read together. */
static u32 run_length(struct snapshot *snapshot, u64 block, u64 end)
{
	if (block == snapshot->next && end - block < AHEAD)
		end = min(block + AHEAD, snapshot->blocks);
	end = min(end, block + COW_RUN);
	return find_next_bit(snapshot->seen, end, block) - block;
}

/*
 * Looks at the blocks in a write's way.  Returns true when the bio waits for
 * something, and may be gone already; else there is nothing to be kept.
 */
static bool keep(struct snapshot *snapshot, struct bio *bio, bool may_wait)
{
	struct copy *spare = may_wait ? alloc_copy(snapshot, GFP_NOIO) : NULL;
	struct copy *first = NULL;	/* that the bio depends on */
	struct bio_list reads = BIO_EMPTY_LIST;
	bool full = false, memory = true;
	unsigned int started = 0;
	u64 block, end;

	if (!cow_blocks(snapshot, bio, &block, &end))
		block = end = 0;

	spin_lock(&snapshot->lock);
	while (snapshot->live && started < MOST_READS) {
		struct copy *copy;
		u32 count;

		block = find_next_zero_bit(snapshot->kept, end, block);
		if (block >= end)
			break;
		if (test_bit(block, snapshot->seen)) {
			u32 slot = table_find(&snapshot->table, block);

			copy = snapshot->store.readers[slot & (snapshot->store.ring - 1)];
			first = first ?: copy;
			block = copy->block + copy->count;
			continue;
		}
		count = min(run_length(snapshot, block, end), store_room(snapshot));
		if (!count) {
			full = true;
			break;
		}
		copy = spare ?: alloc_copy(snapshot, GFP_NOWAIT | __GFP_NOWARN);
		spare = NULL;
		if (!copy) {
			memory = false;
			break;
		}
		start_copy(snapshot, copy, block, count);
		bio_list_add(&reads, &copy->bio);
		started++;
		first = first ?: copy;
		block += count;
	}
	if (full && !first && store_is_full(snapshot)) {
		cow_break_locked(snapshot, -ENOSPC);
		full = false;
	}

	if (first || full || !memory) {
		atomic_inc(&snapshot->aside);
		if (first) {
			WRITE_ONCE(snapshot->waiting, snapshot->waiting + 1);
			bio_list_add(&first->waiters, bio);
		} else if (full) {
			bio_list_add(&snapshot->full, bio);
			store_kick(snapshot);
		} else {
			bio_list_add(&snapshot->todo, bio);
			queue_work(todo_queue, &snapshot->todo_work);
		}
	}
	spin_unlock(&snapshot->lock);

	submit_copies(snapshot, &reads);
	if (spare)
		bio_put(&spare->bio);
	return first || full || !memory;
}

/* Leaves a first write to a worker, which reads for many at once. */
static void gather(struct snapshot *snapshot, struct bio *bio)
{
	spin_lock(&snapshot->lock);
	atomic_inc(&snapshot->aside);
	if (snapshot->reading < GATHER_FROM)
		queue_work(todo_queue, &snapshot->todo_work);
	else if (bio_list_empty(&snapshot->todo))
		hrtimer_start(&snapshot->gather, ns_to_ktime(GATHER_NS), HRTIMER_MODE_REL);
	bio_list_add(&snapshot->todo, bio);
	spin_unlock(&snapshot->lock);
}

bool cow_take(struct snapshot *snapshot, struct bio *bio)
{
	/* A worker may sleep where this task must not, or need not. */
	if (bio->bi_opf & REQ_NOWAIT || READ_ONCE(snapshot->reading) >= GATHER_FROM) {
		gather(snapshot, bio);
		return true;
	}
	return keep(snapshot, bio, false);
}

/*
 * What a bio waited for has come: on to the next, to other snapshots, or to
 * the disk.  `may_wait`: for memory.
 */
static void look_again(struct snapshot *snapshot, struct bio *bio, bool may_wait)
{
	/* A worker may sleep, and nobody polls for what it submits. */
	bio->bi_opf &= ~(REQ_NOWAIT | REQ_POLLED);
	if (!keep(snapshot, bio, may_wait))
		intercept_submit(bio);
	done_one(snapshot, &snapshot->aside);
}

static void look_again_at_all(struct snapshot *snapshot, struct bio_list *bios, bool may_wait)
{
	struct blk_plug plug;
	struct bio *bio;

	blk_start_plug(&plug);
	while ((bio = bio_list_pop(bios)))
		look_again(snapshot, bio, may_wait);
	blk_finish_plug(&plug);
}

static void todo_work(struct work_struct *work)
{
	struct snapshot *snapshot = container_of(work, struct snapshot, todo_work);
	struct bio_list bios;

	spin_lock(&snapshot->lock);
	bios = snapshot->todo;
	bio_list_init(&snapshot->todo);
	spin_unlock(&snapshot->lock);
	look_again_at_all(snapshot, &bios, true);
}

static enum hrtimer_restart gather_end(struct hrtimer *timer)
{
	struct snapshot *snapshot = container_of(timer, struct snapshot, gather);

	queue_work(todo_queue, &snapshot->todo_work);
	return HRTIMER_NORESTART;
}

/* Under the lock: accounts for a finished read and takes who waited for it. */
static void finish_copy(struct snapshot *snapshot, struct copy *copy, struct bio_list *bios)
{
	unsigned int waiters = bio_list_size(&copy->waiters);

	WRITE_ONCE(snapshot->reading, snapshot->reading - 1);
	WRITE_ONCE(snapshot->waiting, snapshot->waiting - waiters);
	bio_list_merge(bios, &copy->waiters);
	if (copy->error)
		cow_break_locked(snapshot, copy->error);
	else
		store_filled(snapshot, copy->slot, copy->count);
}

static void done_work(struct work_struct *work)
{
	struct done_here *here = container_of(work, struct done_here, work);
	struct snapshot *snapshot = here->snapshot;
	struct llist_node *done = llist_reverse_order(llist_del_all(&here->reads));
	struct bio_list bios = BIO_EMPTY_LIST;
	struct copy *copy, *next;

	if (!done)
		return;
	spin_lock(&snapshot->lock);
	llist_for_each_entry(copy, done, node)
		finish_copy(snapshot, copy, &bios);
	/* What was gathered meanwhile goes out in the same breath. */
	bio_list_merge(&bios, &snapshot->todo);
	bio_list_init(&snapshot->todo);
	spin_unlock(&snapshot->lock);

	/* Before anything here allocates. */
	llist_for_each_entry_safe(copy, next, done, node)
		bio_put(&copy->bio);
	/* This frees what others wait for: it must not wait for memory itself. */
	look_again_at_all(snapshot, &bios, false);
	if (!READ_ONCE(snapshot->reading))
		wake_up(&snapshot->idle);
}

/* ---- life ---- */

/* No write and no old content is on its way any more; `live` is false. */
static void wait_until_idle(struct snapshot *snapshot)
{
	wait_event(snapshot->idle, !atomic_read(&snapshot->aside) &&
				   !READ_ONCE(snapshot->reading));
	hrtimer_cancel(&snapshot->gather);
}

static void free_kept(struct snapshot *snapshot)
{
	store_free_ring(&snapshot->store);
	table_exit(&snapshot->table);
	kvfree(snapshot->kept);
	kvfree(snapshot->seen);
	snapshot->kept = NULL;
	snapshot->seen = NULL;
}

/* What a broken snapshot kept is of no use to anybody. */
static void shed_work(struct work_struct *work)
{
	struct snapshot *snapshot = container_of(work, struct snapshot, shed_work);

	if (!READ_ONCE(snapshot->added))
		return;		/* it never appeared, and goes at once */
	intercept_wait();
	wait_until_idle(snapshot);
	flush_work(&snapshot->store.work);
	snapdev_wait(snapshot);
	WRITE_ONCE(snapshot->shed, true);
	free_kept(snapshot);
}

/* No more than an eighth of the machine's memory for all rings of a set. */
static u32 ring_slots(unsigned int sets_volumes)
{
	u64 share = ((u64)totalram_pages() << PAGE_SHIFT) / 8 / sets_volumes;
	u64 most = min_t(u64, (u64)ring_mib << 20, share);

	return rounddown_pow_of_two(clamp_t(u64, most, 1 << 20, 1 << 30) / COW_BYTES);
}

static int alloc_done_lists(struct snapshot *snapshot)
{
	int cpu;

	snapshot->done = alloc_percpu(struct done_here);
	if (!snapshot->done)
		return -ENOMEM;
	for_each_possible_cpu(cpu) {
		struct done_here *here = per_cpu_ptr(snapshot->done, cpu);

		init_llist_head(&here->reads);
		INIT_WORK(&here->work, done_work);
		here->snapshot = snapshot;
	}
	return 0;
}

int cow_prepare(struct snapshot *snapshot, unsigned int sets_volumes)
{
	u32 buckets = min_t(u64, 8ull * snapshot->entry.hash_size, 1u << 30);

	spin_lock_init(&snapshot->lock);
	bio_list_init(&snapshot->full);
	bio_list_init(&snapshot->todo);
	init_waitqueue_head(&snapshot->idle);
	INIT_WORK(&snapshot->todo_work, todo_work);
	INIT_WORK(&snapshot->shed_work, shed_work);
	hrtimer_init(&snapshot->gather, CLOCK_MONOTONIC, HRTIMER_MODE_REL);
	snapshot->gather.function = gather_end;
	snapshot->next = U64_MAX;

	snapshot->kept = kvcalloc(BITS_TO_LONGS(snapshot->blocks), sizeof(long), GFP_KERNEL);
	snapshot->seen = kvcalloc(BITS_TO_LONGS(snapshot->blocks), sizeof(long), GFP_KERNEL);
	if (!snapshot->kept || !snapshot->seen)
		return -ENOMEM;
	return table_init(&snapshot->table, snapshot->store.file.slots, buckets) ?:
	       store_prepare(snapshot, ring_slots(sets_volumes)) ?:
	       alloc_done_lists(snapshot) ?:
	       bioset_init(&snapshot->copies, 64, offsetof(struct copy, bio),
			   BIOSET_NEED_BVECS);
}

void cow_exempt(struct snapshot *snapshot, u64 block, u64 count)
{
	u64 i, end = min(block + count, snapshot->blocks);

	for (i = block; i < end; i++) {
		if (__test_and_set_bit(i, snapshot->seen))
			continue;
		set_bit(i, snapshot->kept);
		snapshot->exempt++;
	}
}

void cow_stop(struct snapshot *snapshot)
{
	int cpu;

	spin_lock(&snapshot->lock);
	WRITE_ONCE(snapshot->live, false);
	cow_room_locked(snapshot);
	spin_unlock(&snapshot->lock);
	/* Nobody comes any more; who is here already is let go. */
	intercept_remove(snapshot);
	spin_lock(&snapshot->lock);
	cow_room_locked(snapshot);
	spin_unlock(&snapshot->lock);
	wait_until_idle(snapshot);
	flush_work(&snapshot->shed_work);
	for_each_possible_cpu(cpu)
		flush_work(&per_cpu_ptr(snapshot->done, cpu)->work);
	flush_work(&snapshot->todo_work);
}

void cow_release(struct snapshot *snapshot)
{
	store_release(snapshot);
	free_kept(snapshot);
	bioset_exit(&snapshot->copies);
	free_percpu(snapshot->done);
	snapshot->done = NULL;
}

u64 cow_blocks_kept(const struct snapshot *snapshot)
{
	return READ_ONCE(snapshot->store.next);
}

size_t cow_memory(const struct snapshot *snapshot)
{
	if (READ_ONCE(snapshot->shed))
		return 0;
	return 2 * sizeof(long) * BITS_TO_LONGS(snapshot->blocks) +
	       table_memory(&snapshot->table) + store_memory(&snapshot->store);
}

int cow_init(void)
{
	here_queue = alloc_workqueue("mirelsnap_here", WQ_MEM_RECLAIM | WQ_HIGHPRI, 0);
	any_queue = alloc_workqueue("mirelsnap_any", WQ_MEM_RECLAIM | WQ_HIGHPRI | WQ_UNBOUND, 0);
	todo_queue = alloc_workqueue("mirelsnap_todo", WQ_MEM_RECLAIM | WQ_UNBOUND, 0);
	if (here_queue && any_queue && todo_queue)
		return 0;
	cow_exit();
	return -ENOMEM;
}

void cow_exit(void)
{
	if (here_queue)
		destroy_workqueue(here_queue);
	if (any_queue)
		destroy_workqueue(any_queue);
	if (todo_queue)
		destroy_workqueue(todo_queue);
}
