// SPDX-License-Identifier: Apache-2.0
#include "Waiting.h"

#include <thread>

namespace test {

bool comesTrue(const std::function<bool()>& happened) {
  using Clock = std::chrono::steady_clock;
  const auto end = Clock::now() + kPatience;
  while (!happened()) {
    if (Clock::now() >= end) return happened();
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return true;
}

}  // namespace test
