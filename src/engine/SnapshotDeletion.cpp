// SPDX-License-Identifier: Apache-2.0
//
// The end of a set, and of what dead processes left.
#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/statvfs.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <list>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <vector>

#include "base/MountInfo.h"
#include "base/Paths.h"
#include "base/Resolve.h"
#include "engine/Boundary.h"
#include "engine/GetDoneWrapper.h"
#include "engine/MirelSnapshotEngine.h"
#include "engine/ReconcileSweep.h"
#include "qxtools/Log.h"
#include "qxtools/UnixUtils.h"
#include "sysinfo/SnapshotName.h"

namespace MirelSnapSnapshotCoordinator {
namespace {

// Only a job that succeeded has something to delete.
bool hasSnapshots(const MirelSnapshotEngine& engine) {
  const AutoLock hold(MirelSnapshotEngine::sLock);
  return engine.mState == StateSnapshotSetDone && engine.mSnapResult == 0;
}

// The mounts at or below `base` of file systems that are mounted elsewhere too: what they show is live. Nothing when
// that cannot be known.
std::optional<std::vector<MountLine>> liveMountsUnder(const std::string& base) {
  const auto all = readMountInfo(UniqueFd(open("/proc/self/mountinfo", O_RDONLY | O_CLOEXEC)));
  if (!all) return std::nullopt;
  std::vector<MountLine> found;
  for (const MountLine& mount : *all) {
    const auto showsTheSameElsewhere = [&](const MountLine& other) {
      return other.device == mount.device && !liesWithin(other.folder, base);
    };
    if (liesWithin(mount.folder, base) && !volumeOfSnapshot(mount.source) &&
        std::any_of(all->begin(), all->end(), showsTheSameElsewhere))
      found.push_back(mount);
  }
  return found;
}

// Whether the mount is what its path leads to: another one may cover it.
bool isVisible(const UniqueFd& folder, const MountLine& mount) {
  struct statx status {};
  return statx(folder.get(), "", AT_EMPTY_PATH | AT_NO_AUTOMOUNT, STATX_MNT_ID, &status) == 0 &&
         ((status.stx_mask & STATX_MNT_ID) == 0 || status.stx_mnt_id == static_cast<std::uint64_t>(mount.id));
}

// From here on nothing that is unmounted or removed in it is so in the live folders: no unmounting is passed on, and
// no folder can be removed. 0 or an errno; EINVAL for one that another mount covers, which nobody reaches meanwhile.
int keepToItself(const MountLine& live) {
  const UniqueFd folder = openWithoutLinks(live.folder.c_str(), O_PATH);
  struct statvfs status {};
  if (!folder || fstatvfs(folder.get(), &status) != 0) return errno == ENOENT ? EINVAL : errno;
  if (!isVisible(folder, live)) return EINVAL;
  unsigned long flags = MS_REMOUNT | MS_BIND | MS_RDONLY;
  if ((status.f_flag & ST_NOSUID) != 0) flags |= MS_NOSUID;
  if ((status.f_flag & ST_NODEV) != 0) flags |= MS_NODEV;
  if ((status.f_flag & ST_NOEXEC) != 0) flags |= MS_NOEXEC;
  const DescriptorPath path(folder.get());
  const bool done = mount(nullptr, path.text(), nullptr, MS_PRIVATE, nullptr) == 0 &&
                    mount(nullptr, path.text(), nullptr, flags, nullptr) == 0;
  return done ? 0 : errno;
}

// Sweeps what is not covered; whether something was.
bool sweepVisible(const char* function, const char* base) {
  const auto mounts = liveMountsUnder(base);
  if (!mounts) return false;
  bool covered = false;
  for (const MountLine& live : *mounts) {
    const int error = keepToItself(live);
    covered |= error == EINVAL;
    if (error == 0 || error == EINVAL) continue;
    QX_Zprintf(0, L"%hs: '%hs' is left mounted: it shows live files and cannot be made private, Error: %d, {%hs}",
               function, live.folder.c_str(), error, std::strerror(error));
    return false;
  }
  DismountAndDeleteAllUnder(base);
  return covered;
}

// What is still mounted at or below the base goes, and nothing of what is mounted outside of it: where that cannot be
// told apart everything stays.
void sweepBase(const char* function, const char* base) noexcept try {
  if (sweepVisible(function, base)) sweepVisible(function, base);
} catch (const std::bad_alloc&) {
  // What is mounted is left to a later DoReconcile.
}

int deleteSet(MirelSnapshotEngine& engine, const _SSGUIDPLAIN& id) {
  const _SSGUIDPLAIN setId = engine.mSnapshotSetParams->GetSnapshotSetGUID();
  if (!UnixInterfaces::IsEqualGUID(id, setId)) return USC_E_OBJECT_NOT_FOUND;
  engine.unsnapVolumes();  // what stays is left to a later DoReconcile
  if (!engine.mMountPointBase.empty()) {
    // A bind inside another one may have been passed on to the live folders, and is taken back by its own unmounting.
    engine.mSnapshotSetParams->DoDismountAlternateSet();
    sweepBase("DeleteSnapshots", engine.mMountPointBase.c_str());
  }
  MirelSnapshotEngine::sSnapshotSetParamsArray.RemoveSnapshotSet(setId);
  engine.mSnapshotSetParams->Done();
  engine.mSnapshotSetParams = nullptr;
  engine.dropThreadParams();
  engine.ResetState();
  return S_OK;
}

// Drops one volume from the engine's list. The driver is not told: the volume stays snapped until its set is deleted.
int deleteSnapshot(MirelSnapshotSetParams& set, const _SSGUIDPLAIN& id) {
  const GetDoneWrapper<MirelSnapshotVolumeParams> volume(set.GetFor(id));
  return !!volume && set.RemoveAt(set.GetIndex(volume.get())) ? S_OK : USC_E_OBJECT_NOT_FOUND;
}

// Whatever is thrown is a failure of the driver's part.
int reconcileDriver(SnapDriverInterface& driver) noexcept try {
  return driver.ReconcileAndCleanup() == 0 ? S_OK : E_FAIL;
} catch (...) {
  return E_FAIL;
}

void sweep(const wchar_t* mountBase) noexcept {
  const UnixUtils::NarrowText base = UnixUtils::ValidatePathAndConvertToANSI(mountBase);
  if (!base) {
    QX_Zprintf(0, L"%hs: UnixUtils::ValidatePathAndConvertToANSI( %ls ) returned NULL!", "DoReconcile", mountBase);
    return;
  }
  sweepBase("DoReconcile", base.get());
}

}  // namespace

void MirelSnapshotEngine::unsnapVolumes() {
  if (mDriver == nullptr || mThreadParams == nullptr) return;
  std::list<std::wstring> names;
  for (SnapVolumeInformation& request : *mThreadParams->GetVolumeInformationList()) {
    names.push_back(request.getSnapVolumeName());
  }
  mUnSnapResult = mDriver->UnSnapVolume(&names, false);
}

int MirelSnapshotEngine::DeleteSnapshots(const _SSGUIDPLAIN& id, UnixSnapshotCoordinator::_USC_OBJECT_TYPE type) {
  return AtBoundary([&]() -> int {
    if (!hasSet() || !hasSnapshots(*this)) return USC_E_BAD_STATE;
    switch (type) {
      case UnixSnapshotCoordinator::USC_OBJECT_SNAPSHOT_SET:
        return deleteSet(*this, id);
      case UnixSnapshotCoordinator::USC_OBJECT_SNAPSHOT:
        return deleteSnapshot(*mSnapshotSetParams, id);
    }
    return E_INVALIDARG;
  });
}

int MirelSnapshotEngine::DoReconcile(const wchar_t* mountBase) {
  if (mDriver == nullptr) return E_UNEXPECTED;
  const int result = reconcileDriver(*mDriver);
  if (mountBase != nullptr) sweep(mountBase);
  return result;
}

}  // namespace MirelSnapSnapshotCoordinator
