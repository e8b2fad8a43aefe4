// SPDX-License-Identifier: Apache-2.0
#include "driver/DriverLock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <cerrno>
#include <ctime>
#include <utility>

#include "driver/ControlDevice.h"

namespace {

constexpr timespec kPause{0, 10'000'000};  // between two tries

UniqueFd openNode() noexcept { return UniqueFd(open(kControlNode, O_RDONLY | O_CLOEXEC)); }

bool lockNow(int descriptor, DriverLock::Kind kind) noexcept {
  const int operation = (kind == DriverLock::Kind::kShared ? LOCK_SH : LOCK_EX) | LOCK_NB;
  int result = 0;
  do {
    result = flock(descriptor, operation);
  } while (result != 0 && errno == EINTR);
  return result == 0;
}

// Whether the control node is still the one that is open: a lock on another one keeps nobody out.
bool isTheNode(int descriptor) noexcept {
  struct stat opened {
  }, node{};
  return fstat(descriptor, &opened) == 0 && stat(kControlNode, &node) == 0 && opened.st_dev == node.st_dev &&
         opened.st_ino == node.st_ino;
}

}  // namespace

void DriverLock::adopt(UniqueFd control) noexcept {
  release();
  mNode = std::move(control);
}

void DriverLock::adoptNode() noexcept { adopt(openNode()); }

DriverLock::Outcome DriverLock::take(Kind kind, std::chrono::milliseconds limit) noexcept {
  const auto end = std::chrono::steady_clock::now() + limit;
  const auto isOver = [&] { return std::chrono::steady_clock::now() >= end; };
  while (true) {
    if (!lockNow(mNode.get(), kind)) {
      if (errno != EWOULDBLOCK) return Outcome::kUnavailable;
      if (isOver()) return Outcome::kBusy;
      nanosleep(&kPause, nullptr);
      continue;
    }
    if (isTheNode(mNode.get())) return Outcome::kHeld;
    // It was made anew meanwhile. Where that cannot be opened the old one stays, which the driver may still answer on.
    UniqueFd anew = openNode();
    if (!anew || isOver()) {
      flock(mNode.get(), LOCK_UN);
      return Outcome::kUnavailable;
    }
    adopt(std::move(anew));
  }
}

void DriverLock::release() noexcept {
  if (mNode) flock(mNode.get(), LOCK_UN);
  mNode.reset();
}
