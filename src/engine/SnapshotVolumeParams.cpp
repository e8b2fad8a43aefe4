// SPDX-License-Identifier: Apache-2.0
#include "engine/SnapshotVolumeParams.h"

#include <cerrno>
#include <ctime>
#include <memory>
#include <new>

#include "engine/AutoLock.h"
#include "engine/Deadline.h"
#include "engine/GetDoneWrapper.h"
#include "engine/MountPath.h"
#include "qxtools/MountPointCollection.h"
#include "qxtools/UnixUtils.h"

namespace MirelSnapSnapshotCoordinator {

using UnixUtils::SystemMountPointCollection;

MirelSnapshotVolumeParams* MirelSnapshotVolumeParams::CreateSnapshotVolumeParameters(const _SSGUIDPLAIN& snapshotId,
                                                                                     const wchar_t* volume,
                                                                                     const wchar_t* mountPoint) try {
  if (volume == nullptr || mountPoint == nullptr || UnixInterfaces::InlineIsNULLGUID(snapshotId)) return nullptr;
  GetDoneWrapper<MirelSnapshotVolumeParams> params(new MirelSnapshotVolumeParams);
  if (!params->initializeWaiting()) return nullptr;
  params->mSnapshotId = snapshotId;
  params->mOriginalVolumeName = volume;
  if (!params->takeMountEntry(mountPoint)) return nullptr;
  return params.Detach();
} catch (const std::bad_alloc&) {
  return nullptr;
}

MirelSnapshotVolumeParams::~MirelSnapshotVolumeParams() {
  if (!mWaitingInitialized) return;
  pthread_cond_destroy(&mCondition);
  pthread_mutex_destroy(&mMutex);
}

bool MirelSnapshotVolumeParams::initializeWaiting() {
  if (pthread_mutex_init(&mMutex, nullptr) != 0) return false;
  if (pthread_cond_init(&mCondition, nullptr) != 0) {
    pthread_mutex_destroy(&mMutex);
    return false;
  }
  mWaitingInitialized = true;
  return true;
}

bool MirelSnapshotVolumeParams::takeMountEntry(const wchar_t* mountPoint) {
  const GetDoneWrapper<SystemMountPointCollection> mounts(
      SystemMountPointCollection::GetLocalSystemMountPointCollection());
  if (!mounts) return false;
  const GetDoneWrapper<SystemMountPointCollection::MountPointInformation> entry(
      mounts->FindMountPointFromPath(mountPoint));
  if (!entry) return false;

  const UnixUtils::WideText folder = UnixUtils::ConvertToWide(entry->GetMountFolder());
  const UnixUtils::WideText type = UnixUtils::ConvertToWide(entry->GetMountFileSystem());
  if (folder == nullptr || type == nullptr) return false;
  AddMountPoint(folder.get());
  mMountFileSystem = type.get();
  mDeviceNumber = entry->GetDeviceNumber();
  mDeviceBlockSize = entry->GetBlockSize();
  mDeviceSize = entry->GetDeviceSize();
  return mDeviceSize != 0 && mDeviceBlockSize != 0 && mDeviceNumber != 0;
}

void MirelSnapshotVolumeParams::Get() { UnixInterfaces::InterlockedIncrement(&mReferenceCount); }

bool MirelSnapshotVolumeParams::Done() {
  if (UnixInterfaces::InterlockedDecrement(&mReferenceCount) != 0) return false;
  delete this;
  return true;
}

const wchar_t* MirelSnapshotVolumeParams::GetRelocationFileName() const {
  return mRelocationFileName.empty() ? nullptr : mRelocationFileName.c_str();
}

void MirelSnapshotVolumeParams::SetRelocationFileName(const wchar_t* name) {
  mRelocationFileName = name == nullptr ? L"" : name;
}

bool MirelSnapshotVolumeParams::SetRelocationFileMountName(const wchar_t* path) {
  const UnixUtils::NarrowText narrow = UnixUtils::ConvertToANSI(path);
  if (narrow == nullptr || !IsLocalMountPoint(narrow.get())) return false;
  mRelocationMountName = path;
  return true;
}

bool MirelSnapshotVolumeParams::SetRelocationFileSizeInBlocks(unsigned int blocks) {
  mRelocationFileSize = blocks;
  return true;
}

unsigned int MirelSnapshotVolumeParams::AddMountPoint(const wchar_t* path) {
  if (path == nullptr) return 0;
  auto mountPoint = std::make_unique<MirelMountPointParams>();
  mountPoint->OriginalMountPoint = path;
  mMountPoints.push_back(mountPoint.get());
  static_cast<void>(mountPoint.release());  // the array's from here on
  return GetMountPointCount();
}

const wchar_t* MirelSnapshotVolumeParams::GetOriginalMountPoint(unsigned int index) const {
  return index < mMountPoints.size() ? mMountPoints[index]->OriginalMountPoint.c_str() : nullptr;
}

const wchar_t* MirelSnapshotVolumeParams::GetSnapVolumeMountPoint(unsigned int index) const {
  return index < mMountPoints.size() ? mMountPoints[index]->SnapVolumeMountPoint.c_str() : nullptr;
}

bool MirelSnapshotVolumeParams::SetSnapVolumeMountPoint(unsigned int index, const wchar_t* path) {
  if (index >= mMountPoints.size() || path == nullptr) return false;
  mMountPoints[index]->SnapVolumeMountPoint = path;
  return true;
}

MirelSnapshotVolumeParams::WaitResult MirelSnapshotVolumeParams::WaitForVolumeToUnSnap(unsigned int timeoutMs) {
  const AutoLock hold(mMutex);
  timespec deadline{};
  if (clock_gettime(CLOCK_REALTIME, &deadline) != 0) return {WaitKind::Failed, errno};
  AddMilliseconds(deadline, timeoutMs);
  const int error = pthread_cond_timedwait(&mCondition, &mMutex, &deadline);
  if (error == 0) return {WaitKind::Signalled, 0};
  return {error == ETIMEDOUT ? WaitKind::TimedOut : WaitKind::Failed, error};
}

}  // namespace MirelSnapSnapshotCoordinator
