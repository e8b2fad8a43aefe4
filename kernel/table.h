/* SPDX-License-Identifier: GPL-2.0-only */
/*
 * Which slot of the store keeps a block's old content: chains of slots, one a
 * bucket.  Blocks are only ever added.  Adding wants a lock, finding none.
 */
#ifndef MIRELSNAP_TABLE_H
#define MIRELSNAP_TABLE_H

#include <linux/types.h>

#define TABLE_BLOCK_BITS	36
#define TABLE_SLOT_BITS		28

#define TABLE_MOST_BLOCKS	(1ull << TABLE_BLOCK_BITS)	/* of a volume */
#define TABLE_MOST_SLOTS	((1u << TABLE_SLOT_BITS) - 1)
#define NO_SLOT			U32_MAX

struct table {
	u32 *heads;		/* of each bucket's chain: slot + 1, 0 for none */
	unsigned int bits;	/* log2 of the buckets */
	u64 **chunks;		/* of links, by slot: block << 28 | next slot + 1 */
	u32 slots;		/* at most */
	u32 room;		/* slots that chunks are there for */
};

int table_init(struct table *table, u32 slots, u32 buckets);
void table_exit(struct table *table);
/* Makes room for more slots.  0 or -ENOMEM. */
int table_grow(struct table *table, gfp_t gfp);
/* The slot lies in the table's room and is used for the first time. */
void table_add(struct table *table, u64 block, u32 slot);
u32 table_find(const struct table *table, u64 block);
/* In bytes. */
size_t table_memory(const struct table *table);

#endif /* MIRELSNAP_TABLE_H */
