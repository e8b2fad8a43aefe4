// SPDX-License-Identifier: Apache-2.0
//
// The value records of the driver interface: volumes to be snapped, snapped volumes, relocation-file
// mappings and run lists. They own nothing but their strings and never talk to the driver.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#ifndef MIRELSNAP_API
#define MIRELSNAP_API __attribute__((visibility("default")))
#endif

// One run of blocks, copied to and from the driver byte for byte. The unit is the command's.
struct _run {
  std::uint64_t startBlock;
  std::uint64_t numBlocks;
};
static_assert(sizeof(_run) == 16 && offsetof(_run, startBlock) == 0 && offsetof(_run, numBlocks) == 8);

// State of a snapped volume; the values are the driver's and are handed on unchanged.
enum _DeviceState : std::uint32_t {};

// Kind of a bitmap command; handed on to the driver and back unchanged.
enum _updateBitmapIoctlType : std::uint32_t {
  // Reading: from the volume's first block on; answered when the last changed run is among those filled.
  // Pushing: the runs take the place of those that were pushed before.
  UPDATE_BITMAP_WHOLE = 0,
  // Reading: from block `startBlock` of the array's first run on; answered when more runs follow behind the
  // last one filled. Pushing: the runs come to those that were pushed before.
  UPDATE_BITMAP_CONTINUE = 1,
};

// Runs that one bitmap command can carry.
inline constexpr unsigned int kMaxBitmapRuns = 1024;

// One volume that is to be snapped. The narrow names are made from the wide ones once, at construction.
class MIRELSNAP_API SnapVolumeInformation {
 public:
  // `blockSize` in bytes, `numBlocks` in blocks of that size, `snapVolumeName` the path of the block
  // device, `relocFileSize` in blocks (0: chosen by the library), `relocMountName` the mount point for the
  // relocation file (empty: chosen by the library).
  SnapVolumeInformation(unsigned int blockSize, unsigned long numBlocks, std::wstring snapVolumeName,
                        unsigned int relocFileSize, std::wstring relocMountName, bool vtrackReqState,
                        bool indSnapshotReqState, unsigned int snapUsageType);
  // As above, both relocation options left to the library.
  SnapVolumeInformation(unsigned int blockSize, unsigned long numBlocks, std::wstring snapVolumeName,
                        bool vtrackReqState, bool indSnapshotReqState, unsigned int snapUsageType);

  unsigned int getBlockSize() const { return mBlockSize; }
  unsigned long getNumBlocks() const { return mNumBlocks; }
  std::wstring& getSnapVolumeName() { return mSnapVolumeName; }
  unsigned int getRelocFileSize() const { return mRelocFileSize; }
  void setRelocFileSize(unsigned int relocFileSize) { mRelocFileSize = relocFileSize; }
  std::wstring& getRelocMountName() { return mRelocMountName; }
  bool getVtrackReqState() const { return mVtrackReqState; }
  bool getIndSnapshotReqState() const { return mIndSnapshotReqState; }
  unsigned int getSnapUsageType() const { return mSnapUsageType; }
  std::string& getSnapVolumeNameString() { return mSnapVolumeNameString; }
  const char* getcStrSnapVolumeName() const { return mSnapVolumeNameString.c_str(); }
  const char* getcStrRelocMountName() const { return mRelocMountNameString.c_str(); }
  // Full path of the relocation file; empty until it is placed.
  const std::string& getRelocFileName() const { return mRelocFileName; }
  const char* getcStrRelocFileName() const { return mRelocFileName.c_str(); }
  void setRelocFileName(std::string relocFileName);
  // Block device that holds the relocation file; empty until it is placed.
  const std::string& getRelocVolumeName() const { return mRelocVolumeName; }
  const char* getcStrRelocVolumeName() const { return mRelocVolumeName.c_str(); }
  void setRelocVolumeName(std::string relocVolumeName);

 private:
  unsigned int mBlockSize;
  unsigned long mNumBlocks;
  std::wstring mSnapVolumeName;
  unsigned int mRelocFileSize;
  std::wstring mRelocMountName;
  bool mVtrackReqState;
  bool mIndSnapshotReqState;
  unsigned int mSnapUsageType;
  std::string mSnapVolumeNameString;
  std::string mRelocMountNameString;
  std::string mRelocFileName;
  std::string mRelocVolumeName;
};

// One volume that the driver reports as snapped.
class MIRELSNAP_API SnappedVolumeInformation {
 public:
  SnappedVolumeInformation(unsigned int majorNum, unsigned int minorNum, unsigned int blockSize,
                           unsigned long numBlocks, unsigned int relocFileSize, int appPid,
                           std::wstring snappedVolumeName, std::wstring relocFileName, _DeviceState deviceState);

  unsigned int getMajorNum() const { return mMajorNum; }
  unsigned int getMinorNum() const { return mMinorNum; }
  unsigned int getBlockSize() const { return mBlockSize; }
  unsigned long getNumBlocks() const { return mNumBlocks; }
  unsigned int getRelocFileSize() const { return mRelocFileSize; }
  // The process that made the snapshot.
  int getAppPid() const { return mAppPid; }
  std::wstring getSnappedVolumeName() const { return mSnappedVolumeName; }
  std::wstring getRelocFileName() const { return mRelocFileName; }
  _DeviceState getDeviceState() const { return mDeviceState; }

 private:
  unsigned int mMajorNum;
  unsigned int mMinorNum;
  unsigned int mBlockSize;
  unsigned long mNumBlocks;
  unsigned int mRelocFileSize;
  int mAppPid;
  std::wstring mSnappedVolumeName;
  std::wstring mRelocFileName;
  _DeviceState mDeviceState;
};

// One relocation-file mapping as the driver keeps it.
class MIRELSNAP_API RelocFileMappingInformation {
 public:
  RelocFileMappingInformation(int appPid, std::string snappedVolumeName, std::string relocFileName);

  int getAppPid() const { return mAppPid; }
  std::string getSnappedVolumeName() const { return mSnappedVolumeName; }
  std::string getRelocFileName() const { return mRelocFileName; }

 private:
  int mAppPid;
  std::string mSnappedVolumeName;
  std::string mRelocFileName;
};

// A run list of one volume. It refers to the caller's name and run array, which must outlive it; the narrow
// name is made once, at construction.
class MIRELSNAP_API SectorBitmap {
 public:
  // `numOfRuns` is the room of `runs` when reading and the number of runs when pushing.
  SectorBitmap(std::wstring& volumeName, unsigned int numOfRuns, _run* runs);
  SectorBitmap(_updateBitmapIoctlType updateType, std::wstring& volumeName, unsigned int numOfRuns, _run* runs);

  _updateBitmapIoctlType getUpdateType() const { return mUpdateType; }
  void setUpdateType(_updateBitmapIoctlType updateType) { mUpdateType = updateType; }
  std::wstring& getVolumeName() const { return mVolumeName; }
  unsigned int getNumOfRuns() const { return mNumOfRuns; }
  void setNumOfRuns(unsigned int numOfRuns) { mNumOfRuns = numOfRuns; }
  _run* getSectorRuns() const { return mSectorRuns; }
  const char* getcStrSnapVolumeName() const { return mSnapVolumeNameString.c_str(); }

 private:
  _updateBitmapIoctlType mUpdateType;
  std::wstring& mVolumeName;
  unsigned int mNumOfRuns;
  _run* mSectorRuns;
  std::string mSnapVolumeNameString;
};
