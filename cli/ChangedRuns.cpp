// SPDX-License-Identifier: Apache-2.0
#include "ChangedRuns.h"

#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <algorithm>

#include "Wide.h"

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
  std::wstring name = wide(device);
  std::vector<_run> room(kMaxBitmapRuns);
  SectorBitmap bitmap(UPDATE_BITMAP_WHOLE, name, kMaxBitmapRuns, room.data());
  for (;;) {
    if (const unsigned int status = driver.get()->GetVtrackBitmap(bitmap); status != 0) return refused(device, status);
    changed.runs.insert(changed.runs.end(), room.begin(), room.begin() + bitmap.getNumOfRuns());
    if (bitmap.getUpdateType() != UPDATE_BITMAP_CONTINUE || bitmap.getNumOfRuns() == 0) return changed;
    const _run& last = changed.runs.back();
    room[0].startBlock = last.startBlock + last.numBlocks;
    bitmap.setNumOfRuns(kMaxBitmapRuns);
  }
}

}  // namespace cli
