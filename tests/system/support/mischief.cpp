// SPDX-License-Identifier: Apache-2.0
//
// Laid under a program with LD_PRELOAD: makes happen what the driver and the machine do not do of themselves. What it
// is to be stands in $MISCHIEF:
//   no-more-runs            each answer about changed runs says that more follow, and brings none
//   same-run                each answer about changed runs says that more follow, and brings the volume's first block
//   no-memory-for-removal   the first allocation behind the discarding of a snapshot fails
#include <dlfcn.h>
#include <sys/ioctl.h>

#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string_view>
#include <utility>

#include "driver/DriverProtocol.h"

namespace {

bool isAsked(std::string_view mischief) {
  const char* asked = std::getenv("MISCHIEF");
  return asked != nullptr && asked == mischief;
}

thread_local bool memoryEnds = false;

void answerWithRuns(std::byte* command, std::uint32_t count) {
  BitmapPayload payload;
  std::memcpy(&payload, command + sizeof(_ioctlCmd), sizeof payload);
  payload.updateType = UPDATE_BITMAP_CONTINUE;
  payload.numRuns = count;
  std::memcpy(command + sizeof(_ioctlCmd), &payload, sizeof payload);
  const _run first{0, 1};
  if (count != 0) std::memcpy(command + kBitmapRunsOffset, &first, sizeof first);
}

}  // namespace

extern "C" __attribute__((visibility("default"))) int ioctl(int descriptor, unsigned long request, ...) noexcept {
  static const auto real = reinterpret_cast<int (*)(int, unsigned long, void*)>(dlsym(RTLD_NEXT, "ioctl"));
  va_list rest;
  va_start(rest, request);
  void* argument = va_arg(rest, void*);
  va_end(rest);
  const int result = real(descriptor, request, argument);
  if (request == IOC_GET_VDIFF && isAsked("no-more-runs")) answerWithRuns(static_cast<std::byte*>(argument), 0);
  if (request == IOC_GET_VDIFF && isAsked("same-run")) answerWithRuns(static_cast<std::byte*>(argument), 1);
  if (request == IOC_SNAP_DISCARD && isAsked("no-memory-for-removal")) memoryEnds = true;
  return result;
}

__attribute__((visibility("default"))) void* operator new(std::size_t size) {
  if (std::exchange(memoryEnds, false)) throw std::bad_alloc();
  if (void* memory = std::malloc(size)) return memory;
  throw std::bad_alloc();
}
