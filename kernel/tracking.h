/* SPDX-License-Identifier: GPL-2.0-only */
/*
 * Which blocks of a volume were written since the instant.
 *
 * Tracking belongs to a snapshot: it starts with a snap that asks for it and
 * ends with the snapshot, or earlier when it is stopped.  It goes on when the
 * snapshot breaks.
 */
#ifndef MIRELSNAP_TRACKING_H
#define MIRELSNAP_TRACKING_H

#include "cow.h"

struct tracking {
	u64 blocks;			/* of the volume, in the command's block size */
	unsigned int sector_shift;	/* sectors in one, as a shift */
	u32 sequence_number;
	bool on;			/* the instant has come */
	unsigned long *changed;
	struct ms_run *used;		/* blocks in use, as user space said; volumes_lock */
	u32 nr_used;
};

/* For an entry that asks for it; 0 or -ENOMEM. */
int tracking_prepare(struct snapshot *snapshot);
void tracking_release(struct snapshot *snapshot);
/* Its number counts; under volumes_lock. */
void tracking_started(const struct snapshot *snapshot);
void tracking_exit(void);

void tracking_note_bio(const struct snapshot *snapshot, struct tracking *tracking,
		       const struct bio *bio);

/* A write is on its way to the volume's disk.  Under RCU. */
static __always_inline void tracking_note(const struct snapshot *snapshot, const struct bio *bio)
{
	struct tracking *tracking = rcu_dereference_raw(snapshot->tracking);

	if (tracking && READ_ONCE(tracking->on))
		tracking_note_bio(snapshot, tracking, bio);
}

#endif /* MIRELSNAP_TRACKING_H */
