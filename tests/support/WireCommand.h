// SPDX-License-Identifier: Apache-2.0
//
// Driver commands put together byte by byte, as a client sends them: for what talks to a driver without the library.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "driver/DriverProtocol.h"

namespace test {

// One command's buffer, in order unless a test spoils it.
class WireCommand {
 public:
  // Zero but for the header's request value, length and handshake.
  WireCommand(std::size_t length, std::uint32_t requestValue);
  explicit WireCommand(std::vector<std::byte> bytes) : mBytes(std::move(bytes)) {}

  template <class T>
  T get(std::size_t offset) const {
    T record;
    std::memcpy(&record, mBytes.data() + offset, sizeof record);
    return record;
  }
  template <class T>
  WireCommand& put(std::size_t offset, const T& record) {
    std::memcpy(mBytes.data() + offset, &record, sizeof record);
    return *this;
  }
  // Record `index` of a payload that is an array of T.
  template <class T>
  T record(std::size_t index = 0) const {
    return get<T>(sizeof(_ioctlCmd) + index * sizeof(T));
  }
  template <class T>
  void putRecord(std::size_t index, const T& record) {
    put(sizeof(_ioctlCmd) + index * sizeof(T), record);
  }
  _ioctlCmd header() const { return get<_ioctlCmd>(0); }
  std::int32_t status() const { return header().driverStatus; }
  std::uint32_t requestValue() const { return header().requestValue; }

  std::vector<std::byte>& bytes() { return mBytes; }
  const std::vector<std::byte>& bytes() const { return mBytes; }

 private:
  std::vector<std::byte> mBytes;
};

struct WireDevice {
  std::uint32_t majorNum = 0;
  std::uint32_t minorNum = 0;
};

// One volume of a snap command.
struct WireSnapVolume {
  WireDevice device;
  std::string name;
  std::uint64_t numBlocks = 0;
  std::uint32_t blockSize = 0;
  WireDevice relocDevice;
  std::string relocFile;
  std::uint32_t relocBlocks = 0;
  std::uint32_t process = 0;
  std::vector<_run> runs;
  std::string trackingGuid = {};  // with one the snapshot is tracked, without one it is independent
};

WireCommand versionCommand();
WireCommand logLevelCommand(std::uint32_t level);
WireCommand volumeCheckCommand(WireDevice device);
WireCommand volumeListCommand(const std::vector<WireDevice>& devices);
WireCommand createMappingCommand(std::int32_t process, const std::string& volume, const std::string& relocFile);
WireCommand deleteMappingCommand(std::int32_t process, const std::string& volume);
WireCommand countCommand();
WireCommand mappingListingCommand(std::uint32_t room);
WireCommand snappedListingCommand(std::uint32_t room);
WireCommand snapCommand(const std::vector<WireSnapVolume>& volumes);
WireCommand discardCommand(const std::vector<WireDevice>& devices, std::uint32_t flag = 0);
WireCommand verifyCommand();
WireCommand trackingVarsCommand(WireDevice device);
// Reads into the room of `runs`, or pushes them.
WireCommand bitmapCommand(WireDevice device, const std::vector<_run>& runs, std::uint32_t updateType = 0);
// Into `file`; into the log without one.
WireCommand dumpStateCommand(const std::string& file = "");

}  // namespace test
