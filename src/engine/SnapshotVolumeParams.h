// SPDX-License-Identifier: Apache-2.0
//
// One volume of a snapshot set: identity, device geometry, options, results, mount points.
#pragma once

#include <pthread.h>

#include <cstdint>

#include "engine/AutoFreeVector.h"
#include "engine/UnknownImpl.h"
#include "qxtools/Strings.h"

namespace MirelSnapSnapshotCoordinator {

// One mount point of a volume and where its snapshot is mounted (empty until it is exposed).
struct MirelMountPointParams {
  wcstring OriginalMountPoint;
  wcstring SnapVolumeMountPoint;
};

using MirelMountPointParamsArray = AutoFreeVectorSpecific<MirelMountPointParams>;

// Reference-counted: Get adds a reference, Done drops one.
class MirelSnapshotVolumeParams {
 public:
  enum class WaitKind : int { Signalled = 0, TimedOut = 1, Failed = -1 };
  struct WaitResult {
    WaitKind kind;
    int error;  // errno value of the clock or of the wait (ETIMEDOUT when the time ran out); 0 when signalled
  };

  // The volume `volume`, mounted at `mountPoint`, with one reference. The mount table supplies the mount point's
  // spelling, the file-system type and the device's number and sizes. Null for a null argument or an all-zero
  // identifier, when nothing is mounted there, when a figure is zero, when a name cannot be converted and when memory
  // is short.
  static MirelSnapshotVolumeParams* CreateSnapshotVolumeParameters(const _SSGUIDPLAIN& snapshotId,
                                                                   const wchar_t* volume, const wchar_t* mountPoint);

  void Get();
  // Drops a reference; true when the object was deleted.
  bool Done();

  const _SSGUIDPLAIN& GetSnapshotGUID() const { return mSnapshotId; }
  // The volume's name as the agent gave it.
  const wcstring& GetOriginalVolumeName() const { return mOriginalVolumeName; }
  // The snapshot's block device; assigned by the job's worker.
  wcstring& GetSnapVolumeName() { return mSnapVolumeName; }
  const wcstring& GetRelocationFileMountName() const { return mRelocationMountName; }
  // Null while there is none.
  const wchar_t* GetRelocationFileName() const;
  // Null takes the name away.
  void SetRelocationFileName(const wchar_t* name);
  const wcstring& GetMountFileSystem() const { return mMountFileSystem; }
  // Always 0: nothing sets it.
  std::int64_t GetCreationTime() const { return mCreationTime; }
  std::uint64_t GetDeviceSize() const { return mDeviceSize; }
  std::uint32_t GetDeviceBlockSize() const { return mDeviceBlockSize; }
  std::uint64_t GetNumDeviceBlocks() const { return mDeviceSize / mDeviceBlockSize; }
  std::uint32_t GetRelocationFileSizeInBlocks() const { return mRelocationFileSize; }
  std::uint64_t GetDeviceNumber() const { return mDeviceNumber; }

  // Stores `path`, which must be exactly a mount point; else false.
  bool SetRelocationFileMountName(const wchar_t* path);
  // Stores the value; always true.
  bool SetRelocationFileSizeInBlocks(unsigned int blocks);
  // Appends a mount point; the new count, or 0 for null. std::bad_alloc may leave every operation that stores a text;
  // nothing is changed then.
  unsigned int AddMountPoint(const wchar_t* path);

  unsigned int GetMountPointCount() const { return static_cast<unsigned int>(mMountPoints.size()); }
  // The text of entry `index`; null when out of range.
  const wchar_t* GetOriginalMountPoint(unsigned int index) const;
  const wchar_t* GetSnapVolumeMountPoint(unsigned int index) const;
  // Sets where entry `index` is mounted; false when out of range or null.
  bool SetSnapVolumeMountPoint(unsigned int index, const wchar_t* path);

  // One timed wait on the volume's condition. Nothing in the library signals it.
  WaitResult WaitForVolumeToUnSnap(unsigned int timeoutMs);

 private:
  MirelSnapshotVolumeParams() = default;
  virtual ~MirelSnapshotVolumeParams();

  // Initialises mutex and condition; false when one fails.
  bool initializeWaiting();
  // Takes everything that the mount table knows of `mountPoint`.
  bool takeMountEntry(const wchar_t* mountPoint);

  _SSGUIDPLAIN mSnapshotId{};
  wcstring mOriginalVolumeName;
  wcstring mSnapVolumeName;
  wcstring mRelocationMountName;
  wcstring mRelocationFileName;
  wcstring mMountFileSystem;
  std::int64_t mCreationTime = 0;
  std::uint64_t mDeviceSize = 0;
  std::uint32_t mDeviceBlockSize = 0;
  std::uint32_t mRelocationFileSize = 0;
  std::uint64_t mDeviceNumber = 0;
  pthread_mutex_t mMutex{};
  pthread_cond_t mCondition{};
  bool mWaitingInitialized = false;
  MirelMountPointParamsArray mMountPoints;
  volatile unsigned int mReferenceCount = 1;
};

}  // namespace MirelSnapSnapshotCoordinator
