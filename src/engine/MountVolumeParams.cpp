// SPDX-License-Identifier: Apache-2.0
#include "engine/MountVolumeParams.h"

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <cerrno>
#include <cstring>
#include <new>
#include <utility>

#include "base/Causes.h"
#include "base/Resolve.h"
#include "engine/MountPath.h"
#include "engine/MountTarget.h"
#include "qxtools/Log.h"

namespace MirelSnapSnapshotCoordinator {
namespace {

bool IsAbsolute(const wchar_t* path) { return path != nullptr && path[0] == L'/'; }

// Of what is open; both 0 when it is not.
MountIdentity IdentityOf(int descriptor) {
  struct statx status {};
  if (statx(descriptor, "", AT_EMPTY_PATH | AT_NO_AUTOMOUNT, STATX_MNT_ID, &status) != 0) return {};
  return {makedev(status.stx_dev_major, status.stx_dev_minor),
          (status.stx_mask & STATX_MNT_ID) != 0 ? status.stx_mnt_id : 0};
}

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
  const UniqueFd live = openWithoutLinks(narrowOriginal.get(), O_PATH);
  if (!live) return nullptr;
  if (narrowBound != nullptr && !UnixUtils::IsDirectory(narrowBound.get())) return nullptr;

  error = ENOMEM;
  auto* entry = new (std::nothrow) MirelMountVolumeParams;
  if (entry == nullptr) return nullptr;
  entry->mOriginalMountPoint = std::move(narrowOriginal);
  entry->mNewBoundMountPoint = std::move(narrowBound);
  entry->mIdentity = IdentityOf(live.get());
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
  return bind(folder, std::move(target));
}

void MirelMountVolumeParams::failWithoutTarget(int error) {
  mMountError = error;
  QX_Zprintf(0, L"%hs: Unable to obtain the target mount directory, cannot mount \"%hs\", Error: %d, {%hs}", "DoMount",
             OriginalMountPoint(), error, std::strerror(error));
}

int MirelMountVolumeParams::bindTo(const char* base, const char* target) const {
  // The kernel's own refusal of no target at all.
  if (target == nullptr) return mount(OriginalMountPoint(), target, nullptr, MS_BIND, nullptr) == 0 ? 0 : errno;
  const UniqueFd source = openWithoutLinks(OriginalMountPoint(), O_PATH);
  if (!source) return errno;
  if (IdentityOf(source.get()) != mIdentity) return EINVAL;
  return MountBelow(base, target, DescriptorPath(source.get()).text(), nullptr, MS_BIND, nullptr);
}

bool MirelMountVolumeParams::bind(const char* folder, UnixUtils::NarrowText target) {
  UnixUtils::NarrowText base(strdup(folder));
  const int error = base == nullptr ? ENOMEM : bindTo(folder, target.get());
  if (error != 0) {
    mMountError = error;
    noteFailedCall("mount", target == nullptr ? "" : target.get(), mMountError);
    // The message shows the bound mount point that is stored, not the target; that is the contract.
    QX_Zprintf(0, L"%hs: mount( \"%hs\", \"%hs\", NULL, MS_BIND, NULL ) failed, Error: %d, {%hs}", "DoMount",
               OriginalMountPoint(), NewBoundMountPoint(), mMountError, std::strerror(mMountError));
    return false;
  }
  QX_Zprintf(0, L"%hs: mount( \"%hs\", \"%hs\", NULL, MS_BIND, NULL ) Succeeded!", "DoMount", OriginalMountPoint(),
             target.get());
  mBase = std::move(base);
  mNewBoundMountPoint = std::move(target);
  mMounted = true;
  return true;
}

bool MirelMountVolumeParams::DoDismount() {
  if (!mMounted) return true;
  if (const int error = UnmountBelow(mBase.get(), NewBoundMountPoint()); error != 0) {
    mMountError = error;
    QX_Zprintf(0, L"%hs: umount( \"%hs\") failed, Error: %d, {%hs}", "DoDismount", NewBoundMountPoint(), mMountError,
               std::strerror(mMountError));
    return false;
  }
  QX_Zprintf(0, L"%hs: umount( \"%hs\") Succeeded", "DoDismount", NewBoundMountPoint());
  mMounted = false;
  return true;
}

}  // namespace MirelSnapSnapshotCoordinator
