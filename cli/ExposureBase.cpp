// SPDX-License-Identifier: Apache-2.0
#include "ExposureBase.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>

namespace fs = std::filesystem;

namespace cli {
namespace {

const fs::path kDefaultParent = "/run/mirelsnap";
constexpr mode_t kPrivate = 0700;

Failure cannotExpose(const std::string& subject, const std::string& cause, const std::string& advice) {
  return {kCannotExpose, subject, cause, advice};
}

// Absolute, links resolved, as the mount table will spell it: mounts below it are found by comparing texts.
std::string cleanPath(const fs::path& path) {
  std::error_code error;
  const fs::path clean = fs::weakly_canonical(fs::absolute(path), error);
  std::string text = error ? fs::absolute(path).lexically_normal() : clean;
  while (text.size() > 1 && text.back() == '/') text.pop_back();
  return text;
}

bool insideAnother(const std::string& mountPoint, const std::vector<std::string>& mountPoints) {
  return std::any_of(mountPoints.begin(), mountPoints.end(),
                     [&](const std::string& other) { return other != mountPoint && liesWithin(mountPoint, other); });
}

}  // namespace

Outcome checkCoverage(const std::vector<std::string>& mountPoints, const MountTable& table) {
  for (const std::string& mountPoint : mountPoints) {
    if (mountPoint == "/" || !insideAnother(mountPoint, mountPoints)) continue;
    const std::optional<Mount> parent = table.holding(fs::path(mountPoint).parent_path());
    if (parent && std::find(mountPoints.begin(), mountPoints.end(), parent->folder) == mountPoints.end()) {
      return cannotExpose(
          mountPoint,
          "is mounted in " + parent->folder + ", which is not in the set, so its snapshot has no folder to go to",
          "add " + parent->folder +
              " (--volume, or --bind when it has no block device) or leave out what lies above it");
    }
  }
  return std::nullopt;
}

Outcome ExposureBase::make(const std::string& wanted, const std::vector<std::string>& mountPoints) {
  mPath = cleanPath(wanted.empty() ? kDefaultParent / fs::path(std::to_string(getpid())) : fs::path(wanted));

  struct stat status {};
  if (stat(mPath.c_str(), &status) == 0) {
    if (!S_ISDIR(status.st_mode))
      return cannotExpose(mPath, "is not a directory", "name a new or an empty directory with --base");
    std::error_code error;
    if (!fs::is_empty(mPath, error) || error)
      return cannotExpose(mPath, "is not empty", "name a new or an empty directory with --base");
    if (!MountTable().under(mPath).empty())
      return cannotExpose(mPath, "is mounted on", "name a directory without mounts with --base");
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
    return cannotExpose(path, std::string("cannot be made: ") + std::strerror(errno), "name another base with --base");
  }
  return std::nullopt;
}

std::vector<Failure> ExposureBase::remove() {
  std::vector<Failure> left;
  for (auto folder = mMade.rbegin(); folder != mMade.rend(); ++folder) {
    // Other runs may share the parent of the default base.
    if (rmdir(folder->c_str()) != 0 && errno != ENOENT && *folder != kDefaultParent) {
      left.push_back({kCannotCleanUp, *folder, std::string("cannot be removed: ") + std::strerror(errno),
                      "unmount what is mounted there and remove it"});
    }
  }
  mMade.clear();
  // The engine removes the base that it exposed under; the caller's own directory comes back.
  if (mKept && mkdir(mPath.c_str(), mMode) == 0) {
    if (chown(mPath.c_str(), mOwner, mGroup) == 0) chmod(mPath.c_str(), mMode);
  }
  mKept = false;
  return left;
}

}  // namespace cli
