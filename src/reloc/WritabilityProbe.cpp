// SPDX-License-Identifier: Apache-2.0
#include "reloc/WritabilityProbe.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <optional>
#include <string_view>
#include <vector>

#include "base/Handle.h"
#include "base/Resolve.h"
#include "reloc/Planted.h"
#include "sysinfo/LinuxSystemInfo.h"
#include "sysinfo/MountTable.h"

namespace {

using mirelsnapsdk_linuxcomputer::MountEntry;

const char* const kEntry = PROBE_FILE_NAME.c_str();

constexpr mode_t kPrivate = S_IRUSR | S_IWUSR;

// Processes that probe one folder at a time find and remove each other's files.
constexpr int kAttempts = 8;

UniqueFd openTop(const std::string& mountPoint) { return openWithoutLinks(mountPoint.c_str(), O_PATH | O_DIRECTORY); }

std::string probePath(const std::string& mountPoint) { return mountPoint + FILE_PATH_SEPERATOR + PROBE_FILE_NAME; }

Cause refused(const std::string& path, const std::string& why) {
  tellPlanted(path, why);
  return {path, why};
}

// Why what has the probe's name in the directory `top` may not be removed: it is no empty file of root's, as a process
// that died leaves one. Nothing there is fine.
std::optional<Cause> whyNameIsTaken(int top, const std::string& mountPoint) {
  struct stat directory {};
  struct stat file {};
  if (fstat(top, &directory) != 0) return failedCall("fstat", mountPoint, errno);
  if (fstatat(top, kEntry, &file, AT_SYMLINK_NOFOLLOW) != 0) {
    if (errno == ENOENT) return std::nullopt;
    return failedCall("stat", probePath(mountPoint), errno);
  }
  auto why = whyNotOurFile(file, directory.st_dev);
  if (!why && file.st_size != 0) why = "is not empty";
  if (!why) return std::nullopt;
  return refused(probePath(mountPoint), *why);
}

// Why what is made in the directory `top`, as `file` was, would not be root's alone.
std::optional<std::string> whyNotPrivate(int top, int file) {
  struct stat directory {};
  struct stat made {};
  if (fchmod(file, kPrivate) != 0 || fstat(file, &made) != 0 || fstat(top, &directory) != 0) {
    return "cannot be closed to others";
  }
  if (auto why = whyNotOurFile(made, directory.st_dev)) return "gives a file that " + *why;
  if ((made.st_mode & ACCESSPERMS) == kPrivate) return std::nullopt;
  return whyOpenToOthers(directory, made.st_mode);
}

// The mode of every file on a file system that keeps none, as its mount options tell; nothing on one that does.
std::optional<mode_t> modeOfAllFiles(const std::string& mountPoint) {
  constexpr std::string_view kMask = ",fmask=";
  std::optional<mode_t> mode;
  for (const auto& mount : mirelsnapsdk_linuxcomputer::readMountTable().value_or(std::vector<MountEntry>())) {
    if (mount.dir != mountPoint) continue;
    const std::string options = "," + mount.opts;
    const std::size_t mask = options.find(kMask);
    mode.reset();  // of several on one folder the last covers the others
    if (mask == std::string::npos) continue;
    mode = ACCESSPERMS & ~static_cast<mode_t>(std::strtoul(options.c_str() + mask + kMask.size(), nullptr, 8));
  }
  return mode;
}

}  // namespace

std::optional<Cause> whyNotMakingFiles(const std::string& mountPoint) {
  const UniqueFd top = openTop(mountPoint);
  if (!top) return failedCall("open", mountPoint, errno);
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    const UniqueFd file(
        openat(top.get(), kEntry, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0644));
    if (file) {
      const auto why = whyNotPrivate(top.get(), file.get());
      unlinkat(top.get(), kEntry, 0);
      if (why) return refused(mountPoint, *why);
      return std::nullopt;
    }
    if (errno != EEXIST) return failedCall("open", probePath(mountPoint), errno);
    if (auto why = whyNameIsTaken(top.get(), mountPoint)) return why;
    if (unlinkat(top.get(), kEntry, 0) != 0 && errno != ENOENT) {
      return failedCall("unlink", probePath(mountPoint), errno);
    }
  }
  return failedCall("open", probePath(mountPoint), EEXIST);
}

std::optional<Cause> whyFilesCouldNotBeMade(const std::string& mountPoint) {
  const UniqueFd top = openTop(mountPoint);
  struct stat directory {};
  if (!top || fstat(top.get(), &directory) != 0) return failedCall("open", mountPoint, errno);
  if (auto why = whyNameIsTaken(top.get(), mountPoint)) return why;
  const std::optional<mode_t> mode = modeOfAllFiles(mountPoint);
  const auto why = mode ? whyOpenToOthers(directory, *mode) : std::nullopt;
  if (why) return refused(mountPoint, *why);
  return std::nullopt;
}
