// SPDX-License-Identifier: Apache-2.0
#include "Hooks.h"

#include <sys/syscall.h>
#include <unistd.h>

extern "C" int gettimeofday(timeval* time, void* zone) noexcept {
  if (test::fixedTime) {
    *time = *test::fixedTime;
    return 0;
  }
  return static_cast<int>(syscall(SYS_gettimeofday, time, zone));
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
