// SPDX-License-Identifier: GPL-2.0-only
/*
 * Freezing and thawing, for a snapshot's instant and on command.
 */
#define pr_fmt(fmt) "mirelsnap: " fmt

#include <linux/fs.h>
#include <linux/kernfs.h>
#include <linux/major.h>
#include <linux/mm.h>
#include <linux/module.h>
#include <linux/namei.h>
#include <linux/slab.h>
#include <linux/sort.h>
#include "compat.h"
#include "freeze.h"
#include "volumes.h"

static unsigned int freeze_limit_ms = 60000;
module_param(freeze_limit_ms, uint, 0644);
MODULE_PARM_DESC(freeze_limit_ms, "how long volumes may stand still for a snapshot, ms");

/* Loop devices whose files lie on each other, at most. */
#define MOST_DEPTH	8

static struct workqueue_struct *thaw_queue;

/* ---- for an instant ---- */

/* The last frozen first: what a thaw writes goes down to what was frozen later. */
static void thaw_all(struct standstill *standstill)
{
	while (standstill->frozen)
		thaw_bdev(standstill->volumes[--standstill->frozen]);
}

static void time_is_up(struct work_struct *work)
{
	struct standstill *standstill =
		container_of(to_delayed_work(work), struct standstill, limit);

	mutex_lock(&standstill->lock);
	if (!standstill->ended) {
		standstill->ended = true;
		standstill->expired = true;
		thaw_all(standstill);
	}
	mutex_unlock(&standstill->lock);
}

int standstill_begin(struct standstill *standstill, struct block_device **volumes,
		     unsigned int count, struct block_device **failed)
{
	unsigned int i;

	INIT_DELAYED_WORK(&standstill->limit, time_is_up);
	mutex_init(&standstill->lock);
	standstill->volumes = volumes;
	standstill->frozen = 0;
	standstill->ended = false;
	standstill->expired = false;
	queue_delayed_work(thaw_queue, &standstill->limit, msecs_to_jiffies(freeze_limit_ms));

	for (i = 0; i < count; i++) {
		int result = freeze_bdev(volumes[i]);
		bool ended;

		mutex_lock(&standstill->lock);
		ended = standstill->ended;
		if (!result && !ended)
			standstill->frozen++;
		mutex_unlock(&standstill->lock);
		if (!result && !ended)
			continue;
		*failed = volumes[i];
		if (!result)
			thaw_bdev(volumes[i]);
		return standstill_end(standstill) ?: result;
	}
	return 0;
}

int standstill_end(struct standstill *standstill)
{
	bool expired;

	mutex_lock(&standstill->lock);
	standstill->ended = true;
	thaw_all(standstill);
	expired = standstill->expired;
	mutex_unlock(&standstill->lock);
	cancel_delayed_work_sync(&standstill->limit);
	return expired ? -ETIMEDOUT : 0;
}

/* ---- what stands on what ---- */

/* The name of a loop device's file, as the caller sees it; false: it has none. */
static bool backing_file(struct gendisk *disk, char *page)
{
	struct kernfs_node *folder, *node = NULL;
	ssize_t length = 0;

	folder = kernfs_find_and_get(disk_to_dev(disk)->kobj.sd, "loop");
	if (folder)
		node = kernfs_find_and_get(folder, "backing_file");
	if (node) {
		struct device_attribute *attribute = container_of(
			(struct attribute *)node->priv, struct device_attribute, attr);

		/* The device is open: its attributes stay. */
		length = attribute->show(disk_to_dev(disk), attribute, page);
	}
	kernfs_put(node);
	kernfs_put(folder);
	if (length <= 1)
		return false;
	page[length - 1] = '\0';	/* in place of the line's end */
	return true;
}

/* How many loop devices' file systems lie one below the other, under a volume. */
static unsigned int depth_of(struct block_device *bdev, char *page)
{
	unsigned int depth = 0;
	struct path path = {}, below;

	while (bdev && MAJOR(disk_devt(bdev->bd_disk)) == LOOP_MAJOR && depth < MOST_DEPTH &&
	       backing_file(bdev->bd_disk, page) &&
	       !kern_path(page, LOOKUP_FOLLOW, &below)) {
		/* The file system holds its device as long as the path holds it. */
		path_put(&path);
		path = below;
		bdev = path.dentry->d_sb->s_bdev;
		depth++;
	}
	path_put(&path);
	return depth;
}

struct ranked {
	struct block_device *bdev;
	unsigned int depth, index;
};

static int compare_ranked(const void *a, const void *b)
{
	const struct ranked *x = a, *y = b;

	if (x->depth != y->depth)
		return x->depth < y->depth ? 1 : -1;
	return x->index < y->index ? 1 : -1;
}

int inside_out(struct block_device **volumes, unsigned int count)
{
	struct ranked *ranked = kvmalloc_array(count, sizeof(*ranked), GFP_KERNEL);
	char *page = (char *)__get_free_page(GFP_KERNEL);
	unsigned int i;

	for (i = 0; ranked && page && i < count; i++) {
		ranked[i].bdev = volumes[i];
		ranked[i].depth = depth_of(volumes[i], page);
		ranked[i].index = i;
	}
	if (ranked && page) {
		sort(ranked, count, sizeof(*ranked), compare_ranked, NULL);
		for (i = 0; i < count; i++)
			volumes[i] = ranked[i].bdev;
	}
	i = ranked && page;
	free_page((unsigned long)page);
	kvfree(ranked);
	return i ? 0 : -ENOMEM;
}

/* ---- on command: until a thaw ---- */

struct frozen {
	struct list_head list;		/* in the order in which they were frozen */
	dev_t dev;
	struct volume volume;
	bool stands;			/* it is frozen, not only about to be */
};

static LIST_HEAD(frozen_volumes);	/* under volumes_lock */

static struct frozen *find_frozen(dev_t dev)
{
	struct frozen *frozen;

	list_for_each_entry(frozen, &frozen_volumes, list)
		if (frozen->dev == dev)
			return frozen;
	return NULL;
}

int do_check_frozen(struct ms_request *rq)
{
	const struct ms_volume_check *volume = rq_record(rq, struct ms_volume_check, 0);
	struct frozen *frozen;

	mutex_lock(&volumes_lock);
	frozen = find_frozen(volume_dev(volume->major_num, volume->minor_num));
	rq->header->driver_status = frozen && frozen->stands ? MS_FROZEN : MS_NOT_FROZEN;
	mutex_unlock(&volumes_lock);
	return 0;
}

/* Thaws what stands still of the list, the last first, and frees it. */
static void thaw_list(struct list_head *list)
{
	struct frozen *frozen, *next;

	list_for_each_entry_safe_reverse(frozen, next, list, list) {
		if (frozen->stands) {
			thaw_bdev(frozen->volume.bdev);
			module_put(THIS_MODULE);
		}
		volume_close(&frozen->volume);
		list_del(&frozen->list);
		kfree(frozen);
	}
}

static struct frozen *open_frozen(struct ms_request *rq, const struct ms_volume *volume, int *result)
{
	struct frozen *frozen = kzalloc(sizeof(*frozen), GFP_KERNEL);

	*result = frozen ? volume_open(rq, &frozen->volume, volume->major_num, volume->minor_num) :
			   refuse(rq, -ENOMEM, "no memory to freeze it");
	if (*result) {
		kfree(frozen);
		return NULL;
	}
	frozen->dev = frozen->volume.bdev->bd_dev;
	return frozen;
}

static void add_in_order(struct list_head *unordered, struct list_head *list,
			 const struct block_device *bdev)
{
	struct frozen *frozen;

	list_for_each_entry(frozen, unordered, list)
		if (frozen->volume.bdev == bdev) {
			list_move_tail(&frozen->list, list);
			return;
		}
}

/* Opens the volumes of the command, inside out. */
static int open_volumes(struct ms_request *rq, struct list_head *list)
{
	const struct ms_volume *volume = rq_record(rq, struct ms_volume, 0);
	u32 i, count = rq->header->request_value;
	struct block_device **volumes;
	LIST_HEAD(unordered);
	int result = 0;

	volumes = kvmalloc_array(count, sizeof(*volumes), GFP_KERNEL);
	if (!volumes)
		return refuse(rq, -ENOMEM, "no memory to freeze %u volumes", count);
	for (i = 0; i < count && !result; i++) {
		struct frozen *frozen = open_frozen(rq, &volume[i], &result);

		if (frozen) {
			list_add_tail(&frozen->list, &unordered);
			volumes[i] = frozen->volume.bdev;
		}
	}
	if (!result) {
		result = inside_out(volumes, count);
		if (result)
			refuse(rq, result, "no memory to freeze %u volumes", count);
	}
	for (i = 0; i < count && !result; i++)
		add_in_order(&unordered, list, volumes[i]);
	list_splice(&unordered, list);
	kvfree(volumes);
	return result;
}

/* Whether one is frozen already; then it is refused, else they are claimed. */
static int claim(struct ms_request *rq, struct list_head *list)
{
	struct frozen *frozen;
	int result = 0;

	mutex_lock(&volumes_lock);
	list_for_each_entry(frozen, list, list)
		if (find_frozen(frozen->dev)) {
			result = refuse_as(rq, -EBUSY, MS_FROZEN,
					   "the volume %u:%u is frozen already",
					   MAJOR(frozen->dev), MINOR(frozen->dev));
			break;
		}
	if (!result)
		list_splice_tail_init(list, &frozen_volumes);
	mutex_unlock(&volumes_lock);
	return result;
}

/* The claimed volumes of a command go into a list of their own. */
static void take_back(struct ms_request *rq, struct list_head *list)
{
	const struct ms_volume *volume = rq_record(rq, struct ms_volume, 0);
	struct frozen *frozen, *next;
	u32 i;

	list_for_each_entry_safe(frozen, next, &frozen_volumes, list)
		for (i = 0; i < rq->header->request_value; i++)
			if (frozen->dev == volume_dev(volume[i].major_num, volume[i].minor_num)) {
				list_move_tail(&frozen->list, list);
				break;
			}
}

static int freeze_one(struct ms_request *rq, struct frozen *frozen)
{
	int result = freeze_bdev(frozen->volume.bdev);

	if (result)
		return refuse(rq, result, "the file system on %u:%u cannot be frozen: error %d",
			      MAJOR(frozen->dev), MINOR(frozen->dev), -result);
	__module_get(THIS_MODULE);
	mutex_lock(&volumes_lock);
	frozen->stands = true;
	mutex_unlock(&volumes_lock);
	return 0;
}

/* The first claimed volume of the command that does not stand yet. */
static struct frozen *next_to_freeze(struct ms_request *rq)
{
	const struct ms_volume *volume = rq_record(rq, struct ms_volume, 0);
	struct frozen *frozen, *found = NULL;
	u32 i;

	mutex_lock(&volumes_lock);
	list_for_each_entry(frozen, &frozen_volumes, list)
		for (i = 0; i < rq->header->request_value && !found; i++)
			if (!frozen->stands &&
			    frozen->dev == volume_dev(volume[i].major_num, volume[i].minor_num))
				found = frozen;
	mutex_unlock(&volumes_lock);
	return found;
}

static int freeze_claimed(struct ms_request *rq, struct list_head *list)
{
	struct frozen *frozen;
	int result = 0;

	while (!result && (frozen = next_to_freeze(rq)))
		result = freeze_one(rq, frozen);
	if (result) {
		mutex_lock(&volumes_lock);
		take_back(rq, list);
		mutex_unlock(&volumes_lock);
	}
	return result;
}

/* All or none. */
int do_freeze(struct ms_request *rq)
{
	LIST_HEAD(list);	/* those that are not claimed, or not any more */
	int result = open_volumes(rq, &list) ?: claim(rq, &list) ?: freeze_claimed(rq, &list);

	if (result)
		thaw_list(&list);
	return result;
}

/* All or none. */
int do_thaw(struct ms_request *rq)
{
	const struct ms_volume *volume = rq_record(rq, struct ms_volume, 0);
	LIST_HEAD(list);
	int result = 0;
	u32 i;

	mutex_lock(&volumes_lock);
	for (i = 0; i < rq->header->request_value && !result; i++, volume++) {
		struct frozen *frozen = find_frozen(volume_dev(volume->major_num,
							       volume->minor_num));

		if (!frozen || !frozen->stands)
			result = refuse_as(rq, -EINVAL, MS_NOT_FROZEN,
					   "the volume %u:%u is not frozen", volume->major_num,
					   volume->minor_num);
	}
	if (!result)
		take_back(rq, &list);
	mutex_unlock(&volumes_lock);
	thaw_list(&list);
	return result;
}

void clean_frozen(void)
{
	struct frozen *frozen, *next;
	LIST_HEAD(list);

	mutex_lock(&volumes_lock);
	list_for_each_entry_safe(frozen, next, &frozen_volumes, list)
		if (frozen->stands && volume_is_gone(frozen->volume.bdev))
			list_move_tail(&frozen->list, &list);
	mutex_unlock(&volumes_lock);
	thaw_list(&list);
}

void describe_frozen(struct seq_file *file)
{
	struct frozen *frozen;
	unsigned int count = 0;

	list_for_each_entry(frozen, &frozen_volumes, list)
		count += frozen->stands;
	seq_printf(file, "frozen volumes: %u\n", count);
	list_for_each_entry(frozen, &frozen_volumes, list)
		if (frozen->stands)
			seq_printf(file, "  %u:%u\n", MAJOR(frozen->dev), MINOR(frozen->dev));
}

int freeze_init(void)
{
	/* What writes memory back may stand still: this needs a thread at hand. */
	thaw_queue = alloc_workqueue("mirelsnap_thaw", WQ_MEM_RECLAIM | WQ_UNBOUND, 0);
	return thaw_queue ? 0 : -ENOMEM;
}

void freeze_exit(void)
{
	destroy_workqueue(thaw_queue);
}
