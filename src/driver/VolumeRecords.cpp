// SPDX-License-Identifier: Apache-2.0
#include "driver/VolumeRecords.h"

#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <syslog.h>

#include <cerrno>
#include <new>
#include <utility>

#include "base/Causes.h"

SnapVolumeInformation::SnapVolumeInformation(unsigned int blockSize, unsigned long numBlocks,
                                             std::wstring snapVolumeName, unsigned int relocFileSize,
                                             std::wstring relocMountName, bool vtrackReqState, bool indSnapshotReqState,
                                             unsigned int snapUsageType)
    : mBlockSize(blockSize),
      mNumBlocks(numBlocks),
      mSnapVolumeName(std::move(snapVolumeName)),
      mRelocFileSize(relocFileSize),
      mRelocMountName(std::move(relocMountName)),
      mVtrackReqState(vtrackReqState),
      mIndSnapshotReqState(indSnapshotReqState),
      mSnapUsageType(snapUsageType),
      mSnapVolumeNameString(WStringToString(mSnapVolumeName)),
      mRelocMountNameString(WStringToString(mRelocMountName)) {}

SnapVolumeInformation::SnapVolumeInformation(unsigned int blockSize, unsigned long numBlocks,
                                             std::wstring snapVolumeName, bool vtrackReqState, bool indSnapshotReqState,
                                             unsigned int snapUsageType)
    : SnapVolumeInformation(blockSize, numBlocks, std::move(snapVolumeName), 0, std::wstring(), vtrackReqState,
                            indSnapshotReqState, snapUsageType) {}

void SnapVolumeInformation::setRelocFileName(std::string relocFileName) { mRelocFileName = std::move(relocFileName); }

void SnapVolumeInformation::setRelocVolumeName(std::string relocVolumeName) {
  mRelocVolumeName = std::move(relocVolumeName);
}

SnappedVolumeInformation::SnappedVolumeInformation(unsigned int majorNum, unsigned int minorNum, unsigned int blockSize,
                                                   unsigned long numBlocks, unsigned int relocFileSize, int appPid,
                                                   std::wstring snappedVolumeName, std::wstring relocFileName,
                                                   _DeviceState deviceState)
    : mMajorNum(majorNum),
      mMinorNum(minorNum),
      mBlockSize(blockSize),
      mNumBlocks(numBlocks),
      mRelocFileSize(relocFileSize),
      mAppPid(appPid),
      mSnappedVolumeName(std::move(snappedVolumeName)),
      mRelocFileName(std::move(relocFileName)),
      mDeviceState(deviceState) {}

RelocFileMappingInformation::RelocFileMappingInformation(int appPid, std::string snappedVolumeName,
                                                         std::string relocFileName)
    : mAppPid(appPid), mSnappedVolumeName(std::move(snappedVolumeName)), mRelocFileName(std::move(relocFileName)) {}

SectorBitmap::SectorBitmap(std::wstring& volumeName, unsigned int numOfRuns, _run* runs)
    : SectorBitmap(_updateBitmapIoctlType{}, volumeName, numOfRuns, runs) {}

SectorBitmap::SectorBitmap(_updateBitmapIoctlType updateType, std::wstring& volumeName, unsigned int numOfRuns,
                           _run* runs)
    : mUpdateType(updateType),
      mVolumeName(volumeName),
      mNumOfRuns(numOfRuns),
      mSectorRuns(runs),
      mSnapVolumeNameString(WStringToString(volumeName)) {}

std::wstring StringToWString(const std::string& text) {
  std::wstring wide;
  wide.reserve(text.size());
  for (const char byte : text) wide.push_back(static_cast<signed char>(byte));
  return wide;
}

std::string WStringToString(const std::wstring& text) {
  std::string narrow;
  narrow.reserve(text.size());
  for (const wchar_t character : text) narrow.push_back(static_cast<char>(character & 0xFF));
  return narrow;
}

unsigned int getDeviceNumber(const char* path, DeviceNumberPair* pair) {
  struct stat status {};
  if (stat(path, &status) != 0) {
    const int error = errno;
    syslog(LOG_ERR, "%s: Device does not exist.\n", path);
    errno = error;
    return 8;
  }
  if (!S_ISBLK(status.st_mode)) {
    syslog(LOG_ERR, "%s: is not a valid block device.\n", path);
    return 7;
  }
  *pair = {major(status.st_rdev), minor(status.st_rdev)};
  return 0;
}

void noteBadDevice(const char* path, unsigned int result) noexcept {
  if (result == 8) noteFailedCall("stat", path, errno);
  if (result == 7) noteCause(path, "is not a block device");
}

unsigned int getDeviceNumbers(std::list<std::wstring>* volumes, DeviceNumberPair* pairs) {
  if (volumes == nullptr) {
    syslog(LOG_ERR, "assert at %d in %s failed.\n", 399, "LinuxSnapLib.cpp");
    return 3;
  }
  if (pairs == nullptr) {
    syslog(LOG_ERR, "assert at %d in %s failed.\n", 400, "LinuxSnapLib.cpp");
    return 3;
  }
  for (const std::wstring& volume : *volumes) {
    const std::string path = WStringToString(volume);
    const unsigned int result = getDeviceNumber(path.c_str(), pairs++);
    if (result != 0) {
      noteBadDevice(path.c_str(), result);
      return result;
    }
  }
  return 0;
}

std::unique_ptr<DeviceNumberPair[]> resolveVolumes(std::list<std::wstring>* volumes, int line) {
  if (volumes == nullptr) {
    syslog(LOG_ERR, "assert at %d in %s failed.\n", line, "LinuxSnapLib.cpp");
    return nullptr;
  }
  if (volumes->empty()) {
    syslog(LOG_ERR, "assert at %d in %s failed.\n", line + 1, "LinuxSnapLib.cpp");
    return nullptr;
  }
  std::unique_ptr<DeviceNumberPair[]> pairs(new (std::nothrow) DeviceNumberPair[volumes->size()]);
  if (pairs == nullptr) {
    noteShortMemory();
    syslog(LOG_ERR, "Error Allocating memory.\n");
    return nullptr;
  }
  if (getDeviceNumbers(volumes, pairs.get()) != 0) return nullptr;
  return pairs;
}
