// SPDX-License-Identifier: Apache-2.0
#include "emulator/supervise/SyscallFilter.h"

#include <fcntl.h>
#include <linux/audit.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "driver/DriverProtocol.h"

#ifndef SECCOMP_FILTER_FLAG_WAIT_KILLABLE_RECV
#define SECCOMP_FILTER_FLAG_WAIT_KILLABLE_RECV (1UL << 5)
#endif

namespace emulator {
namespace {

constexpr std::uint32_t kWorkingDirectory = static_cast<std::uint32_t>(AT_FDCWD);
constexpr auto kDriverRequests = static_cast<std::uint32_t>(driverRequest(0));  // the low byte is the command's number

// The low half of an argument: all that the kernel looks at in a descriptor, flags or a request.
constexpr std::uint32_t argument(unsigned int index) {
  return static_cast<std::uint32_t>(offsetof(seccomp_data, args) + index * sizeof(std::uint64_t));
}

// A filter program that tests for one call after another. By default a call goes to the kernel.
class Program {
 public:
  Program() {
    load(offsetof(seccomp_data, arch));
    jump(BPF_JEQ, AUDIT_ARCH_X86_64, 1, 0);
    allow();
    load(offsetof(seccomp_data, nr));
  }

  // Every call of this number.
  void hand(long number) {
    jump(BPF_JEQ, static_cast<std::uint32_t>(number), 0, 1);
    notify();
  }
  // Calls whose argument `index` is `value`.
  void handIfEqual(long number, unsigned int index, std::uint32_t value) {
    jump(BPF_JEQ, static_cast<std::uint32_t>(number), 0, 4);
    load(argument(index));
    jump(BPF_JEQ, value, 0, 1);
    notify();
    allow();
  }
  // Calls in whose argument `index` the bits of `mask` are those of `value`.
  void handIfMasked(long number, unsigned int index, std::uint32_t mask, std::uint32_t value) {
    jump(BPF_JEQ, static_cast<std::uint32_t>(number), 0, 5);
    load(argument(index));
    mProgram.push_back(BPF_STMT(BPF_ALU | BPF_AND | BPF_K, mask));
    jump(BPF_JEQ, value, 0, 1);
    notify();
    allow();
  }
  // Both: argument `first` is `value`, and none of the bits of `mask` is in argument `second`.
  void handIfEqualAndWithout(long number, unsigned int first, std::uint32_t value, unsigned int second,
                             std::uint32_t mask) {
    jump(BPF_JEQ, static_cast<std::uint32_t>(number), 0, 6);
    load(argument(first));
    jump(BPF_JEQ, value, 0, 3);
    load(argument(second));
    jump(BPF_JSET, mask, 1, 0);
    notify();
    allow();
  }
  std::vector<sock_filter>& finish() {
    allow();
    return mProgram;
  }

 private:
  void load(std::size_t offset) {
    mProgram.push_back(BPF_STMT(BPF_LD | BPF_W | BPF_ABS, static_cast<std::uint32_t>(offset)));
  }
  void jump(std::uint16_t test, std::uint32_t value, std::uint8_t ifTrue, std::uint8_t ifFalse) {
    mProgram.push_back(BPF_JUMP(static_cast<std::uint16_t>(BPF_JMP | test | BPF_K), value, ifTrue, ifFalse));
  }
  void notify() { mProgram.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_USER_NOTIF)); }
  void allow() { mProgram.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW)); }

  std::vector<sock_filter> mProgram;
};

// Only calls that can name the driver's file by its full path are handed over. Calls relative to an open directory, and
// opens that create files or need a directory, are not: tar and the like lose no time.
std::vector<sock_filter> makeProgram(const FilterOptions& options) {
  Program program;
  program.handIfMasked(SYS_ioctl, 1, 0xFFFFFF00, kDriverRequests);
  program.handIfEqualAndWithout(SYS_openat, 0, kWorkingDirectory, 2, O_CREAT | O_DIRECTORY);
  program.handIfMasked(SYS_open, 1, O_CREAT | O_DIRECTORY, 0);
  program.handIfEqual(SYS_openat2, 0, kWorkingDirectory);
  program.handIfEqual(SYS_newfstatat, 0, kWorkingDirectory);
  program.handIfEqual(SYS_statx, 0, kWorkingDirectory);
  program.handIfEqual(SYS_faccessat, 0, kWorkingDirectory);
  program.handIfEqual(SYS_faccessat2, 0, kWorkingDirectory);
  program.hand(SYS_stat);
  program.hand(SYS_lstat);
  program.hand(SYS_access);
  if (options.executions) {
    program.hand(SYS_execve);
    program.hand(SYS_execveat);
  }
  return program.finish();
}

int seccomp(unsigned int operation, unsigned int flags, void* argument) {
  return static_cast<int>(syscall(SYS_seccomp, operation, flags, argument));
}

}  // namespace

bool canHandOverSystemCalls() {
  std::uint32_t action = SECCOMP_RET_USER_NOTIF;
  return seccomp(SECCOMP_GET_ACTION_AVAIL, 0, &action) == 0;
}

UniqueFd installFilter(const FilterOptions& options) {
  std::vector<sock_filter> program = makeProgram(options);
  sock_fprog filter{static_cast<unsigned short>(program.size()), program.data()};
  // A killed caller, and no other signal, ends a call that the emulator is working on; kernels before 5.19 cannot do
  // that.
  const auto flags = SECCOMP_FILTER_FLAG_NEW_LISTENER | SECCOMP_FILTER_FLAG_WAIT_KILLABLE_RECV;
  int listener = seccomp(SECCOMP_SET_MODE_FILTER, flags, &filter);
  if (listener < 0 && errno == EINVAL) {
    listener = seccomp(SECCOMP_SET_MODE_FILTER, SECCOMP_FILTER_FLAG_NEW_LISTENER, &filter);
  }
  return UniqueFd(listener);
}

}  // namespace emulator
