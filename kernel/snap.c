// SPDX-License-Identifier: GPL-2.0-only
/*
 * Taking the snapshots of a set, and discarding them.
 *
 * All that can fail is done before the file systems stand still: inside, every
 * volume is switched on, and nothing else happens.
 */
#define pr_fmt(fmt) "mirelsnap: " fmt

#include <linux/ktime.h>
#include <linux/module.h>
#include <linux/slab.h>
#include "cow.h"
#include "freeze.h"
#include "intercept.h"
#include "log.h"
#include "snapdev.h"
#include "tracking.h"
#include "volumes.h"

/* The snapshots of one command, in its order. */
struct set {
	struct ms_request *rq;
	u32 count;
	struct snapshot **snapshots;
	struct ms_snap_entry **entries;		/* in the command's buffer */
	struct block_device **volumes;
};

/*
 * One snap at a time: each sees the relocation files of all before it, and
 * leaves them out.
 */
static DEFINE_MUTEX(snap_lock);

/* ---- a set's memory ---- */

static void free_set(struct set *set)
{
	kvfree(set->snapshots);
	kvfree(set->entries);
	kvfree(set->volumes);
}

static struct snapshot *new_snapshot(const struct ms_snap_entry *entry)
{
	struct snapshot *snapshot = kzalloc(sizeof(*snapshot), GFP_KERNEL);

	if (!snapshot)
		return NULL;
	snapshot->phase = SNAPSHOT_COMING;
	snapshot->entry = *entry;
	snapshot->dev = volume_dev(entry->volume_major, entry->volume_minor);
	__module_get(THIS_MODULE);
	return snapshot;
}

static int alloc_set(struct set *set)
{
	u32 i, position = 0;

	set->count = set->rq->header->request_value;
	set->snapshots = kvcalloc(set->count, sizeof(*set->snapshots), GFP_KERNEL);
	set->entries = kvcalloc(set->count, sizeof(*set->entries), GFP_KERNEL);
	set->volumes = kvcalloc(set->count, sizeof(*set->volumes), GFP_KERNEL);
	if (!set->snapshots || !set->entries || !set->volumes)
		return -ENOMEM;
	for (i = 0; i < set->count; i++) {
		set->entries[i] = next_snap_entry(set->rq, &position);
		set->snapshots[i] = new_snapshot(set->entries[i]);
		if (!set->snapshots[i])
			return -ENOMEM;
		INIT_LIST_HEAD(&set->snapshots[i]->list);
	}
	return 0;
}

/* ---- what must hold before ---- */

static const char *device_text(const struct snapshot *snapshot, char *text, size_t size)
{
	snprintf(text, size, "%u:%u", snapshot->entry.volume_major, snapshot->entry.volume_minor);
	return text;
}

/* None is snapped already: then they are claimed, in this order. */
static int claim(struct set *set)
{
	int result = 0;
	char text[24];
	u32 i;

	mutex_lock(&volumes_lock);
	for (i = 0; i < set->count && !result; i++)
		if (find_snapshot(set->snapshots[i]->dev))
			result = refuse_as(set->rq, -EBUSY,
					   set->count == 1 ? MS_SNAPPED : MS_ONE_IS_SNAPPED,
					   "the volume %s is snapped already",
					   device_text(set->snapshots[i], text, sizeof(text)));
	for (i = 0; i < set->count && !result; i++)
		list_add_tail(&set->snapshots[i]->list, &snapshots);
	mutex_unlock(&volumes_lock);
	return result;
}

static int open_origin(struct ms_request *rq, struct snapshot *snapshot)
{
	const struct ms_snap_entry *entry = &snapshot->entry;
	char text[24];
	u64 blocks;
	int result;

	device_text(snapshot, text, sizeof(text));
	result = volume_open(rq, &snapshot->volume, entry->volume_major, entry->volume_minor);
	if (result)
		return result;
	snapshot->bdev = snapshot->volume.bdev;
	snapshot->origin = snapshot->bdev->bd_disk;
	snapshot->start = snapshot->bdev->bd_start_sect;
	snapshot->sectors = bdev_nr_sectors(snapshot->bdev);
	snapshot->blocks = DIV_ROUND_UP_ULL(snapshot->sectors, COW_SECTORS);

	blocks = snapshot->sectors / (entry->block_size >> SECTOR_SHIFT);
	if (blocks != entry->num_blocks)
		return refuse_as(rq, -ESTALE, MS_SIZE_CHANGED,
				 "the volume %s has %llu blocks of %u bytes, not %llu", text,
				 blocks, entry->block_size, entry->num_blocks);
	if (snapdev_is(snapshot->origin) || bdev_is_zoned(snapshot->bdev) ||
	    takes_pages(snapshot->origin))
		return refuse(rq, -EOPNOTSUPP,
			      "the volume %s is a snapshot, is zoned, or is written past the block layer",
			      text);
	if (snapshot->blocks > TABLE_MOST_BLOCKS)
		return refuse(rq, -EFBIG, "the volume %s is too large", text);
	return 0;
}

static int check_mapped(struct set *set)
{
	int result = 0;
	u32 i;

	mutex_lock(&volumes_lock);
	for (i = 0; i < set->count && !result; i++) {
		const struct ms_snap_entry *entry = set->entries[i];

		if (!has_mapping(entry))
			result = refuse(set->rq, -EINVAL,
					"process %u has no mapping from %.64s to %.64s",
					entry->app_pid, entry->volume_name,
					entry->reloc_file_name);
	}
	mutex_unlock(&volumes_lock);
	return result;
}

static int check_set(struct set *set)
{
	int result = 0;
	u32 i;

	for (i = 0; i < set->count && !result; i++)
		result = open_origin(set->rq, set->snapshots[i]);
	result = result ?: check_mapped(set);
	for (i = 0; i < set->count && !result; i++)
		result = reloc_file_open(set->rq, set->entries[i],
					 &set->snapshots[i]->store.file);
	return result;
}

/* ---- what must be there before ---- */

/* Sectors of the snapshot's volume; blocks that lie in them as a whole count. */
static void exempt_sectors(struct snapshot *snapshot, sector_t first, sector_t count)
{
	u64 block = (first + COW_SECTORS - 1) >> COW_SHIFT;
	u64 end = (first + count) >> COW_SHIFT;

	if (block < end)
		cow_exempt(snapshot, block, end - block);
}

static void exempt_runs(struct snapshot *snapshot, struct ms_snap_entry *entry)
{
	unsigned int shift = ilog2(entry->block_size) - SECTOR_SHIFT;
	const struct ms_run *run = entry_runs(entry), *end = run + entry->num_runs;

	for (; run < end; run++)
		exempt_sectors(snapshot, run->start_block << shift, run->num_blocks << shift);
}

/* The store of `other`, where it lies on the snapshot's volume. */
static void exempt_store(struct snapshot *snapshot, const struct snapshot *other)
{
	const struct reloc_file *file = &other->store.file;
	sector_t end = snapshot->start + snapshot->sectors;
	u32 slot, together;

	if (!file->slots || file->bdev->bd_disk != snapshot->origin)
		return;
	for (slot = 0; slot < file->slots; slot += together) {
		sector_t first = reloc_file_sector(file, slot, &together) +
				 file->bdev->bd_start_sect;
		sector_t last = min(first + ((sector_t)together << COW_SHIFT), end);

		first = max(first, snapshot->start);
		if (first < last)
			exempt_sectors(snapshot, first - snapshot->start, last - first);
	}
}

/*
 * Relocation files are not kept: neither those that the command names, nor
 * those of snapshots that are held, nor those of the set itself.  So stores
 * wait for older snapshots at most, and never for each other.
 */
static void exempt_stores(struct set *set, u32 index)
{
	struct snapshot *snapshot = set->snapshots[index], *other;
	u32 i;

	exempt_runs(snapshot, set->entries[index]);
	for (i = 0; i < set->count; i++)
		exempt_store(snapshot, set->snapshots[i]);
	mutex_lock(&volumes_lock);
	list_for_each_entry(other, &snapshots, list)
		if (other->phase == SNAPSHOT_HELD)
			exempt_store(snapshot, other);
	mutex_unlock(&volumes_lock);
}

static int prepare(struct set *set, struct snapshot *snapshot)
{
	int result = cow_prepare(snapshot, set->count);

	snapshot->prepared = !result;
	result = result ?: snapdev_prepare(snapshot) ?: tracking_prepare(snapshot);
	if (result)
		return refuse(set->rq, result, "no memory for the snapshot of %.64s (error %d)",
			      snapshot->entry.volume_name, -result);
	return 0;
}

static int prepare_set(struct set *set)
{
	int result = 0;
	u32 i;

	for (i = 0; i < set->count && !result; i++)
		result = reloc_file_map(set->rq, set->entries[i], &set->snapshots[i]->store.file);
	for (i = 0; i < set->count && !result; i++)
		result = prepare(set, set->snapshots[i]);
	for (i = 0; i < set->count && !result; i++) {
		exempt_stores(set, i);
		result = intercept_add(set->snapshots[i]);
		if (result)
			refuse(set->rq, result, "writes cannot be seen: error %d", -result);
	}
	return result;
}

/* ---- the instant ---- */

static void switch_on(struct snapshot *snapshot, const struct timespec64 *instant)
{
	struct tracking *tracking = rcu_dereference_raw(snapshot->tracking);

	snapshot->instant = *instant;
	spin_lock(&snapshot->lock);
	WRITE_ONCE(snapshot->live, true);
	spin_unlock(&snapshot->lock);
	if (tracking)
		WRITE_ONCE(tracking->on, true);
}

static int take_set(struct set *set)
{
	struct standstill standstill;
	struct block_device *failed = NULL;
	struct timespec64 instant;
	ktime_t start;
	int result;
	s64 length;
	u32 i;

	for (i = 0; i < set->count; i++) {
		set->volumes[i] = set->snapshots[i]->bdev;
		/* Leaves little to be written while they stand still. */
		sync_blockdev(set->volumes[i]);
	}
	result = inside_out(set->volumes, set->count);
	if (result)
		return refuse(set->rq, result, "no memory for %u volumes", set->count);
	start = ktime_get();
	result = standstill_begin(&standstill, set->volumes, set->count, &failed);
	if (!result) {
		ktime_get_real_ts64(&instant);
		for (i = 0; i < set->count; i++)
			switch_on(set->snapshots[i], &instant);
		result = standstill_end(&standstill);
	}
	length = ktime_to_ns(ktime_sub(ktime_get(), start));
	for (i = 0; i < set->count; i++)
		set->snapshots[i]->frozen_ns = length;
	if (result == -ETIMEDOUT)
		return refuse(set->rq, result, "the volumes could not be held still long enough");
	if (result)
		return refuse(set->rq, result, "the file system on %u:%u cannot be frozen: error %d",
			      MAJOR(failed->bd_dev), MINOR(failed->bd_dev), -result);
	return 0;
}

static int show_set(struct set *set)
{
	u32 i;

	for (i = 0; i < set->count; i++) {
		int result = snapdev_add(set->snapshots[i]);

		if (result)
			return refuse(set->rq, result, "the disk %s cannot be made: error %d",
				      set->snapshots[i]->disk->disk_name, -result);
		WRITE_ONCE(set->snapshots[i]->added, true);
	}
	mutex_lock(&volumes_lock);
	for (i = 0; i < set->count; i++) {
		set->snapshots[i]->phase = SNAPSHOT_HELD;
		tracking_started(set->snapshots[i]);
	}
	mutex_unlock(&volumes_lock);
	return 0;
}

static void undo_set(struct set *set)
{
	u32 i;

	for (i = set->count; i-- > 0;)
		if (set->snapshots && set->snapshots[i])
			snapshot_end(set->snapshots[i]);
}

int do_snap(struct ms_request *rq)
{
	struct set set = { .rq = rq };
	int result;

	if (mutex_lock_killable(&snap_lock))
		return refuse(rq, -EINTR, "killed while another snap was under way");
	result = alloc_set(&set);
	if (result)
		refuse(rq, result, "no memory for %u volumes", rq->header->request_value);
	result = result ?: claim(&set) ?: check_set(&set) ?: prepare_set(&set) ?:
		 take_set(&set) ?: show_set(&set);
	if (result)
		undo_set(&set);
	else
		log_info("%u volumes from %s on snapped by process %u\n", set.count,
			 set.entries[0]->volume_name, set.entries[0]->app_pid);
	free_set(&set);
	mutex_unlock(&snap_lock);
	return result;
}

/* ---- the end ---- */

void snapshot_end(struct snapshot *snapshot)
{
	if (snapshot->prepared)
		cow_stop(snapshot);
	tracking_release(snapshot);
	if (snapshot->added)
		snapdev_remove(snapshot);
	mutex_lock(&volumes_lock);
	list_del(&snapshot->list);
	if (snapshot->phase == SNAPSHOT_GOING)
		drop_mappings(snapshot->entry.app_pid, snapshot->entry.volume_name);
	mutex_unlock(&volumes_lock);

	/* Who counted down last may still be about to wake us; see done_one(). */
	if (snapshot->prepared)
		synchronize_rcu();
	snapdev_release(snapshot);
	cow_release(snapshot);
	reloc_file_close(&snapshot->store.file);
	volume_close(&snapshot->volume);
	kfree(snapshot);
	module_put(THIS_MODULE);
}

/* All are held: then all are on their way out. */
static int begin_discard(struct ms_request *rq, struct snapshot **going)
{
	struct ms_discard *entry = rq_record(rq, struct ms_discard, 0);
	u32 i, count = rq->header->request_value;
	int result = 0;

	mutex_lock(&volumes_lock);
	for (i = 0; i < count && !result; i++) {
		going[i] = find_held(volume_dev(entry[i].major_num, entry[i].minor_num));
		if (!going[i])
			result = refuse_as(rq, -ENOENT,
					   count == 1 ? MS_NOT_SNAPPED : MS_ONE_IS_NOT_SNAPPED,
					   "the volume %u:%u is not snapped", entry[i].major_num,
					   entry[i].minor_num);
	}
	for (i = 0; i < count && !result; i++)
		going[i]->phase = SNAPSHOT_GOING;
	mutex_unlock(&volumes_lock);
	return result;
}

/*
 * All or none: when one of several is not snapped, nothing is discarded and
 * the records stay as they came.
 */
int do_discard(struct ms_request *rq)
{
	struct ms_discard *entry = rq_record(rq, struct ms_discard, 0);
	u32 i, count = rq->header->request_value;
	struct snapshot **going = kvcalloc(count, sizeof(*going), GFP_KERNEL);
	int result;

	if (!going)
		return refuse(rq, -ENOMEM, "no memory to discard %u snapshots", count);
	result = begin_discard(rq, going);
	for (i = 0; i < count && !result; i++) {
		entry[i].result = 0;
		strscpy(entry[i].reloc_file_name, going[i]->entry.reloc_file_name, MS_PATH_SIZE);
		snapshot_end(going[i]);
		log_info("the snapshot of %u:%u is discarded\n", entry[i].major_num,
			 entry[i].minor_num);
	}
	kvfree(going);
	return result;
}
