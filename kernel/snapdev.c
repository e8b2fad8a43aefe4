// SPDX-License-Identifier: GPL-2.0-only
/*
 * Reading a snapshot.
 *
 * A block that is not kept is read from the volume, then its mark is looked at
 * again: if it was set meanwhile, the kept content is taken instead.  That is
 * enough, since no write is let go before the mark of its blocks.  No lock is
 * shared with writers.
 */
#include <linux/blk-mq.h>
#include <linux/module.h>
#include "cow.h"
#include "snapdev.h"

/* Where the leading part of a read is found. */
struct place {
	enum { ORIGIN, ZEROES, MEMORY, RELOC_FILE } kind;
	unsigned int sectors;	/* that are found there */
	u32 slot;
	u32 skip;		/* sectors into the slot */
};

static struct workqueue_struct *again_queue;

static u64 first_block(const struct bio *bio)
{
	return bio->bi_iter.bi_sector >> COW_SHIFT;
}

static u64 end_block(struct bio *bio)
{
	return (bio_end_sector(bio) + COW_SECTORS - 1) >> COW_SHIFT;
}

/* How many blocks from `block` on are kept in slots that follow one another. */
static u64 kept_together(struct snapshot *snapshot, u64 block, u64 end, u32 slot)
{
	u64 next;

	for (next = block + 1; next < end && test_bit(next, snapshot->kept); next++) {
		u32 expected = slot == NO_SLOT ? NO_SLOT : slot + (next - block);

		smp_rmb();	/* the mark before the table */
		if (table_find(&snapshot->table, next) != expected)
			break;
	}
	return next - block;
}

static void find_place(struct snapshot *snapshot, struct bio *bio, struct place *place)
{
	u64 block = first_block(bio), end = end_block(bio), blocks;
	u32 tail, together;

	place->skip = bio->bi_iter.bi_sector & (COW_SECTORS - 1);
	if (!test_bit(block, snapshot->kept)) {
		place->kind = ORIGIN;
		blocks = find_next_bit(snapshot->kept, end, block) - block;
	} else {
		smp_rmb();	/* the mark before the table */
		place->slot = table_find(&snapshot->table, block);
		blocks = kept_together(snapshot, block, end, place->slot);
		tail = smp_load_acquire(&snapshot->store.tail);
		if (place->slot == NO_SLOT) {
			place->kind = ZEROES;	/* a relocation file's: nobody wants it */
		} else if (place->slot >= tail) {
			place->kind = MEMORY;
		} else {
			place->kind = RELOC_FILE;
			reloc_file_sector(&snapshot->store.file, place->slot, &together);
			blocks = min3(blocks, (u64)together, (u64)(tail - place->slot));
		}
	}
	place->sectors = min_t(u64, bio_sectors(bio), (blocks << COW_SHIFT) - place->skip);
}

static void read_end(struct bio *clone)
{
	struct bio *bio = clone->bi_private;
	struct snapshot *snapshot = bio->bi_bdev->bd_disk->private_data;

	bio->bi_status = READ_ONCE(snapshot->live) ? clone->bi_status : BLK_STS_IOERR;
	bio_put(clone);
	bio_endio(bio);
	done_one(snapshot, &snapshot->reads);
}

/* What was read of the volume counts only if nobody has written since. */
static void origin_read_end(struct bio *clone)
{
	struct bio *bio = clone->bi_private;
	struct snapshot *snapshot = bio->bi_bdev->bd_disk->private_data;
	u64 block = first_block(bio), end = end_block(bio);
	unsigned long flags;

	smp_mb();	/* the content was read before the marks are looked at again */
	if (!READ_ONCE(snapshot->live) ||
	    find_next_bit(snapshot->kept, end, block) >= end) {
		read_end(clone);
		return;
	}
	bio_put(clone);
	spin_lock_irqsave(&snapshot->again_lock, flags);
	bio_list_add(&snapshot->again, bio);
	spin_unlock_irqrestore(&snapshot->again_lock, flags);
	queue_work(again_queue, &snapshot->again_work);
}

static void submit_clone(struct snapshot *snapshot, struct bio *bio, const struct place *place)
{
	bool file = place->kind == RELOC_FILE;
	struct block_device *bdev = file ? snapshot->store.file.bdev : snapshot->bdev;
	struct bio *clone = bio_alloc_clone(bdev, bio, GFP_NOIO, &snapshot->clones);
	u32 together;

	if (file)
		clone->bi_iter.bi_sector = place->skip +
			reloc_file_sector(&snapshot->store.file, place->slot, &together);
	clone->bi_end_io = file ? read_end : origin_read_end;
	clone->bi_private = bio;
	atomic_inc(&snapshot->reads);
	submit_bio_noacct(clone);
}

static void serve(struct snapshot *snapshot, struct bio *bio)
{
	struct place place;

	if (!READ_ONCE(snapshot->live)) {
		bio_io_error(bio);
		return;
	}
	for (;;) {
		find_place(snapshot, bio, &place);
		if (place.sectors < bio_sectors(bio)) {
			struct bio *part = bio_split(bio, place.sectors, GFP_NOIO,
						     &snapshot->splits);

			bio_chain(part, bio);
			submit_bio_noacct(bio);	/* the rest comes as a read of its own */
			bio = part;
		}
		switch (place.kind) {
		case ZEROES:
			zero_fill_bio(bio);
			bio_endio(bio);
			return;
		case MEMORY:
			if (!store_copy(&snapshot->store, bio, place.slot, place.skip << SECTOR_SHIFT))
				continue;	/* the file has it by now */
			bio_endio(bio);
			return;
		default:
			submit_clone(snapshot, bio, &place);
			return;
		}
	}
}

static void again_work(struct work_struct *work)
{
	struct snapshot *snapshot = container_of(work, struct snapshot, again_work);
	struct bio_list bios;
	struct bio *bio;

	spin_lock_irq(&snapshot->again_lock);
	bios = snapshot->again;
	bio_list_init(&snapshot->again);
	spin_unlock_irq(&snapshot->again_lock);
	while ((bio = bio_list_pop(&bios))) {
		serve(snapshot, bio);
		done_one(snapshot, &snapshot->reads);
	}
}

static void snapdev_submit(struct bio *bio)
{
	if (bio_op(bio) == REQ_OP_READ)
		serve(bio->bi_bdev->bd_disk->private_data, bio);
	else
		bio_io_error(bio);
}

static const struct block_device_operations snapdev_operations = {
	.owner		= THIS_MODULE,
	.submit_bio	= snapdev_submit,
};

bool snapdev_is(const struct gendisk *disk)
{
	return disk->fops == &snapdev_operations;
}

int snapdev_prepare(struct snapshot *snapshot)
{
	struct gendisk *disk;
	int result;

	bio_list_init(&snapshot->again);
	spin_lock_init(&snapshot->again_lock);
	INIT_WORK(&snapshot->again_work, again_work);
	result = bioset_init(&snapshot->clones, 64, 0, 0) ?:
		 bioset_init(&snapshot->splits, 64, 0, BIOSET_NEED_BVECS);
	if (result)
		return result;
	disk = alloc_disk_like(snapshot->bdev);
	if (!disk)
		return -ENOMEM;
	disk->flags |= GENHD_FL_NO_PART;
	disk->fops = &snapdev_operations;
	disk->private_data = snapshot;
	snprintf(disk->disk_name, sizeof(disk->disk_name), "snap%u_%u", MAJOR(snapshot->dev),
		 MINOR(snapshot->dev));
	set_capacity(disk, snapshot->sectors);
	set_disk_ro(disk, true);
	snapshot->disk = disk;
	return 0;
}

int snapdev_add(struct snapshot *snapshot)
{
	return add_disk(snapshot->disk);
}

static void wait_for_reads(struct snapshot *snapshot)
{
	wait_event(snapshot->idle, !atomic_read(&snapshot->reads));
	flush_work(&snapshot->again_work);
}

void snapdev_wait(struct snapshot *snapshot)
{
	/* Those that are being submitted. */
	blk_mq_freeze_queue(snapshot->disk->queue);
	blk_mq_unfreeze_queue(snapshot->disk->queue);
	wait_for_reads(snapshot);
}

void snapdev_remove(struct snapshot *snapshot)
{
	del_gendisk(snapshot->disk);
	wait_for_reads(snapshot);
}

void snapdev_release(struct snapshot *snapshot)
{
	if (snapshot->disk)
		put_disk(snapshot->disk);
	snapshot->disk = NULL;
	bioset_exit(&snapshot->splits);
	bioset_exit(&snapshot->clones);
}

int snapdev_init(void)
{
	again_queue = alloc_workqueue("mirelsnap_again", WQ_MEM_RECLAIM, 0);
	return again_queue ? 0 : -ENOMEM;
}

void snapdev_exit(void)
{
	destroy_workqueue(again_queue);
}
