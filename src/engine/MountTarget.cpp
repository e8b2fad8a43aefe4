// SPDX-License-Identifier: Apache-2.0
#include "engine/MountTarget.h"

#include <fcntl.h>
#include <sys/mount.h>

#include <array>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "base/DirectoryEntry.h"
#include "base/Resolve.h"

namespace MirelSnapSnapshotCoordinator {
namespace {

// What leads from `base` to `target`, empty for the base itself; null with errno set when `target` lies elsewhere.
const char* pathFrom(const char* base, const char* target) {
  // The root joined with itself gives no path at all.
  if (*target == '\0') {
    errno = ENOENT;
    return nullptr;
  }
  std::size_t length = std::strlen(base);
  while (length != 0 && base[length - 1] == '/') --length;
  const char* rest = target + length;
  if (std::strncmp(base, target, length) != 0 || (*rest != '\0' && *rest != '/')) {
    errno = EXDEV;
    return nullptr;
  }
  return rest + std::strspn(rest, "/");
}

UniqueFd openBase(const char* base) {
  return UniqueFd(open(*base == '\0' ? "/" : base, O_PATH | O_DIRECTORY | O_CLOEXEC));
}

UniqueFd openTarget(const char* base, const char* target) {
  const char* path = pathFrom(base, target);
  if (path == nullptr) return UniqueFd();
  UniqueFd folder = openBase(base);
  return folder && *path != '\0' ? openBeneath(folder.get(), path, O_PATH) : std::move(folder);
}

// The base is a mount point then: it is reached by its own parent.
int unmountBase(const char* base) {
  std::array<char, PATH_MAX> path;
  if (realpath(base, path.data()) == nullptr) return errno;
  return DirectoryEntry(path.data()).unmount();
}

}  // namespace

int MountBelow(const char* base, const char* target, const char* source, const char* type, unsigned long flags,
               const char* data) noexcept {
  const UniqueFd folder = openTarget(base, target);
  if (!folder) return errno;
  return mount(source, DescriptorPath(folder.get()).text(), type, flags, data) == 0 ? 0 : errno;
}

int UnmountBelow(const char* base, const char* target) noexcept {
  const char* path = pathFrom(base, target);
  if (path == nullptr) return errno;
  if (*path == '\0') return unmountBase(base);
  const UniqueFd folder = openBase(base);
  return folder ? DirectoryEntry(folder.get(), path).unmount() : errno;
}

}  // namespace MirelSnapSnapshotCoordinator
