// SPDX-License-Identifier: Apache-2.0
//
// One entry of an alternate mount set: a live mount point that is bind-mounted under the exposure's base.
#pragma once

#include <sys/types.h>

#include <cstdint>

#include "qxtools/UnixUtils.h"

namespace MirelSnapSnapshotCoordinator {

// Tells a mount from any other that is put in its place.
struct MountIdentity {
  dev_t device = 0;         // of its file system
  std::uint64_t mount = 0;  // the kernel's number of it; 0 where the kernel does not tell (before 5.8)
  bool operator==(const MountIdentity&) const = default;
};

class MirelMountVolumeParams {
 public:
  // A new entry, or null with `error` set to an errno value (0 on success): 22 for a path that is not absolute, not a
  // mount point itself, or a `newBound` that is no directory; 12 when a path cannot be converted or the entry finds no
  // memory.
  static MirelMountVolumeParams* CreateMountVolumeParams(const wchar_t* original, const wchar_t* newBound, int& error);

  // The live mount point.
  const char* OriginalMountPoint() const { return mOriginalMountPoint.get(); }
  // Where it is bound, or is to be bound; null when neither is known.
  const char* NewBoundMountPoint() const { return mNewBoundMountPoint.get(); }
  // The errno of the last failure.
  int MountError() const { return mMountError; }
  bool IsMounted() const { return mMounted; }

  // Binds it at `base` joined with its own path; for a null base, and for one that the locale cannot narrow, at the
  // bound mount point that it has, joined the same way. True when it is bound afterwards, also when it was before.
  // False with MountError() set: without a bound mount point 22 for a null base and 12 for one that cannot be narrowed;
  // else the errno of mount.
  bool DoMount(const wchar_t* base);
  // Unbinds it; true when it is not bound afterwards. False with the errno of umount as MountError().
  bool DoDismount();

 private:
  MirelMountVolumeParams() = default;

  // Keeps `error` and logs that there is no directory to bind to.
  void failWithoutTarget(int error);
  // Binds at `target` (null: the mount call refuses it) below `base` and keeps both.
  bool bind(const char* base, UnixUtils::NarrowText target);
  // 0 or an errno: 22 when the live mount point is another mount by now.
  int bindTo(const char* base, const char* target) const;

  UnixUtils::NarrowText mOriginalMountPoint;
  UnixUtils::NarrowText mNewBoundMountPoint;
  UnixUtils::NarrowText mBase;  // that it is bound below
  MountIdentity mIdentity;      // of the live mount
  bool mMounted = false;
  int mMountError = 0;
};

}  // namespace MirelSnapSnapshotCoordinator
