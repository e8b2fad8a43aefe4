// SPDX-License-Identifier: Apache-2.0
//
// Makes malloc fail for the library's own code. For programs that list interpose/FailingMalloc.cpp among their sources
// and link with --wrap=malloc, which leaves the C library's and the sanitizers' own calls alone.
#pragma once

#include <cstddef>

namespace test {

// Makes this thread's n-th malloc from now on (0 is the next) answer null, and all later ones, for a scope. What
// the tests' own code allocates meanwhile (HarnessScope) never fails.
class FailingMalloc {
 public:
  explicit FailingMalloc(std::size_t n = 0);
  ~FailingMalloc();
  FailingMalloc(const FailingMalloc&) = delete;
  FailingMalloc& operator=(const FailingMalloc&) = delete;
  // Whether a call has failed.
  bool failed() const;
};

}  // namespace test
