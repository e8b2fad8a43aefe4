// SPDX-License-Identifier: Apache-2.0
#include "interpose/FailingCopies.h"

#include <cerrno>
#include <cstddef>
#include <optional>

namespace test {
namespace {

thread_local std::optional<CopyCall> failing;
thread_local int allowedLeft = 0;

bool fails(CopyCall call) {
  if (failing != call || allowedLeft-- > 0) return false;
  errno = ENOMEM;
  return true;
}

}  // namespace

FailingCopies::FailingCopies(CopyCall call, int allowed) {
  failing = call;
  allowedLeft = allowed;
}

FailingCopies::~FailingCopies() { failing.reset(); }

}  // namespace test

extern "C" char* __real_strdup(const char* text);
extern "C" wchar_t* __real_wcsdup(const wchar_t* text);
extern "C" void* __real_calloc(std::size_t count, std::size_t size);

extern "C" char* __wrap_strdup(const char* text) {
  return test::fails(test::CopyCall::kStrdup) ? nullptr : __real_strdup(text);
}

extern "C" wchar_t* __wrap_wcsdup(const wchar_t* text) {
  return test::fails(test::CopyCall::kWcsdup) ? nullptr : __real_wcsdup(text);
}

extern "C" void* __wrap_calloc(std::size_t count, std::size_t size) {
  return test::fails(test::CopyCall::kCalloc) ? nullptr : __real_calloc(count, size);
}
