// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <functional>
#include <latch>
#include <thread>
#include <vector>

namespace test {

// Has `threads` threads do it at the same time, `times` times each.
inline void atOnce(unsigned int threads, unsigned int times, const std::function<void()>& act) {
  std::latch ready(threads);
  std::vector<std::thread> running;
  for (unsigned int t = 0; t < threads; ++t) {
    running.emplace_back([&] {
      ready.arrive_and_wait();
      for (unsigned int i = 0; i < times; ++i) act();
    });
  }
  for (std::thread& thread : running) thread.join();
}

}  // namespace test
