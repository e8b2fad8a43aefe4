// SPDX-License-Identifier: Apache-2.0
#include "sysinfo/LinuxSystemInfo.h"

#include <sys/stat.h>
#include <syslog.h>

#include <cerrno>

namespace mirelsnapsdk_linuxcomputer {

LinuxSystemInfo::LinuxSystemInfo() {
  struct stat root;
  if (stat("/", &root) != 0) {
    syslog(LOG_ERR, "Cannot stat root '/', errno: %d.\n", errno);
    return;
  }
  rootDevice = root.st_dev;
  bootDeviceName = FindDev(rootDevice);
}

int LinuxSystemInfo::Initialize() {
  LinkVolumeDeviceAliases();
  return InitializeSystemMemoryState();
}

}  // namespace mirelsnapsdk_linuxcomputer
