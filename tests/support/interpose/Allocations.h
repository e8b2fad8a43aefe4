// SPDX-License-Identifier: Apache-2.0
//
// What this thread allocates with operator new: how much it holds, and making one allocation fail. For programs that
// list interpose/Allocations.cpp among their sources.
#pragma once

#include <cstddef>
#include <new>

namespace test {

// Bytes that this thread allocated and did not free, as the allocator rounds them.
std::ptrdiff_t heldBytes();

// Makes the n-th allocation of this thread from now on (0 is the next) throw std::bad_alloc, for a scope. With a size
// only allocations of exactly so many bytes count. What the tests' own code allocates meanwhile (HarnessScope) never
// fails.
class FailingAllocation {
 public:
  static constexpr std::size_t kAnySize = 0;
  explicit FailingAllocation(std::size_t n, std::size_t size = kAnySize);
  ~FailingAllocation();
  FailingAllocation(const FailingAllocation&) = delete;
  FailingAllocation& operator=(const FailingAllocation&) = delete;
  // Whether the allocation came to pass.
  bool failed() const;
};

// Runs `work` again and again, a later allocation failing each time, until none fails. Returns how many allocations
// `work` made; `after(n)` runs behind each failure.
template <class Work, class After>
std::size_t failEveryAllocation(Work work, After after) {
  for (std::size_t n = 0;; ++n) {
    bool failed;
    try {
      const FailingAllocation failing(n);
      work();
      failed = failing.failed();
    } catch (const std::bad_alloc&) {
      failed = true;
    }
    if (!failed) return n;
    after(n);
  }
}

}  // namespace test
