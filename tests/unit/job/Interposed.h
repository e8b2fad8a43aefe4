// SPDX-License-Identifier: Apache-2.0
//
// Calls of the C library that the kernel cannot be made to fail, or whose arguments a test must see.
#pragma once

#include <pthread.h>

#include <ctime>
#include <functional>
#include <optional>

namespace test {

// While it lives, one of the thread library's calls fails with `error` on this thread. A failing lock locks nothing; a
// failing unlock unlocks all the same.
class FailingCall {
 public:
  enum Call { kThreadCreate, kMutexInit, kConditionInit, kMutexLock, kMutexUnlock, kCalls };
  FailingCall(Call call, int error);
  ~FailingCall();
  FailingCall(const FailingCall&) = delete;
  FailingCall& operator=(const FailingCall&) = delete;

 private:
  Call mCall;
};

// What pthread_create was called with last on this thread.
struct ThreadStart {
  void* (*routine)(void*) = nullptr;
  void* argument = nullptr;
  bool detached = false;
};
const ThreadStart& lastThreadStart();
// Waits until every detached thread has run its routine to the end; false when that takes too long.
bool detachedThreadsEnded();

// While it lives, CLOCK_REALTIME shows `now` on this thread, or cannot be read when there is an error.
class Clock {
 public:
  explicit Clock(timespec now);
  explicit Clock(int error);
  ~Clock();
  Clock(const Clock&) = delete;
  Clock& operator=(const Clock&) = delete;
};

// While it lives, a timed wait of this thread does not wait: `wait` answers it.
class TimedWait {
 public:
  using Answer = std::function<int(pthread_cond_t* condition, pthread_mutex_t* mutex, const timespec& deadline)>;
  explicit TimedWait(Answer wait);
  ~TimedWait();
  TimedWait(const TimedWait&) = delete;
  TimedWait& operator=(const TimedWait&) = delete;
};

// While it lives, an untimed wait of this thread ends at once, though nobody signalled.
class SpuriousWakeUp {
 public:
  SpuriousWakeUp();
  ~SpuriousWakeUp();
  SpuriousWakeUp(const SpuriousWakeUp&) = delete;
  SpuriousWakeUp& operator=(const SpuriousWakeUp&) = delete;
  // How many waits there were.
  int waits() const;
};

// While it lives, `act` runs, once, when this thread has unlocked its n-th mutex from now on (0 is the next).
class AfterUnlock {
 public:
  AfterUnlock(int n, std::function<void()> act);
  ~AfterUnlock();
  AfterUnlock(const AfterUnlock&) = delete;
  AfterUnlock& operator=(const AfterUnlock&) = delete;
};

// Counts what is signalled to one condition, by any thread, while it lives. One at a time exists.
class SignalCount {
 public:
  explicit SignalCount(const pthread_cond_t& condition);
  ~SignalCount();
  SignalCount(const SignalCount&) = delete;
  SignalCount& operator=(const SignalCount&) = delete;
  int signals() const;
  int broadcasts() const;
};

}  // namespace test
