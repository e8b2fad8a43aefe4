// SPDX-License-Identifier: Apache-2.0
#include "interpose/FailingMalloc.h"

#include <cerrno>
#include <cstdlib>

#include "HarnessScope.h"

namespace {

thread_local bool armed = false;
thread_local std::size_t untilFailure = 0;
thread_local bool hasFailed = false;

}  // namespace

namespace test {

FailingMalloc::FailingMalloc(std::size_t n) {
  untilFailure = n;
  hasFailed = false;
  armed = true;
}

FailingMalloc::~FailingMalloc() { armed = false; }

bool FailingMalloc::failed() const { return hasFailed; }

}  // namespace test

extern "C" void* __real_malloc(std::size_t size);

extern "C" void* __wrap_malloc(std::size_t size) {
  if (armed && !test::HarnessScope::running()) {
    if (untilFailure == 0) {
      hasFailed = true;
      errno = ENOMEM;
      return nullptr;
    }
    --untilFailure;
  }
  return __real_malloc(size);
}
