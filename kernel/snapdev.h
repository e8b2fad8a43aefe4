/* SPDX-License-Identifier: GPL-2.0-only */
/*
 * The snapshot as a block device: /dev/snap<major>_<minor>, read-only.
 */
#ifndef MIRELSNAP_SNAPDEV_H
#define MIRELSNAP_SNAPDEV_H

struct gendisk;
struct snapshot;

int snapdev_init(void);
void snapdev_exit(void);

/* Whether a volume is itself a snapshot. */
bool snapdev_is(const struct gendisk *disk);

/* Everything that can fail before the instant. */
int snapdev_prepare(struct snapshot *snapshot);
/* The disk appears. */
int snapdev_add(struct snapshot *snapshot);
/*
 * The disk goes.  Who has it open gets errors from then on and no longer
 * touches the snapshot.
 */
void snapdev_remove(struct snapshot *snapshot);
/* Of a snapshot that is not live any more: until no read of it is under way. */
void snapdev_wait(struct snapshot *snapshot);
/* Frees what was prepared; the disk was removed or never added. */
void snapdev_release(struct snapshot *snapshot);

#endif /* MIRELSNAP_SNAPDEV_H */
