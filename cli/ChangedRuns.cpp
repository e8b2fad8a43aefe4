// SPDX-License-Identifier: Apache-2.0
#include "ChangedRuns.h"

#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <algorithm>
#include <span>

#include "driver/VolumeRecords.h"

namespace cli {
namespace {

// Fills the sizes from what the driver says of the snapshot.
bool readGeometry(Driver& driver, const std::string& device, ChangedRuns& changed) {
  struct stat status {};
  if (stat(device.c_str(), &status) != 0) return false;
  for (const SnappedVolumeInformation& volume : driver.snappedVolumes()) {
    if (makedev(volume.getMajorNum(), volume.getMinorNum()) != status.st_rdev) continue;
    changed.blockSize = volume.getBlockSize();
    changed.numBlocks = volume.getNumBlocks();
    return true;
  }
  return false;
}

// Whether the runs rise, none of them empty, from block `first` on and within the volume.
bool rise(std::span<const _run> runs, std::uint64_t first, std::uint64_t numBlocks) {
  for (const _run& run : runs) {
    if (run.startBlock < first || run.startBlock >= numBlocks) return false;
    if (run.numBlocks == 0 || run.numBlocks > numBlocks - run.startBlock) return false;
    first = run.startBlock + run.numBlocks;
  }
  return true;
}

Failure senseless(const std::string& device, const std::string& why) {
  return {kRefused, device, "the driver's answer makes no sense: " + why,
          "do not rely on its tracking of this volume: copy all of it"};
}

}  // namespace

std::uint64_t ChangedRuns::blocks() const { return blocksIn(0, numBlocks); }

std::uint64_t ChangedRuns::blocksIn(std::uint64_t first, std::uint64_t end) const {
  std::uint64_t sum = 0;
  for (const _run& run : runs) {
    const std::uint64_t from = std::max(first, run.startBlock);
    const std::uint64_t to = std::min(end, run.startBlock + run.numBlocks);
    if (to > from) sum += to - from;
  }
  return sum;
}

std::variant<ChangedRuns, Failure> readChangedRuns(Driver& driver, const std::string& device) {
  ChangedRuns changed;
  if (!readGeometry(driver, device, changed)) return notTracked(device);
  std::wstring name = StringToWString(device);
  std::vector<_run> room(kMaxBitmapRuns);
  SectorBitmap bitmap(UPDATE_BITMAP_WHOLE, name, kMaxBitmapRuns, room.data());
  for (std::uint64_t next = 0;;) {
    if (const unsigned int status = driver.get()->GetVtrackBitmap(bitmap); status != 0) return refused(device, status);
    const std::span<const _run> answered(room.data(), bitmap.getNumOfRuns());
    if (!rise(answered, next, changed.numBlocks)) return senseless(device, "its runs of changed blocks do not rise");
    changed.runs.insert(changed.runs.end(), answered.begin(), answered.end());
    if (bitmap.getUpdateType() != UPDATE_BITMAP_CONTINUE) return changed;
    if (answered.empty()) return senseless(device, "it says that more changes follow, but tells none");
    next = answered.back().startBlock + answered.back().numBlocks;
    room[0].startBlock = next;
    bitmap.setNumOfRuns(kMaxBitmapRuns);
  }
}

}  // namespace cli
