// SPDX-License-Identifier: Apache-2.0
#include "base/Causes.h"

#include <atomic>
#include <cerrno>
#include <cstring>
#include <mutex>
#include <utility>

namespace {

constexpr std::size_t kMostKept = 64;

std::atomic<bool> sWanted = false;
std::mutex sLock;
// Never destroyed: a worker may still fail while the process ends.
std::vector<Cause>& noted() {
  static auto* const causes = new std::vector<Cause>;
  return *causes;
}

void note(Cause cause) {
  const std::lock_guard<std::mutex> hold(sLock);
  if (noted().size() < kMostKept) noted().push_back(std::move(cause));
}

}  // namespace

Cause failedCall(const std::string& call, const std::string& object, int error) {
  return {call + "(" + object + ")", std::strerror(error)};
}

void noteFailedCall(const char* call, const char* object, int error) noexcept {
  if (!sWanted) return;
  const int saved = errno;
  try {
    note(failedCall(call, object, error));
  } catch (...) {
    // Memory is short: the stated result still tells that the operation failed.
  }
  errno = saved;
}

void noteCause(const char* what, const char* why) noexcept {
  if (!sWanted) return;
  const int saved = errno;
  try {
    note({what, why});
  } catch (...) {
  }
  errno = saved;
}

void noteCause(const Cause& cause) noexcept { noteCause(cause.what.c_str(), cause.why.c_str()); }

void noteShortMemory() noexcept { noteCause("memory", std::strerror(ENOMEM)); }

std::vector<Cause> takeCauses() {
  sWanted = true;
  const std::lock_guard<std::mutex> hold(sLock);
  return std::exchange(noted(), {});
}
