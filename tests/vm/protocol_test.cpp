// SPDX-License-Identifier: Apache-2.0
//
// The driver's wire records beside the library's: they are written twice, and must be the same.
#include <gtest/gtest.h>

#include "driver/DriverProtocol.h"
#include "protocol.h"

namespace {

#define SAME_SIZE(driver, library) static_assert(sizeof(struct driver) == sizeof(library))
#define SAME_FIELD(driver, field, library, member)                            \
  static_assert(offsetof(struct driver, field) == offsetof(library, member)); \
  static_assert(sizeof(((struct driver*)nullptr)->field) == sizeof(library::member))

SAME_SIZE(ms_header, _ioctlCmd);
SAME_FIELD(ms_header, flags, _ioctlCmd, flags);
SAME_FIELD(ms_header, request_value, _ioctlCmd, requestValue);
SAME_FIELD(ms_header, handshake_value, _ioctlCmd, handshakeValue);
SAME_FIELD(ms_header, handshake_check, _ioctlCmd, handshakeCheck);
SAME_FIELD(ms_header, length, _ioctlCmd, length);
SAME_FIELD(ms_header, driver_status, _ioctlCmd, driverStatus);

SAME_SIZE(ms_run, _run);
SAME_FIELD(ms_run, start_block, _run, startBlock);
SAME_FIELD(ms_run, num_blocks, _run, numBlocks);

SAME_SIZE(ms_driver_version, DriverVersionPayload);
SAME_FIELD(ms_driver_version, version, DriverVersionPayload, version);

SAME_SIZE(ms_log_level, LogLevelPayload);
SAME_FIELD(ms_log_level, level, LogLevelPayload, level);

SAME_SIZE(ms_volume_check, VolumeCheckPayload);
SAME_FIELD(ms_volume_check, major_num, VolumeCheckPayload, majorNum);
SAME_FIELD(ms_volume_check, minor_num, VolumeCheckPayload, minorNum);

SAME_SIZE(ms_volume, VolumeListEntry);
SAME_FIELD(ms_volume, major_num, VolumeListEntry, majorNum);
SAME_FIELD(ms_volume, minor_num, VolumeListEntry, minorNum);
SAME_FIELD(ms_volume, reserved, VolumeListEntry, reserved_);

SAME_SIZE(ms_mapping, RelocFileMappingEntry);
SAME_FIELD(ms_mapping, app_pid, RelocFileMappingEntry, appPid);
SAME_FIELD(ms_mapping, volume_name, RelocFileMappingEntry, snappedVolumeName);
SAME_FIELD(ms_mapping, reloc_file_name, RelocFileMappingEntry, relocFileName);

SAME_SIZE(ms_count, CountPayload);

SAME_SIZE(ms_snapped_volume, SnappedVolumeEntry);
SAME_FIELD(ms_snapped_volume, num_blocks, SnappedVolumeEntry, numBlocks);
SAME_FIELD(ms_snapped_volume, block_size, SnappedVolumeEntry, blockSize);
SAME_FIELD(ms_snapped_volume, reloc_file_size, SnappedVolumeEntry, relocFileSize);
SAME_FIELD(ms_snapped_volume, major_num, SnappedVolumeEntry, majorNum);
SAME_FIELD(ms_snapped_volume, minor_num, SnappedVolumeEntry, minorNum);
SAME_FIELD(ms_snapped_volume, app_pid, SnappedVolumeEntry, appPid);
SAME_FIELD(ms_snapped_volume, device_state, SnappedVolumeEntry, deviceState);
SAME_FIELD(ms_snapped_volume, reloc_file_name, SnappedVolumeEntry, relocFileName);
SAME_FIELD(ms_snapped_volume, volume_name, SnappedVolumeEntry, snappedVolumeName);

SAME_SIZE(ms_snap_entry, SnapVolumeEntry);
SAME_FIELD(ms_snap_entry, num_blocks, SnapVolumeEntry, numBlocks);
SAME_FIELD(ms_snap_entry, block_size, SnapVolumeEntry, blockSize);
SAME_FIELD(ms_snap_entry, reloc_file_size, SnapVolumeEntry, relocFileSize);
SAME_FIELD(ms_snap_entry, hash_size, SnapVolumeEntry, hashSize);
SAME_FIELD(ms_snap_entry, app_pid, SnapVolumeEntry, appPid);
SAME_FIELD(ms_snap_entry, volume_major, SnapVolumeEntry, volumeMajor);
SAME_FIELD(ms_snap_entry, volume_minor, SnapVolumeEntry, volumeMinor);
SAME_FIELD(ms_snap_entry, reloc_volume_major, SnapVolumeEntry, relocVolumeMajor);
SAME_FIELD(ms_snap_entry, reloc_volume_minor, SnapVolumeEntry, relocVolumeMinor);
SAME_FIELD(ms_snap_entry, reloc_file_name, SnapVolumeEntry, relocFileName);
SAME_FIELD(ms_snap_entry, volume_name, SnapVolumeEntry, volumeName);
SAME_FIELD(ms_snap_entry, num_runs, SnapVolumeEntry, numRuns);
SAME_FIELD(ms_snap_entry, vtrack_request, SnapVolumeEntry, vtrackRequest);
SAME_FIELD(ms_snap_entry, independent_snapshot_request, SnapVolumeEntry, independentSnapshotRequest);
SAME_FIELD(ms_snap_entry, snap_usage_type, SnapVolumeEntry, snapUsageType);
SAME_FIELD(ms_snap_entry, tracking_guid, SnapVolumeEntry, trackingGuid);
static_assert(MS_SNAP_TAIL == kSnapEntryTail);

SAME_SIZE(ms_discard, DiscardEntry);
SAME_FIELD(ms_discard, major_num, DiscardEntry, majorNum);
SAME_FIELD(ms_discard, minor_num, DiscardEntry, minorNum);
SAME_FIELD(ms_discard, result, DiscardEntry, result);
SAME_FIELD(ms_discard, flag, DiscardEntry, flag);
SAME_FIELD(ms_discard, reloc_file_name, DiscardEntry, relocFileName);

SAME_SIZE(ms_tracking_vars, TrackingVarsPayload);
SAME_FIELD(ms_tracking_vars, major_num, TrackingVarsPayload, majorNum);
SAME_FIELD(ms_tracking_vars, minor_num, TrackingVarsPayload, minorNum);
SAME_FIELD(ms_tracking_vars, sequence_number, TrackingVarsPayload, sequenceNumber);
SAME_FIELD(ms_tracking_vars, guid, TrackingVarsPayload, guid);

SAME_SIZE(ms_bitmap, BitmapPayload);
SAME_FIELD(ms_bitmap, major_num, BitmapPayload, majorNum);
SAME_FIELD(ms_bitmap, minor_num, BitmapPayload, minorNum);
SAME_FIELD(ms_bitmap, update_type, BitmapPayload, updateType);
SAME_FIELD(ms_bitmap, num_runs, BitmapPayload, numRuns);

SAME_SIZE(ms_dump_state, DumpStatePayload);
SAME_FIELD(ms_dump_state, flag, DumpStatePayload, flag);
SAME_FIELD(ms_dump_state, file_flag, DumpStatePayload, fileFlag);
SAME_FIELD(ms_dump_state, reserved, DumpStatePayload, reserved_);
SAME_FIELD(ms_dump_state, spare, DumpStatePayload, spare_);
SAME_FIELD(ms_dump_state, file_name, DumpStatePayload, fileName);
SAME_FIELD(ms_dump_state, tail, DumpStatePayload, tail_);

TEST(Protocol, every_request_has_the_same_number_on_both_sides) {
  EXPECT_EQ(MS_FREEZE, IOC_FREEZE);
  EXPECT_EQ(MS_THAW, IOC_THAW);
  EXPECT_EQ(MS_SET_LOG_LEVEL, IOC_SET_LOG_LEVEL);
  EXPECT_EQ(MS_DUMP_STATE, IOC_DUMP_STATE);
  EXPECT_EQ(MS_UPDATE_BITMAP, IOC_UPDATE_BITMAP);
  EXPECT_EQ(MS_CHECK_VOLUME_SNAPPED, IOC_CHECK_VOLUME_SNAPPED);
  EXPECT_EQ(MS_GET_NUM_OF_SNAPPED_VOLUMES, IOC_GET_NUM_OF_SNAPPED_VOLUMES);
  EXPECT_EQ(MS_GET_SNAPPED_VOL_DETAILS, IOC_GET_SNAPPED_VOL_DETAILS);
  EXPECT_EQ(MS_CREATE_RELOC_FILE_MAPPING, IOC_CREATE_RELOC_FILE_MAPPING);
  EXPECT_EQ(MS_DELETE_RELOC_FILE_MAPPING, IOC_DELETE_RELOC_FILE_MAPPING);
  EXPECT_EQ(MS_GET_NUM_OF_RELOC_FILE_MAPPING, IOC_GET_NUM_OF_RELOC_FILE_MAPPING);
  EXPECT_EQ(MS_GET_RELOC_FILE_MAPPING, IOC_GET_RELOC_FILE_MAPPING);
  EXPECT_EQ(MS_GET_DRIVER_VERSION, IOC_GET_DRIVER_VERSION);
  EXPECT_EQ(MS_CHECK_VOLUME_FROZEN, IOC_CHECK_VOLUME_FROZEN);
  EXPECT_EQ(MS_SNAP, IOC_SNAP);
  EXPECT_EQ(MS_SNAP_DISCARD, IOC_SNAP_DISCARD);
  EXPECT_EQ(MS_GET_VDIFF, IOC_GET_VDIFF);
  EXPECT_EQ(MS_GET_VTRACK_VARS, IOC_GET_VTRACK_VARS);
  EXPECT_EQ(MS_STOP_VTRACK, IOC_STOP_VTRACK);
  EXPECT_EQ(MS_IS_VTRACK_ACTIVE, IOC_IS_VTRACK_ACTIVE);
  EXPECT_EQ(MS_VERIFY_AND_CLEAN_VOLUMES, IOC_VERIFY_AND_CLEAN_VOLUMES);
}

TEST(Protocol, the_limits_are_the_same_on_both_sides) {
  EXPECT_EQ(MS_PATH_SIZE, kDriverPathSize);
  EXPECT_EQ(MS_TRAILER, kDriverTrailerSize);
  EXPECT_EQ(MS_MAX_RUNS, kMaxBitmapRuns);
}

}  // namespace
