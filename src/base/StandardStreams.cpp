// SPDX-License-Identifier: Apache-2.0
#include "base/StandardStreams.h"

#include <fcntl.h>
#include <unistd.h>

#include <initializer_list>

bool openClosedStreams() noexcept {
  for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    // The lowest number that is free is taken: this one, as those below it are open by now.
    if (fcntl(stream, F_GETFD) < 0 && open("/dev/null", O_RDWR) != stream) return false;
  }
  return true;
}
