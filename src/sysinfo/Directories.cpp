// SPDX-License-Identifier: Apache-2.0
//
// Listing a directory, and removing an empty one.
#include <syslog.h>
#include <unistd.h>

#include <cerrno>

#include "base/Handle.h"
#include "sysinfo/DirectoryWalk.h"
#include "sysinfo/LinuxSystemInfo.h"

namespace mirelsnapsdk_linuxcomputer {

int LinuxSystemInfo::GetFilesInDirectory(const std::string& dir, std::list<std::string>& out) {
  const UniqueDirectory directory(opendir(dir.c_str()));
  if (!directory) {
    const int error = errno;
    syslog(LOG_DEBUG, "Error %d opening dir: %s.\n", error, dir.c_str());
    return error;
  }
  while (const dirent* entry = readdir(directory.get())) {
    if (isSelfOrParent(entry->d_name)) continue;
    out.push_back(dir + FILE_PATH_SEPERATOR + entry->d_name);
    syslog(LOG_DEBUG, "Filename found: %s.\n", entry->d_name);
  }
  return 0;
}

unsigned int LinuxSystemInfo::DeleteDirectoryIfEmpty(const std::string& dir) {
  std::list<std::string> entries;
  if (GetFilesInDirectory(dir, entries) != 0) {
    syslog(LOG_ERR, "Unable to read directory: %s.\n", dir.c_str());
    return 3;
  }
  if (entries.empty()) static_cast<void>(rmdir(dir.c_str()));  // whether it worked is nobody's concern
  return 0;
}

}  // namespace mirelsnapsdk_linuxcomputer
