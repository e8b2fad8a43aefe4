/* SPDX-License-Identifier: GPL-2.0-only */
/*
 * What the driver holds: snapshots and mappings.
 */
#ifndef MIRELSNAP_VOLUMES_H
#define MIRELSNAP_VOLUMES_H

#include <linux/list.h>
#include <linux/mutex.h>
#include "command.h"
#include "cow.h"

/*
 * Locks, from the outside to the inside; none is held across I/O:
 *
 *   volumes_lock          the lists here and in freeze.c, what hangs in them
 *   hook_lock             intercept.c: the hash of snapped disks, the hook
 *   snapshot->lock        cow.c: what is kept and what is on its way
 *   snapshot->again_lock  snapdev.c: reads to be done again; in interrupts
 */
extern struct mutex volumes_lock;
/* In the order in which they were taken; all but SNAPSHOT_HELD are not shown. */
extern struct list_head snapshots;

struct mapping {
	struct list_head list;		/* in the order in which they were made */
	dev_t dev;			/* what the name led to, or 0 */
	struct ms_mapping wire;
};

extern struct list_head mappings;

/* Under volumes_lock.  Any phase; null when there is none. */
struct snapshot *find_snapshot(dev_t dev);
struct snapshot *find_held(dev_t dev);
bool has_mapping(const struct ms_snap_entry *entry);
/* The mappings that the process made for the volume. */
unsigned int drop_mappings(s32 pid, const char *volume_name);

/* Opens a volume for reading; -ENXIO also when nothing is behind it. */
int volume_open(struct ms_request *rq, struct volume *volume, u32 major_num, u32 minor_num);
bool volume_is_gone(const struct block_device *bdev);

/* Discards a held snapshot that is SNAPSHOT_GOING.  May sleep. */
void snapshot_end(struct snapshot *snapshot);

void volumes_exit(void);

/* freeze.c: thaws what has no device any more */
void clean_frozen(void);

#endif /* MIRELSNAP_VOLUMES_H */
