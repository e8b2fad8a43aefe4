// SPDX-License-Identifier: Apache-2.0
#include "ExposedMount.h"

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/statvfs.h>

#include <cerrno>
#include <cstring>

#include "MountTable.h"
#include "Wide.h"
#include "base/Resolve.h"

namespace cli {
namespace {

UniqueFd openFolder(const std::string& path) { return openWithoutLinks(path.c_str(), O_PATH | O_DIRECTORY); }

// Nothing where the mount cannot tell.
std::optional<unsigned long> restrictionsOf(const UniqueFd& folder) {
  struct statvfs status {};
  if (!folder || fstatvfs(folder.get(), &status) != 0) return std::nullopt;
  unsigned long flags = 0;
  if ((status.f_flag & ST_NOSUID) != 0) flags |= MS_NOSUID;
  if ((status.f_flag & ST_NODEV) != 0) flags |= MS_NODEV;
  if ((status.f_flag & ST_NOEXEC) != 0) flags |= MS_NOEXEC;
  return flags;
}

// A user may have put something else at the mount point's path meanwhile.
bool shows(const UniqueFd& folder, const ChosenVolume& volume) {
  struct stat status {};
  return folder && fstat(folder.get(), &status) == 0 && status.st_dev == volume.number;
}

Failure cannotRestrict(const std::string& target, int error) {
  return {kCannotExpose, target,
          std::string("the restrictions of the live mount cannot be set: ") + std::strerror(error),
          "look at what is mounted there"};
}

Outcome remount(const std::string& target, const UniqueFd& folder, unsigned long restrictions) {
  if (!folder) return cannotRestrict(target, errno);
  const unsigned long flags = MS_REMOUNT | MS_BIND | MS_RDONLY | restrictions;
  if (mount(nullptr, DescriptorPath(folder.get()).text(), nullptr, flags, nullptr) != 0)
    return cannotRestrict(target, errno);
  return std::nullopt;
}

}  // namespace

Outcome restrictSnapshot(const std::string& target, const ChosenVolume& volume) {
  const UniqueFd live = openFolder(volume.mountPoint);
  const auto flags = shows(live, volume) ? restrictionsOf(live) : std::nullopt;
  return remount(target, openFolder(target), flags.value_or(MS_NOSUID | MS_NODEV | MS_NOEXEC));
}

std::variant<std::unique_ptr<LiveMount>, Failure> liveMountAt(const std::string& mountPoint) {
  int error = 0;
  std::unique_ptr<LiveMount> live(LiveMount::CreateMountVolumeParams(wide(mountPoint).c_str(), nullptr, error));
  if (live != nullptr) return live;
  if (error == ENOMEM) return Failure{kCannotExpose, mountPoint, "memory is short", ""};
  return Failure{kCannotExpose, mountPoint, "is not a mount point", "name a mount point with --bind"};
}

Outcome bindLive(LiveMount& live, const std::string& base) {
  const std::string target = joined(base, live.OriginalMountPoint());
  if (!live.DoMount(wide(base).c_str()))
    return Failure{kCannotExpose, live.OriginalMountPoint(),
                   "cannot be bound at " + target + ": " + std::strerror(live.MountError()),
                   "see whether somebody replaced a folder of either path meanwhile, and run this again"};
  const UniqueFd bound = openFolder(target);
  const auto flags = restrictionsOf(bound);
  if (!flags || mount(nullptr, DescriptorPath(bound.get()).text(), nullptr, MS_PRIVATE, nullptr) != 0)
    return cannotRestrict(target, errno);
  return remount(target, bound, *flags);
}

}  // namespace cli
