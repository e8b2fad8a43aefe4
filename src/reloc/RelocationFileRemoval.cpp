// SPDX-License-Identifier: Apache-2.0
#include "reloc/RelocationFileRemoval.h"

#include <syslog.h>

#include <cerrno>

#include "base/Causes.h"
#include "reloc/RelocationDirectory.h"

std::string relocFileDirectory(const std::string& path) { return path.substr(0, path.rfind('/')); }

std::string relocFileEntry(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  return slash == std::string::npos ? std::string() : path.substr(slash + 1);
}

void removeRelocFile(const std::string& path) {
  const RelocationDirectory directory(relocFileDirectory(path));
  if (directory.remove(relocFileEntry(path))) {
    syslog(LOG_INFO, "RelocFile %s deleted.\n", path.c_str());
  } else {
    if (!path.empty()) noteFailedCall("unlink", path.c_str(), errno);
    syslog(LOG_INFO, "RelocFile %s deletion failed, errno: %d.\n", path.c_str(), errno);
  }
  directory.removeIfEmpty();
}
