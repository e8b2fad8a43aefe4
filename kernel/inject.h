/* SPDX-License-Identifier: GPL-2.0-only */
/*
 * Failures on purpose, for tests: the module's parameter "inject" says which,
 * one bit each.  None, unless somebody asks.
 */
#ifndef MIRELSNAP_INJECT_H
#define MIRELSNAP_INJECT_H

#include <linux/compiler.h>
#include <linux/types.h>

extern unsigned int injections;

enum {
	INJECT_TABLE	= 1 << 0,	/* no memory for the table of kept blocks */
	INJECT_MEMORY	= 1 << 1,	/* no memory for a read of old content, without waiting */
};

static inline bool inject(unsigned int what)
{
	return unlikely(READ_ONCE(injections) & what);
}

#endif /* MIRELSNAP_INJECT_H */
