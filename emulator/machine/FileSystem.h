// SPDX-License-Identifier: Apache-2.0
//
// The file system on a volume, held still while its volume is copied.
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
  // The file system on the device, found through a mount that the caller sees, else the emulator, else anybody. One
  // that is mounted nowhere is fine and needs no freezing. Refused with EBUSY when the device is in use in another way.
  static Result<FileSystem> on(const Kernel& kernel, DeviceNumber device, const Caller& caller);

  DeviceNumber device() const { return mDevice; }
  bool mounted() const { return mRoot.valid(); }
  // Whether its writes end up on `other`, another device: a loop device's file system on that of its file.
  bool standsOn(DeviceNumber other) const { return other != mDevice && mUnder.contains(other); }
  // How many folders down it is mounted.
  std::size_t depth() const { return mDepth; }
  // Writes out what is dirty, so that freezing takes less long.
  void sync() const;
  // Stops all writing to it; a file system that is mounted nowhere has none. The other way round: thaw().
  Answer freeze();
  void thaw();

 private:
  FileSystem(SafetyNet* net, DeviceNumber device, std::set<DeviceNumber> under, UniqueFd root, std::size_t depth)
      : mNet(net), mDevice(device), mUnder(std::move(under)), mRoot(std::move(root)), mDepth(depth) {}

  SafetyNet* mNet;
  DeviceNumber mDevice;
  std::set<DeviceNumber> mUnder;  // all devices that it stands on, its own included
  UniqueFd mRoot;
  std::size_t mDepth;
  SafetyNet::Hold mHold;  // while it is frozen
};

// The order to freeze file systems in, inside out: first whatever stands on another one of them (its last writes go
// there), then the deeper mount before the one that it is mounted in. They are thawed the other way round.
std::vector<FileSystem*> insideOut(std::vector<FileSystem*> fileSystems);

// Several file systems held still together, for a limited time.
class Standstill {
 public:
  explicit Standstill(std::chrono::milliseconds limit);
  ~Standstill();
  Standstill(const Standstill&) = delete;
  Standstill& operator=(const Standstill&) = delete;

  // Freezes in the order given: whatever stands on another comes before it. When one cannot be frozen, the standstill
  // is over. The file systems outlive it.
  Answer begin(const std::vector<FileSystem*>& fileSystems);
  // Thaws, the last one first. Also done when the time is up, and at the end of the object's life.
  void end();
  // Whether the time was up before end(): what was copied meanwhile is worth nothing.
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
