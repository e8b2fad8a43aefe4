// SPDX-License-Identifier: GPL-2.0-only
/*
 * What a command must look like before anything is done about it.
 */
#include <linux/log2.h>
#include <linux/mm.h>
#include <linux/slab.h>
#include <linux/sort.h>
#include <linux/string.h>
#include "command.h"

#define HEADER	sizeof(struct ms_header)

/* ---- the header ---- */

static int check_handshake(struct ms_request *rq)
{
	u32 right = (rq->header->handshake_value % 12 + 1234) % 20;

	if (rq->header->handshake_check == right)
		return 0;
	return refuse(rq, -EINVAL, "its handshake check is %u, not %u",
		      rq->header->handshake_check, right);
}

static int check_request_value(struct ms_request *rq)
{
	u32 value = rq->header->request_value;

	switch (rq->command->value) {
	case VALUE_ROOM:
		return 0;
	case VALUE_VOLUMES:
		if (!value)
			return refuse(rq, -EINVAL, "it names no volume");
		if (value > MS_MAX_VOLUMES)
			return refuse(rq, -EINVAL, "it names %u volumes, more than %u",
				      value, MS_MAX_VOLUMES);
		return 0;
	default:
		if (value == (rq->command->value == VALUE_ONE))
			return 0;
		return refuse(rq, -EINVAL, "its request value is %u, not %u", value,
			      rq->command->value == VALUE_ONE);
	}
}

int check_header(struct ms_request *rq)
{
	const struct ms_header *header = rq->header;

	if (header->flags != rq->command->bitmap)
		return refuse(rq, -EINVAL, "its command flags are %u, not %u",
			      header->flags, rq->command->bitmap);
	if (header->driver_status)
		return refuse(rq, -EINVAL, "its driver status is %d, not 0",
			      header->driver_status);
	return check_handshake(rq) ?: check_request_value(rq);
}

/* ---- fields ---- */

/* Bytes that user space leaves zero: spare ones, and those that are answered. */
static int check_zero(struct ms_request *rq, const void *start, const void *end)
{
	const void *bad = memchr_inv(start, 0, end - start);

	if (!bad)
		return 0;
	return refuse(rq, -EINVAL, "the byte at offset %td is not zero", bad - rq->buffer);
}

static int check_trailer(struct ms_request *rq)
{
	const void *end = rq->buffer + rq->length;

	return check_zero(rq, end - MS_TRAILER, end);
}

static int check_terminated(struct ms_request *rq, const char *field, size_t size,
			    const char *what)
{
	if (memchr(field, '\0', size))
		return 0;
	return refuse(rq, -EINVAL, "the %s has no end", what);
}

static int check_name(struct ms_request *rq, const char *field, size_t size, const char *what)
{
	int result = check_terminated(rq, field, size, what);

	if (result)
		return result;
	if (field[0] == '/')
		return 0;
	return refuse(rq, -EINVAL, "the %s \"%.64s\" is not a full path", what, field);
}

static int check_flag(struct ms_request *rq, u32 value, const char *what)
{
	if (value <= 1)
		return 0;
	return refuse(rq, -EINVAL, "the %s is %u, not 0 or 1", what, value);
}

static int check_process(struct ms_request *rq, s64 process)
{
	if (process > 0 && process <= S32_MAX)
		return 0;
	return refuse(rq, -EINVAL, "the process id is %lld", process);
}

static int compare_volumes(const void *a, const void *b)
{
	u64 x = *(const u64 *)a, y = *(const u64 *)b;

	return x < y ? -1 : x > y;
}

/* Whether a volume is named twice; `volumes` (major << 32 | minor) is sorted. */
static int check_distinct(struct ms_request *rq, u64 *volumes, u32 count)
{
	u32 i;

	sort(volumes, count, sizeof(*volumes), compare_volumes, NULL);
	for (i = 1; i < count; i++)
		if (volumes[i] == volumes[i - 1])
			return refuse(rq, -EINVAL, "it names the volume %u:%u twice",
				      (u32)(volumes[i] >> 32), (u32)volumes[i]);
	return 0;
}

/* Room for the volumes that a command names; kvfree() it. */
static u64 *alloc_volumes(struct ms_request *rq)
{
	u64 *volumes = kvmalloc_array(rq->header->request_value, sizeof(u64), GFP_KERNEL);

	if (!volumes)
		refuse(rq, -ENOMEM, "no memory to check it");
	return volumes;
}

/* ---- records ---- */

int check_all_zero(struct ms_request *rq)
{
	return check_zero(rq, rq->buffer + HEADER, rq->buffer + rq->length);
}

int check_log_level(struct ms_request *rq)
{
	u32 level = rq_record(rq, struct ms_log_level, 0)->level;

	if (level <= 7)
		return 0;
	return refuse(rq, -EINVAL, "the log level is %u, above 7", level);
}

int check_volume(struct ms_request *rq)
{
	return check_trailer(rq);
}

int check_volume_list(struct ms_request *rq)
{
	const struct ms_volume *volume = rq_record(rq, struct ms_volume, 0);
	u32 i, count = rq->header->request_value;
	u64 *volumes = alloc_volumes(rq);
	int result = 0;

	if (!volumes)
		return -ENOMEM;
	for (i = 0; i < count && !result; i++, volume++) {
		volumes[i] = (u64)volume->major_num << 32 | volume->minor_num;
		result = check_zero(rq, &volume->reserved, volume + 1);
	}
	result = result ?: check_distinct(rq, volumes, count) ?: check_trailer(rq);
	kvfree(volumes);
	return result;
}

static int check_mapping_volume(struct ms_request *rq, const struct ms_mapping *mapping)
{
	return check_process(rq, mapping->app_pid) ?:
	       check_name(rq, mapping->volume_name, sizeof(mapping->volume_name),
			  "volume name");
}

int check_create_mapping(struct ms_request *rq)
{
	const struct ms_mapping *mapping = rq_record(rq, struct ms_mapping, 0);

	return check_mapping_volume(rq, mapping) ?:
	       check_name(rq, mapping->reloc_file_name, sizeof(mapping->reloc_file_name),
			  "relocation file name") ?:
	       check_trailer(rq);
}

int check_delete_mapping(struct ms_request *rq)
{
	const struct ms_mapping *mapping = rq_record(rq, struct ms_mapping, 0);

	return check_mapping_volume(rq, mapping) ?:
	       check_zero(rq, mapping->reloc_file_name, mapping + 1) ?:
	       check_trailer(rq);
}

int check_discard(struct ms_request *rq)
{
	const struct ms_discard *entry = rq_record(rq, struct ms_discard, 0);
	u32 i, count = rq->header->request_value;
	u64 *volumes = alloc_volumes(rq);
	int result = 0;

	if (!volumes)
		return -ENOMEM;
	for (i = 0; i < count && !result; i++, entry++) {
		volumes[i] = (u64)entry->major_num << 32 | entry->minor_num;
		result = check_zero(rq, &entry->result, &entry->flag) ?:
			 check_flag(rq, entry->flag, "flag of a volume") ?:
			 check_zero(rq, entry->reloc_file_name, entry + 1);
	}
	result = result ?: check_distinct(rq, volumes, count) ?: check_trailer(rq);
	kvfree(volumes);
	return result;
}

int check_tracking_vars(struct ms_request *rq)
{
	const struct ms_tracking_vars *vars = rq_record(rq, struct ms_tracking_vars, 0);

	return check_zero(rq, &vars->sequence_number, vars + 1);
}

/*
 * Of this one only the handshake, the request value, the length and the first
 * byte after the header mean something: user space leaves the rest as its
 * memory happened to be.
 */
int check_verify(struct ms_request *rq)
{
	int result = check_handshake(rq) ?: check_request_value(rq) ?:
		     check_zero(rq, rq->buffer + HEADER, rq->buffer + HEADER + 1);

	if (!result)
		rq->header->driver_status = 0;
	return result;
}

int check_dump_state(struct ms_request *rq)
{
	const struct ms_dump_state *dump = rq_record(rq, struct ms_dump_state, 0);
	int result = check_zero(rq, dump->reserved, dump->file_name);

	if (result)
		return result;
	if (dump->file_flag == 1)
		result = check_name(rq, dump->file_name, sizeof(dump->file_name), "file name");
	else
		result = check_zero(rq, dump->file_name, dump->tail);
	return result ?: check_zero(rq, dump->tail, dump + 1);
}

/* ---- bitmaps ---- */

#define BITMAP_LENGTH(runs) \
	(HEADER + sizeof(struct ms_bitmap) + (runs) * sizeof(struct ms_run) + MS_TRAILER)

int check_bitmap_length(struct ms_request *rq)
{
	u32 length = rq->header->length;

	if (length < BITMAP_LENGTH(0) || length > BITMAP_LENGTH(MS_MAX_RUNS) ||
	    (length - BITMAP_LENGTH(0)) % sizeof(struct ms_run))
		return refuse(rq, -EINVAL,
			      "its length of %u is not that of 0 to %u runs", length,
			      MS_MAX_RUNS);
	return 0;
}

/*
 * Where the runs of a push lie is looked at when the volume is known; those of
 * a reading are room to be filled.
 */
int check_bitmap(struct ms_request *rq)
{
	const struct ms_bitmap *bitmap = rq_record(rq, struct ms_bitmap, 0);
	u32 room = (rq->length - BITMAP_LENGTH(0)) / sizeof(struct ms_run);

	if (bitmap->num_runs != room)
		return refuse(rq, -EINVAL,
			      "its number of runs is %u, not the %u that it has room for",
			      bitmap->num_runs, room);
	if (bitmap->update_type > MS_UPDATE_CONTINUE)
		return refuse(rq, -EINVAL, "the update type is %u, not 0 or 1",
			      bitmap->update_type);
	return check_trailer(rq);
}

/* ---- the snap command ---- */

#define ENTRY_SIZE	(sizeof(struct ms_snap_entry) + MS_SNAP_TAIL)

int check_snap_length(struct ms_request *rq)
{
	u64 without_runs = HEADER + (u64)rq->header->request_value * ENTRY_SIZE + MS_TRAILER;

	if (rq->header->length < without_runs)
		return refuse(rq, -EINVAL, "its length is %u, not at least the %llu of %u volumes",
			      rq->header->length, without_runs, rq->header->request_value);
	if ((rq->header->length - without_runs) % sizeof(struct ms_run))
		return refuse(rq, -EINVAL, "its length is %u, not that of a whole number of runs",
			      rq->header->length);
	return 0;
}

struct ms_snap_entry *next_snap_entry(struct ms_request *rq, u32 *position)
{
	struct ms_snap_entry *entry;
	u32 at = *position ?: HEADER, room = rq->length - at;

	if (room < ENTRY_SIZE)
		return NULL;
	entry = rq->buffer + at;
	if (entry->num_runs > (room - ENTRY_SIZE) / sizeof(struct ms_run))
		return NULL;
	*position = at + ENTRY_SIZE + entry->num_runs * sizeof(struct ms_run);
	return entry;
}

static bool is_guid(const char *text)
{
	static const char shape[] = "xxxxxxxx-xxxx-xxxx-xxxx-xxxxxxxxxxxx";
	size_t i;

	for (i = 0; i < sizeof(shape); i++) {
		char c = text[i];

		if (shape[i] == 'x' ? !((c >= '0' && c <= '9') || (c >= 'a' && c <= 'f')) :
				      c != shape[i])
			return false;
	}
	return true;
}

/* A GUID where tracking wants one, else nothing. */
static int check_guid(struct ms_request *rq, const struct ms_snap_entry *entry)
{
	if (!entry->vtrack_request || entry->independent_snapshot_request) {
		if (memchr_inv(entry->tracking_guid, 0, sizeof(entry->tracking_guid)))
			return refuse(rq, -EINVAL,
				      "it carries a tracking GUID that nothing asks for");
		return 0;
	}
	if (is_guid(entry->tracking_guid))
		return 0;
	return refuse(rq, -EINVAL, "\"%s\" is not a tracking GUID", entry->tracking_guid);
}

static int check_sizes(struct ms_request *rq, const struct ms_snap_entry *entry)
{
	if (entry->block_size < 512 || !is_power_of_2(entry->block_size))
		return refuse(rq, -EINVAL,
			      "the block size %u is not a power of two from 512 up",
			      entry->block_size);
	if (!entry->num_blocks)
		return refuse(rq, -EINVAL, "the volume has no blocks");
	if (!entry->reloc_file_size)
		return refuse(rq, -EINVAL, "the relocation file has no blocks");
	if (!entry->hash_size)
		return refuse(rq, -EINVAL, "the hash size is 0");
	return 0;
}

/* Whether the runs lie in the volume, as it says that it is. */
static int check_runs(struct ms_request *rq, struct ms_snap_entry *entry)
{
	const struct ms_run *run = entry_runs(entry), *end = run + entry->num_runs;

	for (; run < end; run++)
		if (!run->start_block || !run->num_blocks ||
		    run->start_block >= entry->num_blocks ||
		    run->num_blocks > entry->num_blocks - run->start_block)
			return refuse(rq, -EINVAL,
				      "a run (%llu + %llu blocks) does not lie in the volume's %llu",
				      run->start_block, run->num_blocks, entry->num_blocks);
	return check_zero(rq, end, (const void *)end + MS_SNAP_TAIL);
}

static int check_snap_entry(struct ms_request *rq, struct ms_snap_entry *entry)
{
	return check_name(rq, entry->volume_name, sizeof(entry->volume_name), "volume name") ?:
	       check_name(rq, entry->reloc_file_name, sizeof(entry->reloc_file_name),
			  "relocation file name") ?:
	       check_terminated(rq, entry->tracking_guid, sizeof(entry->tracking_guid),
				"tracking GUID") ?:
	       check_process(rq, entry->app_pid) ?:
	       check_sizes(rq, entry) ?:
	       check_flag(rq, entry->vtrack_request, "change-tracking request") ?:
	       check_flag(rq, entry->independent_snapshot_request,
			  "independent-snapshot request") ?:
	       check_guid(rq, entry) ?:
	       check_runs(rq, entry);
}

int check_snap(struct ms_request *rq)
{
	u32 i, count = rq->header->request_value, position = 0;
	u64 *volumes = alloc_volumes(rq);
	int result = 0;

	if (!volumes)
		return -ENOMEM;
	for (i = 0; i < count && !result; i++) {
		struct ms_snap_entry *entry = next_snap_entry(rq, &position);

		if (!entry) {
			result = refuse(rq, -EINVAL, "the entry of volume %u does not fit into it", i);
			break;
		}
		volumes[i] = (u64)entry->volume_major << 32 | entry->volume_minor;
		result = check_snap_entry(rq, entry);
	}
	result = result ?: check_distinct(rq, volumes, count);
	if (!result && position + MS_TRAILER != rq->length)
		result = refuse(rq, -EINVAL, "its length is %u, not the %u that its volumes take",
				rq->length, position + MS_TRAILER);
	kvfree(volumes);
	return result ?: check_trailer(rq);
}
