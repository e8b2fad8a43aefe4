// SPDX-License-Identifier: Apache-2.0
//
// Why operations failed, in words: the stated result codes have no room for the call that failed and its errno. Where a
// call of the operating system ends an operation it is noted here, beside the stated message, and an agent that is
// linked with the library's objects tells a person. In a process that never takes them none are kept.
//
// Process-wide, as the system log is: of operations that run at the same time it cannot tell which one a cause is of.
#pragma once

#include <string>
#include <vector>

struct Cause {
  std::string what;  // the call, "open(/proc/meminfo)", or what could not be used, "/srv/.verrelocarea"
  std::string why;   // "Permission denied", "is a symbolic link"

  std::string text() const { return what + ": " + why; }
};

// What noteFailedCall notes.
Cause failedCall(const std::string& call, const std::string& object, int error);

// Notes a call that failed with the errno `error`; `object` is its path or its request. Keeps errno.
void noteFailedCall(const char* call, const char* object, int error) noexcept;
// Notes that something was not used, and why. Keeps errno. Nothing is noted while memory is short, nor beyond the first
// 64 causes that nobody takes.
void noteCause(const char* what, const char* why) noexcept;
void noteCause(const Cause& cause) noexcept;
// Notes that memory is short.
void noteShortMemory() noexcept;

// What was noted since the last time, in order, and forgets it. From the first time on causes are kept.
std::vector<Cause> takeCauses();
