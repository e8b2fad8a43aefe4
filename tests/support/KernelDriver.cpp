// SPDX-License-Identifier: Apache-2.0
#include "KernelDriver.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

#include "World.h"
#include "driver/DriverProtocol.h"

namespace test {
namespace {

const char* moduleFile() { return std::getenv("MIRELSNAP_MODULE"); }

[[noreturn]] void fail(const std::string& what) { throw std::runtime_error(what + ": " + std::strerror(errno)); }

// The driver's dump, by way of a file. Whatever the library does, this asks the driver itself.
std::string dumpedState() {
  const TempDir folder;
  const std::string node = folder / "control", dump = folder / "dump";
  unsigned int major = 0, minor = 0;
  if (std::sscanf(readFile("/proc/mirelsnap/dev").c_str(), "%u %u", &major, &minor) != 2) fail("/proc/mirelsnap/dev");
  if (mknod(node.c_str(), S_IFCHR | 0600, makedev(major, minor)) != 0) fail(node);
  struct {
    _ioctlCmd header{};
    DumpStatePayload payload{};
  } __attribute__((packed)) command;
  command.header.handshakeValue = 0;
  command.header.handshakeCheck = 1234 % 20;
  command.header.length = sizeof command;
  command.payload.fileFlag = 1;
  dump.copy(command.payload.fileName, sizeof command.payload.fileName - 1);
  const int control = open(node.c_str(), O_RDONLY | O_CLOEXEC);
  const bool dumped = control >= 0 && syscall(SYS_ioctl, control, IOC_DUMP_STATE, &command) == 0;
  const int error = errno;
  if (control >= 0) close(control);
  errno = error;
  if (!dumped) fail("the driver's state");
  return readFile(dump);
}

}  // namespace

bool hasKernelDriver() { return moduleFile() != nullptr; }

std::string heldByKernelDriver() {
  const std::string state = dumpedState();
  return state.find("snapped volumes: 0\nmappings: 0\nfrozen volumes: 0\n") == std::string::npos ? state : "";
}

UnloadedModule::UnloadedModule() {
  if (syscall(SYS_delete_module, "mirelsnap", O_NONBLOCK) != 0) fail("unload mirelsnap");
}

UnloadedModule::~UnloadedModule() {
  const int file = open(moduleFile(), O_RDONLY | O_CLOEXEC);
  EXPECT_EQ(syscall(SYS_finit_module, file, "hook_stays=1", 0), 0) << moduleFile() << ": " << std::strerror(errno);
  close(file);
}

}  // namespace test
