/* SPDX-License-Identifier: GPL-2.0-only */
/*
 * A snapshot, and keeping what its volume held at the instant.
 *
 * The volume is seen in blocks of 4 KiB.  Before a write to a block whose old
 * content nobody has kept yet (a first write) is let go, the old content is
 * read into memory; from there it goes into the store in the background.
 */
#ifndef MIRELSNAP_COW_H
#define MIRELSNAP_COW_H

#include <linux/bio.h>
#include <linux/blkdev.h>
#include <linux/hrtimer.h>
#include <linux/list.h>
#include <linux/llist.h>
#include <linux/spinlock.h>
#include <linux/time64.h>
#include <linux/wait.h>
#include <linux/workqueue.h>
#include "compat.h"
#include "protocol.h"
#include "relocfile.h"
#include "store.h"
#include "table.h"

#define COW_SHIFT	3			/* sectors in a block, as a shift */
#define COW_SECTORS	(1u << COW_SHIFT)
#define COW_BYTES	4096u
#define COW_RUN		256u			/* blocks of one read or store write at most */

struct done_here;
struct tracking;

struct snapshot {
	struct list_head list;		/* volumes.c */
	enum {
		SNAPSHOT_COMING,	/* being taken */
		SNAPSHOT_HELD,
		SNAPSHOT_GOING,		/* being discarded */
	} phase;			/* under volumes_lock */
	struct hlist_node by_disk;	/* intercept.c */

	struct ms_snap_entry entry;	/* as the command gave it */
	dev_t dev;
	struct volume volume;		/* held open */
	struct block_device *bdev;	/* of it */
	struct gendisk *origin;		/* its disk */
	sector_t start, sectors;	/* where on its disk it lies */
	u64 blocks;
	struct gendisk *disk;		/* the snapshot's own */
	struct timespec64 instant;
	s64 frozen_ns;			/* how long its set stood still */
	struct tracking __rcu *tracking; /* tracking.c */

	bool prepared, added;		/* there is something to stop, a disk */
	bool live;			/* first writes are kept now */
	int broken;			/* 0, or why: a negative errno */
	bool shed;			/* broken, and what it kept is freed */

	/*
	 * Blocks that need no keeping any more: their old content is in memory
	 * or in the store, or nobody wants it (the relocation files).
	 */
	unsigned long *kept;
	/* Those, and the ones being read; under the lock. */
	unsigned long *seen;

	spinlock_t lock;
	struct table table;		/* adding */
	struct store store;		/* its positions */
	struct bio_list full;		/* first writes that wait for room */
	struct bio_list todo;		/* those that a worker has to look at */
	unsigned int reading;		/* reads of old content in flight */
	unsigned int waiting;		/* bios that wait for one */
	u64 next;			/* the block after the last read */
	u64 exempt;			/* blocks that belong to relocation files */

	atomic_t aside;			/* bios that were put aside, and have not gone */
	atomic_t reads;			/* of the snapshot, in flight */
	wait_queue_head_t idle;		/* one of the two became 0 */
	struct done_here __percpu *done;
	struct hrtimer gather;
	struct work_struct todo_work;
	struct work_struct shed_work;
	struct work_struct again_work;	/* snapdev.c */
	struct bio_list again;		/* under again_lock */
	spinlock_t again_lock;
	struct bio_set copies, clones, splits;
};

int cow_init(void);
void cow_exit(void);

/* Everything that keeping needs; the volume and the file are there already. */
int cow_prepare(struct snapshot *snapshot, unsigned int sets_volumes);
/* After cow_stop(), or of a snapshot that never was live. */
void cow_release(struct snapshot *snapshot);
/* These blocks (of 4 KiB) are not kept. */
void cow_exempt(struct snapshot *snapshot, u64 block, u64 count);
/* No more keeping; waits until no write of others is held. */
void cow_stop(struct snapshot *snapshot);

/*
 * The blocks that lie in the way of a write, from *block on; false: none.
 * A bio's sectors count from the start of its device's disk.
 */
bool cow_blocks(const struct snapshot *snapshot, struct bio *bio, u64 *block, u64 *end);
bool cow_all_kept(const struct snapshot *snapshot, u64 block, u64 end);
/*
 * Takes a first write, which is submitted once its blocks are kept.  False:
 * there is nothing to be kept any more, and the bio is the caller's.
 */
bool cow_take(struct snapshot *snapshot, struct bio *bio);

/* The snapshot cannot be right any more.  `error` is a negative errno. */
void cow_break(struct snapshot *snapshot, int error);
void cow_break_locked(struct snapshot *snapshot, int error);
/* Writes that waited for room are looked at again; under the lock. */
void cow_room_locked(struct snapshot *snapshot);

/* In bytes: tables, bitmaps and ring; none when they are freed. */
size_t cow_memory(const struct snapshot *snapshot);
u64 cow_blocks_kept(const struct snapshot *snapshot);

/* Whoever waits for the counter frees the snapshot after a grace period only. */
static inline void done_one(struct snapshot *snapshot, atomic_t *counter)
{
	rcu_read_lock();
	if (atomic_dec_and_test(counter))
		wake_up(&snapshot->idle);
	rcu_read_unlock();
}

#endif /* MIRELSNAP_COW_H */
