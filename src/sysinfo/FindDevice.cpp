// SPDX-License-Identifier: Apache-2.0
//
// From a device number to the path of its node.
#include <sys/stat.h>
#include <syslog.h>

#include <cerrno>
#include <cstdio>

#include "base/Handle.h"
#include "sysinfo/DirectoryWalk.h"
#include "sysinfo/LinuxSystemInfo.h"

namespace mirelsnapsdk_linuxcomputer {
namespace {

// Nodes whose path begins so are other names of the root device, never its own.
constexpr char kRootAliasPrefix[] = "/dev/root";

std::string formatDeviceNumber(unsigned long device) {
  char text[16];
  std::snprintf(text, sizeof text, "0x%04x", static_cast<unsigned int>(device));  // the low 32 bits
  return text;
}

}  // namespace

std::string FindDev(unsigned long device) {
  if (device == 0) return "Boot device";
  std::string path;
  path.reserve(kPathLimit + 1);  // the longest path that the search composes
  path = "/dev";
  if (!FindDevRecursive(path, device)) return formatDeviceNumber(device);
  path.shrink_to_fit();  // every system-information object keeps one
  return path;
}

bool FindDevRecursive(std::string& path, unsigned long device) {
  const UniqueDirectory directory(opendir(path.c_str()));
  if (!directory) {
    syslog(LOG_ERR, "FindDevRecursive opendir failed on : %s, and errno: %d.\n", path.c_str(), errno);
    return false;
  }
  const std::size_t length = path.size();
  while (const dirent* entry = readdir(directory.get())) {
    if (!isWalked(length, entry->d_name)) continue;
    path.resize(length);
    path.append("/").append(entry->d_name);
    struct stat node;
    if (lstat(path.c_str(), &node) != 0) continue;
    if (path.starts_with(kRootAliasPrefix)) continue;
    if (S_ISBLK(node.st_mode) && node.st_rdev == device) return true;
    if (S_ISDIR(node.st_mode) && FindDevRecursive(path, device)) return true;
  }
  path.resize(length);
  return false;
}

}  // namespace mirelsnapsdk_linuxcomputer
