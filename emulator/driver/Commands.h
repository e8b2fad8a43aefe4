// SPDX-License-Identifier: Apache-2.0
//
// The driver's commands: their numbers, what they are called on the command line and in the trace, how they are laid
// out.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>

#include "driver/DriverProtocol.h"

namespace emulator {

// How a command's payload is laid out.
enum class Layout {
  Version,
  LogLevel,
  VolumeCheck,
  VolumeList,
  CreateMapping,
  DeleteMapping,
  MappingListing,
  Count,
  SnappedListing,
  Snap,
  Discard,
  Verify,
  TrackingVars,
  ReadBitmap,
  PushBitmap,
  DumpState,
};

struct Command {
  unsigned long request;
  std::string_view name;
  Layout layout;
};

inline constexpr std::array<Command, 21> kCommands{{
    {IOC_FREEZE, "freeze", Layout::VolumeList},
    {IOC_THAW, "thaw", Layout::VolumeList},
    {IOC_SET_LOG_LEVEL, "set-log-level", Layout::LogLevel},
    {IOC_DUMP_STATE, "dump-state", Layout::DumpState},
    {IOC_UPDATE_BITMAP, "update-bitmap", Layout::PushBitmap},
    {IOC_CHECK_VOLUME_SNAPPED, "check-snapped", Layout::VolumeCheck},
    {IOC_GET_NUM_OF_SNAPPED_VOLUMES, "count-snapped", Layout::Count},
    {IOC_GET_SNAPPED_VOL_DETAILS, "list-snapped", Layout::SnappedListing},
    {IOC_CREATE_RELOC_FILE_MAPPING, "create-mapping", Layout::CreateMapping},
    {IOC_DELETE_RELOC_FILE_MAPPING, "delete-mapping", Layout::DeleteMapping},
    {IOC_GET_NUM_OF_RELOC_FILE_MAPPING, "count-mappings", Layout::Count},
    {IOC_GET_RELOC_FILE_MAPPING, "list-mappings", Layout::MappingListing},
    {IOC_GET_DRIVER_VERSION, "version", Layout::Version},
    {IOC_CHECK_VOLUME_FROZEN, "check-frozen", Layout::VolumeCheck},
    {IOC_SNAP, "snap", Layout::Snap},
    {IOC_SNAP_DISCARD, "discard", Layout::Discard},
    {IOC_GET_VDIFF, "get-vdiff", Layout::ReadBitmap},
    {IOC_GET_VTRACK_VARS, "get-vtrack-vars", Layout::TrackingVars},
    {IOC_STOP_VTRACK, "stop-vtrack", Layout::VolumeList},
    {IOC_IS_VTRACK_ACTIVE, "is-vtrack-active", Layout::VolumeCheck},
    {IOC_VERIFY_AND_CLEAN_VOLUMES, "verify-and-clean", Layout::Verify},
}};

// Null when there is none.
const Command* findCommand(unsigned long request);
const Command* findCommand(std::string_view name);

// The driver's statuses.
inline constexpr std::int32_t kSnapped = -2;
inline constexpr std::int32_t kOneIsSnapped = -3;  // of several
inline constexpr std::int32_t kNotSnapped = -4;
inline constexpr std::int32_t kOneIsNotSnapped = -5;  // of several
inline constexpr std::int32_t kFrozen = -6;
inline constexpr std::int32_t kNotFrozen = -7;
inline constexpr std::int32_t kSizeChanged = -8;
inline constexpr std::int32_t kTracked = 2;
inline constexpr std::int32_t kNotTracked = 3;

// A command's buffer, the caller's bytes as they came; records are copied out and in.
class CommandBuffer {
 public:
  explicit CommandBuffer(std::span<std::byte> bytes) : mBytes(bytes) {}

  std::size_t size() const { return mBytes.size(); }
  std::span<const std::byte> bytes() const { return mBytes; }

  // `offset` + sizeof(T) is at most size().
  template <class T>
  T get(std::size_t offset) const {
    static_assert(std::is_trivially_copyable_v<T>);
    T record;
    std::memcpy(&record, mBytes.data() + offset, sizeof record);
    return record;
  }
  template <class T>
  void put(std::size_t offset, const T& record) {
    static_assert(std::is_trivially_copyable_v<T>);
    std::memcpy(mBytes.data() + offset, &record, sizeof record);
  }
  // Record `index` of a payload that is an array of T.
  template <class T>
  T record(std::size_t index) const {
    return get<T>(sizeof(_ioctlCmd) + index * sizeof(T));
  }
  template <class T>
  void putRecord(std::size_t index, const T& record) {
    put(sizeof(_ioctlCmd) + index * sizeof(T), record);
  }

  _ioctlCmd header() const { return get<_ioctlCmd>(0); }
  void putStatus(std::int32_t status) { put(offsetof(_ioctlCmd, driverStatus), status); }
  void putRequestValue(std::uint32_t value) { put(offsetof(_ioctlCmd, requestValue), value); }

 private:
  std::span<std::byte> mBytes;
};

// The volumes of a snap command one after the other: entries vary in size.
struct SnapEntry {
  SnapVolumeEntry fixed;
  std::size_t runsAt;  // offset of the first run in the buffer
};
// Entry after entry; null behind the last, and where the next one does not fit into the buffer any more.
class SnapEntries {
 public:
  explicit SnapEntries(const CommandBuffer& command) : mCommand(command) {}
  std::optional<SnapEntry> next();
  // Where the next entry begins.
  std::size_t position() const { return mPosition; }

 private:
  const CommandBuffer& mCommand;
  std::size_t mPosition = sizeof(_ioctlCmd);
};

// The text of a field that ends with a NUL, or with the field.
template <std::size_t N>
std::string textOf(const char (&field)[N]) {
  return std::string(field, strnlen(field, N));
}
// Fills a field with a text, cut to what leaves room for the NUL, and NULs.
template <std::size_t N>
void putText(char (&field)[N], const std::string& text) {
  std::memset(field, 0, N);
  text.copy(field, N - 1);
}

}  // namespace emulator
