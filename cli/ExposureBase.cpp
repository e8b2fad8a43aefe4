// SPDX-License-Identifier: Apache-2.0
#include "ExposureBase.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>

#include "Processes.h"
#include "SnapshotDevice.h"
#include "Wide.h"

namespace fs = std::filesystem;

namespace cli {
namespace {

const fs::path kDefaultParent = "/run/mirelsnap";
constexpr mode_t kPrivate = 0700;

Failure cannotExpose(const std::string& subject, const std::string& cause, const std::string& advice) {
  return {kCannotExpose, subject, cause, advice};
}

Failure cannotMake(const std::string& path, int error) {
  return cannotExpose(path, std::string("cannot be made: ") + std::strerror(error), "name another base with --base");
}

bool insideAnother(const std::string& mountPoint, const std::vector<std::string>& mountPoints) {
  return std::any_of(mountPoints.begin(), mountPoints.end(),
                     [&](const std::string& other) { return other != mountPoint && liesWithin(mountPoint, other); });
}

// Binds come after all snapshots: one at or above a snapshot would hide it behind the live files.
Outcome checkNotCovered(const std::string& volume, const std::vector<std::string>& binds) {
  for (const std::string& bind : binds) {
    if (liesWithin(volume, bind))
      return cannotExpose(bind, "would hide the snapshot of " + volume + " behind live files",
                          "leave out --bind " + bind + (bind == volume ? "" : ", or name it with --volume"));
  }
  return std::nullopt;
}

// That the mount which `mountPoint` lies in is among `mountPoints`, unless none of them lies above it.
Outcome checkFolder(const std::string& mountPoint, const std::vector<std::string>& mountPoints,
                    const MountTable& table) {
  if (mountPoint == "/" || !insideAnother(mountPoint, mountPoints)) return std::nullopt;
  const std::optional<Mount> parent = table.holding(fs::path(mountPoint).parent_path());
  if (!parent || std::find(mountPoints.begin(), mountPoints.end(), parent->folder) != mountPoints.end())
    return std::nullopt;
  return cannotExpose(
      mountPoint, "is mounted in " + parent->folder + ", which is not in the set, so there is no folder to mount it on",
      parent->device == 0 ? "leave out what lies above it"
                          : "add --volume " + parent->folder + " or leave out what lies above it");
}

// Whether something is mounted at `path`, whatever its kind; so it is taken where that cannot be known.
bool isMountPoint(const fs::path& path) {
  struct statx status {};
  if (statx(AT_FDCWD, path.c_str(), AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT, 0, &status) != 0) return true;
  return (status.stx_attributes_mask & STATX_ATTR_MOUNT_ROOT) == 0 ||
         (status.stx_attributes & STATX_ATTR_MOUNT_ROOT) != 0;
}

// The folder, locked for as long as it is open; nothing when another process has locked it.
UniqueFd locked(const std::string& folder) {
  UniqueFd opened(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (opened && flock(opened.get(), LOCK_EX | LOCK_NB) != 0) opened.reset();
  return opened;
}

// Whether folders down to `path`, which is not there, can be made as far as that can be seen.
Outcome checkMakeable(const fs::path& path) {
  std::error_code error;
  fs::path missing = path;
  while (!fs::exists(missing.parent_path(), error) && missing.has_relative_path()) missing = missing.parent_path();
  const fs::path parent = missing.parent_path();
  if (!fs::is_directory(parent, error))
    return cannotExpose(parent, "is not a directory", "name another base with --base");
  if (access(parent.c_str(), W_OK) != 0) return cannotMake(missing, errno);
  return std::nullopt;
}

}  // namespace

std::string cleanPath(const std::string& path) {
  std::error_code error;
  const fs::path full = fs::absolute(path, error);
  if (error) return {};
  const fs::path clean = fs::weakly_canonical(full, error);
  std::string text = error ? full.lexically_normal() : clean;
  while (text.size() > 1 && text.back() == '/') text.pop_back();
  return text;
}

Outcome checkCoverage(const std::vector<std::string>& volumes, const std::vector<std::string>& binds,
                      const MountTable& table) {
  for (const std::string& volume : volumes) {
    if (const Outcome failure = checkNotCovered(volume, binds)) return failure;
    if (const Outcome failure = checkFolder(volume, volumes, table)) return failure;
  }
  std::vector<std::string> all = volumes;
  all.insert(all.end(), binds.begin(), binds.end());
  for (const std::string& bind : binds) {
    if (const Outcome failure = checkFolder(bind, all, table)) return failure;
  }
  return std::nullopt;
}

Outcome checkBase(const std::string& wanted) {
  if (wanted.empty()) return std::nullopt;
  const std::string path = cleanPath(wanted);
  if (path.empty()) return cannotExpose(wanted, "cannot be found: the working directory is gone", "give its full path");
  if (!isDecodable(path)) return cannotExpose(path, std::string("is ") + kUndecodable, kUndecodableAdvice);
  std::error_code error;
  const fs::file_status status = fs::status(path, error);
  if (!fs::exists(status)) {
    if (fs::is_symlink(fs::symlink_status(path, error)))
      return cannotExpose(path, "is a link that leads nowhere", "name a new or an empty directory with --base");
    return checkMakeable(path);
  }
  if (!fs::is_directory(status))
    return cannotExpose(path, "is not a directory", "name a new or an empty directory with --base");
  const std::vector<Mount> mounts = MountTable().under(path);
  if (!mounts.empty()) {
    const bool used =
        std::any_of(mounts.begin(), mounts.end(), [](const Mount& mount) { return isSnapshotDevice(mount.source); });
    return cannotExpose(path, "is mounted on",
                        used && path != "/"
                            ? "mirelsnap reconcile --base " + path + " clears it of a dead process, or " +
                                  "name a directory without mounts with --base"
                            : "name a directory without mounts with --base");
  }
  const bool empty = fs::is_empty(path, error);
  if (error || !empty)
    return cannotExpose(path, error ? "cannot be read: " + error.message() : "is not empty",
                        "name a new or an empty directory with --base");
  return std::nullopt;
}

Outcome ExposureBase::make(const std::string& wanted, const std::vector<std::string>& mountPoints) {
  if (const Outcome failure = checkBase(wanted)) return failure;
  mDefault = wanted.empty();
  mPath = cleanPath(mDefault ? (kDefaultParent / std::to_string(getpid())).string() : wanted);
  struct stat status {};
  if (mDefault) {
    if (const Outcome failure = makeDefault()) return failure;
  } else if (stat(mPath.c_str(), &status) == 0) {
    mKept = true;
    mMode = status.st_mode & 07777;
    mOwner = status.st_uid;
    mGroup = status.st_gid;
  } else if (const Outcome failure = makeFoldersTo(mPath, kPrivate)) {
    return failure;
  }
  for (const std::string& mountPoint : mountPoints) {
    if (mountPoint == "/" || insideAnother(mountPoint, mountPoints)) continue;
    if (const Outcome failure = makeFoldersTo(joined(mPath, mountPoint), 0755)) return failure;
  }
  return std::nullopt;
}

// Runs share the parent: the last to end removes it, perhaps just when the next one has found it.
Outcome ExposureBase::makeDefault() {
  do {
    if (mkdir(kDefaultParent.c_str(), kPrivate) != 0 && errno != EEXIST) return cannotMake(kDefaultParent, errno);
    if (mkdir(mPath.c_str(), kPrivate) == 0) {
      mMade.push_back(mPath);
      mLock = locked(mPath);
      return std::nullopt;
    }
  } while (errno == ENOENT);
  // One that is there was left by a process of the same number that was killed: its mounts are not ours to cover.
  return cannotMake(mPath, errno);
}

Outcome ExposureBase::makeFoldersTo(const std::string& path, mode_t mode) {
  struct stat status {};
  if (stat(path.c_str(), &status) == 0) {
    return S_ISDIR(status.st_mode) ? Outcome()
                                   : cannotExpose(path, "is not a directory", "name another base with --base");
  }
  if (const Outcome failure = makeFoldersTo(fs::path(path).parent_path(), mode)) return failure;
  return makeFolder(path, mode);
}

Outcome ExposureBase::makeFolder(const std::string& path, mode_t mode) {
  if (mkdir(path.c_str(), mode) == 0) {
    mMade.push_back(path);
  } else if (errno != EEXIST) {
    return cannotMake(path, errno);
  }
  return std::nullopt;
}

std::vector<std::string> abandonedBases() {
  std::vector<std::string> found;
  std::error_code error;
  for (fs::directory_iterator entry(kDefaultParent, error), end; !error && entry != end; entry.increment(error)) {
    const std::optional<int> owner = processNamedBy(entry->path());
    // Where processes are counted anew (in a container that shares /run) the lock tells that the owner lives.
    if (owner && isGone(*owner) && locked(entry->path())) found.push_back(entry->path());
  }
  return found;
}

void removeEmptyFoldersBelow(const std::string& base) {
  std::error_code error;
  std::vector<fs::path> folders;
  for (fs::recursive_directory_iterator entry(base, error), end; !error && entry != end; entry.increment(error)) {
    // What could not be unmounted may be a live folder that was bound: its empty folders are its owner's.
    if (isMountPoint(entry->path())) {
      entry.disable_recursion_pending();
    } else {
      folders.push_back(entry->path());
    }
  }
  std::reverse(folders.begin(), folders.end());
  for (const fs::path& folder : folders) rmdir(folder.c_str());
}

void removeAbandonedBase(const std::string& base) {
  removeEmptyFoldersBelow(base);
  rmdir(base.c_str());
  rmdir(kDefaultParent.c_str());
}

std::vector<Failure> ExposureBase::remove() {
  std::vector<Failure> left;
  for (auto folder = mMade.rbegin(); folder != mMade.rend(); ++folder) {
    if (rmdir(folder->c_str()) != 0 && errno != ENOENT) {
      left.push_back({kCannotCleanUp, *folder, std::string("cannot be removed: ") + std::strerror(errno),
                      "look at what is in it or mounted on it, and remove it"});
    }
  }
  mMade.clear();
  // Other runs may share the parent.
  if (mDefault) rmdir(kDefaultParent.c_str());
  mDefault = false;
  // The engine removes the base that it exposed under; the caller's own directory comes back.
  if (mKept && mkdir(mPath.c_str(), mMode) == 0) {
    if (chown(mPath.c_str(), mOwner, mGroup) == 0) chmod(mPath.c_str(), mMode);
  }
  mKept = false;
  return left;
}

}  // namespace cli
