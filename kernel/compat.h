/* SPDX-License-Identifier: GPL-2.0-only */
/*
 * What differs between kernel versions, and nothing else: 6.1 and 6.12.
 */
#ifndef MIRELSNAP_COMPAT_H
#define MIRELSNAP_COMPAT_H

#include <linux/blkdev.h>
#include <linux/ftrace.h>
#include <linux/version.h>

#if LINUX_VERSION_CODE >= KERNEL_VERSION(6, 2, 0)
#define ftrace_first_argument(fregs)	ftrace_regs_get_argument(fregs, 0)
#define ftrace_redirect(fregs, to)	ftrace_regs_set_instruction_pointer(fregs, to)
#else
#define ftrace_first_argument(fregs)	((fregs)->regs.di)
#define ftrace_redirect(fregs, to)	ftrace_instruction_pointer_set(fregs, to)
#endif

/* A block device held open for reading. */
#if LINUX_VERSION_CODE >= KERNEL_VERSION(6, 9, 0)
struct volume {
	struct file *file;
	struct block_device *bdev;
};

static inline int volume_open_dev(struct volume *volume, dev_t dev)
{
	volume->file = bdev_file_open_by_dev(dev, BLK_OPEN_READ, NULL, NULL);
	if (IS_ERR(volume->file))
		return PTR_ERR(volume->file);
	volume->bdev = file_bdev(volume->file);
	return 0;
}

static inline void volume_close(struct volume *volume)
{
	if (volume->bdev)
		fput(volume->file);
	volume->bdev = NULL;
}

#define freeze_bdev	bdev_freeze
#define thaw_bdev	bdev_thaw
#else
struct volume {
	struct block_device *bdev;
};

static inline int volume_open_dev(struct volume *volume, dev_t dev)
{
	volume->bdev = blkdev_get_by_dev(dev, FMODE_READ, NULL);
	if (IS_ERR(volume->bdev)) {
		int error = PTR_ERR(volume->bdev);

		volume->bdev = NULL;
		return error;
	}
	return 0;
}

static inline void volume_close(struct volume *volume)
{
	if (volume->bdev)
		blkdev_put(volume->bdev, FMODE_READ);
	volume->bdev = NULL;
}
#endif

/* A disk that bios go to as they are, with the sectors of another; or null. */
#if LINUX_VERSION_CODE >= KERNEL_VERSION(6, 9, 0)
static inline struct gendisk *alloc_disk_like(struct block_device *bdev)
{
	struct queue_limits limits = {
		.logical_block_size	= bdev_logical_block_size(bdev),
		.physical_block_size	= bdev_physical_block_size(bdev),
	};
	struct gendisk *disk = blk_alloc_disk(&limits, NUMA_NO_NODE);

	return IS_ERR(disk) ? NULL : disk;
}
#else
static inline struct gendisk *alloc_disk_like(struct block_device *bdev)
{
	struct gendisk *disk = blk_alloc_disk(NUMA_NO_NODE);

	if (disk) {
		blk_queue_logical_block_size(disk->queue, bdev_logical_block_size(bdev));
		blk_queue_physical_block_size(disk->queue, bdev_physical_block_size(bdev));
		blk_queue_flag_set(QUEUE_FLAG_NONROT, disk->queue);
	}
	return disk;
}
#endif

/* Whether pages are written to a disk past the bios: brd, zram, pmem. */
#if LINUX_VERSION_CODE >= KERNEL_VERSION(6, 3, 0)
static inline bool takes_pages(const struct gendisk *disk)
{
	return false;
}
#else
static inline bool takes_pages(const struct gendisk *disk)
{
	return disk->fops->rw_page;
}
#endif

#endif /* MIRELSNAP_COMPAT_H */
