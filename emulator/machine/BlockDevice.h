// SPDX-License-Identifier: Apache-2.0
//
// Block devices by their numbers: their size, the devices below them, where their data is.
#pragma once

#include <cstdint>
#include <set>
#include <string>

#include "base/Handle.h"
#include "emulator/machine/Caller.h"
#include "emulator/machine/DeviceNumber.h"
#include "emulator/machine/Kernel.h"
#include "emulator/machine/Result.h"

namespace emulator {

class BlockDevice {
 public:
  // Opens it for reading. Refused with the errno of opening, and with ENXIO when it has no medium (an empty loop
  // device).
  static Result<BlockDevice> open(const Kernel& kernel, DeviceNumber number);

  DeviceNumber number() const { return mNumber; }
  int descriptor() const { return mDescriptor.get(); }
  std::uint64_t bytes() const { return mBytes; }
  unsigned int sectorSize() const { return mSectorSize; }

 private:
  BlockDevice(DeviceNumber number, UniqueFd descriptor, std::uint64_t bytes, unsigned int sectorSize)
      : mNumber(number), mDescriptor(std::move(descriptor)), mBytes(bytes), mSectorSize(sectorSize) {}

  DeviceNumber mNumber;
  UniqueFd mDescriptor;
  std::uint64_t mBytes;
  unsigned int mSectorSize;  // logical, bytes
};

// Whether the device is claimed exclusively: by a mount in any namespace, by a mapping over it.
bool isClaimed(const Kernel& kernel, DeviceNumber number);

// All devices that `number` is built on, itself included: the disk of a partition, the disks under a mapping, the
// device of the file system that holds a loop device's file, and so on down.
std::set<DeviceNumber> devicesUnder(const Kernel& kernel, DeviceNumber number);

// A loop device's file, where it can be found: opened for reading, and where in it the device begins.
struct BackingFile {
  UniqueFd file;  // invalid: not a loop device, or its file cannot be reached
  std::uint64_t offset = 0;
};
BackingFile openBackingFile(const Kernel& kernel, const BlockDevice& device, const Caller& caller);

// Where a device's data can be read past the page cache of the device: its backing file, else the device itself opened
// for direct reading.
struct DeviceData {
  UniqueFd file;
  std::uint64_t offset;  // where the data begin in it, bytes
  bool hasHoles;         // whether it can say where its holes are
};
Result<DeviceData> openDeviceData(const Kernel& kernel, const BlockDevice& device, const Caller& caller);
// Flushes the page cache of a device that is not mounted, so that its data can be read past the cache.
void writeOut(const BlockDevice& device);

}  // namespace emulator
