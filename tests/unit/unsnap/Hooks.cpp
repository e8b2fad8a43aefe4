// SPDX-License-Identifier: Apache-2.0
#include "Hooks.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>

extern "C" int kill(pid_t process, int signal) noexcept {
  if (test::unsignallable != 0 && process == test::unsignallable) {
    errno = EPERM;
    return -1;
  }
  return static_cast<int>(syscall(SYS_kill, process, signal));
}
