/* SPDX-License-Identifier: GPL-2.0-only */
/*
 * Seeing the writes to disks that have a snapped volume.
 */
#ifndef MIRELSNAP_INTERCEPT_H
#define MIRELSNAP_INTERCEPT_H

struct bio;
struct snapshot;

int intercept_init(void);
void intercept_exit(void);

/* From now on the writes to the snapshot's volume are looked at.  May sleep. */
int intercept_add(struct snapshot *snapshot);
/* And no more; nobody looks at the snapshot on their way any longer.  May sleep. */
void intercept_remove(struct snapshot *snapshot);
/* Until nobody looks at a snapshot any longer that was live before. */
void intercept_wait(void);

/* Submits a bio, unless a snapshot takes it first. */
void intercept_submit(struct bio *bio);

#endif /* MIRELSNAP_INTERCEPT_H */
