// SPDX-License-Identifier: Apache-2.0
//
// The driver as a program sees it: its module, its control device, its commands.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "driver/DriverProtocol.h"

namespace guest {

// Loads the module, with parameters as insmod takes them, or unloads it; 0 or an errno.
int loadModule(const std::string& parameters);
int unloadModule();
bool isLoaded();

// A command's buffer with its header filled in.
class Command {
 public:
  Command(unsigned long request, std::uint32_t requestValue, std::size_t length);

  _ioctlCmd header() const { return get<_ioctlCmd>(0); }
  std::size_t size() const { return mBytes.size(); }
  std::span<unsigned char> bytes() { return mBytes; }
  unsigned long request() const { return mRequest; }

  template <class T>
  T get(std::size_t offset) const {
    T value;
    std::memcpy(&value, mBytes.data() + offset, sizeof value);
    return value;
  }
  template <class T>
  void put(std::size_t offset, const T& value) {
    std::memcpy(mBytes.data() + offset, &value, sizeof value);
  }
  // Of commands whose records have one size.
  template <class T>
  T record(std::size_t index) const {
    return get<T>(sizeof(_ioctlCmd) + index * sizeof(T));
  }
  template <class T>
  void putRecord(std::size_t index, const T& value) {
    put(sizeof(_ioctlCmd) + index * sizeof(T), value);
  }

  // Issues it; 0 or the errno. The answer is in the buffer then.
  int issue();

 private:
  unsigned long mRequest;
  std::vector<unsigned char> mBytes;
};

struct Result {
  int error;
  int status;  // the driver's
  bool operator==(const Result&) const = default;
};
std::ostream& operator<<(std::ostream& out, const Result& result);

// A number of a block device.
struct Number {
  unsigned int major = 0;
  unsigned int minor = 0;
};
Number numberOf(const std::string& device);
std::string snapshotOf(const std::string& device);  // "/dev/snap254_0"

// What a snap asks for one volume. make() fills everything but the relocation file.
struct SnapVolume {
  SnapVolumeEntry entry{};
  std::vector<_run> runs;
};
// Of the device as it is; the block size in bytes. The relocation file is there and lies on `relocDevice`; where that
// is the device itself, its runs are looked up.
SnapVolume snapOf(const std::string& device, const std::string& relocFile, const std::string& relocDevice,
                  std::uint32_t blockSize = 4096);

Command snapCommand(const std::vector<SnapVolume>& volumes);

Result map(const SnapVolume& volume);
Result unmap(const SnapVolume& volume);
// Maps every volume and snaps them.
Result snap(const std::vector<SnapVolume>& volumes);
Result discard(const std::vector<std::string>& devices);
Result freeze(const std::vector<std::string>& devices);
Result thaw(const std::vector<std::string>& devices);
Result stopTracking(const std::vector<std::string>& devices);
Result check(unsigned long request, const std::string& device);

std::uint32_t count(unsigned long request);
std::vector<SnappedVolumeEntry> listSnapped(std::uint32_t room);
std::vector<RelocFileMappingEntry> listMappings(std::uint32_t room);

// Discards what a test has left of them, before their file systems are unmounted.
class Discarded {
 public:
  explicit Discarded(std::vector<std::string> devices) : mDevices(std::move(devices)) {}
  ~Discarded();
  Discarded(const Discarded&) = delete;
  Discarded& operator=(const Discarded&) = delete;

 private:
  std::vector<std::string> mDevices;
};

// The lines of /proc/mirelsnap/snapshots; a word of one: wordOf(line, "state").
std::vector<std::string> snapshotLines();
std::string wordOf(const std::string& line, const std::string& key);
// The dump, by way of a file.
std::string dumpedState();

}  // namespace guest
