// SPDX-License-Identifier: Apache-2.0
#include "base/DeviceFlush.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <syslog.h>
#include <unistd.h>

#include "base/Handle.h"

void flushDevice(const char* path) {
  const UniqueFd device(open(path, O_RDONLY | O_CLOEXEC));
  if (!device) {
    syslog(LOG_ERR, "Failed to open devfd for %s\n", path);
    return;
  }
  fsync(device.get());
  syslog(LOG_INFO, "flushing %s.\n", path);
  if (ioctl(device.get(), BLKFLSBUF, 0) != 0) syslog(LOG_ERR, "ioctl BLKFLSBUF failed.\n");
}
