// SPDX-License-Identifier: Apache-2.0
#include "reloc/WritabilityProbe.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "base/Handle.h"
#include "base/Resolve.h"
#include "reloc/Planted.h"

namespace {

constexpr char kProbeName[] = "/qorTESTfile.KQTA";  // after the path of the mount point
constexpr const char* kEntry = kProbeName + 1;

// Processes that probe one folder at a time find and remove each other's files.
constexpr int kAttempts = 8;

UniqueFd openTop(const std::string& mountPoint) { return openWithoutLinks(mountPoint.c_str(), O_PATH | O_DIRECTORY); }

// Whether what has the probe's name in the directory `top` may be removed: an empty file of root's, left by a process
// that died. Anything else is told of. Nothing there is fine.
bool isLeftover(int top, const std::string& mountPoint) {
  struct stat directory {};
  struct stat file {};
  if (fstat(top, &directory) != 0) return false;
  if (fstatat(top, kEntry, &file, AT_SYMLINK_NOFOLLOW) != 0) return errno == ENOENT;
  auto why = whyNotOurFile(file, directory.st_dev);
  if (!why && file.st_size != 0) why = "is not empty";
  if (why) tellPlanted(mountPoint + kProbeName, *why);
  return !why;
}

// FAT, for one, keeps no modes: what lies there is open to whoever may search the mount point.
bool isOpenToEverybody(int file, int top) {
  struct stat made {};
  struct stat directory {};
  return fchmod(file, S_IRUSR | S_IWUSR) != 0 || fstat(file, &made) != 0 || fstat(top, &directory) != 0 ||
         ((made.st_mode & (S_IRWXG | S_IRWXO)) != 0 && (directory.st_mode & (S_IXGRP | S_IXOTH)) != 0);
}

}  // namespace

bool canMakeFiles(const std::string& mountPoint) {
  const UniqueFd top = openTop(mountPoint);
  if (!top) return false;
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    const UniqueFd file(
        openat(top.get(), kEntry, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0644));
    if (file) {
      const bool open = isOpenToEverybody(file.get(), top.get());
      if (open) tellPlanted(mountPoint, "is open to everybody, and the file system keeps no modes");
      unlinkat(top.get(), kEntry, 0);
      return !open;
    }
    if (errno != EEXIST || !isLeftover(top.get(), mountPoint)) return false;
    if (unlinkat(top.get(), kEntry, 0) != 0 && errno != ENOENT) return false;
  }
  return false;
}

bool isProbeNameFree(const std::string& mountPoint) {
  const UniqueFd top = openTop(mountPoint);
  return top && isLeftover(top.get(), mountPoint);
}
