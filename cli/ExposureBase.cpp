// SPDX-License-Identifier: Apache-2.0
#include "ExposureBase.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>

#include "SnapshotDevice.h"
#include "Wide.h"
#include "base/DirectoryEntry.h"
#include "base/Resolve.h"

namespace fs = std::filesystem;

namespace cli {
namespace {

constexpr mode_t kPrivate = 0700;
constexpr mode_t kPublic = 0755;
// The base in a directory that others may enter.
constexpr char kPrivateFolder[] = "/snapshots";

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

std::string modeText(mode_t mode) {
  std::array<char, 8> text{};
  std::snprintf(text.data(), text.size(), "%04o", static_cast<unsigned int>(mode & 07777));
  return text.data();
}

// Why somebody else than root could change what is in a directory, or put another in the place of one in it that is
// root's; empty where nobody can.
std::string othersIn(const struct stat& directory, bool last) {
  const std::string mode = " (mode " + modeText(directory.st_mode) + ")";
  if (directory.st_uid != 0) return "belongs to user " + std::to_string(directory.st_uid) + mode;
  const bool sticky = !last && (directory.st_mode & S_ISVTX) != 0;
  return (directory.st_mode & 022) == 0 || sticky ? "" : "may be written by others than root" + mode;
}

// Of every directory of `path`, as far as it is there.
Outcome checkOwners(const fs::path& path) {
  fs::path directory;
  for (const fs::path& name : path) {
    directory /= name;
    struct stat status {};
    if (lstat(directory.c_str(), &status) != 0) break;
    const bool last = directory == path;
    const std::string others = othersIn(status, last);
    if (!others.empty())
      return cannotExpose(path, last ? others : "lies in " + directory.string() + ", which " + others,
                          "name a base that only root can change, in directories of root's, with --base");
  }
  return std::nullopt;
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

// Adds `path` and the folders above it that are missing and are not in `folders` yet.
void addMissing(const fs::path& path, std::vector<std::string>& folders) {
  struct stat status {};
  if (lstat(path.c_str(), &status) == 0 || std::find(folders.begin(), folders.end(), path) != folders.end()) return;
  addMissing(path.parent_path(), folders);
  folders.push_back(path);
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
    if (const Outcome failure = checkMakeable(path)) return failure;
    return checkOwners(path);
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
  if (const Outcome failure = checkOwners(path)) return failure;
  const bool empty = fs::is_empty(path, error);
  if (error || !empty)
    return cannotExpose(path, error ? "cannot be read: " + error.message() : "is not empty",
                        "name a new or an empty directory with --base");
  return std::nullopt;
}

Outcome ExposureBase::make(const std::string& wanted, const std::vector<std::string>& mountPoints,
                           const std::vector<std::string>& binds) {
  auto directory = RunDirectory::make();
  if (const auto* failure = std::get_if<Failure>(&directory)) return *failure;
  if (const Outcome failure = checkBase(wanted)) return failure;
  plan(wanted, mountPoints);
  for (const std::string& bind : binds) mRecord.binds.push_back(joined(mRecord.base, bind));
  auto held = keep(mRecord);
  if (const auto* failure = std::get_if<Failure>(&held)) {
    mRecord = {};
    return *failure;
  }
  mHeld = std::move(std::get<UniqueFd>(held));
  return makeFolders();
}

// Decides on the base, and on what is to be made for it.
void ExposureBase::plan(const std::string& wanted, const std::vector<std::string>& mountPoints) {
  mRecord.process = getpid();
  mRecord.base = cleanPath(wanted.empty() ? kRunDirectory + ("/" + std::to_string(mRecord.process)) : wanted);
  struct stat status {};
  if (!wanted.empty() && stat(mRecord.base.c_str(), &status) == 0) {
    if ((status.st_mode & 077) == 0) {
      mKept = {mRecord.base, status.st_mode & 07777, status.st_uid, status.st_gid};
    } else {
      mRecord.base += kPrivateFolder;
    }
  }
  if (!mKept) addMissing(mRecord.base, mRecord.folders);
  for (const std::string& mountPoint : mountPoints) {
    if (mountPoint != "/" && !insideAnother(mountPoint, mountPoints))
      addMissing(joined(mRecord.base, mountPoint), mRecord.folders);
  }
}

Outcome ExposureBase::makeFolders() {
  for (std::size_t made = 0; made < mRecord.folders.size(); ++made) {
    const std::string& folder = mRecord.folders[made];
    const bool below = folder != mRecord.base && liesWithin(folder, mRecord.base);
    if (const int error = DirectoryEntry(folder.c_str()).makeDirectory(below ? kPublic : kPrivate); error != 0) {
      const Failure failure = cannotMake(folder, error);
      mRecord.folders.resize(made);  // what stands there is somebody else's
      return failure;
    }
  }
  // In the run directory, which is private itself, the base has the mode of a root directory, whatever the umask.
  if (liesWithin(mRecord.base, kRunDirectory)) chmod(mRecord.base.c_str(), kPublic);
  return std::nullopt;
}

std::vector<Failure> ExposureBase::remove() {
  if (!mHeld) return {};
  const auto directory = RunDirectory::existing();
  std::vector<Failure> left;
  for (auto folder = mRecord.folders.rbegin(); folder != mRecord.folders.rend(); ++folder) {
    const int error = DirectoryEntry(folder->c_str()).removeDirectory();
    if (error != 0 && error != ENOENT) {
      left.push_back({kCannotCleanUp, *folder, std::string("cannot be removed: ") + std::strerror(error),
                      "look at what is in it or mounted on it, and remove it"});
    }
  }
  if (left.empty()) unlink(mRecord.file.c_str());
  mHeld.reset();
  restoreKept();
  return left;
}

// The engine removes the base that it exposed under; the caller's own directory comes back.
void ExposureBase::restoreKept() {
  if (!mKept || DirectoryEntry(mKept->path.c_str()).makeDirectory(kPrivate) != 0) return;
  const UniqueFd made = openWithoutLinks(mKept->path.c_str(), O_RDONLY | O_DIRECTORY);
  if (made && fchown(made.get(), mKept->owner, mKept->group) == 0) fchmod(made.get(), mKept->mode);
}

}  // namespace cli
