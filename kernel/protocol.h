/* SPDX-License-Identifier: GPL-2.0-only */
/*
 * What crosses between user space and the driver: request numbers, the header
 * of every command and each command's records.  Integers are little-endian,
 * records are packed, a command is one buffer:
 *
 *   +--------------+------------------------+--------------------------+
 *   | ms_header    | the command's records  | trailing zeros           |
 *   +--------------+------------------------+--------------------------+
 *
 * "in" is what user space fills, "out" what the driver fills.
 */
#ifndef MIRELSNAP_PROTOCOL_H
#define MIRELSNAP_PROTOCOL_H

#include <linux/types.h>

/* The read-write encoding of ioctl with type 'S' and the size 28. */
#define MS_REQUEST(number)		(0xc01c5300u + (number))

#define MS_FREEZE			MS_REQUEST(3)
#define MS_THAW				MS_REQUEST(4)
#define MS_SET_LOG_LEVEL		MS_REQUEST(7)
#define MS_DUMP_STATE			MS_REQUEST(8)
#define MS_UPDATE_BITMAP		MS_REQUEST(9)
#define MS_CHECK_VOLUME_SNAPPED		MS_REQUEST(10)
#define MS_GET_NUM_OF_SNAPPED_VOLUMES	MS_REQUEST(11)
#define MS_GET_SNAPPED_VOL_DETAILS	MS_REQUEST(12)
#define MS_CREATE_RELOC_FILE_MAPPING	MS_REQUEST(13)
#define MS_DELETE_RELOC_FILE_MAPPING	MS_REQUEST(14)
#define MS_GET_NUM_OF_RELOC_FILE_MAPPING MS_REQUEST(15)
#define MS_GET_RELOC_FILE_MAPPING	MS_REQUEST(16)
#define MS_GET_DRIVER_VERSION		MS_REQUEST(17)
#define MS_CHECK_VOLUME_FROZEN		MS_REQUEST(18)
#define MS_SNAP				MS_REQUEST(19)
#define MS_SNAP_DISCARD			MS_REQUEST(20)
#define MS_GET_VDIFF			MS_REQUEST(21)
#define MS_GET_VTRACK_VARS		MS_REQUEST(22)
#define MS_STOP_VTRACK			MS_REQUEST(23)
#define MS_IS_VTRACK_ACTIVE		MS_REQUEST(24)
#define MS_VERIFY_AND_CLEAN_VOLUMES	MS_REQUEST(25)

#define MS_PATH_SIZE	1024	/* of a path's field, the NUL included */
#define MS_TRAILER	3	/* zeros at the end of most commands */
#define MS_SNAP_TAIL	16	/* zeros after the runs of each snap entry */
#define MS_MAX_RUNS	1024	/* in one bitmap command */

/* The header's driver status. */
enum ms_status {
	MS_SNAPPED		= -2,
	MS_ONE_IS_SNAPPED	= -3,	/* of several */
	MS_NOT_SNAPPED		= -4,
	MS_ONE_IS_NOT_SNAPPED	= -5,	/* of several */
	MS_FROZEN		= -6,
	MS_NOT_FROZEN		= -7,
	MS_SIZE_CHANGED		= -8,
	MS_TRACKED		= 2,
	MS_NOT_TRACKED		= 3,
};

/* ms_bitmap::update_type */
enum ms_update_type {
	MS_UPDATE_WHOLE		= 0,
	MS_UPDATE_CONTINUE	= 1,
};

struct ms_header {
	__u32 flags;		/* in: 1 for the bitmap commands, else 0 */
	__u32 request_value;	/* in: records; out: a count */
	__u32 handshake_value;	/* in */
	__u32 handshake_check;	/* in: ((value mod 12) + 1234) mod 20 */
	__u32 length;		/* in: bytes of the whole buffer */
	__s32 driver_status;	/* out */
} __attribute__((packed));

struct ms_run {
	__u64 start_block;
	__u64 num_blocks;
} __attribute__((packed));

struct ms_driver_version {
	char version[67];	/* out */
} __attribute__((packed));

struct ms_log_level {
	__u32 level;		/* in: a syslog priority */
} __attribute__((packed));

struct ms_volume_check {
	__u32 major_num;	/* in */
	__u32 minor_num;	/* in */
} __attribute__((packed));

struct ms_volume {
	__u32 major_num;	/* in */
	__u32 minor_num;	/* in */
	__u32 reserved;		/* zero */
} __attribute__((packed));

struct ms_mapping {
	__s32 app_pid;
	char volume_name[MS_PATH_SIZE];
	char reloc_file_name[MS_PATH_SIZE];	/* zero in the delete command */
} __attribute__((packed));

struct ms_count {
	__u32 reserved;		/* zero */
} __attribute__((packed));

struct ms_snapped_volume {
	__u64 num_blocks;	/* all out */
	__u32 block_size;	/* bytes */
	__u32 reloc_file_size;	/* blocks */
	__u32 major_num;
	__u32 minor_num;
	__s32 app_pid;
	__u32 device_state;	/* enum ms_device_state */
	char reloc_file_name[MS_PATH_SIZE];
	char volume_name[MS_PATH_SIZE];
} __attribute__((packed));

enum ms_device_state {
	MS_STATE_SNAPPED	= 1,
	MS_STATE_BROKEN		= 2,
};

/* Followed by num_runs records ms_run and MS_SNAP_TAIL zeros. */
struct ms_snap_entry {
	__u64 num_blocks;	/* all in */
	__u32 block_size;	/* bytes */
	__u32 reloc_file_size;	/* blocks */
	__u32 hash_size;
	__u32 app_pid;
	__u32 volume_major;
	__u32 volume_minor;
	__u32 reloc_volume_major;
	__u32 reloc_volume_minor;
	char reloc_file_name[MS_PATH_SIZE];
	char volume_name[MS_PATH_SIZE];
	__u32 num_runs;
	__u32 vtrack_request;			/* 0 or 1 */
	__u32 independent_snapshot_request;	/* 0 or 1 */
	__u32 snap_usage_type;
	char tracking_guid[40];
} __attribute__((packed));

struct ms_discard {
	__u32 major_num;	/* in */
	__u32 minor_num;	/* in */
	__u32 result;		/* out: 0 the snapshot was discarded */
	__u32 flag;		/* in: 0 or 1 */
	char reloc_file_name[MS_PATH_SIZE];	/* out */
} __attribute__((packed));

struct ms_tracking_vars {
	__u32 major_num;	/* in */
	__u32 minor_num;	/* in */
	__u32 sequence_number;	/* out */
	char guid[43];		/* out */
} __attribute__((packed));

/* Followed by num_runs records ms_run and MS_TRAILER zeros. */
struct ms_bitmap {
	__u32 major_num;	/* in */
	__u32 minor_num;	/* in */
	__u32 update_type;	/* in, out: enum ms_update_type */
	__u32 num_runs;		/* in: room or count; out: filled */
} __attribute__((packed));

struct ms_dump_state {
	__s8 flag;		/* in */
	__s8 file_flag;		/* in: 1: into the named file */
	__u8 reserved[2];	/* zero */
	__u32 spare[2];		/* zero */
	char file_name[257];	/* in: zero unless file_flag is 1 */
	__u8 tail[6];		/* zero */
} __attribute__((packed));

#ifdef __KERNEL__
#include <linux/build_bug.h>
#include <linux/stddef.h>

#define MS_AT(record, field, at) \
	static_assert(offsetof(struct record, field) == (at))

static_assert(sizeof(struct ms_header) == 24);
MS_AT(ms_header, flags, 0);
MS_AT(ms_header, request_value, 4);
MS_AT(ms_header, handshake_value, 8);
MS_AT(ms_header, handshake_check, 12);
MS_AT(ms_header, length, 16);
MS_AT(ms_header, driver_status, 20);

static_assert(sizeof(struct ms_run) == 16);
MS_AT(ms_run, start_block, 0);
MS_AT(ms_run, num_blocks, 8);

static_assert(sizeof(struct ms_driver_version) == 67);
static_assert(sizeof(struct ms_log_level) == 4);

static_assert(sizeof(struct ms_volume_check) == 8);
MS_AT(ms_volume_check, major_num, 0);
MS_AT(ms_volume_check, minor_num, 4);

static_assert(sizeof(struct ms_volume) == 12);
MS_AT(ms_volume, major_num, 0);
MS_AT(ms_volume, minor_num, 4);
MS_AT(ms_volume, reserved, 8);

static_assert(sizeof(struct ms_mapping) == 2052);
MS_AT(ms_mapping, app_pid, 0);
MS_AT(ms_mapping, volume_name, 4);
MS_AT(ms_mapping, reloc_file_name, 1028);

static_assert(sizeof(struct ms_count) == 4);

static_assert(sizeof(struct ms_snapped_volume) == 2080);
MS_AT(ms_snapped_volume, num_blocks, 0);
MS_AT(ms_snapped_volume, block_size, 8);
MS_AT(ms_snapped_volume, reloc_file_size, 12);
MS_AT(ms_snapped_volume, major_num, 16);
MS_AT(ms_snapped_volume, minor_num, 20);
MS_AT(ms_snapped_volume, app_pid, 24);
MS_AT(ms_snapped_volume, device_state, 28);
MS_AT(ms_snapped_volume, reloc_file_name, 32);
MS_AT(ms_snapped_volume, volume_name, 1056);

static_assert(sizeof(struct ms_snap_entry) == 2144);
MS_AT(ms_snap_entry, num_blocks, 0);
MS_AT(ms_snap_entry, block_size, 8);
MS_AT(ms_snap_entry, reloc_file_size, 12);
MS_AT(ms_snap_entry, hash_size, 16);
MS_AT(ms_snap_entry, app_pid, 20);
MS_AT(ms_snap_entry, volume_major, 24);
MS_AT(ms_snap_entry, volume_minor, 28);
MS_AT(ms_snap_entry, reloc_volume_major, 32);
MS_AT(ms_snap_entry, reloc_volume_minor, 36);
MS_AT(ms_snap_entry, reloc_file_name, 40);
MS_AT(ms_snap_entry, volume_name, 1064);
MS_AT(ms_snap_entry, num_runs, 2088);
MS_AT(ms_snap_entry, vtrack_request, 2092);
MS_AT(ms_snap_entry, independent_snapshot_request, 2096);
MS_AT(ms_snap_entry, snap_usage_type, 2100);
MS_AT(ms_snap_entry, tracking_guid, 2104);

static_assert(sizeof(struct ms_discard) == 1040);
MS_AT(ms_discard, major_num, 0);
MS_AT(ms_discard, minor_num, 4);
MS_AT(ms_discard, result, 8);
MS_AT(ms_discard, flag, 12);
MS_AT(ms_discard, reloc_file_name, 16);

static_assert(sizeof(struct ms_tracking_vars) == 55);
MS_AT(ms_tracking_vars, major_num, 0);
MS_AT(ms_tracking_vars, minor_num, 4);
MS_AT(ms_tracking_vars, sequence_number, 8);
MS_AT(ms_tracking_vars, guid, 12);

static_assert(sizeof(struct ms_bitmap) == 16);
MS_AT(ms_bitmap, major_num, 0);
MS_AT(ms_bitmap, minor_num, 4);
MS_AT(ms_bitmap, update_type, 8);
MS_AT(ms_bitmap, num_runs, 12);

static_assert(sizeof(struct ms_dump_state) == 275);
MS_AT(ms_dump_state, flag, 0);
MS_AT(ms_dump_state, file_flag, 1);
MS_AT(ms_dump_state, reserved, 2);
MS_AT(ms_dump_state, spare, 4);
MS_AT(ms_dump_state, file_name, 12);
MS_AT(ms_dump_state, tail, 269);

#undef MS_AT
#endif /* __KERNEL__ */

#endif /* MIRELSNAP_PROTOCOL_H */
