// SPDX-License-Identifier: GPL-2.0-only
#include <linux/log2.h>
#include <linux/mm.h>
#include <linux/slab.h>
#include <linux/string.h>
#include "tracking.h"
#include "volumes.h"

/* More than user space needs to tell which blocks of a volume are in use. */
#define MOST_USED_RUNS	(1u << 20)

/* ---- numbers of trackings, which outlive snapshots ---- */

struct sequence {
	struct list_head list;
	dev_t dev;
	u32 number;		/* of the last tracking */
};

static LIST_HEAD(sequences);	/* under volumes_lock */

static struct sequence *find_sequence(dev_t dev)
{
	struct sequence *sequence;

	list_for_each_entry(sequence, &sequences, list)
		if (sequence->dev == dev)
			return sequence;
	sequence = kzalloc(sizeof(*sequence), GFP_KERNEL);
	if (sequence) {
		sequence->dev = dev;
		list_add(&sequence->list, &sequences);
	}
	return sequence;
}

/* The number that a tracking gets if it starts; 0: no memory. */
static u32 next_number(dev_t dev)
{
	struct sequence *sequence;
	u32 number;

	mutex_lock(&volumes_lock);
	sequence = find_sequence(dev);
	number = sequence ? sequence->number + 1 : 0;
	mutex_unlock(&volumes_lock);
	return number;
}

void tracking_started(const struct snapshot *snapshot)
{
	struct tracking *tracking = rcu_dereference_protected(
		snapshot->tracking, lockdep_is_held(&volumes_lock));

	if (tracking)
		find_sequence(snapshot->dev)->number = tracking->sequence_number;
}

void tracking_exit(void)
{
	struct sequence *sequence, *next;

	list_for_each_entry_safe(sequence, next, &sequences, list)
		kfree(sequence);
}

/* ---- noting ---- */

int tracking_prepare(struct snapshot *snapshot)
{
	const struct ms_snap_entry *entry = &snapshot->entry;
	struct tracking *tracking;

	if (!entry->vtrack_request || entry->independent_snapshot_request)
		return 0;
	tracking = kzalloc(sizeof(*tracking), GFP_KERNEL);
	if (!tracking)
		return -ENOMEM;
	rcu_assign_pointer(snapshot->tracking, tracking);
	tracking->blocks = entry->num_blocks;
	tracking->sector_shift = ilog2(entry->block_size) - SECTOR_SHIFT;
	tracking->sequence_number = next_number(snapshot->dev);
	tracking->changed = kvcalloc(BITS_TO_LONGS(tracking->blocks), sizeof(long), GFP_KERNEL);
	return tracking->changed && tracking->sequence_number ? 0 : -ENOMEM;
}

static void free_tracking(struct tracking *tracking)
{
	if (!tracking)
		return;
	kvfree(tracking->changed);
	kvfree(tracking->used);
	kfree(tracking);
}

/* Nobody notes any more. */
void tracking_release(struct snapshot *snapshot)
{
	free_tracking(rcu_dereference_raw(snapshot->tracking));
	RCU_INIT_POINTER(snapshot->tracking, NULL);
}

void tracking_note_bio(const struct snapshot *snapshot, struct tracking *tracking,
		       const struct bio *bio)
{
	sector_t first = bio->bi_iter.bi_sector, last;
	u64 block, end;

	if (store_is_own(bio))
		return;
	if (!bio_flagged((struct bio *)bio, BIO_REMAPPED))
		first += bio->bi_bdev->bd_start_sect;
	last = min(first + bio_sectors(bio), snapshot->start + snapshot->sectors);
	first = max(first, snapshot->start);
	if (first >= last)
		return;
	block = (first - snapshot->start) >> tracking->sector_shift;
	end = ((last - 1 - snapshot->start) >> tracking->sector_shift) + 1;
	for (end = min(end, tracking->blocks); block < end; block++)
		if (!test_bit(block, tracking->changed))
			set_bit(block, tracking->changed);
}

/* ---- commands ---- */

static struct tracking *tracking_of(const struct snapshot *snapshot)
{
	return rcu_dereference_protected(snapshot->tracking, lockdep_is_held(&volumes_lock));
}

/* Under volumes_lock. */
static int find_tracked(struct ms_request *rq, u32 major_num, u32 minor_num,
			struct snapshot **snapshot)
{
	*snapshot = find_held(volume_dev(major_num, minor_num));
	if (!*snapshot)
		return refuse_as(rq, -ENOENT, MS_NOT_SNAPPED, "the volume %u:%u is not snapped",
				 major_num, minor_num);
	if (!tracking_of(*snapshot))
		return refuse(rq, -ENODATA, "changes of the volume %u:%u are not tracked",
			      major_num, minor_num);
	return 0;
}

int do_check_tracked(struct ms_request *rq)
{
	const struct ms_volume_check *volume = rq_record(rq, struct ms_volume_check, 0);
	struct snapshot *snapshot;

	mutex_lock(&volumes_lock);
	snapshot = find_held(volume_dev(volume->major_num, volume->minor_num));
	rq->header->driver_status =
		snapshot && tracking_of(snapshot) ? MS_TRACKED : MS_NOT_TRACKED;
	mutex_unlock(&volumes_lock);
	return 0;
}

int do_tracking_vars(struct ms_request *rq)
{
	struct ms_tracking_vars *vars = rq_record(rq, struct ms_tracking_vars, 0);
	struct snapshot *snapshot;
	int result;

	mutex_lock(&volumes_lock);
	result = find_tracked(rq, vars->major_num, vars->minor_num, &snapshot);
	if (!result) {
		vars->sequence_number = tracking_of(snapshot)->sequence_number;
		strscpy(vars->guid, snapshot->entry.tracking_guid, sizeof(vars->guid));
	}
	mutex_unlock(&volumes_lock);
	return result;
}

/* What waits in the page cache of a volume without a file system is written. */
static int write_out(struct ms_request *rq, const struct ms_bitmap *bitmap)
{
	struct volume volume = {};
	int result = volume_open(rq, &volume, bitmap->major_num, bitmap->minor_num);

	if (result)
		return result;
	result = sync_blockdev(volume.bdev);
	volume_close(&volume);
	if (result)
		return refuse(rq, result, "the volume %u:%u cannot be synced: error %d",
			      bitmap->major_num, bitmap->minor_num, -result);
	return 0;
}

static void fill_runs(struct ms_request *rq, const struct tracking *tracking, u64 block)
{
	struct ms_bitmap *bitmap = rq_record(rq, struct ms_bitmap, 0);
	struct ms_run *run = rq_runs(rq), *end = run + bitmap->num_runs;

	block = find_next_bit(tracking->changed, tracking->blocks, block);
	while (block < tracking->blocks && run < end) {
		u64 next = find_next_zero_bit(tracking->changed, tracking->blocks, block);

		run->start_block = block;
		run->num_blocks = next - block;
		run++;
		block = find_next_bit(tracking->changed, tracking->blocks, next);
	}
	bitmap->update_type = block < tracking->blocks ? MS_UPDATE_CONTINUE : MS_UPDATE_WHOLE;
	bitmap->num_runs = run - rq_runs(rq);
}

int do_read_bitmap(struct ms_request *rq)
{
	const struct ms_bitmap *bitmap = rq_record(rq, struct ms_bitmap, 0);
	u64 first = bitmap->update_type == MS_UPDATE_CONTINUE && bitmap->num_runs ?
			    rq_runs(rq)->start_block : 0;
	struct snapshot *snapshot;
	int result;

	mutex_lock(&volumes_lock);
	result = find_tracked(rq, bitmap->major_num, bitmap->minor_num, &snapshot);
	mutex_unlock(&volumes_lock);
	result = result ?: write_out(rq, bitmap);
	if (result)
		return result;

	mutex_lock(&volumes_lock);
	result = find_tracked(rq, bitmap->major_num, bitmap->minor_num, &snapshot);
	if (!result && first > tracking_of(snapshot)->blocks)
		result = refuse(rq, -EINVAL, "block %llu lies behind the volume's %llu", first,
				tracking_of(snapshot)->blocks);
	if (!result)
		fill_runs(rq, tracking_of(snapshot), first);
	mutex_unlock(&volumes_lock);
	return result;
}

static int check_pushed(struct ms_request *rq, u64 blocks)
{
	const struct ms_bitmap *bitmap = rq_record(rq, struct ms_bitmap, 0);
	const struct ms_run *run = rq_runs(rq), *end = run + bitmap->num_runs;

	for (; run < end; run++)
		if (!run->num_blocks || run->start_block >= blocks ||
		    run->num_blocks > blocks - run->start_block)
			return refuse(rq, -EINVAL,
				      "a run (%llu + %llu blocks) does not lie in the volume's %llu",
				      run->start_block, run->num_blocks, blocks);
	return 0;
}

/* Instead of the runs pushed before, or beside them. */
static int keep_used(struct ms_request *rq, struct tracking *tracking)
{
	const struct ms_bitmap *bitmap = rq_record(rq, struct ms_bitmap, 0);
	u32 before = bitmap->update_type == MS_UPDATE_WHOLE ? 0 : tracking->nr_used;
	struct ms_run *used;

	if (before + bitmap->num_runs > MOST_USED_RUNS)
		return refuse(rq, -ENOSPC, "there are too many runs of blocks in use");
	used = kvmalloc_array(max(before + bitmap->num_runs, 1u), sizeof(*used), GFP_KERNEL);
	if (!used)
		return refuse(rq, -ENOMEM, "no memory for the runs of blocks in use");
	if (before)
		memcpy(used, tracking->used, before * sizeof(*used));
	memcpy(used + before, rq_runs(rq), bitmap->num_runs * sizeof(*used));
	kvfree(tracking->used);
	tracking->used = used;
	tracking->nr_used = before + bitmap->num_runs;
	return 0;
}

int do_push_bitmap(struct ms_request *rq)
{
	const struct ms_bitmap *bitmap = rq_record(rq, struct ms_bitmap, 0);
	struct snapshot *snapshot;
	int result;

	mutex_lock(&volumes_lock);
	result = find_tracked(rq, bitmap->major_num, bitmap->minor_num, &snapshot);
	if (!result)
		result = check_pushed(rq, tracking_of(snapshot)->blocks) ?:
			 keep_used(rq, tracking_of(snapshot));
	mutex_unlock(&volumes_lock);
	return result;
}

/*
 * Of those that are snapped, whatever the others are: user space takes the
 * refusal for success, as what is not snapped is not tracked either.
 */
int do_stop_tracking(struct ms_request *rq)
{
	const struct ms_volume *volume = rq_record(rq, struct ms_volume, 0);
	u32 i, count = rq->header->request_value;
	const struct ms_volume *unknown = NULL;

	for (i = 0; i < count; i++, volume++) {
		struct tracking *tracking = NULL;
		struct snapshot *snapshot;

		mutex_lock(&volumes_lock);
		snapshot = find_held(volume_dev(volume->major_num, volume->minor_num));
		if (snapshot)
			tracking = rcu_replace_pointer(snapshot->tracking, NULL,
						       lockdep_is_held(&volumes_lock));
		mutex_unlock(&volumes_lock);
		if (!snapshot && !unknown)
			unknown = volume;
		if (tracking) {
			synchronize_rcu();
			free_tracking(tracking);
		}
	}
	if (!unknown)
		return 0;
	return refuse_as(rq, -ENOENT, count == 1 ? MS_NOT_SNAPPED : MS_ONE_IS_NOT_SNAPPED,
			 "the volume %u:%u is not snapped", unknown->major_num,
			 unknown->minor_num);
}
