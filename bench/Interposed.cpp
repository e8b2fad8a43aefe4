// SPDX-License-Identifier: Apache-2.0
#include "Interposed.h"

#include <linux/fs.h>
#include <malloc.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>

#include "driver/DriverProtocol.h"

namespace bench {

Interposed interposed;

std::size_t heapInUse() {
  const struct mallinfo2 info = mallinfo2();
  return info.uordblks + info.hblkhd;
}

}  // namespace bench

using bench::interposed;

namespace {

int answerDriver(unsigned long request, void* argument) {
  auto* header = static_cast<_ioctlCmd*>(argument);
  if (request == IOC_CHECK_VOLUME_SNAPPED) header->driverStatus = -4;
  if (request == IOC_CHECK_VOLUME_FROZEN) header->driverStatus = -7;
  if (request == IOC_SNAP) {
    interposed.heapAtSnap = bench::heapInUse();
    interposed.lengthAtSnap = header->length;
  }
  return 0;
}

}  // namespace

extern "C" int ioctl(int fd, unsigned long request, ...) noexcept {
  va_list arguments;
  va_start(arguments, request);
  void* argument = va_arg(arguments, void*);
  va_end(arguments);
  if (((request >> 8) & 0xFF) == 'S' && (request >> 30) == 3) return answerDriver(request, argument);
  if (request == FIBMAP && interposed.scatter) {
    *static_cast<int*>(argument) = 2 * *static_cast<int*>(argument) + 1;
    return 0;
  }
  return static_cast<int>(syscall(SYS_ioctl, fd, request, argument));
}

extern "C" int posix_fallocate(int fd, off_t offset, off_t length) {
  if (!interposed.allocate) return ftruncate(fd, offset + length) == 0 ? 0 : errno;
  return syscall(SYS_fallocate, fd, 0, offset, length) == 0 ? 0 : errno;
}
