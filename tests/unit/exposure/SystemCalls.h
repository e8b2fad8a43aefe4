// SPDX-License-Identifier: Apache-2.0
//
// The system calls of a mount, watched; and a second that passes at once.
#pragma once

#include <functional>
#include <string>
#include <vector>

namespace test {

// One mount as it was asked for, folders by the paths that they have; "(null)" where no text was given.
struct MountCall {
  std::string source, target, type, data;
  unsigned long flags;
};

// From construction to destruction, in this thread: calls are noted, sleeping takes no time.
class SystemCalls {
 public:
  SystemCalls();
  ~SystemCalls();
  SystemCalls(const SystemCalls&) = delete;
  SystemCalls& operator=(const SystemCalls&) = delete;

  std::vector<std::string> accesses;  // paths whose presence was asked for
  std::vector<double> sleeps;         // seconds
  std::vector<MountCall> mounts;
  // Called at each sleep with its number, from 1; false: a signal interrupts it halfway.
  std::function<bool(int)> onSleep;
};

}  // namespace test
