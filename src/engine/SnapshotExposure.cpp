// SPDX-License-Identifier: Apache-2.0
//
// Snapshots made readable: mounted read-only under one base directory, shallowest first, and taken away again, deepest
// first.
#include <sys/mount.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <new>

#include "base/Causes.h"
#include "engine/Boundary.h"
#include "engine/GetDoneWrapper.h"
#include "engine/MirelSnapshotEngine.h"
#include "engine/MountPath.h"
#include "engine/MountTarget.h"
#include "qxtools/Log.h"
#include "qxtools/UnixUtils.h"

namespace MirelSnapSnapshotCoordinator {
namespace {

using Entry = MirelSnapshotEngine::MountPointInfoWithFolderDepth;
using Volume = GetDoneWrapper<MirelSnapshotVolumeParams>;

// Exactly one base is known afterwards; it is the engine's.
int takeBase(MirelSnapshotEngine& engine, const wchar_t* base) {
  const bool known = !engine.mMountPointBase.empty();
  if ((base != nullptr) == known) return E_INVALIDARG;
  if (known) return S_OK;
  const UnixUtils::NarrowText narrow = UnixUtils::ConvertToANSI(base);
  if (!narrow) return E_OUTOFMEMORY;
  engine.mMountPointBase = narrow.get();
  return S_OK;
}

// Where the snapshot of `mountPoint` is mounted; null when there is no such path.
UnixUtils::NarrowText targetPath(const MirelSnapshotEngine& engine, const wchar_t* mountPoint) {
  const UnixUtils::NarrowText narrow = UnixUtils::ConvertToANSI(mountPoint);
  return narrow ? JoinMountPath(engine.mMountPointBase.c_str(), narrow.get()) : nullptr;
}

int queueMountPoint(MirelSnapshotEngine& engine, Volume& volume, unsigned int volumeIndex,
                    unsigned int mountPointIndex) {
  const UnixUtils::NarrowText target = targetPath(engine, volume->GetOriginalMountPoint(mountPointIndex));
  if (!target) return E_OUTOFMEMORY;
  const UnixUtils::NarrowText device = UnixUtils::ConvertToANSI(volume->GetSnapVolumeName().c_str());
  if (!device) return E_OUTOFMEMORY;
  const UnixUtils::NarrowText fsType = UnixUtils::ConvertToANSI(volume->GetMountFileSystem().c_str());
  const int position = engine.InsertIntoInternalShallowFirstSortedQueue(
      target.get(), device.get(), fsType.get(), static_cast<int>(volumeIndex), static_cast<int>(mountPointIndex));
  return position < 0 ? E_UNEXPECTED : S_OK;
}

int queueVolumes(MirelSnapshotEngine& engine) {
  const unsigned int volumes = engine.mSnapshotSetParams->GetVolumeCount();
  for (unsigned int v = 0; v < volumes; ++v) {
    Volume volume(engine.mSnapshotSetParams->GetAt(v));
    if (!volume) return E_UNEXPECTED;
    for (unsigned int m = 0; m < volume->GetMountPointCount(); ++m) {
      if (const int result = queueMountPoint(engine, volume, v, m); result < 0) return result;
    }
  }
  return S_OK;
}

// All mount points of the set, or none.
int fillQueue(MirelSnapshotEngine& engine) {
  const int result = queueVolumes(engine);
  if (result < 0) engine.mMountPointQueue.clear();
  return result;
}

bool mountQueue(MirelSnapshotEngine& engine) {
  for (const Entry& entry : engine.mMountPointQueue) {
    if (engine.DoMount(entry) != 0) return false;
  }
  return true;
}

// The argument goes on as the agent gave it: a base that came from the option is a null one here, which the alternate
// set refuses even when it is empty. So an exposure without an argument never succeeds; that is the contract.
bool mountAlternateSet(MirelSnapshotEngine& engine, const wchar_t* base) {
  if (engine.mSnapshotSetParams->DoMountAlternateSet(base) >= 0) return true;
  QX_Zprintf(0, L"%hs: Failed to mount one or more volumes in the alternate set", "ExposeSnapshotsInSnapshotSet");
  return false;
}

void dismountAlternateSet(MirelSnapshotEngine& engine) {
  if (engine.mSnapshotSetParams == nullptr || engine.mSnapshotSetParams->DoDismountAlternateSet() >= 0) return;
  QX_Zprintf(0, L"%hs: Failed to dismount one or more mount points in the alternate set!",
             "UnExposeSnapshotsInSnapshotSet");
}

void unmountQueue(MirelSnapshotEngine& engine) {
  constexpr char kFunction[] = "UnExposeSnapshotsInSnapshotSet";
  for (auto entry = engine.mMountPointQueue.rbegin(); entry != engine.mMountPointQueue.rend(); ++entry) {
    const int error = UnmountBelow(entry->base, entry->target);
    if (error == 0) {
      QX_Zprintf(0, L"%hs: umount( %s ) SUCCEEDED!", kFunction, entry->target);
    } else {
      QX_Zprintf(0, L"%hs: umount( %s ) FAILED! Error: #%d, {%s}", kFunction, entry->target, error,
                 std::strerror(error));
    }
  }
}

// Removes the base, and each one where exposures had several. False when one stays.
bool removeBases(const MirelSnapshotEngine::MountPointInfoWithFolderDepthQueue& queue) {
  bool removed = true;
  for (auto entry = queue.begin(); entry != queue.end(); ++entry) {
    const auto sameBase = [&](const Entry& before) { return std::strcmp(before.base, entry->base) == 0; };
    if (std::none_of(queue.begin(), entry, sameBase)) removed = UnixUtils::RemoveDirectory(entry->base) == 0 && removed;
  }
  return removed;
}

// A signal of the agent's does not shorten it.
void sleepOneSecond() {
  timespec left{1, 0};
  while (nanosleep(&left, &left) != 0 && errno == EINTR) {
  }
}

// Gives the node up to 5 seconds to appear; the mount reports it when it does not.
void waitForNode(const char* device) {
  for (int attempt = 0; attempt < 5 && access(device, F_OK) != 0; ++attempt) sleepOneSecond();
}

// The snapshot shares its UUID with the live volume, and its log cannot be replayed on a read-only device. Null: none.
const char* mountData(const char* fsType) { return std::strcmp(fsType, "xfs") == 0 ? "nouuid,norecovery" : nullptr; }

void logMountFailure(const Entry& entry, const char* data, int error) {
  noteFailedCall("mount", entry.target, error);
  if (data != nullptr) {
    QX_Zprintf(0, L"%hs: mount( \"%hs\", \"%hs\", \"%hs\", MS_MGC_VAL | MS_RDONLY, \"%hs\" ) FAILED! Error: #%d, {%hs}",
               "DoMount", entry.device, entry.target, entry.fsType, data, error, std::strerror(error));
  } else {
    QX_Zprintf(0, L"%hs: mount( \"%hs\", \"%hs\", \"%hs\", MS_MGC_VAL | MS_RDONLY, %hs ) FAILED! Error: #%d, {%hs}",
               "DoMount", entry.device, entry.target, entry.fsType, "NULL", error, std::strerror(error));
  }
}

void logMountSuccess(const Entry& entry, const char* data) {
  if (data != nullptr) {
    QX_Zprintf(0, L"%hs: mount( \"%hs\", \"%hs\", \"%hs\", MS_MGC_VAL | MS_RDONLY, \"%hs\" ) SUCCEEDED!", "DoMount",
               entry.device, entry.target, entry.fsType, data);
  } else {
    QX_Zprintf(0, L"%hs: mount( \"%hs\", \"%hs\", \"%hs\", MS_MGC_VAL | MS_RDONLY, %hs ) SUCCEEDED!", "DoMount",
               entry.device, entry.target, entry.fsType, "NULL");
  }
}

// Notes in the volume where its snapshot is mounted. False when the text cannot be widened or kept.
bool recordMount(MirelSnapshotEngine& engine, const Entry& entry) noexcept try {
  const UnixUtils::WideText target = UnixUtils::ConvertToWide(entry.target);
  if (!target) return false;
  if (engine.mSnapshotSetParams == nullptr) return true;
  const Volume volume(engine.mSnapshotSetParams->GetAt(entry.volumeIndex));
  if (!!volume) volume->SetSnapVolumeMountPoint(entry.mountPointIndex, target.get());
  return true;
} catch (const std::bad_alloc&) {
  return false;
}

}  // namespace

int MirelSnapshotEngine::ExposeSnapshotsInSnapshotSet(const wchar_t* base) {
  return AtBoundary([&]() -> int {
    if (currentState() != StateSnapshotSetDone || mSnapshotSetParams == nullptr) return USC_E_BAD_STATE;
    if (const int result = takeBase(*this, base); result < 0) return result;
    if (const int result = fillQueue(*this); result < 0) return result;
    if (const int error = UnixUtils::CreateDirectory(mMountPointBase.c_str(), 0770); error != 0) {
      noteFailedCall("mkdir", mMountPointBase.c_str(), error);
      mMountPointQueue.clear();
      return E_UNEXPECTED;
    }
    if (!mountQueue(*this) || !mountAlternateSet(*this, base)) {
      UnExposeSnapshotsInSnapshotSet();
      return E_UNEXPECTED;
    }
    return S_OK;
  });
}

int MirelSnapshotEngine::DoMount(const MountPointInfoWithFolderDepth& entry) {
  waitForNode(entry.device);
  const char* data = mountData(entry.fsType);
  const int error = MountBelow(entry.base, entry.target, entry.device, entry.fsType, MS_MGC_VAL | MS_RDONLY, data);
  if (error != 0) {
    logMountFailure(entry, data, error);
    return error;
  }
  logMountSuccess(entry, data);
  if (!recordMount(*this, entry)) {
    QX_Zprintf(0, L"%hs: ERROR: Unable to convert Mount Point (%s) to UNICODE!", "DoMount", entry.target);
  }
  return 0;
}

int MirelSnapshotEngine::UnExposeSnapshotsInSnapshotSet() {
  return AtBoundary([&]() -> int {
    dismountAlternateSet(*this);
    if (mMountPointQueue.empty()) return S_OK;
    unmountQueue(*this);
    const bool removed = removeBases(mMountPointQueue);
    mMountPointQueue.clear();
    return removed ? S_OK : E_UNEXPECTED;
  });
}

int MirelSnapshotEngine::IsSnapshotExposed(const _SSGUIDPLAIN& snapshotId, int* exposed) {
  return AtBoundary([&]() -> int {
    if (exposed == nullptr) return E_INVALIDARG;
    if (mSnapshotSetParams == nullptr) return USC_E_OBJECT_NOT_FOUND;
    const Volume volume(mSnapshotSetParams->GetFor(snapshotId));
    if (!volume) return USC_E_OBJECT_NOT_FOUND;
    const wchar_t* mountPoint = volume->GetSnapVolumeMountPoint(0);
    // 1 when no mount is recorded: the sense is the contract.
    *exposed = mountPoint == nullptr || *mountPoint == L'\0' ? 1 : 0;
    return S_OK;
  });
}

int MirelSnapshotEngine::AddToAlternateMountSet(const wchar_t* mountPoint) {
  return AtBoundary([&]() -> int {
    if (!hasSet() || currentState() != StateSnapshotSetStarted) return USC_E_BAD_STATE;
    if (mountPoint == nullptr || mSnapshotSetParams->AddToAlternateMountSet(mountPoint) == 0) return E_INVALIDARG;
    return S_OK;
  });
}

}  // namespace MirelSnapSnapshotCoordinator
