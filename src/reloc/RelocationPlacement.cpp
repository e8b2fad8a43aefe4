// SPDX-License-Identifier: Apache-2.0
//
// Probing volumes and mount points, and the searches among the mounted file systems.
#include <fcntl.h>
#include <sys/stat.h>
#include <syslog.h>

#include <algorithm>

#include "base/Resolve.h"
#include "reloc/DriverReference.h"
#include "reloc/LinuxSnapshotreloc.h"
#include "reloc/Planted.h"
#include "reloc/RelocationDirectory.h"
#include "reloc/RelocationStatus.h"
#include "reloc/WritabilityProbe.h"

using mirelsnapsdk_linuxcomputer::LinuxSystemInfo;
using mirelsnapsdk_linuxcomputer::MountEntry;

namespace {

constexpr std::uint64_t kFatMagic = 0x4D44;

// A file that stays on its volume gets a tenth of the free space, but at most 512 MiB ...
constexpr std::uint64_t kPredictedLimitKB = 0x80000;
// ... unless the volume has more than this in use: then a tenth of the smaller of free and used.
constexpr std::uint64_t kSmallUseKB = 0x7FFFF;

// With this much free space (40 GiB) a file system is never passed over in favour of FAT.
constexpr std::uint64_t kFatLastResortKB = 0x2800000;

void logPassedOver(const MountEntry& mount, PassedOver why) {
  switch (why) {
    case PassedOver::kSnapped:
      syslog(LOG_DEBUG, "Volume %s is already snapped.\n", mount.fsname.c_str());
      break;
    case PassedOver::kFrozen:
      syslog(LOG_DEBUG, "Volume %s is already frozen.\n", mount.fsname.c_str());
      break;
    case PassedOver::kNotWritable:
      syslog(LOG_DEBUG, "Volume %s is read only.\n", mount.dir.c_str());
      break;
  }
}

}  // namespace

bool LinuxSnapshotreloc::IsMountPointWritable(const std::string& mountPoint) {
  // A file system on which the directory for the file cannot be used is as good as one that cannot be written to.
  mObstacle = whyNotMakingFiles(mountPoint);
  if (!mObstacle) mObstacle = whyNotHoldingRelocationFiles(mountPoint);
  return !mObstacle;
}

bool LinuxSnapshotreloc::canHoldFile(const std::string& mountPoint, const std::string& device) {
  mObstacle.reset();
  const UniqueFd top = openWithoutLinks(mountPoint.c_str(), O_PATH | O_DIRECTORY);
  struct stat status {};
  if (top && fstat(top.get(), &status) == 0 && liesElsewhere(status.st_dev, deviceNumber(device))) {
    mObstacle = {mountPoint, "is covered by another mount"};
    tellPlanted(mObstacle->what, mObstacle->why);
    return false;
  }
  return IsMountPointWritable(mountPoint);
}

void LinuxSnapshotreloc::CheckIfVolumeIsMounted(const std::string& volume) {
  syslog(LOG_DEBUG, "VolumeName to be checked: %s.\n", volume.c_str());
  const std::vector<std::string> mountPoints = GetMountPoints(volume);
  if (mountPoints.empty()) {
    mIsMounted = false;
    return;
  }
  mVolMountPoint = mountPoints.front();
  syslog(LOG_DEBUG, "Volume %s is mounted on : %s.\n", volume.c_str(), mVolMountPoint.c_str());
  mIsMounted = IsValidMountPoint(mVolMountPoint, mSnappedDeviceName) == 0;
  if (!mIsMounted) mVolMountPoint.clear();
}

unsigned int LinuxSnapshotreloc::GetVolumeDetails(const std::string& volume) {
  CheckIfVolumeIsMounted(volume);
  std::uint32_t blockSize = 0;  // dropped: mBlockSize stays the volume's own
  if (mIsMounted &&
      GetMountSizeDetails(mVolMountPoint, &mAvailSizeKOfVolume, &mUsedSizeKofVolume, &blockSize, &mFSType) != 0) {
    mIsMounted = false;
  }
  return kRelocSuccess;  // the contract: mIsMounted tells
}

void LinuxSnapshotreloc::GetMountDetails(const std::string& mountPoint, std::uint64_t* availKB, std::uint64_t* usedKB,
                                         std::uint32_t* blockSize) {
  if (GetMountSizeDetails(mountPoint, availKB, usedKB, blockSize, &mFSType) != 0) mIsMounted = false;
}

std::uint64_t LinuxSnapshotreloc::PredictSizeOfFile() {
  const bool small = mUsedSizeKofVolume <= kSmallUseKB;
  const std::uint64_t byFree = mAvailSizeKOfVolume / 10;
  const std::uint64_t limit = small ? kPredictedLimitKB : mUsedSizeKofVolume / 10;
  const std::uint64_t sizeKB = std::min(byFree, limit);
  mReasons.size = byFree <= limit ? RelocSize::kTenthOfFree : small ? RelocSize::kLimit : RelocSize::kTenthOfUsed;
  const std::uint64_t blocks = toBlocks(sizeKB);
  syslog(LOG_DEBUG, "AvSize: %lu, UsedSize: %lu, threshHold: %lu.\n", mAvailSizeKOfVolume, mUsedSizeKofVolume, blocks);
  syslog(LOG_DEBUG, "threshold size: %lu.\n", blocks);
  const std::uint64_t size = withinMemory(blocks);
  syslog(LOG_INFO, "threshold size: %lumRelocEntriesInMemory : %lu.\n", size, mRelocEntriesInMemory);
  return size;
}

unsigned int LinuxSnapshotreloc::GetMountSizeDetails(const std::string& mountPoint, std::uint64_t* availKB,
                                                     std::uint64_t* usedKB, std::uint32_t* blockSize,
                                                     std::uint64_t* fsType) {
  return LinuxSystemInfo::GetMountSizeDetails(mountPoint, availKB, usedKB, blockSize, fsType);
}

unsigned int LinuxSnapshotreloc::readSizes(const std::string& mountPoint, Sizes& sizes) {
  return GetMountSizeDetails(mountPoint, &sizes.availKB, &sizes.usedKB, &sizes.blockSize, &sizes.fsType);
}

std::optional<PassedOver> LinuxSnapshotreloc::obstacleOn(const MountEntry& mount, const DriverReference& driver) {
  if (driver.isSnapped(mount.fsname)) return PassedOver::kSnapped;
  if (driver.isFrozen(mount.fsname)) return PassedOver::kFrozen;
  const std::optional<Cause> own = mObstacle;
  const bool can = canHoldFile(mount.dir, mount.fsname);
  mObstacle = own;  // that another file system cannot hold it either is no cause
  return can ? std::nullopt : std::optional(PassedOver::kNotWritable);
}

void LinuxSnapshotreloc::passOver(const MountEntry& mount, PassedOver why) {
  mReasons.passedOver.push_back({mount.fsname, mount.dir, why});
}

unsigned int LinuxSnapshotreloc::SetRelocFileLocation(bool onlyIfLarger) {
  const Candidate chosen = findLargestFileSystem();
  if (chosen.availKB == 0) {
    syslog(LOG_ERR, "Not enough space to create reloc file.\n");
    return kRelocNotEnoughSpace;
  }
  if (onlyIfLarger && chosen.availKB <= mAvailSizeKOfVolume) {
    syslog(LOG_WARNING, "Could not find enough space on other mounted volumes\n");
    return kRelocNotEnoughSpace;
  }
  mRelocNumBlks = sizeElsewhere(chosen.availKB);
  mFSType = chosen.fsType;
  mVolMountPoint = chosen.mount.dir;
  nameFileOn(mVolMountPoint);
  mRelocDeviceName = chosen.mount.fsname;
  return kRelocSuccess;
}

LinuxSnapshotreloc::Candidate LinuxSnapshotreloc::findLargestFileSystem() {
  const std::vector<MountEntry> mounts = GetProcMounts();
  const DriverReference driver;
  Candidate best;
  Candidate bestFat;
  Sizes sizes;  // a failed query leaves them as they were: the contract
  for (const MountEntry& mount : mounts) {
    if (mount.fsname == mSnappedDeviceName) continue;
    syslog(LOG_DEBUG, "Volume being checked: %s.\n", mount.dir.c_str());
    if (const std::optional<PassedOver> why = obstacleOn(mount, driver)) {
      logPassedOver(mount, *why);
      passOver(mount, *why);
      continue;
    }
    static_cast<void>(readSizes(mount.dir, sizes));
    if (sizes.fsType == kFatMagic) {
      if (sizes.availKB <= bestFat.availKB) continue;
      syslog(LOG_DEBUG, "Volume being checked is FAT \n");
      bestFat = {sizes.availKB, sizes.fsType, mount};
    } else {
      syslog(LOG_DEBUG, "AvailS: %lu, UsedS: %lu, blockSize: %u.\n", sizes.availKB, sizes.usedKB, sizes.blockSize);
      if (sizes.availKB > best.availKB) best = {sizes.availKB, sizes.fsType, mount};
    }
  }
  if (best.availKB < bestFat.availKB && best.availKB < kFatLastResortKB) {
    syslog(LOG_DEBUG, "savedAvailableSize before %lu ", best.availKB);
    syslog(LOG_DEBUG, "savedAvailableSize after %lu", bestFat.availKB);
    mReasons.fatAsLastResort = true;
    return bestFat;
  }
  return best;
}

std::uint64_t LinuxSnapshotreloc::sizeElsewhere(std::uint64_t availKB) {
  const std::uint64_t byAvailable = toBlocks(availKB / 10);
  const std::uint64_t byVolume = mNumBlocksOfVolume / 10;
  syslog(LOG_DEBUG, "Reloc in other volume: relocSizeBasedOnAvailSize: %lu, relocSizeBasedOnVolSize: %lu.\n",
         byAvailable, byVolume);
  mReasons.size = byVolume < byAvailable ? RelocSize::kTenthOfVolume : RelocSize::kTenthOfFree;
  return withinMemory(std::min(byAvailable, byVolume));
}

std::uint64_t LinuxSnapshotreloc::withinMemory(std::uint64_t blocks) {
  if (blocks <= mRelocEntriesInMemory) return blocks;
  mReasons.size = RelocSize::kMemory;
  return mRelocEntriesInMemory;
}

unsigned int LinuxSnapshotreloc::checkOtherMountVolumeForReloc() {
  const std::vector<MountEntry> mounts = GetProcMounts();
  DriverReference driver;
  Candidate best;
  Sizes sizes;  // a failed query leaves them as they were: the contract
  for (const MountEntry& mount : mounts) {
    if (mount.fsname == mSnappedDeviceName) continue;
    if (const std::optional<PassedOver> why = obstacleOn(mount, driver)) {
      passOver(mount, *why);
      continue;
    }
    static_cast<void>(readSizes(mount.dir, sizes));
    if (sizes.availKB > mAvailSizeKOfVolume && sizes.availKB > toKB(mRelocNumBlks) && sizes.availKB > best.availKB) {
      best = {sizes.availKB, sizes.fsType, mount};
    }
  }
  if (best.availKB == 0) {
    syslog(LOG_ERR, "No mount point avaialbe to hold reloc file of size(blocks)\n");
    driver.neverGiveBack();
    return kRelocNotEnoughSpace;
  }
  syslog(LOG_ERR, "Found appropriate volume for SnapVol: %s , RVName: %s, RMName: %s.\n", mSnappedDeviceName.c_str(),
         best.mount.fsname.c_str(), best.mount.dir.c_str());
  mVolMountPoint = best.mount.dir;
  nameFileOn(mVolMountPoint);
  mRelocDeviceName = best.mount.fsname;
  mFSType = sizes.fsType;  // the contract: of the last file system looked at, which need not be the chosen one
  return kRelocSuccess;
}
