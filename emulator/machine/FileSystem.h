// SPDX-License-Identifier: Apache-2.0
//
// The file system on a volume, frozen while its volume is copied.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

#include "base/Handle.h"
#include "emulator/machine/Caller.h"
#include "emulator/machine/DeviceNumber.h"
#include "emulator/machine/Kernel.h"
#include "emulator/machine/Result.h"
#include "emulator/machine/SafetyNet.h"

namespace emulator {

// The block device of the file system that an open file lies on, as the viewer sees its mount; the file system's
// anonymous number where it has none.
DeviceNumber deviceHolding(const UniqueFd& file, const Caller& viewer);

class FileSystem {
 public:
  // The file system on the device, found through a mount that the caller sees, else the emulator, else any process. One
  // that is mounted nowhere is fine and needs no freezing. Refused with EBUSY when the device is in use in another way.
  static Result<FileSystem> on(const Kernel& kernel, DeviceNumber device, const Caller& caller);

  DeviceNumber device() const { return mDevice; }
  bool mounted() const { return mRoot.valid(); }
  // Whether its writes end up on `other`, another device: a loop device's file system on that of its file.
  bool standsOn(DeviceNumber other) const { return other != mDevice && mUnder.contains(other); }
  // How many directories below the root it is mounted.
  std::size_t depth() const { return mDepth; }
  // Writes dirty data out, so that freezing takes less time.
  void sync() const;
  // Blocks all writes to it until thaw(); one that is mounted nowhere needs nothing.
  Answer freeze();
  void thaw();

 private:
  FileSystem(SafetyNet* net, DeviceNumber device, std::set<DeviceNumber> under, UniqueFd root, std::size_t depth)
      : mNet(net), mDevice(device), mUnder(std::move(under)), mRoot(std::move(root)), mDepth(depth) {}

  SafetyNet* mNet;
  DeviceNumber mDevice;
  std::set<DeviceNumber> mUnder;  // all devices that it is built on, its own included
  UniqueFd mRoot;
  std::size_t mDepth;
  SafetyNet::Hold mHold;  // while it is frozen
};

// The order in which to freeze file systems, inside out: a file system that lies on another one of them comes first
// (its last writes go there), then deeper mounts before those they are mounted in. They are thawed in reverse order.
std::vector<FileSystem*> insideOut(std::vector<FileSystem*> fileSystems);

// Several file systems frozen together, for a limited time.
class Standstill {
 public:
  explicit Standstill(std::chrono::milliseconds limit);
  ~Standstill();
  Standstill(const Standstill&) = delete;
  Standstill& operator=(const Standstill&) = delete;

  // Freezes in the given order: a file system that lies on another comes before it. When one cannot be frozen, the
  // standstill is over. The file systems outlive it.
  Answer begin(const std::vector<FileSystem*>& fileSystems);
  // Thaws, the last one first. Also done when the time is up, and at the end of the object's life.
  void end();
  // Whether the time was up before end(): then the copies are not consistent.
  bool expired() const { return mExpired; }

 private:
  void watch(std::chrono::milliseconds limit);
  void thawAll();

  std::mutex mMutex;
  std::condition_variable mChanged;
  std::vector<FileSystem*> mFrozen;
  bool mEnded = false;
  std::atomic<bool> mExpired{false};
  std::thread mWatch;
};

}  // namespace emulator
