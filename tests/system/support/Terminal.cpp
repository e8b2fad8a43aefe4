// SPDX-License-Identifier: Apache-2.0
#include "Terminal.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cstdlib>
#include <stdexcept>

#include "ProcessState.h"
#include "Waiting.h"

namespace test {

Terminal::Terminal(unsigned short columns) {
  mOuter = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
  if (mOuter < 0 || grantpt(mOuter) != 0 || unlockpt(mOuter) != 0) throw std::runtime_error("no pseudo-terminal");
  mInner = open(ptsname(mOuter), O_RDWR | O_NOCTTY | O_CLOEXEC);
  winsize size{};
  size.ws_row = 25;
  size.ws_col = columns;
  if (mInner < 0 || ioctl(mInner, TIOCSWINSZ, &size) != 0) throw std::runtime_error("no pseudo-terminal");
}

Terminal::~Terminal() {
  close(mInner);
  close(mOuter);
}

void Terminal::type(const std::string& keys) const {
  if (write(mOuter, keys.data(), keys.size()) < 0) throw std::runtime_error("cannot type");
}

bool Terminal::readOn() {
  pollfd waiting{mOuter, POLLIN, 0};
  char piece[4096];
  if (poll(&waiting, 1, 0) <= 0) return false;
  const ssize_t got = read(mOuter, piece, sizeof piece);
  if (got <= 0) return false;
  mWritten.append(piece, static_cast<std::size_t>(got));
  return true;
}

bool Terminal::waitFor(const std::string& text) {
  return comesTrue([&] { return written().find(text) != std::string::npos; });
}

bool Terminal::waitForForeground(const std::string& program) {
  return comesTrue([&] {
    written();
    return runsInForeground(mOuter, program);
  });
}

const std::string& Terminal::written() {
  while (readOn()) {
  }
  return mWritten;
}

}  // namespace test
