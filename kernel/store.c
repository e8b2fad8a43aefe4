// SPDX-License-Identifier: GPL-2.0-only
#define pr_fmt(fmt) "mirelsnap: " fmt

#include <linux/highmem.h>
#include <linux/mm.h>
#include <linux/slab.h>
#include "cow.h"
#include "inject.h"

#define RING_ORDER	3			/* pages that lie together */
#define RING_CHUNK	(1u << RING_ORDER)
#define BATCH		256u			/* slots that a write into the file waits for */
#define MOST		(4 * BATCH)		/* slots under way to the file at once */

static_assert(COW_BYTES == PAGE_SIZE);

static u32 ring_mask(const struct store *store)
{
	return store->ring - 1;
}

static void *ring_address(const struct store *store, u32 slot)
{
	u32 at = slot & ring_mask(store);

	return page_address(store->pages[at >> RING_ORDER]) +
	       (at & (RING_CHUNK - 1)) * COW_BYTES;
}

unsigned int store_segments(u32 slots)
{
	return (slots >> RING_ORDER) + 2;
}

void store_add_pages(const struct store *store, struct bio *bio, u32 slot, u32 bytes)
{
	while (bytes) {
		u32 at = slot & ring_mask(store), in_chunk = at & (RING_CHUNK - 1);
		u32 length = min(bytes, (RING_CHUNK - in_chunk) * COW_BYTES);

		__bio_add_page(bio, store->pages[at >> RING_ORDER] + in_chunk, length, 0);
		bytes -= length;
		slot += length / COW_BYTES;
	}
}

bool store_copy(const struct store *store, struct bio *bio, u32 slot, u32 skip)
{
	struct bvec_iter iter;
	struct bio_vec vec;
	u32 position = skip;

	bio_for_each_segment(vec, bio, iter) {
		char *to = bvec_kmap_local(&vec);
		u32 done = 0;

		while (done < vec.bv_len) {
			u32 offset = position % COW_BYTES;
			u32 length = min(vec.bv_len - done, COW_BYTES - offset);

			memcpy(to + done,
			       ring_address(store, slot + position / COW_BYTES) + offset, length);
			done += length;
			position += length;
		}
		kunmap_local(to);
	}
	smp_rmb();	/* the content was read before the tail is looked at again */
	return slot >= READ_ONCE(store->tail);
}

u32 store_room(struct snapshot *snapshot)
{
	struct store *store = &snapshot->store;
	u32 in_memory = store->ring - (store->next - store->tail);
	u32 in_table = smp_load_acquire(&snapshot->table.room) - store->next;

	/* The table gets its next piece long before this one is used up. */
	if (in_table < BATCH && snapshot->table.room < snapshot->table.slots)
		store_kick(snapshot);
	return min(in_memory, in_table);
}

bool store_is_full(const struct snapshot *snapshot)
{
	return snapshot->store.next == snapshot->store.file.slots;
}

void store_kick(struct snapshot *snapshot)
{
	queue_work(snapshot->store.queue, &snapshot->store.work);
}

void store_filled(struct snapshot *snapshot, u32 slot, u32 count)
{
	struct store *store = &snapshot->store;
	u32 at = slot & ring_mask(store), first = min(count, store->ring - at);

	bitmap_set(store->filled, at, first);
	bitmap_set(store->filled, 0, count - first);
	store->nr_filled += count;
	if (store->nr_filled >= BATCH || !bio_list_empty(&snapshot->full))
		store_kick(snapshot);
}

/* ---- into the file ---- */

struct writing {
	struct completion done;
	atomic_t left;
	blk_status_t status;
};

static void write_end(struct bio *bio)
{
	struct writing *writing = bio->bi_private;

	if (bio->bi_status)
		writing->status = bio->bi_status;
	bio_put(bio);
	if (atomic_dec_and_test(&writing->left))
		complete(&writing->done);
}

bool store_is_own(const struct bio *bio)
{
	return bio->bi_end_io == write_end;
}

static int write_slots(struct store *store, u32 slot, u32 count)
{
	struct writing writing = { .left = ATOMIC_INIT(1) };
	struct blk_plug plug;

	init_completion(&writing.done);
	blk_start_plug(&plug);
	while (count) {
		sector_t sector;
		struct bio *bio;
		u32 some;

		sector = reloc_file_sector(&store->file, slot, &some);
		some = min3(some, count, COW_RUN);
		bio = bio_alloc_bioset(store->file.bdev, store_segments(some), REQ_OP_WRITE,
				       GFP_NOIO, &store->bios);
		bio->bi_iter.bi_sector = sector;
		store_add_pages(store, bio, slot, some * COW_BYTES);
		bio->bi_end_io = write_end;
		bio->bi_private = &writing;
		atomic_inc(&writing.left);
		submit_bio_noacct(bio);
		slot += some;
		count -= some;
	}
	blk_finish_plug(&plug);
	if (atomic_dec_and_test(&writing.left))
		complete(&writing.done);
	wait_for_completion_io(&writing.done);
	return blk_status_to_errno(writing.status);
}

/*
 * The filled slots from the tail on that are to be written now.  Only whole
 * batches, but for the last before the ring's end, and when somebody waits.
 */
static u32 slots_to_write(struct snapshot *snapshot)
{
	struct store *store = &snapshot->store;
	u32 at = store->tail & ring_mask(store), count;

	if (!snapshot->live)
		return 0;
	count = find_next_zero_bit(store->filled, min(store->ring, at + MOST), at) - at;
	if (count > BATCH && at + count < store->ring)
		return rounddown(count, BATCH);
	if (count < BATCH && at + count < store->ring && bio_list_empty(&snapshot->full))
		return 0;
	return count;
}

static void grow_table(struct snapshot *snapshot)
{
	struct store *store = &snapshot->store;
	struct table *table = &snapshot->table;

	/* As much as can be asked for before this is called again. */
	while (READ_ONCE(snapshot->live) && table->room < table->slots &&
	       table->room - READ_ONCE(store->next) < store->ring) {
		if (!inject(INJECT_TABLE) &&
		    !table_grow(table, GFP_NOIO | __GFP_NORETRY | __GFP_NOWARN))
			continue;
		/* What there is is used before giving up. */
		if (table->room == READ_ONCE(store->next))
			cow_break(snapshot, -ENOMEM);
		return;
	}
}

static void store_work(struct work_struct *work)
{
	struct snapshot *snapshot = container_of(work, struct snapshot, store.work);
	struct store *store = &snapshot->store;

	for (;;) {
		u32 count;
		int error;

		grow_table(snapshot);
		spin_lock(&snapshot->lock);
		count = slots_to_write(snapshot);
		/* Who waited for a piece of the table only is let go too. */
		if (!bio_list_empty(&snapshot->full) && store_room(snapshot))
			cow_room_locked(snapshot);
		spin_unlock(&snapshot->lock);
		if (!count)
			return;

		error = write_slots(store, store->tail, count);
		spin_lock(&snapshot->lock);
		if (error) {
			/* The tail stays: what is in memory is right, and is not overwritten. */
			cow_break_locked(snapshot, error);
		} else {
			bitmap_clear(store->filled, store->tail & ring_mask(store), count);
			store->nr_filled -= count;
			smp_store_release(&store->tail, store->tail + count);
			cow_room_locked(snapshot);
		}
		spin_unlock(&snapshot->lock);
	}
}

/* ---- life ---- */

static int alloc_ring(struct store *store)
{
	u32 i, chunks = store->ring >> RING_ORDER;

	store->pages = kvcalloc(chunks, sizeof(*store->pages), GFP_KERNEL);
	store->readers = kvcalloc(store->ring, sizeof(*store->readers), GFP_KERNEL);
	store->filled = kvcalloc(BITS_TO_LONGS(store->ring), sizeof(long), GFP_KERNEL);
	if (!store->pages || !store->readers || !store->filled)
		return -ENOMEM;
	for (i = 0; i < chunks; i++) {
		store->pages[i] = alloc_pages(GFP_KERNEL | __GFP_ZERO | __GFP_NOWARN, RING_ORDER);
		if (!store->pages[i])
			return -ENOMEM;
	}
	return 0;
}

int store_prepare(struct snapshot *snapshot, u32 ring)
{
	struct store *store = &snapshot->store;
	int result;

	store->ring = clamp(roundup_pow_of_two(store->file.slots), RING_CHUNK, ring);
	INIT_WORK(&store->work, store_work);
	store->queue = alloc_ordered_workqueue("mirelsnap_store", WQ_MEM_RECLAIM);
	if (!store->queue)
		return -ENOMEM;
	result = bioset_init(&store->bios, 8, 0, BIOSET_NEED_BVECS);
	return result ?: alloc_ring(store);
}

void store_free_ring(struct store *store)
{
	u32 i;

	for (i = 0; store->pages && i < store->ring >> RING_ORDER && store->pages[i]; i++)
		__free_pages(store->pages[i], RING_ORDER);
	kvfree(store->pages);
	kvfree(store->readers);
	kvfree(store->filled);
	store->pages = NULL;
	store->readers = NULL;
	store->filled = NULL;
}

void store_release(struct snapshot *snapshot)
{
	struct store *store = &snapshot->store;

	if (store->queue)
		destroy_workqueue(store->queue);
	store->queue = NULL;
	bioset_exit(&store->bios);
	store_free_ring(store);
}

size_t store_memory(const struct store *store)
{
	return store->ring * (COW_BYTES + sizeof(*store->readers)) + store->ring / 8 +
	       store->file.nr_extents * sizeof(*store->file.extents);
}
