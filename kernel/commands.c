// SPDX-License-Identifier: GPL-2.0-only
/*
 * The commands: their table, and how one comes in and its answer goes out.
 *
 * A command is copied in once and looked at then.  One that is not in order is
 * refused with an errno and a line in the log, and changes nothing.
 */
#define pr_fmt(fmt) "mirelsnap: " fmt

#include <linux/mm.h>
#include <linux/ratelimit.h>
#include <linux/sched.h>
#include <linux/slab.h>
#include <linux/uaccess.h>
#include "command.h"
#include "log.h"
#include "version.h"

/* More than any command needs (16 million runs). */
#define LONGEST		(256u << 20)

#define LENGTH(type)		(sizeof(struct ms_header) + sizeof(type))
#define LENGTH_TRAILED(type)	(LENGTH(type) + MS_TRAILER)

static const struct command commands[] = {
	{ MS_FREEZE, "freeze", .record = sizeof(struct ms_volume),
	  .value = VALUE_VOLUMES, .check = check_volume_list, .carry_out = do_freeze },
	{ MS_THAW, "thaw", .record = sizeof(struct ms_volume),
	  .value = VALUE_VOLUMES, .check = check_volume_list, .carry_out = do_thaw },
	{ MS_SET_LOG_LEVEL, "set-log-level", LENGTH(struct ms_log_level),
	  .check = check_log_level, .carry_out = do_set_log_level },
	{ MS_DUMP_STATE, "dump-state", LENGTH(struct ms_dump_state),
	  .check = check_dump_state, .carry_out = do_dump_state },
	{ MS_UPDATE_BITMAP, "update-bitmap", .check_length = check_bitmap_length,
	  .value = VALUE_ONE, .bitmap = true, .check = check_bitmap, .carry_out = do_push_bitmap },
	{ MS_CHECK_VOLUME_SNAPPED, "check-snapped", LENGTH_TRAILED(struct ms_volume_check),
	  .value = VALUE_ONE, .check = check_volume, .carry_out = do_check_snapped },
	{ MS_GET_NUM_OF_SNAPPED_VOLUMES, "count-snapped", LENGTH(struct ms_count),
	  .check = check_all_zero, .carry_out = do_count_snapped },
	{ MS_GET_SNAPPED_VOL_DETAILS, "list-snapped", .record = sizeof(struct ms_snapped_volume),
	  .value = VALUE_ROOM, .answers = true, .check = check_all_zero,
	  .carry_out = do_list_snapped },
	{ MS_CREATE_RELOC_FILE_MAPPING, "create-mapping", LENGTH_TRAILED(struct ms_mapping),
	  .check = check_create_mapping, .carry_out = do_create_mapping },
	{ MS_DELETE_RELOC_FILE_MAPPING, "delete-mapping", LENGTH_TRAILED(struct ms_mapping),
	  .check = check_delete_mapping, .carry_out = do_delete_mapping },
	{ MS_GET_NUM_OF_RELOC_FILE_MAPPING, "count-mappings", LENGTH(struct ms_count),
	  .check = check_all_zero, .carry_out = do_count_mappings },
	{ MS_GET_RELOC_FILE_MAPPING, "list-mappings", .record = sizeof(struct ms_mapping),
	  .value = VALUE_ROOM, .answers = true, .check = check_all_zero,
	  .carry_out = do_list_mappings },
	{ MS_GET_DRIVER_VERSION, "version", LENGTH(struct ms_driver_version),
	  .answers = true, .check = check_all_zero, .carry_out = do_version },
	{ MS_CHECK_VOLUME_FROZEN, "check-frozen", LENGTH_TRAILED(struct ms_volume_check),
	  .value = VALUE_ONE, .check = check_volume, .carry_out = do_check_frozen },
	{ MS_SNAP, "snap", .check_length = check_snap_length,
	  .value = VALUE_VOLUMES, .check = check_snap, .carry_out = do_snap },
	{ MS_SNAP_DISCARD, "discard", .record = sizeof(struct ms_discard),
	  .value = VALUE_VOLUMES, .answers = true, .check = check_discard,
	  .carry_out = do_discard },
	{ MS_GET_VDIFF, "get-vdiff", .check_length = check_bitmap_length,
	  .value = VALUE_ONE, .bitmap = true, .answers = true, .check = check_bitmap,
	  .carry_out = do_read_bitmap },
	{ MS_GET_VTRACK_VARS, "get-vtrack-vars", LENGTH(struct ms_tracking_vars),
	  .value = VALUE_ONE, .answers = true, .check = check_tracking_vars,
	  .carry_out = do_tracking_vars },
	{ MS_STOP_VTRACK, "stop-vtrack", .record = sizeof(struct ms_volume),
	  .value = VALUE_VOLUMES, .check = check_volume_list, .carry_out = do_stop_tracking },
	{ MS_IS_VTRACK_ACTIVE, "is-vtrack-active", LENGTH_TRAILED(struct ms_volume_check),
	  .value = VALUE_ONE, .check = check_volume, .carry_out = do_check_tracked },
	{ MS_VERIFY_AND_CLEAN_VOLUMES, "verify-and-clean", LENGTH(struct ms_count),
	  .check = check_verify, .carry_out = do_verify_and_clean },
};

__printf(2, 0)
static void note_why(struct ms_request *rq, const char *format, va_list args)
{
	vscnprintf(rq->why, sizeof(rq->why), format, args);
}

int refuse(struct ms_request *rq, int error, const char *format, ...)
{
	va_list args;

	va_start(args, format);
	note_why(rq, format, args);
	va_end(args);
	return error;
}

int refuse_as(struct ms_request *rq, int error, int status, const char *format, ...)
{
	va_list args;

	va_start(args, format);
	note_why(rq, format, args);
	va_end(args);
	rq->header->driver_status = status;
	return error;
}

static const struct command *find_command(unsigned int number)
{
	size_t i;

	for (i = 0; i < ARRAY_SIZE(commands); i++)
		if (commands[i].number == number)
			return &commands[i];
	return NULL;
}

static int check_length(struct ms_request *rq)
{
	const struct command *command = rq->command;
	u64 right = command->length;

	if (rq->header->length > LONGEST)
		return refuse(rq, -EINVAL, "its length of %u bytes is not plausible",
			      rq->header->length);
	if (command->check_length)
		return command->check_length(rq);
	if (!right)
		right = sizeof(struct ms_header) + MS_TRAILER +
			(u64)rq->header->request_value * command->record;
	if (rq->header->length != right)
		return refuse(rq, -EINVAL, "its length is %u, not %llu",
			      rq->header->length, right);
	return 0;
}

/* Copies the command in; the caller frees the buffer. */
static int read_command(struct ms_request *rq, const void __user *address)
{
	struct ms_header header;
	int result;

	if (copy_from_user(&header, address, sizeof(header)))
		return refuse(rq, -EFAULT, "its header cannot be read");
	rq->header = &header;
	result = check_length(rq);
	rq->buffer = NULL;
	if (result)
		return result;

	rq->buffer = kvmalloc(header.length, GFP_KERNEL | __GFP_NOWARN);
	if (!rq->buffer)
		return refuse(rq, -ENOMEM, "no memory for its %u bytes", header.length);
	if (copy_from_user(rq->buffer, address, header.length))
		return refuse(rq, -EFAULT, "its %u bytes cannot be read", header.length);
	/* Another thread may have changed the header between the two copies. */
	if (rq->header->length != header.length ||
	    rq->header->request_value != header.request_value)
		return refuse(rq, -EINVAL, "it changes while it is read");
	rq->length = header.length;
	return 0;
}

static int carry_out_command(struct ms_request *rq, void __user *address)
{
	const struct command *command = rq->command;
	int result = command->check == check_verify ? 0 : check_header(rq);

	if (!result)
		result = command->check(rq);
	if (result)
		return result;
	result = command->carry_out(rq);
	/* A refusal carries its status too. */
	if (copy_to_user(address, rq->buffer,
			 command->answers ? rq->length : sizeof(struct ms_header)) &&
	    !result)
		result = refuse(rq, -EFAULT, "its answer cannot be written");
	return result;
}

/* Carries out one command; a negative errno, or 0. */
long serve_command(unsigned int number, void __user *address)
{
	static DEFINE_RATELIMIT_STATE(refusals, DEFAULT_RATELIMIT_INTERVAL,
				      DEFAULT_RATELIMIT_BURST);
	struct ms_request *rq;
	int result;

	rq = kzalloc(sizeof(*rq), GFP_KERNEL);
	if (!rq)
		return -ENOMEM;
	rq->command = find_command(number);
	if (!rq->command)
		result = refuse(rq, -ENOTTY, "there is no such command");
	else
		result = read_command(rq, address);
	if (!result)
		result = carry_out_command(rq, address);

	if (!result)
		log_debug("%s from process %d done\n", rq->command->name, current->tgid);
	else if (__ratelimit(&refusals))
		pr_warn("%s (0x%X) from process %d refused: %s\n",
			rq->command ? rq->command->name : "request", number,
			current->tgid, rq->why);
	kvfree(rq->buffer);
	kfree(rq);
	return result;
}

int do_version(struct ms_request *rq)
{
	struct ms_driver_version *answer = rq_record(rq, struct ms_driver_version, 0);

	strscpy(answer->version, MIRELSNAP_VERSION, sizeof(answer->version));
	return 0;
}

int do_set_log_level(struct ms_request *rq)
{
	WRITE_ONCE(log_level, rq_record(rq, struct ms_log_level, 0)->level);
	return 0;
}
