// SPDX-License-Identifier: GPL-2.0-only
#include <linux/hash.h>
#include <linux/log2.h>
#include <linux/mm.h>
#include <linux/slab.h>
#include "table.h"

/* Links in a chunk. */
#define CHUNK_SHIFT	12
#define CHUNK		(1u << CHUNK_SHIFT)

#define NEXT_MASK	((1u << TABLE_SLOT_BITS) - 1)

static u32 *head_of(const struct table *table, u64 block)
{
	return &table->heads[hash_64(block, table->bits)];
}

static u64 *link_of(const struct table *table, u32 slot)
{
	return &table->chunks[slot >> CHUNK_SHIFT][slot & (CHUNK - 1)];
}

int table_init(struct table *table, u32 slots, u32 buckets)
{
	table->slots = slots;
	table->room = 0;
	table->bits = ilog2(roundup_pow_of_two(clamp(buckets, 2u, max(slots, 2u))));
	table->heads = kvcalloc(1u << table->bits, sizeof(*table->heads), GFP_KERNEL);
	table->chunks = kvcalloc(DIV_ROUND_UP(slots, CHUNK), sizeof(*table->chunks), GFP_KERNEL);
	if (table->heads && table->chunks && !table_grow(table, GFP_KERNEL))
		return 0;
	table_exit(table);
	return -ENOMEM;
}

void table_exit(struct table *table)
{
	u32 i;

	for (i = 0; table->chunks && i < DIV_ROUND_UP(table->room, CHUNK); i++)
		kvfree(table->chunks[i]);
	kvfree(table->chunks);
	kvfree(table->heads);
	table->chunks = NULL;
	table->heads = NULL;
}

int table_grow(struct table *table, gfp_t gfp)
{
	u64 *chunk;

	if (table->room == table->slots)
		return 0;
	chunk = kvmalloc_array(CHUNK, sizeof(*chunk), gfp);
	if (!chunk)
		return -ENOMEM;
	table->chunks[table->room >> CHUNK_SHIFT] = chunk;
	/* Whoever gives out slots sees the chunk before the room. */
	smp_store_release(&table->room, min(table->room + CHUNK, table->slots));
	return 0;
}

void table_add(struct table *table, u64 block, u32 slot)
{
	u32 *head = head_of(table, block);

	*link_of(table, slot) = block << TABLE_SLOT_BITS | *head;
	/* Whoever finds the slot finds its link. */
	smp_store_release(head, slot + 1);
}

u32 table_find(const struct table *table, u64 block)
{
	u32 next = smp_load_acquire(head_of(table, block));

	while (next) {
		u64 link = *link_of(table, next - 1);

		if (link >> TABLE_SLOT_BITS == block)
			return next - 1;
		next = link & NEXT_MASK;
	}
	return NO_SLOT;
}

size_t table_memory(const struct table *table)
{
	return sizeof(*table->heads) * (1ul << table->bits) +
	       sizeof(*table->chunks) * DIV_ROUND_UP(table->slots, CHUNK) +
	       sizeof(u64) * CHUNK * DIV_ROUND_UP(READ_ONCE(table->room), CHUNK);
}
