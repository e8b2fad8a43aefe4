// SPDX-License-Identifier: Apache-2.0
//
// Marks the time in which the tests' own code runs in the middle of the library's, as when it answers a request: what
// it allocates then is not the library's.
#pragma once

namespace test {

class HarnessScope {
 public:
  HarnessScope() { ++depth; }
  ~HarnessScope() { --depth; }
  HarnessScope(const HarnessScope&) = delete;
  HarnessScope& operator=(const HarnessScope&) = delete;

  static bool running() { return depth != 0; }

 private:
  inline static thread_local int depth = 0;
};

}  // namespace test
