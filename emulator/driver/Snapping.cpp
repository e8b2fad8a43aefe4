// SPDX-License-Identifier: Apache-2.0
//
// The driver's snap command: its preconditions, and taking the snapshots.
#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <iterator>

#include "emulator/driver/EmulatedDriver.h"
#include "emulator/machine/BlockDevice.h"
#include "emulator/machine/SnapshotTaking.h"

namespace emulator {
namespace {

DeviceNumber volumeOf(const SnapVolumeEntry& entry) { return {entry.volumeMajor, entry.volumeMinor}; }
DeviceNumber relocVolumeOf(const SnapVolumeEntry& entry) { return {entry.relocVolumeMajor, entry.relocVolumeMinor}; }

std::vector<SnapEntry> allEntries(const CommandBuffer& buffer) {
  std::vector<SnapEntry> entries;
  SnapEntries walk(buffer);
  for (std::uint32_t i = 0; i < buffer.header().requestValue; ++i) {
    if (auto entry = walk.next()) entries.push_back(*entry);
  }
  return entries;
}

std::uint64_t blocksInRuns(const CommandBuffer& buffer, const SnapEntry& entry) {
  std::uint64_t blocks = 0;
  for (std::uint32_t i = 0; i < entry.fixed.numRuns; ++i) {
    blocks += buffer.get<_run>(entry.runsAt + i * sizeof(_run)).numBlocks;
  }
  return blocks;
}

// Old content of all users' files goes into it: nobody but root may have made it, or read it.
Answer refuseOthersFile(const std::string& what, const struct stat& file) {
  if (!S_ISREG(file.st_mode)) return refuse(EINVAL, what + " is not a regular file");
  if (file.st_uid != 0) return refuse(EPERM, what + " belongs to user " + std::to_string(file.st_uid) + ", not root");
  if (file.st_nlink != 1) return refuse(EPERM, what + " has " + std::to_string(file.st_nlink) + " links");
  if ((file.st_mode & (S_IRWXG | S_IRWXO)) != 0) return refuse(EPERM, what + " is open to others than root");
  return done();
}

// The relocation file is there, root's alone, on the volume that is said to hold it, at its full size; where it lies on
// the snapped volume itself, the runs cover it.
Answer refuseRelocationFile(const Caller& caller, const SnapEntry& entry, const CommandBuffer& buffer) {
  const std::string name = textOf(entry.fixed.relocFileName);
  const std::string what = "the relocation file " + name;
  const UniqueFd file = caller.openWithoutLinks(name, O_PATH);
  struct stat found;
  if (!file || fstat(file.get(), &found) != 0) return failedCall(errno, what);
  if (Answer answer = refuseOthersFile(what, found); !answer) return answer;
  const DeviceNumber holder = numberOf(found.st_dev);
  const DeviceNumber named = relocVolumeOf(entry.fixed);
  // A file system of several devices (btrfs) shows a number of its own, which cannot be compared.
  if (holder.majorNum != 0 && holder != named) {
    return refuse(EINVAL, what + " lies on " + holder.text() + ", not on " + named.text());
  }
  const std::uint64_t needed = std::uint64_t{entry.fixed.relocFileSize} * entry.fixed.blockSize;
  if (static_cast<std::uint64_t>(found.st_size) < needed) {
    return refuse(EINVAL,
                  what + " has " + std::to_string(found.st_size) + " bytes, " + std::to_string(needed) + " are needed");
  }
  const std::uint64_t covered = blocksInRuns(buffer, entry);
  if (named == volumeOf(entry.fixed) && covered < entry.fixed.relocFileSize) {
    return refuse(EINVAL, what + " lies on its own volume, but the runs cover only " + std::to_string(covered) +
                              " of its " + std::to_string(entry.fixed.relocFileSize) + " blocks");
  }
  return done();
}

}  // namespace

Answer EmulatedDriver::refuseSnapped(const std::vector<SnapEntry>& entries) {
  for (const SnapEntry& entry : entries) {
    const DeviceNumber volume = volumeOf(entry.fixed);
    if (findSnapped(volume) == mSnapped.end()) continue;
    return refuse(EBUSY, "the volume " + volume.text() + " is snapped already",
                  entries.size() == 1 ? kStatusSnapped : kStatusOneSnapped);
  }
  return done();
}

Answer EmulatedDriver::refuseChangedSize(const std::vector<SnapEntry>& entries) {
  for (const SnapEntry& entry : entries) {
    auto device = BlockDevice::open(mKernel, volumeOf(entry.fixed));
    if (!device) return refusalOf(device);
    const std::uint64_t blocks = device->bytes() / entry.fixed.blockSize;
    if (blocks != entry.fixed.numBlocks) {
      return refuse(ESTALE,
                    "the volume " + device->number().text() + " has " + std::to_string(blocks) + " blocks of " +
                        std::to_string(entry.fixed.blockSize) + " bytes, not " + std::to_string(entry.fixed.numBlocks),
                    kStatusSizeChanged);
    }
  }
  return done();
}

Answer EmulatedDriver::refuseUnmapped(const std::vector<SnapEntry>& entries) {
  for (const SnapEntry& entry : entries) {
    const std::string volumeName = textOf(entry.fixed.volumeName);
    const std::string relocFileName = textOf(entry.fixed.relocFileName);
    const bool mapped = std::any_of(mMappings.begin(), mMappings.end(), [&](const Mapping& mapping) {
      return mapping.volumeName == volumeName && mapping.relocFileName == relocFileName &&
             static_cast<std::uint32_t>(mapping.process) == entry.fixed.appPid;
    });
    if (!mapped) {
      return refuse(EINVAL, "process " + std::to_string(entry.fixed.appPid) + " has no mapping from " + volumeName +
                                " to " + relocFileName);
    }
  }
  return done();
}

Answer EmulatedDriver::refuseRelocationFiles(const Caller& caller, const std::vector<SnapEntry>& entries,
                                             const CommandBuffer& buffer) {
  for (const SnapEntry& entry : entries) {
    if (Answer answer = refuseRelocationFile(caller, entry, buffer); !answer) return answer;
  }
  return done();
}

Answer EmulatedDriver::snap(const Caller& caller, CommandBuffer& buffer) {
  const std::vector<SnapEntry> entries = allEntries(buffer);
  if (Answer answer = refuseSnapped(entries); !answer) return answer;
  if (Answer answer = refuseChangedSize(entries); !answer) return answer;
  if (Answer answer = refuseUnmapped(entries); !answer) return answer;
  if (Answer answer = refuseRelocationFiles(caller, entries, buffer); !answer) return answer;

  SnapshotRequest request{{}, {}, mSettings.stores, mSettings.freezeLimit};
  for (const SnapEntry& entry : entries) request.volumes.push_back(volumeOf(entry.fixed));
  for (const FileSystem& frozen : mFrozen) request.frozen.insert(frozen.device());
  auto taken = takeSnapshots(mKernel, caller, request, mCancelled);
  if (!taken) return refusalOf(taken);
  std::vector<Snapped> snapped;
  for (std::size_t i = 0; i < entries.size(); ++i) {
    snapped.push_back({entries[i].fixed, std::move(taken->images[i]), startTracking(entries[i].fixed), taken->instant,
                       taken->frozen});
  }
  mSnapped.reserve(mSnapped.size() + snapped.size());
  std::move(snapped.begin(), snapped.end(), std::back_inserter(mSnapped));
  return done();
}

}  // namespace emulator
