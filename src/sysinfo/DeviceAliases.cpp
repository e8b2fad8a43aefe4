// SPDX-License-Identifier: Apache-2.0
//
// The many names of a block device: the links under /dev/disk, and /dev/root. Failures are silent here; each skips
// the object concerned.
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>

#include "base/Handle.h"
#include "sysinfo/DirectoryWalk.h"
#include "sysinfo/LinuxSystemInfo.h"

namespace mirelsnapsdk_linuxcomputer {
namespace {

// Reads the text of a symbolic link; false when it cannot be read or has more than 4095 bytes.
bool readLinkText(const std::string& path, std::string& text) {
  char buffer[PATH_MAX] = {};
  const ssize_t length = readlink(path.c_str(), buffer, sizeof buffer);
  if (length < 0 || static_cast<std::size_t>(length) >= sizeof buffer) return false;
  text.assign(buffer);
  return true;
}

// The link's text as an absolute path; empty when it is relative and its directory is not known.
std::string makeAbsolute(const std::string& text, const std::string& parentDir) {
  if (text.starts_with('/')) return text;
  if (parentDir.empty()) return {};
  return parentDir + "/" + text;
}

// Resolves all links of `path`. A path that does not exist counts as resolved as far as realpath came (as nothing,
// for the empty path): dangling links are registered too, that is the contract. False for every other error.
bool resolve(const std::string& path, std::string& resolved) {
  char buffer[PATH_MAX] = {};
  errno = 0;
  if (realpath(path.c_str(), buffer) == nullptr && errno != ENOENT) return false;
  resolved.assign(buffer);
  return true;
}

}  // namespace

void LinuxSystemInfo::LinkVolumeDeviceAliases() {
  volumeAliasMap.clear();
  volumeAliases.clear();
  LinkVolumeDeviceAliases("/dev/disk", "/dev");
  InitVolumeDeviceAlias("/dev/root", "/dev");
}

void LinuxSystemInfo::LinkVolumeDeviceAliases(const std::string& path, const std::string& parentDir) {
  struct stat file;
  if (lstat(path.c_str(), &file) != 0) return;
  if (S_ISDIR(file.st_mode)) {
    linkAliasesInDirectory(path);
  } else if (S_ISLNK(file.st_mode)) {
    linkAlias(path, parentDir);
  }
}

void LinuxSystemInfo::linkAliasesInDirectory(const std::string& path) {
  const UniqueDirectory directory(opendir(path.c_str()));
  if (!directory) return;
  errno = 0;
  while (const dirent* entry = readdir(directory.get())) {
    if (isWalked(path.size(), entry->d_name)) LinkVolumeDeviceAliases(path + "/" + entry->d_name, path);
    errno = 0;
  }
}

void LinuxSystemInfo::linkAlias(const std::string& path, const std::string& parentDir) {
  std::string text;
  std::string device;
  if (readLinkText(path, text) && resolve(makeAbsolute(text, parentDir), device)) registerAlias(path, device);
}

void LinuxSystemInfo::InitVolumeDeviceAlias(const std::string& alias, const std::string& candidate) {
  struct stat aliasNode;
  struct stat node;
  if (lstat(alias.c_str(), &aliasNode) != 0 || lstat(candidate.c_str(), &node) != 0) return;
  // Only the numbers count, whatever kind the two are: a character device can be an alias, and an alias that is a
  // link or a file (number 0) is one of the first directory asked. That is the contract.
  if (aliasNode.st_rdev == node.st_rdev) {
    registerAlias(alias, candidate);
    return;
  }
  if (S_ISDIR(node.st_mode)) initAliasesInDirectory(alias, candidate);
}

void LinuxSystemInfo::initAliasesInDirectory(const std::string& alias, const std::string& path) {
  const UniqueDirectory directory(opendir(path.c_str()));
  if (!directory) return;
  while (const dirent* entry = readdir(directory.get())) {
    if (isWalked(path.size(), entry->d_name)) InitVolumeDeviceAlias(alias, path + "/" + entry->d_name);
    errno = 0;
  }
}

void LinuxSystemInfo::registerAlias(const std::string& alias, const std::string& device) {
  volumeAliasMap[device].push_back(alias);
  volumeAliases[alias] = device;
}

}  // namespace mirelsnapsdk_linuxcomputer
