// SPDX-License-Identifier: Apache-2.0
//
// Every record that crosses between the library and the kernel driver: request numbers, the common header, and each
// command's payload. All integers are little-endian; records are packed; a command is one contiguous, zero-filled
// buffer
//
//     +--------------------+----------------------------+-------------------------+
//     | _ioctlCmd, 24 byte | n records of the command   | trailing spare bytes    |
//     +--------------------+----------------------------+-------------------------+
//
// whose whole length stands in the header. "in" is what the library fills, "out" what the driver fills.
#pragma once

#include <cstddef>
#include <cstdint>
#include <utility>

#include <mirelsnap/VolumeRecords.h>

// Requests: the Linux read-write encoding with type 'S' and the size 28, whatever the buffer's length.
inline constexpr unsigned long driverRequest(unsigned int number) { return 0xC01C5300UL + number; }

inline constexpr unsigned long IOC_FREEZE = driverRequest(3);
inline constexpr unsigned long IOC_THAW = driverRequest(4);
inline constexpr unsigned long IOC_SET_LOG_LEVEL = driverRequest(7);
inline constexpr unsigned long IOC_DUMP_STATE = driverRequest(8);
inline constexpr unsigned long IOC_UPDATE_BITMAP = driverRequest(9);
inline constexpr unsigned long IOC_CHECK_VOLUME_SNAPPED = driverRequest(10);
inline constexpr unsigned long IOC_GET_NUM_OF_SNAPPED_VOLUMES = driverRequest(11);
inline constexpr unsigned long IOC_GET_SNAPPED_VOL_DETAILS = driverRequest(12);
inline constexpr unsigned long IOC_CREATE_RELOC_FILE_MAPPING = driverRequest(13);
inline constexpr unsigned long IOC_DELETE_RELOC_FILE_MAPPING = driverRequest(14);
inline constexpr unsigned long IOC_GET_NUM_OF_RELOC_FILE_MAPPING = driverRequest(15);
inline constexpr unsigned long IOC_GET_RELOC_FILE_MAPPING = driverRequest(16);
inline constexpr unsigned long IOC_GET_DRIVER_VERSION = driverRequest(17);
inline constexpr unsigned long IOC_CHECK_VOLUME_FROZEN = driverRequest(18);
inline constexpr unsigned long IOC_SNAP = driverRequest(19);
inline constexpr unsigned long IOC_SNAP_DISCARD = driverRequest(20);
inline constexpr unsigned long IOC_GET_VDIFF = driverRequest(21);
inline constexpr unsigned long IOC_GET_VTRACK_VARS = driverRequest(22);
inline constexpr unsigned long IOC_STOP_VTRACK = driverRequest(23);
inline constexpr unsigned long IOC_IS_VTRACK_ACTIVE = driverRequest(24);
inline constexpr unsigned long IOC_VERIFY_AND_CLEAN_VOLUMES = driverRequest(25);

// Where a driver is met: the file that names its control node's numbers, the node itself, and what the nodes of
// snapshot devices begin with ("/dev/snap8_1" for the volume 8:1).
inline constexpr char kDriverNumbersPath[] = "/proc/mirelsnap/dev";
inline constexpr char kDriverSnapshotsPath[] = "/proc/mirelsnap/snapshots";
inline constexpr char kControlNodePath[] = "/dev/mirelsnapctl";
inline constexpr char kSnapshotDevicePrefix[] = "/dev/snap";

// What a driver answers in `driverStatus`; 0 says nothing. The checks answer on success, the others when they fail.
enum DriverStatus : std::int32_t {
  kStatusSnapped = -2,        // IOC_CHECK_VOLUME_SNAPPED: snapped. IOC_SNAP of one volume: it is snapped already
  kStatusOneSnapped = -3,     // IOC_SNAP of several volumes: one of them is snapped already
  kStatusNotSnapped = -4,     // IOC_CHECK_VOLUME_SNAPPED: not snapped. IOC_SNAP_DISCARD, IOC_STOP_VTRACK: of one volume
  kStatusOneNotSnapped = -5,  // IOC_SNAP_DISCARD, IOC_STOP_VTRACK of several volumes: one of them is not snapped
  kStatusFrozen = -6,         // IOC_CHECK_VOLUME_FROZEN: frozen. IOC_FREEZE: a volume is frozen already
  kStatusNotFrozen = -7,      // IOC_CHECK_VOLUME_FROZEN: not frozen. IOC_THAW: a volume is not frozen
  kStatusSizeChanged = -8,    // IOC_SNAP: a device has not the size that the command names
  kStatusTracked = 2,         // IOC_IS_VTRACK_ACTIVE: changes are tracked
  kStatusNotTracked = 3,      // IOC_IS_VTRACK_ACTIVE: changes are not tracked
};

// The statuses by name, as logs and JSON show them.
inline constexpr std::pair<DriverStatus, const char*> kDriverStatusNames[] = {
    {kStatusSnapped, "snapped"},
    {kStatusOneSnapped, "one-snapped"},
    {kStatusNotSnapped, "not-snapped"},
    {kStatusOneNotSnapped, "one-not-snapped"},
    {kStatusFrozen, "frozen"},
    {kStatusNotFrozen, "not-frozen"},
    {kStatusSizeChanged, "size-changed"},
    {kStatusTracked, "tracked"},
    {kStatusNotTracked, "not-tracked"},
};
// Null for 0 and for what no command answers.
constexpr const char* driverStatusName(std::int32_t status) {
  for (const auto& [known, name] : kDriverStatusNames) {
    if (known == status) return name;
  }
  return nullptr;
}

// Room for a path in every record, the terminating NUL included.
inline constexpr std::size_t kDriverPathSize = 1024;
// Spare bytes behind the records of most commands.
inline constexpr std::size_t kDriverTrailerSize = 3;

#define MIRELSNAP_FIELD(record, field, at) \
  static_assert(offsetof(record, field) == (at), #record "::" #field " is misplaced")

#pragma pack(push, 1)

// The header of every command.
struct _ioctlCmd {
  std::uint32_t flags;           // in: 0, or 1 for the change-tracking bitmap commands
  std::uint32_t requestValue;    // in: count of records, or the command's constant; out: a count
  std::uint32_t handshakeValue;  // in
  std::uint32_t handshakeCheck;  // in: ((value mod 12) + 1234) mod 20
  std::uint32_t length;          // in: bytes of the whole buffer, this header included
  std::int32_t driverStatus;     // out: 0 or a DriverStatus
};
static_assert(sizeof(_ioctlCmd) == 24);
MIRELSNAP_FIELD(_ioctlCmd, flags, 0);
MIRELSNAP_FIELD(_ioctlCmd, requestValue, 4);
MIRELSNAP_FIELD(_ioctlCmd, handshakeValue, 8);
MIRELSNAP_FIELD(_ioctlCmd, handshakeCheck, 12);
MIRELSNAP_FIELD(_ioctlCmd, length, 16);
MIRELSNAP_FIELD(_ioctlCmd, driverStatus, 20);

// IOC_GET_DRIVER_VERSION, 91 bytes with its header.
struct DriverVersionPayload {
  char version[67];  // out: NUL-terminated text
};
static_assert(sizeof(DriverVersionPayload) == 67);

// IOC_SET_LOG_LEVEL, 28 bytes with its header.
struct LogLevelPayload {
  std::uint32_t level;  // in: a syslog priority; what is above 7 (debug) means 7
};
static_assert(sizeof(LogLevelPayload) == 4);

// IOC_CHECK_VOLUME_SNAPPED, IOC_CHECK_VOLUME_FROZEN and IOC_IS_VTRACK_ACTIVE, 35 bytes with header and trailer; request
// value 1. The answer is the status.
struct VolumeCheckPayload {
  std::uint32_t majorNum;  // in
  std::uint32_t minorNum;  // in
};
static_assert(sizeof(VolumeCheckPayload) == 8);
MIRELSNAP_FIELD(VolumeCheckPayload, majorNum, 0);
MIRELSNAP_FIELD(VolumeCheckPayload, minorNum, 4);

// IOC_FREEZE, IOC_THAW and IOC_STOP_VTRACK: one entry a volume; request value: their number.
struct VolumeListEntry {
  std::uint32_t majorNum;   // in
  std::uint32_t minorNum;   // in
  std::uint32_t reserved_;  // zero
};
static_assert(sizeof(VolumeListEntry) == 12);
MIRELSNAP_FIELD(VolumeListEntry, majorNum, 0);
MIRELSNAP_FIELD(VolumeListEntry, minorNum, 4);
MIRELSNAP_FIELD(VolumeListEntry, reserved_, 8);

// IOC_CREATE_RELOC_FILE_MAPPING and IOC_DELETE_RELOC_FILE_MAPPING, 2079 bytes with header and trailer; request value 0.
// IOC_GET_RELOC_FILE_MAPPING answers the same record, one a mapping; request value: room in, filled out.
struct RelocFileMappingEntry {
  std::int32_t appPid;                      // process that registered the mapping
  char snappedVolumeName[kDriverPathSize];  // NUL-terminated
  char relocFileName[kDriverPathSize];      // NUL-terminated; zero in the delete command
};
static_assert(sizeof(RelocFileMappingEntry) == 2052);
MIRELSNAP_FIELD(RelocFileMappingEntry, appPid, 0);
MIRELSNAP_FIELD(RelocFileMappingEntry, snappedVolumeName, 4);
MIRELSNAP_FIELD(RelocFileMappingEntry, relocFileName, 1028);

// IOC_GET_NUM_OF_SNAPPED_VOLUMES and IOC_GET_NUM_OF_RELOC_FILE_MAPPING, 28 bytes with their header; request value 0 in,
// the number out. IOC_VERIFY_AND_CLEAN_VOLUMES has the same shape and only its first byte means something.
struct CountPayload {
  std::uint32_t reserved_;  // zero
};
static_assert(sizeof(CountPayload) == 4);

// IOC_GET_SNAPPED_VOL_DETAILS: one record a snapped volume, all out; request value: room in, filled out.
struct SnappedVolumeEntry {
  std::uint64_t numBlocks;      // size of the volume in blocks
  std::uint32_t blockSize;      // bytes
  std::uint32_t relocFileSize;  // blocks
  std::uint32_t majorNum;       // the snapped volume's device
  std::uint32_t minorNum;
  std::int32_t appPid;                      // process that made the snapshot
  std::uint32_t deviceState;                // the driver's own
  char relocFileName[kDriverPathSize];      // NUL-terminated
  char snappedVolumeName[kDriverPathSize];  // NUL-terminated
};
static_assert(sizeof(SnappedVolumeEntry) == 2080);
MIRELSNAP_FIELD(SnappedVolumeEntry, numBlocks, 0);
MIRELSNAP_FIELD(SnappedVolumeEntry, blockSize, 8);
MIRELSNAP_FIELD(SnappedVolumeEntry, relocFileSize, 12);
MIRELSNAP_FIELD(SnappedVolumeEntry, majorNum, 16);
MIRELSNAP_FIELD(SnappedVolumeEntry, minorNum, 20);
MIRELSNAP_FIELD(SnappedVolumeEntry, appPid, 24);
MIRELSNAP_FIELD(SnappedVolumeEntry, deviceState, 28);
MIRELSNAP_FIELD(SnappedVolumeEntry, relocFileName, 32);
MIRELSNAP_FIELD(SnappedVolumeEntry, snappedVolumeName, 1056);

// IOC_SNAP: one variable entry a volume, the next right behind; request value: their number. An entry is this fixed
// part, then numRuns runs, then 16 bytes that stay zero: 2160 + 16 * numRuns bytes.
struct SnapVolumeEntry {
  std::uint64_t numBlocks;                   // in: size of the volume in blocks
  std::uint32_t blockSize;                   // in: bytes
  std::uint32_t relocFileSize;               // in: blocks
  std::uint32_t hashSize;                    // in: buckets of the driver's table
  std::uint32_t appPid;                      // in: the process that makes the snapshot
  std::uint32_t volumeMajor;                 // in
  std::uint32_t volumeMinor;                 // in
  std::uint32_t relocVolumeMajor;            // in: the device that holds the relocation file
  std::uint32_t relocVolumeMinor;            // in
  char relocFileName[kDriverPathSize];       // in: NUL-terminated
  char volumeName[kDriverPathSize];          // in: NUL-terminated
  std::uint32_t numRuns;                     // in: runs of relocation files on this volume
  std::uint32_t vtrackRequest;               // in: 0 or 1, change tracking wanted
  std::uint32_t independentSnapshotRequest;  // in: 0 or 1
  std::uint32_t snapUsageType;               // in: passed through
  char trackingGuid[40];                     // in: NUL-terminated text, or zero
};
static_assert(sizeof(SnapVolumeEntry) == 2144);
MIRELSNAP_FIELD(SnapVolumeEntry, numBlocks, 0);
MIRELSNAP_FIELD(SnapVolumeEntry, blockSize, 8);
MIRELSNAP_FIELD(SnapVolumeEntry, relocFileSize, 12);
MIRELSNAP_FIELD(SnapVolumeEntry, hashSize, 16);
MIRELSNAP_FIELD(SnapVolumeEntry, appPid, 20);
MIRELSNAP_FIELD(SnapVolumeEntry, volumeMajor, 24);
MIRELSNAP_FIELD(SnapVolumeEntry, volumeMinor, 28);
MIRELSNAP_FIELD(SnapVolumeEntry, relocVolumeMajor, 32);
MIRELSNAP_FIELD(SnapVolumeEntry, relocVolumeMinor, 36);
MIRELSNAP_FIELD(SnapVolumeEntry, relocFileName, 40);
MIRELSNAP_FIELD(SnapVolumeEntry, volumeName, 1064);
MIRELSNAP_FIELD(SnapVolumeEntry, numRuns, 2088);
MIRELSNAP_FIELD(SnapVolumeEntry, vtrackRequest, 2092);
MIRELSNAP_FIELD(SnapVolumeEntry, independentSnapshotRequest, 2096);
MIRELSNAP_FIELD(SnapVolumeEntry, snapUsageType, 2100);
MIRELSNAP_FIELD(SnapVolumeEntry, trackingGuid, 2104);
// Zero bytes behind the runs of each entry.
inline constexpr std::size_t kSnapEntryTail = 16;
inline constexpr std::size_t kSnapEntrySize = sizeof(SnapVolumeEntry) + kSnapEntryTail;
static_assert(kSnapEntrySize == 2160);

// IOC_SNAP_DISCARD: one record a volume; request value: their number.
struct DiscardEntry {
  std::uint32_t majorNum;               // in
  std::uint32_t minorNum;               // in
  std::uint32_t result;                 // out: 0 the snapshot was discarded, else not snapped
  std::uint32_t flag;                   // in: 0 or 1, the caller's
  char relocFileName[kDriverPathSize];  // out: relocation file of the discarded snapshot, NUL-terminated
};
static_assert(sizeof(DiscardEntry) == 1040);
MIRELSNAP_FIELD(DiscardEntry, majorNum, 0);
MIRELSNAP_FIELD(DiscardEntry, minorNum, 4);
MIRELSNAP_FIELD(DiscardEntry, result, 8);
MIRELSNAP_FIELD(DiscardEntry, flag, 12);
MIRELSNAP_FIELD(DiscardEntry, relocFileName, 16);

// IOC_GET_VTRACK_VARS, 79 bytes with its header; request value 1.
struct TrackingVarsPayload {
  std::uint32_t majorNum;        // in
  std::uint32_t minorNum;        // in
  std::uint32_t sequenceNumber;  // out
  char guid[43];                 // out: NUL-terminated text
};
static_assert(sizeof(TrackingVarsPayload) == 55);
MIRELSNAP_FIELD(TrackingVarsPayload, majorNum, 0);
MIRELSNAP_FIELD(TrackingVarsPayload, minorNum, 4);
MIRELSNAP_FIELD(TrackingVarsPayload, sequenceNumber, 8);
MIRELSNAP_FIELD(TrackingVarsPayload, guid, 12);

// IOC_GET_VDIFF and IOC_UPDATE_BITMAP: this, then numRuns runs, then the trailer: 16 * numRuns + 43 bytes with the
// header; command flags 1, request value 1.
struct BitmapPayload {
  std::uint32_t majorNum;    // in
  std::uint32_t minorNum;    // in
  std::uint32_t updateType;  // in, out: an _updateBitmapIoctlType
  std::uint32_t numRuns;     // in: room (read) or count (push); out: runs filled
};
static_assert(sizeof(BitmapPayload) == 16);
MIRELSNAP_FIELD(BitmapPayload, majorNum, 0);
MIRELSNAP_FIELD(BitmapPayload, minorNum, 4);
MIRELSNAP_FIELD(BitmapPayload, updateType, 8);
MIRELSNAP_FIELD(BitmapPayload, numRuns, 12);
// Where the runs begin, from the start of the buffer.
inline constexpr std::size_t kBitmapRunsOffset = sizeof(_ioctlCmd) + sizeof(BitmapPayload);
static_assert(kBitmapRunsOffset == 40);
// A bitmap command's length.
inline constexpr std::size_t bitmapCommandLength(std::size_t runs) {
  return kBitmapRunsOffset + runs * sizeof(_run) + kDriverTrailerSize;
}
static_assert(bitmapCommandLength(0) == 43 && bitmapCommandLength(kMaxBitmapRuns) == 16427);

// IOC_DUMP_STATE, 299 bytes with its header; request value 0.
struct DumpStatePayload {
  std::int8_t flag;           // in: passed through
  std::int8_t fileFlag;       // in: 1 the dump goes into the named file
  std::uint8_t reserved_[2];  // zero
  std::uint32_t spare_[2];    // zero
  char fileName[257];         // in: NUL-terminated; all zero unless fileFlag is 1
  std::uint8_t tail_[6];      // zero
};
static_assert(sizeof(DumpStatePayload) == 275);
MIRELSNAP_FIELD(DumpStatePayload, flag, 0);
MIRELSNAP_FIELD(DumpStatePayload, fileFlag, 1);
MIRELSNAP_FIELD(DumpStatePayload, reserved_, 2);
MIRELSNAP_FIELD(DumpStatePayload, spare_, 4);
MIRELSNAP_FIELD(DumpStatePayload, fileName, 12);
MIRELSNAP_FIELD(DumpStatePayload, tail_, 269);

#pragma pack(pop)

#undef MIRELSNAP_FIELD
