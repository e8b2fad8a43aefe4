// SPDX-License-Identifier: Apache-2.0
#include "qxtools/Handle.h"

#include <fcntl.h>

#include <cerrno>

bool openClosedStreams() noexcept {
  for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    // The lowest number that is free is taken: this one, as those below it are open by now.
    if (fcntl(stream, F_GETFD) < 0 && open("/dev/null", O_RDWR) != stream) return false;
  }
  return true;
}

void UniqueFd::reset(int descriptor) noexcept {
  const int old = std::exchange(mDescriptor, descriptor);
  if (old < 0) return;
  const int saved = errno;
  ::close(old);
  errno = saved;
}
