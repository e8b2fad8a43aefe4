// SPDX-License-Identifier: Apache-2.0
#include "OldKernel.h"

#include <sys/syscall.h>

#include <cerrno>
#include <cstdarg>

#include "HarnessScope.h"

namespace {

int failure = 0;
int count = 0;

}  // namespace

namespace test {

WithoutOpenat2::WithoutOpenat2(int error) {
  failure = error;
  count = 0;
}
WithoutOpenat2::~WithoutOpenat2() { failure = 0; }
int WithoutOpenat2::refused() { return count; }

}  // namespace test

extern "C" {
long __real_syscall(long number, ...);
long __wrap_syscall(long number, ...) {
  va_list list;
  va_start(list, number);
  long arguments[6];
  for (long& argument : arguments) argument = va_arg(list, long);
  va_end(list);
  if (number == SYS_openat2 && failure != 0 && !test::HarnessScope::running()) {
    ++count;
    errno = failure;
    return -1;
  }
  return __real_syscall(number, arguments[0], arguments[1], arguments[2], arguments[3], arguments[4], arguments[5]);
}
}
