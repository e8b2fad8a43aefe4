// SPDX-License-Identifier: Apache-2.0
#include "Terminal.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <stdexcept>

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

bool Terminal::readOn(int ms) {
  pollfd waiting{mOuter, POLLIN, 0};
  char piece[4096];
  if (poll(&waiting, 1, ms) <= 0) return false;
  const ssize_t got = read(mOuter, piece, sizeof piece);
  if (got <= 0) return false;
  mWritten.append(piece, static_cast<std::size_t>(got));
  return true;
}

bool Terminal::waitFor(const std::string& text) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  while (mWritten.find(text) == std::string::npos) {
    if (std::chrono::steady_clock::now() >= end) return false;
    readOn(100);
  }
  return true;
}

const std::string& Terminal::written() {
  while (readOn(0)) {
  }
  return mWritten;
}

}  // namespace test
