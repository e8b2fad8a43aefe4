// SPDX-License-Identifier: Apache-2.0
//
// The driver: what it holds, and what it does on each command. Its state lives as long as the object, whichever process
// asked.
//
// A method a command, which its row in Commands.cpp names: it gets a command that was checked (CommandCheck) and writes
// its answer into the buffer. A refusal carries the errno of the request, the driver status where the command has one,
// and the reason; it changes nothing.
#pragma once

#include <atomic>
#include <chrono>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "emulator/driver/Commands.h"
#include "emulator/driver/Messages.h"
#include "emulator/machine/Caller.h"
#include "emulator/machine/DeviceNumber.h"
#include "emulator/machine/FileSystem.h"
#include "emulator/machine/Kernel.h"
#include "emulator/machine/Result.h"
#include "emulator/machine/SnapshotImage.h"

namespace emulator {

struct DriverSettings {
  std::string version;              // at most kLongestVersion bytes
  std::vector<std::string> stores;  // directories for images, in order of preference
  std::chrono::milliseconds freezeLimit{60000};
};
inline constexpr std::size_t kLongestVersion = sizeof(DriverVersionPayload) - 1;

class EmulatedDriver {
 public:
  EmulatedDriver(const Kernel& kernel, Messages& messages, DriverSettings settings);
  // Undoes all that it made: thaws, unmounts its snapshots in the emulator's own namespace, detaches them, removes
  // their nodes.
  ~EmulatedDriver();
  EmulatedDriver(const EmulatedDriver&) = delete;
  EmulatedDriver& operator=(const EmulatedDriver&) = delete;

  // Carries out a command by its row.
  Answer handle(const Command& command, const Caller& caller, CommandBuffer& buffer);

  Answer version(const Caller& caller, CommandBuffer& buffer);
  Answer setLogLevel(const Caller& caller, CommandBuffer& buffer);
  // A syslog priority, 3 (errors) at first; more than 7 means 7.
  std::uint32_t logLevel() const { return mLogLevel; }

  Answer checkSnapped(const Caller& caller, CommandBuffer& buffer);
  Answer checkFrozen(const Caller& caller, CommandBuffer& buffer);
  Answer freeze(const Caller& caller, CommandBuffer& buffer);
  Answer thaw(const Caller& caller, CommandBuffer& buffer);

  Answer createMapping(const Caller& caller, CommandBuffer& buffer);
  Answer deleteMapping(const Caller& caller, CommandBuffer& buffer);
  Answer countMappings(const Caller& caller, CommandBuffer& buffer);
  Answer listMappings(const Caller& caller, CommandBuffer& buffer);

  Answer snap(const Caller& caller, CommandBuffer& buffer);
  Answer countSnapped(const Caller& caller, CommandBuffer& buffer);
  Answer listSnapped(const Caller& caller, CommandBuffer& buffer);
  Answer discard(const Caller& caller, CommandBuffer& buffer);
  Answer verifyAndClean(const Caller& caller, CommandBuffer& buffer);

  // Change tracking belongs to a snapshot: it starts with a snap that asks for it and is not an independent one, and
  // ends with the snapshot, or earlier when it is stopped.
  Answer checkTracked(const Caller& caller, CommandBuffer& buffer);
  Answer trackingVars(const Caller& caller, CommandBuffer& buffer);
  Answer readBitmap(const Caller& caller, CommandBuffer& buffer);
  Answer pushBitmap(const Caller& caller, CommandBuffer& buffer);
  Answer stopTracking(const Caller& caller, CommandBuffer& buffer);

  // Its state as text: into a file of the caller's, or as messages.
  Answer dumpState(const Caller& caller, CommandBuffer& buffer);

  // The text of /proc/mirelsnap/snapshots: a line a snapshot, as the kernel's driver has it. The image holds a volume
  // as it was, so that the relocation file takes no block, and no memory is held.
  std::string snapshotLines() const;

  // Thaws every volume that is frozen.
  void thawAll();
  // Ends a snap that is running, and refuses those that come. May be called from any thread.
  void cancel() { mCancelled = true; }

 private:
  struct Mapping {
    std::int32_t process;
    std::string volumeName;
    std::string relocFileName;
    std::optional<DeviceNumber> volume;  // what the name led to when the mapping was made
  };
  struct Tracking {
    std::string guid;  // as the snap command gave it
    std::uint32_t sequenceNumber;
    std::vector<_run> used;  // blocks in use, as the client said
  };
  struct Snapped {
    SnapVolumeEntry entry;  // as the snap command gave it
    SnapshotImage image;
    std::optional<Tracking> tracking;
    std::chrono::system_clock::time_point instant;
    std::chrono::microseconds frozen;  // how long the set's volumes stood still
  };

  std::vector<Snapped>::iterator findSnapped(DeviceNumber volume);
  bool isFrozen(DeviceNumber volume) const;
  void dropSnapped(std::vector<Snapped>::iterator snapped);
  void releaseUnused();
  void undo();
  std::optional<Tracking> startTracking(const SnapVolumeEntry& entry);
  Result<Snapped*> findTracked(DeviceNumber volume);
  std::string describeState() const;
  Answer refuseFrozenPlace(const UniqueFd& place, const Caller& caller) const;

  // The checks of a snap, in their order.
  Answer refuseSnapped(const std::vector<SnapEntry>& entries);
  Answer refuseChangedSize(const std::vector<SnapEntry>& entries);
  Answer refuseUnmapped(const std::vector<SnapEntry>& entries);
  Answer refuseRelocationFiles(const Caller& caller, const std::vector<SnapEntry>& entries,
                               const CommandBuffer& buffer);

  const Kernel& mKernel;
  Messages& mMessages;
  DriverSettings mSettings;
  std::vector<Snapped> mSnapped;         // in the order in which they were snapped
  std::vector<SnapshotImage> mReleased;  // discarded while still mounted
  std::vector<Mapping> mMappings;
  std::vector<FileSystem> mFrozen;                         // in the order in which they were frozen
  std::map<DeviceNumber, std::uint32_t> mSequenceNumbers;  // of the last tracking of each volume
  std::uint32_t mLogLevel = 3;
  std::atomic<bool> mCancelled{false};
};

}  // namespace emulator
