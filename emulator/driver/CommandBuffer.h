// SPDX-License-Identifier: Apache-2.0
//
// A command's bytes, read and written a record at a time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <optional>
#include <span>
#include <string>
#include <type_traits>

#include "driver/DriverProtocol.h"

namespace emulator {

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

// A volume of a snap command: entries vary in size.
struct SnapEntry {
  SnapVolumeEntry fixed;
  std::size_t runsAt;  // offset of the first run in the buffer
};
// Walks the entries; nothing after the last one, and where the next one does not fit into the buffer.
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
// Fills a field with a text, truncated to leave room for the NUL, and pads it with NULs.
template <std::size_t N>
void putText(char (&field)[N], const std::string& text) {
  std::memset(field, 0, N);
  text.copy(field, N - 1);
}

}  // namespace emulator
