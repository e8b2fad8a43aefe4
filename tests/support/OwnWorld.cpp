// SPDX-License-Identifier: Apache-2.0
#include "OwnWorld.h"

#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/openat2.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <optional>
#include <stdexcept>
#include <string_view>

#include "HarnessScope.h"
#include "World.h"
#include "base/Handle.h"
#include "base/Paths.h"

namespace test {
namespace {

// Where a name leads, links not followed.
struct Thing {
  dev_t device;
  ino_t inode;
  std::uint64_t mount;
  bool isFolder;
};

// What stands at `name` in the folder; the folder itself for "". Nothing, with errno, when that cannot be told.
std::optional<Thing> look(int folder, const std::string& name) {
  struct statx found {};
  const int flags = AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT | AT_EMPTY_PATH;
  if (statx(folder, name.c_str(), flags, STATX_BASIC_STATS | STATX_MNT_ID, &found) != 0) return std::nullopt;
  if ((found.stx_mask & STATX_MNT_ID) == 0) {
    errno = ENOSYS;
    return std::nullopt;
  }
  return Thing{makedev(found.stx_dev_major, found.stx_dev_minor), found.stx_ino, found.stx_mnt_id,
               S_ISDIR(found.stx_mode)};
}

UniqueFd openTop(const std::string& path) {
  return UniqueFd(open(path.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
}

UniqueFd openFolder(int parent, const std::string& name) {
  return UniqueFd(openat(parent, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
}

// Opens the folder `path` below `root`, without following a link.
UniqueFd openBelow(int root, const std::string& path) {
  open_how how{};
  how.flags = O_PATH | O_DIRECTORY | O_CLOEXEC;
  how.resolve = RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS;
  return UniqueFd(static_cast<int>(syscall(SYS_openat2, root, path.c_str(), &how, sizeof(how))));
}

std::vector<std::string> namesIn(int folder) {
  std::vector<std::string> names;
  UniqueFd listing = openFolder(folder, ".");
  const UniqueDirectory entries(fdopendir(listing.get()));
  if (!entries) return names;
  static_cast<void>(listing.release());
  while (const dirent* entry = readdir(entries.get())) {
    const std::string_view name = entry->d_name;
    if (name != "." && name != "..") names.emplace_back(name);
  }
  return names;
}

// The first thing at `name` and below it that lies on another mount, as a path; nothing when there is none.
std::optional<std::string> otherMountIn(int parent, const std::string& name, std::uint64_t mount) {
  const std::optional<Thing> thing = look(parent, name);
  if (!thing && errno == ENOENT) return std::nullopt;
  if (!thing || thing->mount != mount) return name;
  if (!thing->isFolder) return std::nullopt;
  const UniqueFd folder = openFolder(parent, name);
  if (!folder) return name;
  for (const std::string& below : namesIn(folder.get())) {
    if (const auto other = otherMountIn(folder.get(), below, mount)) return name + '/' + *other;
  }
  return std::nullopt;
}

// Removes `name` with all below it, as far as that lies on the mount. What fails leaves its cause in errno.
bool removeOnMount(int parent, const std::string& name, std::uint64_t mount) {
  const std::optional<Thing> thing = look(parent, name);
  if (!thing) return errno == ENOENT;
  if (thing->mount != mount) {
    errno = EBUSY;
    return false;
  }
  if (!thing->isFolder) return unlinkat(parent, name.c_str(), 0) == 0;
  {
    const UniqueFd folder = openFolder(parent, name);
    if (!folder) return false;
    for (const std::string& below : namesIn(folder.get())) {
      if (!removeOnMount(folder.get(), below, mount)) return false;
    }
  }
  return unlinkat(parent, name.c_str(), AT_REMOVEDIR) == 0;
}

bool isPlain(std::string_view path) {
  if (!path.starts_with('/')) return false;
  const std::string bounded = std::string(path) + '/';
  return bounded.find("/./") == std::string::npos && bounded.find("/../") == std::string::npos;
}

// Without slashes to spare.
std::string tidied(const std::string& path) {
  std::string tidy;
  for (const char letter : path) {
    if (letter != '/' || !tidy.ends_with('/')) tidy += letter;
  }
  if (tidy.size() > 1 && tidy.ends_with('/')) tidy.pop_back();
  return tidy;
}

Thing examined(const std::string& folder) {
  const std::optional<Thing> thing = look(AT_FDCWD, folder);
  if (!thing) throw std::runtime_error("cannot examine " + folder + ": " + std::strerror(errno));
  return *thing;
}

// Answers as a system call that is not permitted.
int refuse(const std::string& what, const std::string& path, const std::string& cause) {
  ADD_FAILURE() << "refused to " << what << ' ' << path << ": " << cause;
  errno = EPERM;
  return -1;
}

}  // namespace

// A name in a folder; with a refusal there is no folder, nor when it is missing.
struct OwnWorld::Place {
  UniqueFd folder;
  std::string name;
  std::string refusal;

  // `path` below the open directory `top`, which is `root`, without following a link on the way.
  static Place find(const UniqueFd& top, const std::string& root, const std::string& path) {
    const std::string folder(folderOf(path));
    UniqueFd found = openBelow(top.get(), folder == root ? "." : folder.substr(root == "/" ? 1 : root.size() + 1));
    if (!found && errno != ENOENT && errno != ENOTDIR) {
      return {{}, {}, errno == ELOOP ? "a link leads there" : std::strerror(errno)};
    }
    return {std::move(found), std::string(lastPart(path)), {}};
  }
};

UniqueFd OwnWorld::Root::open() const {
  UniqueFd folder = openTop(path);
  const std::optional<Thing> found = look(folder.get(), "");
  if (!found || found->device != device || found->inode != inode) folder.reset();
  return folder;
}

void OwnWorld::addRoot(const std::string& folder) {
  const Thing root = examined(folder);
  mRoots.push_back({folder, root.device, root.inode});
  mFileSystems.insert(root.device);
}

void OwnWorld::addFileSystem(const std::string& folder) { mFileSystems.insert(examined(folder).device); }

void OwnWorld::addMount(const std::string& folder) { mMounts.insert(examined(folder).mount); }

OwnWorld::Place OwnWorld::findBelowRoot(const std::string& path) const {
  if (!isPlain(path)) return {{}, {}, "the path is not absolute and plain"};
  const Root* root = nullptr;
  for (const Root& candidate : mRoots) {
    const bool within = path != candidate.path && liesWithin(path, candidate.path);
    if (within && (root == nullptr || candidate.path.size() > root->path.size())) root = &candidate;
  }
  if (root == nullptr) return {{}, {}, "it lies outside of the test's world"};
  const UniqueFd top = root->open();
  if (!top) return {{}, {}, root->path + " is not the directory that the test's world laid"};
  return Place::find(top, root->path, path);
}

bool OwnWorld::removeTree(const std::string& asked) const {
  const HarnessScope own;
  const std::string path = tidied(asked);
  const auto refused = [&path](const std::string& cause) {
    refuse("remove", path, cause);
    return false;
  };
  const Place place = findBelowRoot(path);
  if (!place.refusal.empty()) return refused(place.refusal);
  if (!place.folder) return true;
  const std::optional<Thing> parent = look(place.folder.get(), "");
  if (!parent || !mFileSystems.contains(parent->device)) return refused("its file system is not the test's");
  if (const auto other = otherMountIn(place.folder.get(), place.name, parent->mount)) {
    return refused("something is mounted on " + joined(folderOf(path), *other));
  }
  if (removeOnMount(place.folder.get(), place.name, parent->mount)) return true;
  ADD_FAILURE() << "cannot remove " << path << ": " << std::strerror(errno);
  return false;
}

int OwnWorld::unmount(const std::string& asked, int flags) {
  const HarnessScope own;
  const std::string path = tidied(asked);
  const std::optional<Thing> mounted = look(AT_FDCWD, path);
  const bool isAdded = isPlain(path) && mounted && mMounts.contains(mounted->mount);
  const Place place = isAdded ? Place::find(openTop("/"), "/", path) : findBelowRoot(path);
  if (!place.refusal.empty()) return refuse("unmount", path, place.refusal);
  if (!place.folder) {
    errno = ENOENT;
    return -1;
  }
  const std::string reached = std::string(kRealProc) + "/self/fd/" + std::to_string(place.folder.get()) + '/';
  const int result = umount2((reached + place.name).c_str(), flags | UMOUNT_NOFOLLOW);
  if (result == 0 && mounted) mMounts.erase(mounted->mount);
  return result;
}

int OwnWorld::hideMachines(const std::string& folder) const {
  // The roots are seen in the world's own namespace alone.
  if (mRoots.empty() || !mRoots.front().open()) {
    return refuse("hide", folder, "this mount namespace is not the test's");
  }
  return umount2(folder.c_str(), MNT_DETACH | UMOUNT_NOFOLLOW);
}

OwnWorld& ownWorld() {
  static OwnWorld world;
  return world;
}

bool removeTree(const std::string& path) { return ownWorld().removeTree(path); }
int unmount(const std::string& folder, int flags) { return ownWorld().unmount(folder, flags); }

}  // namespace test
