// SPDX-License-Identifier: Apache-2.0
#include "engine/MountVolumeParams.h"

#include <sys/mount.h>

#include <cerrno>
#include <cstring>
#include <new>
#include <utility>

#include "engine/MountPath.h"
#include "qxtools/Log.h"

namespace MirelSnapSnapshotCoordinator {
namespace {

bool IsAbsolute(const wchar_t* path) { return path != nullptr && path[0] == L'/'; }

}  // namespace

MirelMountVolumeParams* MirelMountVolumeParams::CreateMountVolumeParams(const wchar_t* original,
                                                                        const wchar_t* newBound, int& error) {
  error = EINVAL;
  if (!IsAbsolute(original) || (newBound != nullptr && !IsAbsolute(newBound))) return nullptr;

  error = ENOMEM;
  UnixUtils::NarrowText narrowOriginal = UnixUtils::ConvertToANSI(original);
  UnixUtils::NarrowText narrowBound = UnixUtils::ConvertToANSI(newBound);
  if (narrowOriginal == nullptr || (newBound != nullptr && narrowBound == nullptr)) return nullptr;

  error = EINVAL;
  if (!IsLocalMountPoint(narrowOriginal.get())) return nullptr;
  if (narrowBound != nullptr && !UnixUtils::IsDirectory(narrowBound.get())) return nullptr;

  error = ENOMEM;
  auto* entry = new (std::nothrow) MirelMountVolumeParams;
  if (entry == nullptr) return nullptr;
  entry->mOriginalMountPoint = std::move(narrowOriginal);
  entry->mNewBoundMountPoint = std::move(narrowBound);
  error = 0;
  return entry;
}

bool MirelMountVolumeParams::DoMount(const wchar_t* base) {
  if (mMounted) return true;

  const UnixUtils::NarrowText narrowBase = UnixUtils::ConvertToANSI(base);
  const char* const folder = narrowBase != nullptr ? narrowBase.get() : mNewBoundMountPoint.get();
  if (folder == nullptr) {
    failWithoutTarget(base == nullptr ? EINVAL : ENOMEM);
    return false;
  }

  UnixUtils::NarrowText target = JoinMountPath(folder, OriginalMountPoint());
  // The bind is attempted without a target too; that is the contract, and the mount's own failure is reported then.
  if (target == nullptr) failWithoutTarget(ENOMEM);
  return bind(std::move(target));
}

void MirelMountVolumeParams::failWithoutTarget(int error) {
  mMountError = error;
  QX_Zprintf(0, L"%hs: Unable to obtain the target mount directory, cannot mount \"%hs\", Error: %d, {%hs}", "DoMount",
             OriginalMountPoint(), error, std::strerror(error));
}

bool MirelMountVolumeParams::bind(UnixUtils::NarrowText target) {
  if (mount(OriginalMountPoint(), target.get(), nullptr, MS_BIND, nullptr) != 0) {
    mMountError = errno;
    // The message shows the bound mount point that is stored, not the target; that is the contract.
    QX_Zprintf(0, L"%hs: mount( \"%hs\", \"%hs\", NULL, MS_BIND, NULL ) failed, Error: %d, {%hs}", "DoMount",
               OriginalMountPoint(), NewBoundMountPoint(), mMountError, std::strerror(mMountError));
    return false;
  }
  QX_Zprintf(0, L"%hs: mount( \"%hs\", \"%hs\", NULL, MS_BIND, NULL ) Succeeded!", "DoMount", OriginalMountPoint(),
             target.get());
  mNewBoundMountPoint = std::move(target);
  mMounted = true;
  return true;
}

bool MirelMountVolumeParams::DoDismount() {
  if (!mMounted) return true;
  if (umount(NewBoundMountPoint()) != 0) {
    mMountError = errno;
    QX_Zprintf(0, L"%hs: umount( \"%hs\") failed, Error: %d, {%hs}", "DoDismount", NewBoundMountPoint(), mMountError,
               std::strerror(mMountError));
    return false;
  }
  QX_Zprintf(0, L"%hs: umount( \"%hs\") Succeeded", "DoDismount", NewBoundMountPoint());
  mMounted = false;
  return true;
}

}  // namespace MirelSnapSnapshotCoordinator
