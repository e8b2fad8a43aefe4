// SPDX-License-Identifier: Apache-2.0
#include "emulator/machine/Kernel.h"

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>

namespace emulator {
namespace {

// A new file system that is attached nowhere.
UniqueFd mountDetached(const char* type) {
  const UniqueFd context(fsopen(type, FSOPEN_CLOEXEC));
  if (!context || fsconfig(context.get(), FSCONFIG_CMD_CREATE, nullptr, nullptr, 0) != 0) return UniqueFd();
  return UniqueFd(fsmount(context.get(), FSMOUNT_CLOEXEC, 0));
}

}  // namespace

Result<Kernel> Kernel::reach() {
  UniqueFd mounts[3];
  const char* const types[3] = {"proc", "sysfs", "tmpfs"};
  for (int i = 0; i < 3; ++i) {
    mounts[i] = mountDetached(types[i]);
    if (!mounts[i]) return failedCall(errno, std::string("cannot mount a private ") + types[i]);
  }
  return Kernel(std::move(mounts[0]), std::move(mounts[1]), std::move(mounts[2]));
}

UniqueFd Kernel::openDevice(mode_t type, DeviceNumber device, int flags) const {
  static std::atomic<unsigned int> counter{0};
  const std::string name = std::to_string(counter++);
  if (mknodat(mNodes.get(), name.c_str(), type | 0600, device.value()) != 0) return UniqueFd();
  UniqueFd opened(openat(mNodes.get(), name.c_str(), flags | O_CLOEXEC));
  const int error = errno;
  unlinkat(mNodes.get(), name.c_str(), 0);
  errno = error;
  return opened;
}

std::string Kernel::readText(int folder, const std::string& path) {
  const UniqueFd file(openat(folder, path.c_str(), O_RDONLY | O_CLOEXEC));
  std::string text;
  if (!file) return text;
  char piece[4096];
  for (ssize_t got = 0; (got = read(file.get(), piece, sizeof piece)) > 0;) {
    text.append(piece, static_cast<std::size_t>(got));
  }
  return text;
}

}  // namespace emulator
