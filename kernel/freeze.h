/* SPDX-License-Identifier: GPL-2.0-only */
/*
 * Holding several volumes still for a moment.
 */
#ifndef MIRELSNAP_FREEZE_H
#define MIRELSNAP_FREEZE_H

#include <linux/blkdev.h>
#include <linux/mutex.h>
#include <linux/seq_file.h>
#include <linux/workqueue.h>

struct standstill {
	struct delayed_work limit;
	struct mutex lock;		/* what follows */
	struct block_device **volumes;	/* in the order in which they are frozen */
	unsigned int frozen;		/* how many of them stand still */
	bool ended, expired;
};

int freeze_init(void);
void freeze_exit(void);

/*
 * Orders volumes for freezing: a loop device comes before the volume that holds
 * its file, and else the last before the first, as user space names outer file
 * systems first.  0 or -ENOMEM.
 */
int inside_out(struct block_device **volumes, unsigned int count);
/*
 * Freezes the file systems on the volumes, in this order; what has none is
 * synced.  A volume stays frozen as long as it may at most, whatever becomes of
 * the caller.  *failed: the volume that could not be frozen.
 */
int standstill_begin(struct standstill *standstill, struct block_device **volumes,
		     unsigned int count, struct block_device **failed);
/* Thaws; -ETIMEDOUT when that had to be done before. */
int standstill_end(struct standstill *standstill);

/* What stands still on command, as text; under volumes_lock. */
void describe_frozen(struct seq_file *file);

#endif /* MIRELSNAP_FREEZE_H */
