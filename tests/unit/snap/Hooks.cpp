// SPDX-License-Identifier: Apache-2.0
#include "Hooks.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>

extern "C" int gettimeofday(timeval* time, void* zone) noexcept {
  if (test::fixedTime) {
    *time = *test::fixedTime;
    return 0;
  }
  return static_cast<int>(syscall(SYS_gettimeofday, time, zone));
}

// For the standard library, too.
extern "C" __attribute__((visibility("default"))) int clock_gettime(clockid_t clock, timespec* time) noexcept {
  static long looks = 0;
  const auto result = static_cast<int>(syscall(SYS_clock_gettime, clock, time));
  if (clock == CLOCK_MONOTONIC && test::clockStride != 0) time->tv_sec += ++looks * test::clockStride;
  return result;
}

extern "C" int flock(int descriptor, int operation) noexcept {
  if (test::flockError != 0) {
    errno = test::flockError;
    return -1;
  }
  return static_cast<int>(syscall(SYS_flock, descriptor, operation));
}

extern "C" int fsync(int descriptor) {
  if (test::onFsync) test::onFsync(descriptor);
  return static_cast<int>(syscall(SYS_fsync, descriptor));
}

extern "C" void* __real_calloc(std::size_t count, std::size_t size);

// In the place of calloc for the program's own objects (--wrap).
extern "C" void* __wrap_calloc(std::size_t count, std::size_t size) {
  if (test::callocFailsFrom != 0 && count * size >= test::callocFailsFrom) return nullptr;
  return __real_calloc(count, size);
}
