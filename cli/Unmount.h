// SPDX-License-Identifier: Apache-2.0
//
// Unmounting what somebody may still have open for a moment: whoever walks through the mounts of a machine does.
#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <string>

namespace cli {

// How long a clean-up waits, for all of its mounts together.
class Patience {
 public:
  // Calls `unmount`, which answers 0 or an errno, again while it answers EBUSY, until some seconds have passed since
  // the first call; its last answer. What lasts longer than a moment is told on standard error, with who uses `folder`.
  int unmount(const std::string& folder, const std::function<int()>& unmount);

 private:
  using Clock = std::chrono::steady_clock;
  std::optional<Clock::time_point> mBegin;
};

}  // namespace cli
