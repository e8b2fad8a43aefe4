// SPDX-License-Identifier: Apache-2.0
//
// Construction, results, and the four ways of deciding where a volume's relocation file goes.
#include "reloc/LinuxSnapshotreloc.h"

#include <syslog.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>

#include "reloc/DriverReference.h"
#include "reloc/RelocationStatus.h"

static_assert(PATH_MAX == 4096);

LinuxSnapshotreloc::LinuxSnapshotreloc(const std::string& snappedDeviceName, unsigned int blockSize,
                                       unsigned int relocNumBlks, const std::string& relocMountName,
                                       unsigned long relocEntriesInMemory)
    : mRelocMountName(relocMountName),
      mRelocNumBlks(relocNumBlks),
      mRelocEntriesInMemory(relocEntriesInMemory),
      mSnappedDeviceName(snappedDeviceName),
      mBlockSize(blockSize),
      mNumBlocksOfVolume(0) {
  Initialize();
}

LinuxSnapshotreloc::LinuxSnapshotreloc(const std::string& snappedDeviceName, unsigned int blockSize,
                                       unsigned long numBlocksOfVolume, unsigned long relocEntriesInMemory)
    : mRelocNumBlks(0),
      mRelocEntriesInMemory(relocEntriesInMemory),
      mSnappedDeviceName(snappedDeviceName),
      mBlockSize(blockSize),
      mNumBlocksOfVolume(numBlocksOfVolume) {
  Initialize();
}

std::uint64_t LinuxSnapshotreloc::GetRelocNumBlks() { return mRelocNumBlks; }
std::string LinuxSnapshotreloc::GetSnappedDeviceName() { return mSnappedDeviceName; }
std::string LinuxSnapshotreloc::GetRelocDeviceName() { return mRelocDeviceName; }
std::string LinuxSnapshotreloc::GetRelocFileName() { return mRelocFileName; }
std::string LinuxSnapshotreloc::GetRelocFileLocation() { return RELOC_FILE_LOCATION; }

// --- Neither size nor mount point given.

unsigned int LinuxSnapshotreloc::initialize() {
  if (mSnappedDeviceName.empty()) {
    syslog(LOG_ERR, "Invalid device name passed to Snap.\n");
    return kRelocInvalidDeviceName;
  }
  if (const unsigned int status = GetVolumeDetails(mSnappedDeviceName); status != 0) {
    syslog(LOG_ERR, "Unable to obtain volume details.\n");
    return status;
  }
  if (!predictFileOnVolume()) {
    if (SetRelocFileLocation(false) == kRelocSuccess) return kRelocSuccess;
    syslog(LOG_ERR, "Not Enough space or unable to place the reloc file.\n");
    return kRelocNotPlaced;
  }
  sumUpVolume();
  // A nearly full volume keeps the file after all when no other file system has more space free.
  if (isNearlyFull()) {
    ruleOutVolume(OwnVolume::kNearlyFull);
    if (SetRelocFileLocation(true) == kRelocSuccess) return kRelocSuccess;
  }
  return placeOnVolume();
}

bool LinuxSnapshotreloc::predictFileOnVolume() {
  if (!mIsMounted) return ruleOutVolume(OwnVolume::kNotMounted);
  if (!canHoldFile(mVolMountPoint, mSnappedDeviceName)) return ruleOutVolume(OwnVolume::kNotWritable);
  mRelocNumBlks = PredictSizeOfFile();
  return mRelocNumBlks != 0 || ruleOutVolume(OwnVolume::kNoBlocks);
}

bool LinuxSnapshotreloc::ruleOutVolume(OwnVolume why) {
  mReasons.ownVolume = why;
  return false;
}

unsigned int LinuxSnapshotreloc::refuseChosenMount(ChosenMount why) {
  mReasons.chosenMount = why;
  return kRelocInvalidOption;
}

void LinuxSnapshotreloc::sumUpVolume() {
  mTotalSizeKOfVolume = mUsedSizeKofVolume + mAvailSizeKOfVolume;
  syslog(LOG_INFO, "mUsedSizeKofVolume : %lu,mTotalSizeKOfVolume :%lu\n", mUsedSizeKofVolume, mTotalSizeKOfVolume);
}

bool LinuxSnapshotreloc::isNearlyFull() const { return mUsedSizeKofVolume >= mTotalSizeKOfVolume * 9 / 10; }

unsigned int LinuxSnapshotreloc::placeOnVolume() {
  mRelocDeviceName = mSnappedDeviceName;
  const DriverReference driver;
  nameDirectoryOn(mVolMountPoint);  // the contract: before the check, the file only after it
  if (driver.isSnapped(mRelocDeviceName)) {
    syslog(LOG_ERR, "Volume is already snapped.\n");
    ruleOutVolume(OwnVolume::kSnapped);
    return kRelocInvalidOption;
  }
  nameFile();
  return kRelocSuccess;
}

// --- The mount point given.

unsigned int LinuxSnapshotreloc::initializeRelocLocationOption(unsigned long fallbackSize) {
  if (mSnappedDeviceName.empty() || mRelocMountName.empty()) {
    syslog(LOG_ERR, "Invalid Reloc option provided.\n");
    return kRelocInvalidOption;
  }
  if (!resolveRelocMount()) return refuseChosenMount(ChosenMount::kNoSuchPath);
  mRelocDeviceName = GetVolumeFromDir(mRelocMountName);
  syslog(LOG_INFO, "Device name for %s is %s .\n", mRelocMountName.c_str(), mRelocDeviceName.c_str());

  DriverReference driver;
  if (driver.isSnapped(mRelocDeviceName)) {
    syslog(LOG_ERR, "User provided Mount point already snapped.\n");
    return refuseChosenMount(ChosenMount::kSnapped);
  }
  if (driver.isFrozen(mRelocDeviceName)) {
    syslog(LOG_ERR, "User provided Mount point already frozen.\n");
    return refuseChosenMount(ChosenMount::kFrozen);
  }
  if (!canHoldFile(mRelocMountName, mRelocDeviceName)) {
    syslog(LOG_ERR, "User provided Mount point is not writable.\n");
    return refuseChosenMount(ChosenMount::kNotWritable);
  }
  Sizes sizes;
  if (readSizes(mRelocMountName, sizes) != 0) {
    mObstacle = failedCall("statfs", mRelocMountName, errno);
    syslog(LOG_ERR, "User provided Mount point not valid.\n");
    driver.neverGiveBack();
    return refuseChosenMount(ChosenMount::kNotReadable);
  }
  if (GetVolumeDetails(mSnappedDeviceName) != 0) {
    syslog(LOG_ERR, "User provided mount point not valid for relocation file.\n");
    driver.neverGiveBack();
    return refuseChosenMount(ChosenMount::kNotReadable);
  }
  mRelocNumBlks = sizeOnChosenMount(sizes.availKB, fallbackSize);
  nameFileOn(mRelocMountName);
  mFSType = sizes.fsType;
  return kRelocSuccess;
}

bool LinuxSnapshotreloc::resolveRelocMount() {
  char resolved[PATH_MAX] = {};
  if (realpath(mRelocMountName.c_str(), resolved) == nullptr) {
    mObstacle = failedCall("realpath", mRelocMountName, errno);
    syslog(LOG_ERR, "Mount point %s is invalid.\n", mRelocMountName.c_str());
    return false;
  }
  mRelocMountName = resolved;
  return true;
}

std::uint64_t LinuxSnapshotreloc::sizeOnChosenMount(std::uint64_t availKB, unsigned long fallbackSize) {
  const std::uint64_t byRelocVolume = availKB / 10;
  // The contract: the fallback counts blocks and is taken for KB all the same.
  const std::uint64_t byVolume = (mIsMounted ? mUsedSizeKofVolume : fallbackSize) / 10;
  syslog(LOG_INFO, "relocSizeBasedOnRelocVol: %lu, relocSizeBasedOnVol: %lu\n", byRelocVolume, byVolume);
  const std::uint64_t sizeKB = std::min(byRelocVolume, byVolume);
  syslog(LOG_INFO, "actualRelocSize : %lu\n", sizeKB);
  mReasons.size = byVolume < byRelocVolume ? (mIsMounted ? RelocSize::kTenthOfUsed : RelocSize::kTenthOfVolume)
                                           : RelocSize::kTenthOfFree;
  return withinMemory(toBlocks(sizeKB));
}

// --- The size given.

unsigned int LinuxSnapshotreloc::initializeRelocSizeOption() {
  if (mSnappedDeviceName.empty() || mRelocNumBlks == 0) {
    syslog(LOG_ERR, "Invalid options passed by the User.\n");
    return kRelocInvalidOption;
  }
  if (mRelocNumBlks > mRelocEntriesInMemory) {
    syslog(LOG_ERR, "System doesnt have enough memroy to hold relocation file.\n");
    mReasons.beyondMemory = true;
    return kRelocInvalidOption;
  }
  if (const unsigned int status = GetVolumeDetails(mSnappedDeviceName); status != 0) {
    syslog(LOG_ERR, "Unable to obtain volume details.\n");
    return status;
  }
  if (volumeHasRoom()) {
    sumUpVolume();
    if (!isNearlyFull()) {
      // The contract: whether the volume is snapped already is not asked here.
      nameFileOn(mVolMountPoint);
      mRelocDeviceName = mSnappedDeviceName;
      return kRelocSuccess;
    }
    syslog(LOG_ERR, "Volume %s is full, checking for other volumes.\n", mSnappedDeviceName.c_str());
    ruleOutVolume(OwnVolume::kNearlyFull);
  }
  return checkOtherMountVolumeForReloc();
}

bool LinuxSnapshotreloc::volumeHasRoom() {
  if (!mIsMounted) return ruleOutVolume(OwnVolume::kNotMounted);
  if (!canHoldFile(mVolMountPoint, mSnappedDeviceName)) return ruleOutVolume(OwnVolume::kNotWritable);
  return toKB(mRelocNumBlks) < mAvailSizeKOfVolume || ruleOutVolume(OwnVolume::kNoRoom);
}

// --- Both given.

unsigned int LinuxSnapshotreloc::validate() {
  if (mSnappedDeviceName.empty() || mRelocMountName.empty() || mRelocNumBlks == 0) {
    syslog(LOG_ERR, "Reloc options not provided to validate.\n");
    return kRelocInvalidOption;
  }
  syslog(LOG_DEBUG, "Invoking GetMountDetails with relocMountName : %s.\n", mRelocMountName.c_str());
  if (!resolveRelocMount()) return refuseChosenMount(ChosenMount::kNoSuchPath);
  mRelocDeviceName = GetVolumeFromMountPoint(mRelocMountName);
  if (mRelocDeviceName.empty()) {
    syslog(LOG_ERR, "Invalid mountPoint selected by User.\n");
    return refuseChosenMount(ChosenMount::kNotMountPoint);
  }

  DriverReference driver;
  if (driver.isSnapped(mRelocDeviceName)) {
    syslog(LOG_ERR, "Volume is already snapped.\n");
    return refuseChosenMount(ChosenMount::kSnapped);
  }
  if (driver.isFrozen(mRelocDeviceName)) {
    syslog(LOG_ERR, "Volume is already Frozen. Could not create relocation file\n");
    return refuseChosenMount(ChosenMount::kFrozen);
  }
  if (!acceptsChosenFile()) {
    driver.neverGiveBack();
    return kRelocInvalidOption;
  }
  std::uint64_t availKB = 0;
  std::uint64_t usedKB = 0;
  std::uint32_t blockSize = 0;
  GetMountDetails(mRelocMountName, &availKB, &usedKB, &blockSize);
  if (toKB(mRelocNumBlks) > availKB) {
    syslog(LOG_ERR, "Invalid Reloc options : RelocMount point doesnt have enough space.\n");
    return refuseChosenMount(ChosenMount::kNotEnoughSpace);
  }
  return kRelocSuccess;
}

bool LinuxSnapshotreloc::acceptsChosenFile() {
  if (!canHoldFile(mRelocMountName, mRelocDeviceName)) {
    syslog(LOG_ERR, "Mount point %s is read only.\n", mRelocMountName.c_str());
    refuseChosenMount(ChosenMount::kNotWritable);
    return false;
  }
  if (GetMountFSType(mRelocMountName, &mFSType) != 0) {
    mObstacle = failedCall("statfs", mRelocMountName, errno);
    syslog(LOG_ERR, "Mount point %s is invalid mount point.\n", mRelocMountName.c_str());
    refuseChosenMount(ChosenMount::kNotReadable);
    return false;
  }
  std::uint64_t limitBlocks = 0;
  if (CheckIfExceedsFSLimits(mFSType, &limitBlocks)) {
    // The contract: the size asked for, not the limit.
    syslog(LOG_ERR, "System can not create a file with more than %lu blocks\n", mRelocNumBlks);
    refuseChosenMount(ChosenMount::kBeyondFileSystem);
    return false;
  }
  if (mRelocNumBlks > mRelocEntriesInMemory) {
    syslog(LOG_ERR, "System can not reserve enough memory for relocation blocks, try freeing some memory\n");
    refuseChosenMount(ChosenMount::kBeyondMemory);
    return false;
  }
  return true;
}

unsigned int LinuxSnapshotreloc::initializeUserSelectedOptions() {
  if (mSnappedDeviceName.empty() || mRelocMountName.empty() || mRelocNumBlks == 0) {
    syslog(LOG_ERR, "Invalid options passed by the User.\n");
    return kRelocInvalidOption;
  }
  nameFileOn(mRelocMountName);
  syslog(LOG_DEBUG, "RelocFileName is: %s.\n", mRelocFileName.c_str());
  return kRelocSuccess;
}
