// SPDX-License-Identifier: Apache-2.0
#include "reloc/RelocationFileRemoval.h"

#include <syslog.h>
#include <unistd.h>

#include <cerrno>

void unlinkRelocFile(const std::string& path) {
  if (unlink(path.c_str()) == 0) {
    syslog(LOG_INFO, "RelocFile %s deleted.\n", path.c_str());
  } else {
    syslog(LOG_INFO, "RelocFile %s deletion failed, errno: %d.\n", path.c_str(), errno);
  }
}

std::string relocFileDirectory(const std::string& path) { return path.substr(0, path.rfind('/')); }
