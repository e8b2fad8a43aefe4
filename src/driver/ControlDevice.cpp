// SPDX-License-Identifier: Apache-2.0
#include "driver/ControlDevice.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <syslog.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include "base/Causes.h"
#include "driver/VolumeRecords.h"

namespace {

constexpr char kDriverNumbers[] = "/proc/mirelsnap/dev";
constexpr char kUnsupportedModules[] = "/etc/modprobe.d/unsupported-modules";

using LoadCommand = std::array<char, 150>;

bool exists(const char* path) {
  struct stat status {};
  return stat(path, &status) == 0;
}

LoadCommand makeLoadCommand(const std::string& modprobe) {
  LoadCommand command{};
  if (exists(kUnsupportedModules)) {
    std::snprintf(command.data(), command.size(), "%s %s --allow-unsupported-modules 2> /dev/null", modprobe.c_str(),
                  kDriverModule);
  } else {
    std::snprintf(command.data(), command.size(), "%s %s 2> /dev/null", modprobe.c_str(), kDriverModule);
  }
  return command;
}

UniqueFile openDriverNumbers() { return UniqueFile(std::fopen(kDriverNumbers, "re")); }

// Whether the module came is seen by its file, not by the load command's exit status.
UniqueFile loadDriver(const LoadCommand& command) {
  syslog(LOG_ERR, "Driver is not loaded. Loading %s.\n", kDriverModule);
  if (std::system(command.data()) == -1) {  // NOLINT(cert-env33-c): a fixed command with a full path
    syslog(LOG_ERR, "Failed to run system command. err: %d\n", errno);
  }
  return openDriverNumbers();
}

void reportMissingDriver(int error) {
  noteFailedCall("open", kDriverNumbers, error);
  syslog(LOG_ERR, "Missing %s driver.\n", kDriverModule);
  errno = error;
}

// The numbers of the control device that the loaded module gives, loading it where needed.
bool readDriverNumbers(const LoadCommand& loadCommand, DeviceNumberPair* numbers) {
  UniqueFile file = openDriverNumbers();
  if (!file) file = loadDriver(loadCommand);
  if (!file) {
    reportMissingDriver(errno);
    return false;
  }
  if (std::fscanf(file.get(), "%u %u", &numbers->majorNum, &numbers->minorNum) != 2) {
    reportMissingDriver(ENODEV);  // a file without two numbers names no device
    return false;
  }
  return true;
}

bool nodeHas(const DeviceNumberPair& numbers) {
  struct stat status {};
  return stat(kControlNode, &status) == 0 && major(status.st_rdev) == numbers.majorNum &&
         minor(status.st_rdev) == numbers.minorNum;
}

bool unlinkNode() {
  if (unlink(kControlNode) == 0) return true;
  syslog(LOG_ERR, "unlink failed, errno:%d\n", errno);
  return false;
}

// Closes the node behind `device` but keeps its number taken, by a descriptor on which every request fails with EBADF:
// what still uses or closes the number then meets no file of another thread or of the system log. Where no such
// descriptor can be had, nothing is kept.
void closeKeepingNumber(UniqueFd& device) {
  const UniqueFd placeholder(open("/", O_PATH | O_CLOEXEC));
  if (!placeholder || dup3(placeholder.get(), device.get(), O_CLOEXEC) < 0) device.reset();
}

}  // namespace

std::string findExe(const std::string& name) {
  for (const char* folder : {"/sbin/", "/usr/sbin/", "/usr/local/sbin/", "/bin/", "/usr/bin/", "/usr/local/bin/"}) {
    std::string path = folder + name;
    if (exists(path.c_str())) return path;
  }
  return {};
}

int openControlDevice() {
  const std::string modprobe = findExe("modprobe");
  if (modprobe.empty()) {
    const int error = errno;
    syslog(LOG_ERR, "modprobe utility not found\n");
    errno = error;
    return -1;
  }
  DeviceNumberPair numbers{};
  if (!readDriverNumbers(makeLoadCommand(modprobe), &numbers)) return -1;

  UniqueFd device(open(kControlNode, O_RDONLY | O_CLOEXEC));
  if (device) {
    if (nodeHas(numbers)) {
      syslog(LOG_DEBUG, "major-minor remained same.\n");
      return device.release();
    }
    closeKeepingNumber(device);
    if (!unlinkNode()) noteFailedCall("unlink", kControlNode, errno);
  } else if (const int error = errno; error != ENOENT) {
    // What could not be opened is the cause, unless it makes room for another node.
    if (!unlinkNode()) noteFailedCall("open", kControlNode, error);
  }

  if (mknod(kControlNode, S_IFCHR, makedev(numbers.majorNum, numbers.minorNum)) != 0) {
    const int error = errno;
    noteFailedCall("mknod", kControlNode, error);
    syslog(LOG_ERR, "Failure in creating control device. errno: %d\n", error);
    errno = error;
    // The contract: what was held comes back, also when the node with wrong numbers behind it was closed. Callers issue
    // their request on that number, which fails, and close it.
    return device.release();
  }
  const int descriptor = open(kControlNode, O_RDONLY | O_CLOEXEC);
  if (descriptor < 0) noteFailedCall("open", kControlNode, errno);
  return descriptor;
}

UniqueFd openDriver() {
  UniqueFd device(openControlDevice());
  if (!device) syslog(LOG_ERR, "Failed to open device: %s, errno: %d.\n", kControlNode, errno);
  return device;
}
