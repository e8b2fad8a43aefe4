/* SPDX-License-Identifier: GPL-2.0-only */
/*
 * Where old content is kept: slots of 4 KiB, given out in order.
 *
 * Memory is the tail of the store.  Slot s lies in page s mod ring of a ring
 * until the store has it (s < tail), then in the relocation file.  So a kept
 * block is one number, and nothing is allocated or freed for it.
 */
#ifndef MIRELSNAP_STORE_H
#define MIRELSNAP_STORE_H

#include <linux/bio.h>
#include <linux/workqueue.h>
#include "relocfile.h"

struct copy;
struct snapshot;

struct store {
	struct reloc_file file;
	u32 ring;		/* slots in memory, a power of two */
	struct page **pages;	/* of the ring, RING_ORDER each */
	struct copy **readers;	/* the read that fills each slot of the ring */
	unsigned long *filled;	/* slots of the ring that the file does not have yet */
	u32 nr_filled;
	u32 next;		/* slot to give out */
	u32 tail;		/* below, the file has all; never falls */
	struct bio_set bios;
	struct workqueue_struct *queue;
	struct work_struct work;
};

/* The file is mapped.  `ring`: slots at most. */
int store_prepare(struct snapshot *snapshot, u32 ring);
void store_release(struct snapshot *snapshot);
/* Nothing is on its way. */
void store_free_ring(struct store *store);

/* How many slots can be given out now; under the snapshot's lock. */
u32 store_room(struct snapshot *snapshot);
/* No slot will ever be given out again. */
bool store_is_full(const struct snapshot *snapshot);
/* A read has filled slots; under the snapshot's lock. */
void store_filled(struct snapshot *snapshot, u32 slot, u32 count);
/* Something is to be done for room; under the snapshot's lock. */
void store_kick(struct snapshot *snapshot);

/* Adds the ring's memory of the slots to a bio that has room for it. */
void store_add_pages(const struct store *store, struct bio *bio, u32 slot, u32 bytes);
unsigned int store_segments(u32 slots);
/*
 * Copies kept content into the bio, from `skip` bytes into the slot on.  False:
 * the ring has moved on meanwhile, the file has it.
 */
bool store_copy(const struct store *store, struct bio *bio, u32 slot, u32 skip);
/* Whether a bio is the store's own write. */
bool store_is_own(const struct bio *bio);
size_t store_memory(const struct store *store);

#endif /* MIRELSNAP_STORE_H */
