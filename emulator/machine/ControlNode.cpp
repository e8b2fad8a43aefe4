// SPDX-License-Identifier: Apache-2.0
#include "emulator/machine/ControlNode.h"

#include <sys/stat.h>
#include <unistd.h>

#include "driver/DriverProtocol.h"

namespace emulator {

void removeControlNode() {
  struct stat found;
  if (lstat(kControlNodePath, &found) == 0 && S_ISCHR(found.st_mode) && numberOf(found.st_rdev) == kControlDevice) {
    unlink(kControlNodePath);
  }
}

}  // namespace emulator
