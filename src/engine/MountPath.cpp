// SPDX-License-Identifier: Apache-2.0
#include "engine/MountPath.h"

#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <string_view>

#include "engine/GetDoneWrapper.h"
#include "qxtools/MountPointCollection.h"

namespace MirelSnapSnapshotCoordinator {

using UnixUtils::SystemMountPointCollection;

UnixUtils::NarrowText JoinMountPath(const char* base, const char* mountPoint) {
  if (base == nullptr || base[0] != '/' || mountPoint == nullptr || mountPoint[0] != '/') return nullptr;
  const std::string_view head(base);
  std::string_view tail(mountPoint);
  if (head.back() == '/') tail.remove_prefix(1);
  std::size_t length = head.size() + tail.size();
  UnixUtils::NarrowText joined(static_cast<char*>(std::malloc(length + 1)));
  if (joined == nullptr) return nullptr;
  head.copy(joined.get(), head.size());
  tail.copy(joined.get() + head.size(), tail.size());
  // One trailing slash goes; so the mount point "/" leaves the base itself.
  if (joined[length - 1] == '/') --length;
  joined[length] = '\0';
  return joined;
}

int FolderDepth(const char* path) {
  int depth = 0;
  std::mbstate_t state{};
  while (*path != '\0') {
    const std::size_t bytes = std::mbrlen(path, MB_CUR_MAX, &state);
    if (bytes == 0 || bytes > MB_CUR_MAX) return -1;
    if (bytes == 1 && *path == '/') ++depth;
    path += bytes;
  }
  return depth;
}

bool IsLocalMountPoint(const char* path) {
  const GetDoneWrapper<SystemMountPointCollection> mounts(
      SystemMountPointCollection::GetLocalSystemMountPointCollection());
  if (!mounts) return false;
  const GetDoneWrapper<SystemMountPointCollection::MountPointInformation> entry(mounts->FindMountPointFromPath(path));
  return !!entry && std::strcmp(entry->GetMountFolder(), path) == 0;
}

}  // namespace MirelSnapSnapshotCoordinator
