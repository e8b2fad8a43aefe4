// SPDX-License-Identifier: Apache-2.0
#include "emulator/supervise/DriverFile.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <span>
#include <string>

#include "driver/DriverProtocol.h"
#include "emulator/machine/ControlNode.h"

namespace emulator {
namespace {

// Which argument of a system call is the path; -1: none is.
int pathArgument(int call) {
  switch (call) {
    case SYS_open:
    case SYS_stat:
    case SYS_lstat:
    case SYS_access:
      return 0;
    case SYS_openat:
    case SYS_openat2:
    case SYS_newfstatat:
    case SYS_statx:
    case SYS_faccessat:
    case SYS_faccessat2:
      return 1;
    default:
      return -1;
  }
}

template <class T>
std::vector<std::byte> bytesOf(const T& record) {
  const auto bytes = std::as_bytes(std::span(&record, 1));
  return {bytes.begin(), bytes.end()};
}

}  // namespace

Result<DriverFile> DriverFile::ofNumbers() {
  return make(std::to_string(kControlDevice.majorNum) + ' ' + std::to_string(kControlDevice.minorNum) + '\n');
}

Result<DriverFile> DriverFile::make(const std::string& text) {
  UniqueFd content(memfd_create("mirelsnap-driver", MFD_CLOEXEC | MFD_ALLOW_SEALING));
  if (!content || write(content.get(), text.data(), text.size()) != static_cast<ssize_t>(text.size()) ||
      fchmod(content.get(), 0444) != 0 ||
      fcntl(content.get(), F_ADD_SEALS, F_SEAL_WRITE | F_SEAL_GROW | F_SEAL_SHRINK | F_SEAL_SEAL) != 0) {
    return failedCall(errno, "cannot create the driver's file");
  }
  return DriverFile(std::move(content));
}

std::optional<DriverFileName> driverFileOf(const seccomp_data& call, const CallerMemory& caller) {
  const int argument = pathArgument(call.nr);
  if (argument < 0) return std::nullopt;
  const std::string path = caller.readText(call.args[argument], sizeof kDriverSnapshotsPath);
  if (path == kDriverNumbersPath) return DriverFileName::kNumbers;
  if (path == kDriverSnapshotsPath) return DriverFileName::kSnapshots;
  return std::nullopt;
}

std::optional<DriverFile::Reply> DriverFile::answer(const Kernel& kernel, const seccomp_data& call,
                                                    const CallerMemory& caller) const {
  const auto access = [](std::uint64_t mode) {
    Reply reply;
    reply.error = (mode & X_OK) != 0 ? EACCES : 0;
    return reply;
  };
  switch (call.nr) {
    case SYS_open:
      return open(kernel, call.args[1]);
    case SYS_openat:
      return open(kernel, call.args[2]);
    case SYS_openat2: {
      open_how how{};
      if (!caller.readMemory(call.args[2], std::as_writable_bytes(std::span(&how, 1)))) return std::nullopt;
      return open(kernel, how.flags);
    }
    case SYS_stat:
    case SYS_lstat:
      return properties(call.args[1]);
    case SYS_newfstatat:
      return properties(call.args[2]);
    case SYS_statx:
      return extendedProperties(call.args[4]);
    case SYS_access:
      return access(call.args[1]);
    case SYS_faccessat:
    case SYS_faccessat2:
      return access(call.args[2]);
    default:
      return std::nullopt;
  }
}

// Each open gets a position of its own in the text, and may only read it.
DriverFile::Reply DriverFile::open(const Kernel& kernel, unsigned long flags) const {
  Reply reply;
  if ((flags & O_ACCMODE) != O_RDONLY) {
    reply.error = EACCES;
    return reply;
  }
  const std::string path = "self/fd/" + std::to_string(mContent.get());
  reply.opened = UniqueFd(openat(kernel.proc(), path.c_str(), O_RDONLY | O_CLOEXEC));
  if (!reply.opened) reply.error = errno;
  reply.closeOnExecution = (flags & O_CLOEXEC) != 0;
  return reply;
}

DriverFile::Reply DriverFile::properties(std::uint64_t address) const {
  Reply reply;
  struct stat content;
  if (fstat(mContent.get(), &content) != 0) reply.error = errno;
  reply.address = address;
  reply.written = bytesOf(content);
  return reply;
}

DriverFile::Reply DriverFile::extendedProperties(std::uint64_t address) const {
  Reply reply;
  struct statx content;
  if (statx(mContent.get(), "", AT_EMPTY_PATH, STATX_BASIC_STATS, &content) != 0) reply.error = errno;
  reply.address = address;
  reply.written = bytesOf(content);
  return reply;
}

}  // namespace emulator
