// SPDX-License-Identifier: Apache-2.0
#include "base/DirectoryEntry.h"

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <string_view>

#include "base/Resolve.h"

namespace {

constexpr int kDirectory = O_PATH | O_DIRECTORY;

int resultOf(int returned) noexcept { return returned == 0 ? 0 : errno; }

}  // namespace

DirectoryEntry::DirectoryEntry(const char* path) noexcept {
  if (path[0] != '/') {
    mError = EINVAL;
    return;
  }
  const UniqueFd top(open("/", kDirectory | O_CLOEXEC));
  if (!top) {
    mError = errno;
  } else {
    locate(top.get(), path);
  }
}

DirectoryEntry::DirectoryEntry(int root, const char* relative) noexcept { locate(root, relative); }

void DirectoryEntry::locate(int root, const char* path) noexcept {
  std::string_view text(path);
  while (text.ends_with('/')) text.remove_suffix(1);
  const std::size_t slash = text.rfind('/');
  const std::string_view name = slash == std::string_view::npos ? text : text.substr(slash + 1);
  const std::string_view parent = text.substr(0, text.size() - name.size());
  std::array<char, PATH_MAX> folder{};
  if (name.empty() || name == "..") {
    mError = EINVAL;
  } else if (name.size() >= mName.size() || parent.size() >= folder.size()) {
    mError = ENAMETOOLONG;
  } else {
    name.copy(mName.data(), name.size());
    parent.copy(folder.data(), parent.size());
    mDirectory = openBeneath(root, folder.data(), kDirectory);
    if (!mDirectory) mError = errno;
  }
}

int DirectoryEntry::makeDirectory(mode_t mode) const noexcept {
  return mError != 0 ? mError : resultOf(mkdirat(mDirectory.get(), mName.data(), mode));
}

int DirectoryEntry::removeDirectory() const noexcept {
  return mError != 0 ? mError : resultOf(unlinkat(mDirectory.get(), mName.data(), AT_REMOVEDIR));
}

int DirectoryEntry::unmount() const noexcept {
  if (mError != 0) return mError;
  std::array<char, 32 + NAME_MAX + 2> path{};
  std::snprintf(path.data(), path.size(), "%s/%s", DescriptorPath(mDirectory.get()).text(), mName.data());
  return resultOf(umount2(path.data(), UMOUNT_NOFOLLOW));
}
