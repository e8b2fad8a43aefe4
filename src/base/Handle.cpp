// SPDX-License-Identifier: Apache-2.0
#include "base/Handle.h"

#include <cerrno>

void UniqueFd::reset(int descriptor) noexcept {
  const int old = std::exchange(mDescriptor, descriptor);
  if (old < 0) return;
  const int saved = errno;
  ::close(old);
  errno = saved;
}
