/* SPDX-License-Identifier: GPL-2.0-only */
/*
 * The relocation file, seen as what it is for the driver: pages of a block
 * device.
 */
#ifndef MIRELSNAP_RELOCFILE_H
#define MIRELSNAP_RELOCFILE_H

#include <linux/blkdev.h>
#include <linux/fs.h>
#include "command.h"

/* Slots `slot` and on, up to the next extent's, lie at `sector` and on. */
struct reloc_extent {
	u32 slot;
	sector_t sector;
};

struct reloc_file {
	struct file *file;
	struct block_device *bdev;	/* of its file system, which the file holds */
	struct reloc_extent *extents;
	u32 nr_extents;
	u32 slots;			/* of 4 KiB each */
	bool guarded;
};

/*
 * Opens the relocation file of an entry, in the view of the caller, and looks
 * whether it is what the command says.
 */
int reloc_file_open(struct ms_request *rq, const struct ms_snap_entry *entry,
		    struct reloc_file *file);
/*
 * Finds where the file lies and guards it as a swap file is guarded: it can
 * be neither written, cut, removed nor cloned until it is closed.
 */
int reloc_file_map(struct ms_request *rq, const struct ms_snap_entry *entry,
		   struct reloc_file *file);
/* Also of one that is not open. */
void reloc_file_close(struct reloc_file *file);

/* Where a slot lies; *slots: how many from it on lie end to end. */
sector_t reloc_file_sector(const struct reloc_file *file, u32 slot, u32 *slots);

#endif /* MIRELSNAP_RELOCFILE_H */
