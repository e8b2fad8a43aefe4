// SPDX-License-Identifier: Apache-2.0
#include "emulator/machine/Mounts.h"

#include <sys/mount.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include "emulator/machine/Caller.h"

namespace emulator {

void unmountAll(const Kernel& kernel, const std::set<DeviceNumber>& devices,
                const std::function<void(const std::string&)>& tell) {
  const std::vector<MountLine> mounts = Caller(kernel, getpid()).mounts();
  for (auto mount = mounts.rbegin(); mount != mounts.rend(); ++mount) {
    if (!devices.contains(numberOf(mount->device))) continue;
    if (umount2(mount->folder.c_str(), UMOUNT_NOFOLLOW) == 0) continue;
    const int error = errno;
    if (umount2(mount->folder.c_str(), UMOUNT_NOFOLLOW | MNT_DETACH) == 0) {
      tell(mount->folder + ": still in use; detached, the snapshot goes away with its last user");
    } else {
      tell(mount->folder + ": cannot unmount the snapshot: " + std::strerror(error));
    }
  }
}

}  // namespace emulator
