/* SPDX-License-Identifier: GPL-2.0-only */
/*
 * A command while it is carried out, and what carries it out.
 */
#ifndef MIRELSNAP_COMMAND_H
#define MIRELSNAP_COMMAND_H

#include <linux/kdev_t.h>
#include <linux/types.h>
#include "protocol.h"

struct command;

struct ms_request {
	const struct command *command;
	union {
		void *buffer;			/* the whole command */
		struct ms_header *header;
	};
	u32 length;				/* bytes */
	char why[192];				/* of a refusal */
};

struct command {
	unsigned int number;
	const char *name;
	u32 length;		/* bytes; 0: that of its records */
	u32 record;		/* bytes of a counted record; 0: see check_length */
	enum {
		VALUE_ZERO,	/* what the request value must be */
		VALUE_ONE,
		VALUE_VOLUMES,	/* one or more */
		VALUE_ROOM,	/* any */
	} value;
	bool bitmap;		/* carries runs, and 1 as its flags */
	bool answers;		/* with its records, not just with the header */
	int (*check_length)(struct ms_request *rq);
	int (*check)(struct ms_request *rq);
	int (*carry_out)(struct ms_request *rq);
};

/* More than any machine has; bounds what one command can make the driver do. */
#define MS_MAX_VOLUMES	65536

/* Record `index` of a command whose records have one size. */
#define rq_record(rq, type, index) \
	((type *)((rq)->buffer + sizeof(struct ms_header)) + (index))

/* The runs of a bitmap command. */
#define rq_runs(rq) \
	((struct ms_run *)((rq)->buffer + sizeof(struct ms_header) + \
			   sizeof(struct ms_bitmap)))

/*
 * Notes why a request is refused, for the log, and its driver status.  Return
 * `error`, a negative errno.
 */
__printf(3, 4) int refuse(struct ms_request *rq, int error, const char *format, ...);
__printf(4, 5) int refuse_as(struct ms_request *rq, int error, int status,
			     const char *format, ...);

/*
 * The device number of a volume, 0 (which no block device has) when a number
 * is out of range.
 */
static inline dev_t volume_dev(u32 major_num, u32 minor_num)
{
	if (major_num > MINORMASK >> 8 || minor_num > MINORMASK)
		return 0;
	return MKDEV(major_num, minor_num);
}

/* check.c: what a command looks like */
int check_header(struct ms_request *rq);
int check_log_level(struct ms_request *rq);
int check_volume(struct ms_request *rq);
int check_volume_list(struct ms_request *rq);
int check_create_mapping(struct ms_request *rq);
int check_delete_mapping(struct ms_request *rq);
int check_all_zero(struct ms_request *rq);
int check_snap_length(struct ms_request *rq);
int check_snap(struct ms_request *rq);
int check_discard(struct ms_request *rq);
int check_verify(struct ms_request *rq);
int check_tracking_vars(struct ms_request *rq);
int check_bitmap_length(struct ms_request *rq);
int check_bitmap(struct ms_request *rq);
int check_dump_state(struct ms_request *rq);

/*
 * Steps to the next entry of a snap command; null after the last, and where
 * the next does not fit into the command.  Begin with *position 0.
 */
struct ms_snap_entry *next_snap_entry(struct ms_request *rq, u32 *position);
/* The runs of an entry. */
#define entry_runs(entry)	((struct ms_run *)((entry) + 1))

/* commands.c */
long serve_command(unsigned int number, void __user *address);
int do_version(struct ms_request *rq);
int do_set_log_level(struct ms_request *rq);

/* volumes.c */
int do_check_snapped(struct ms_request *rq);
int do_count_snapped(struct ms_request *rq);
int do_list_snapped(struct ms_request *rq);
int do_create_mapping(struct ms_request *rq);
int do_delete_mapping(struct ms_request *rq);
int do_count_mappings(struct ms_request *rq);
int do_list_mappings(struct ms_request *rq);
int do_verify_and_clean(struct ms_request *rq);

/* freeze.c */
int do_check_frozen(struct ms_request *rq);
int do_freeze(struct ms_request *rq);
int do_thaw(struct ms_request *rq);

/* snap.c */
int do_snap(struct ms_request *rq);
int do_discard(struct ms_request *rq);

/* tracking.c */
int do_check_tracked(struct ms_request *rq);
int do_tracking_vars(struct ms_request *rq);
int do_read_bitmap(struct ms_request *rq);
int do_push_bitmap(struct ms_request *rq);
int do_stop_tracking(struct ms_request *rq);

/* state.c */
int do_dump_state(struct ms_request *rq);

#endif /* MIRELSNAP_COMMAND_H */
