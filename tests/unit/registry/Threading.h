// SPDX-License-Identifier: Apache-2.0
//
// The clock, the locks and the waits that the program's own code sees; each acts for one thread and one scope.
#pragma once

#include <ctime>
#include <functional>
#include <optional>

namespace test {

// The clock shows this time, or fails with `error`.
class FixedClock {
 public:
  FixedClock(std::time_t seconds, long nanoseconds);
  explicit FixedClock(int error);
  ~FixedClock();
  FixedClock(const FixedClock&) = delete;
  FixedClock& operator=(const FixedClock&) = delete;
};

// The next initialisation of a mutex (of a condition) fails.
struct FailingMutexInit {
  FailingMutexInit();
  ~FailingMutexInit();
};
struct FailingConditionInit {
  FailingConditionInit();
  ~FailingConditionInit();
};

// A timed wait answers `result` at once and leaves its deadline here.
class ScriptedWait {
 public:
  explicit ScriptedWait(int result);
  ~ScriptedWait();
  ScriptedWait(const ScriptedWait&) = delete;
  ScriptedWait& operator=(const ScriptedWait&) = delete;
  std::timespec deadline() const;
};

// How many mutexes this thread has locked so far.
unsigned int locksTaken();
// How many it has destroyed.
unsigned int mutexesDestroyed();

// Runs `work` once, right before this thread locks its next mutex.
class BeforeNextLock {
 public:
  explicit BeforeNextLock(std::function<void()> work);
  ~BeforeNextLock();
  BeforeNextLock(const BeforeNextLock&) = delete;
  BeforeNextLock& operator=(const BeforeNextLock&) = delete;
};

}  // namespace test
