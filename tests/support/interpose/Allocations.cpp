// SPDX-License-Identifier: Apache-2.0
#include "interpose/Allocations.h"

#include <malloc.h>

#include <cstdlib>
#include <new>

#include "HarnessScope.h"

namespace {

thread_local std::ptrdiff_t held = 0;
thread_local bool armed = false;
thread_local std::size_t untilFailure = 0;
thread_local std::size_t countedSize = test::FailingAllocation::kAnySize;
thread_local bool hasFailed = false;

bool failsNow(std::size_t size) {
  if (!armed || test::HarnessScope::running()) return false;
  if (countedSize != test::FailingAllocation::kAnySize && countedSize != size) return false;
  if (untilFailure-- != 0) return false;
  armed = false;
  hasFailed = true;
  return true;
}

}  // namespace

namespace test {

std::ptrdiff_t heldBytes() { return held; }

FailingAllocation::FailingAllocation(std::size_t n, std::size_t size) {
  untilFailure = n;
  countedSize = size;
  hasFailed = false;
  armed = true;
}

FailingAllocation::~FailingAllocation() { armed = false; }

bool FailingAllocation::failed() const { return hasFailed; }

}  // namespace test

void* operator new(std::size_t size) {
  if (failsNow(size)) throw std::bad_alloc();
  void* memory = std::malloc(size == 0 ? 1 : size);
  if (memory == nullptr) throw std::bad_alloc();
  held += static_cast<std::ptrdiff_t>(malloc_usable_size(memory));
  return memory;
}

// A sanitizer's own would not come here by itself.
void* operator new(std::size_t size, const std::nothrow_t&) noexcept try {
  return operator new(size);
} catch (const std::bad_alloc&) {
  return nullptr;
}

void* operator new[](std::size_t size) { return operator new(size); }
void* operator new[](std::size_t size, const std::nothrow_t& nothrow) noexcept { return operator new(size, nothrow); }

void operator delete(void* memory) noexcept {
  if (memory != nullptr) held -= static_cast<std::ptrdiff_t>(malloc_usable_size(memory));
  std::free(memory);
}

void operator delete(void* memory, std::size_t) noexcept { operator delete(memory); }
void operator delete[](void* memory) noexcept { operator delete(memory); }
void operator delete[](void* memory, std::size_t) noexcept { operator delete(memory); }
