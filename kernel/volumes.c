// SPDX-License-Identifier: GPL-2.0-only
/*
 * The lists of snapshots and mappings, and the commands that ask for them.
 */
#define pr_fmt(fmt) "mirelsnap: " fmt

#include <linux/mm.h>
#include <linux/namei.h>
#include <linux/slab.h>
#include <linux/string.h>
#include "log.h"
#include "volumes.h"

DEFINE_MUTEX(volumes_lock);
LIST_HEAD(snapshots);
LIST_HEAD(mappings);

/* ---- volumes ---- */

bool volume_is_gone(const struct block_device *bdev)
{
	return !disk_live(bdev->bd_disk) || !bdev_nr_sectors((struct block_device *)bdev);
}

int volume_open(struct ms_request *rq, struct volume *volume, u32 major_num, u32 minor_num)
{
	dev_t dev = volume_dev(major_num, minor_num);
	int result = dev ? volume_open_dev(volume, dev) : -ENXIO;

	if (!result && volume_is_gone(volume->bdev)) {
		volume_close(volume);
		result = -ENXIO;
	}
	if (result)
		return refuse(rq, result, "the volume %u:%u cannot be opened: error %d",
			      major_num, minor_num, -result);
	return 0;
}

struct snapshot *find_snapshot(dev_t dev)
{
	struct snapshot *snapshot;

	lockdep_assert_held(&volumes_lock);
	list_for_each_entry(snapshot, &snapshots, list)
		if (snapshot->dev == dev)
			return snapshot;
	return NULL;
}

struct snapshot *find_held(dev_t dev)
{
	struct snapshot *snapshot = find_snapshot(dev);

	return snapshot && snapshot->phase == SNAPSHOT_HELD ? snapshot : NULL;
}

/* ---- snapped volumes ---- */

int do_check_snapped(struct ms_request *rq)
{
	const struct ms_volume_check *volume = rq_record(rq, struct ms_volume_check, 0);

	mutex_lock(&volumes_lock);
	rq->header->driver_status =
		find_held(volume_dev(volume->major_num, volume->minor_num)) ? MS_SNAPPED :
									       MS_NOT_SNAPPED;
	mutex_unlock(&volumes_lock);
	return 0;
}

int do_count_snapped(struct ms_request *rq)
{
	struct snapshot *snapshot;

	mutex_lock(&volumes_lock);
	list_for_each_entry(snapshot, &snapshots, list)
		rq->header->request_value += snapshot->phase == SNAPSHOT_HELD;
	mutex_unlock(&volumes_lock);
	return 0;
}

static void describe(const struct snapshot *snapshot, struct ms_snapped_volume *answer)
{
	const struct ms_snap_entry *entry = &snapshot->entry;

	answer->num_blocks = entry->num_blocks;
	answer->block_size = entry->block_size;
	answer->reloc_file_size = entry->reloc_file_size;
	answer->major_num = entry->volume_major;
	answer->minor_num = entry->volume_minor;
	answer->app_pid = entry->app_pid;
	answer->device_state = READ_ONCE(snapshot->broken) ? MS_STATE_BROKEN : MS_STATE_SNAPPED;
	strscpy(answer->reloc_file_name, entry->reloc_file_name, MS_PATH_SIZE);
	strscpy(answer->volume_name, entry->volume_name, MS_PATH_SIZE);
}

/* As many as there is room for. */
int do_list_snapped(struct ms_request *rq)
{
	u32 room = rq->header->request_value, filled = 0;
	struct snapshot *snapshot;

	mutex_lock(&volumes_lock);
	list_for_each_entry(snapshot, &snapshots, list) {
		if (filled == room)
			break;
		if (snapshot->phase == SNAPSHOT_HELD)
			describe(snapshot, rq_record(rq, struct ms_snapped_volume, filled++));
	}
	mutex_unlock(&volumes_lock);
	rq->header->request_value = filled;
	return 0;
}

/* ---- mappings ---- */

static struct mapping *find_mapping(const char *volume_name)
{
	struct mapping *mapping;

	list_for_each_entry(mapping, &mappings, list)
		if (!strcmp(mapping->wire.volume_name, volume_name))
			return mapping;
	return NULL;
}

bool has_mapping(const struct ms_snap_entry *entry)
{
	const struct mapping *mapping = find_mapping(entry->volume_name);

	lockdep_assert_held(&volumes_lock);
	return mapping && (u32)mapping->wire.app_pid == entry->app_pid &&
	       !strcmp(mapping->wire.reloc_file_name, entry->reloc_file_name);
}

unsigned int drop_mappings(s32 pid, const char *volume_name)
{
	struct mapping *mapping = find_mapping(volume_name);

	lockdep_assert_held(&volumes_lock);
	if (!mapping || mapping->wire.app_pid != pid)
		return 0;
	list_del(&mapping->list);
	kfree(mapping);
	return 1;
}

/*
 * A volume has one mapping.  The process that made it may make it again, which
 * replaces it in its place; another process may not.
 */
int do_create_mapping(struct ms_request *rq)
{
	struct mapping *mapping = kmalloc(sizeof(*mapping), GFP_KERNEL), *old;
	int result = 0;

	if (!mapping)
		return refuse(rq, -ENOMEM, "no memory for the mapping");
	mapping->wire = *rq_record(rq, struct ms_mapping, 0);
	if (lookup_bdev(mapping->wire.volume_name, &mapping->dev))
		mapping->dev = 0;

	mutex_lock(&volumes_lock);
	old = find_mapping(mapping->wire.volume_name);
	if (!old) {
		list_add_tail(&mapping->list, &mappings);
		mapping = NULL;
	} else if (old->wire.app_pid == mapping->wire.app_pid) {
		list_replace(&old->list, &mapping->list);
		mapping = old;
	} else {
		result = refuse(rq, -EEXIST, "%.96s has a mapping of process %d",
				mapping->wire.volume_name, old->wire.app_pid);
	}
	mutex_unlock(&volumes_lock);
	kfree(mapping);
	return result;
}

/*
 * Any process may delete a mapping, naming the one that made it: so a dead
 * one's mappings can be cleaned up.
 */
int do_delete_mapping(struct ms_request *rq)
{
	const struct ms_mapping *wire = rq_record(rq, struct ms_mapping, 0);
	unsigned int dropped;

	mutex_lock(&volumes_lock);
	dropped = drop_mappings(wire->app_pid, wire->volume_name);
	mutex_unlock(&volumes_lock);
	if (dropped)
		return 0;
	return refuse(rq, -ENOENT, "%.96s has no mapping of process %d", wire->volume_name,
		      wire->app_pid);
}

int do_count_mappings(struct ms_request *rq)
{
	struct mapping *mapping;

	mutex_lock(&volumes_lock);
	list_for_each_entry(mapping, &mappings, list)
		rq->header->request_value++;
	mutex_unlock(&volumes_lock);
	return 0;
}

int do_list_mappings(struct ms_request *rq)
{
	u32 room = rq->header->request_value, filled = 0;
	struct mapping *mapping;

	mutex_lock(&volumes_lock);
	list_for_each_entry(mapping, &mappings, list) {
		struct ms_mapping *answer = rq_record(rq, struct ms_mapping, filled);

		if (filled == room)
			break;
		answer->app_pid = mapping->wire.app_pid;
		strscpy(answer->volume_name, mapping->wire.volume_name, MS_PATH_SIZE);
		strscpy(answer->reloc_file_name, mapping->wire.reloc_file_name, MS_PATH_SIZE);
		filled++;
	}
	mutex_unlock(&volumes_lock);
	rq->header->request_value = filled;
	return 0;
}

/* ---- what has no device any more ---- */

static bool is_gone(dev_t dev)
{
	struct volume volume = {};
	int result = volume_open_dev(&volume, dev);
	bool gone = result == -ENXIO || result == -ENODEV;

	if (!result) {
		gone = volume_is_gone(volume.bdev);
		volume_close(&volume);
	}
	return gone;
}

/* Takes a snapshot out of the list whose volume is gone; null when there is none. */
static struct snapshot *take_gone(void)
{
	struct snapshot *snapshot, *found = NULL;

	mutex_lock(&volumes_lock);
	list_for_each_entry(snapshot, &snapshots, list)
		if (snapshot->phase == SNAPSHOT_HELD && volume_is_gone(snapshot->bdev)) {
			found = snapshot;
			found->phase = SNAPSHOT_GOING;
			break;
		}
	mutex_unlock(&volumes_lock);
	return found;
}

/* A mapping's device that has not been looked at yet: the n-th. */
static dev_t mapped_device(unsigned int n)
{
	struct mapping *mapping;
	dev_t dev = 0;

	mutex_lock(&volumes_lock);
	list_for_each_entry(mapping, &mappings, list)
		if (mapping->dev && !n--) {
			dev = mapping->dev;
			break;
		}
	mutex_unlock(&volumes_lock);
	return dev;
}

static void drop_mappings_of(dev_t dev)
{
	struct mapping *mapping, *next;

	mutex_lock(&volumes_lock);
	list_for_each_entry_safe(mapping, next, &mappings, list)
		if (mapping->dev == dev) {
			list_del(&mapping->list);
			kfree(mapping);
		}
	mutex_unlock(&volumes_lock);
}

int do_verify_and_clean(struct ms_request *rq)
{
	struct snapshot *snapshot;
	unsigned int n = 0;
	dev_t dev;

	while ((snapshot = take_gone())) {
		pr_info("%s (%u:%u) is gone, and its snapshot with it\n",
			snapshot->entry.volume_name, MAJOR(snapshot->dev), MINOR(snapshot->dev));
		snapshot_end(snapshot);
	}
	while ((dev = mapped_device(n))) {
		if (is_gone(dev))
			drop_mappings_of(dev);
		else
			n++;
	}
	clean_frozen();
	return 0;
}

/* Nothing is snapped; mappings do not hold the module. */
void volumes_exit(void)
{
	struct mapping *mapping, *next;

	list_for_each_entry_safe(mapping, next, &mappings, list)
		kfree(mapping);
}
