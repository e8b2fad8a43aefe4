// SPDX-License-Identifier: Apache-2.0
#include "Threading.h"

#include <pthread.h>

#include <cerrno>
#include <utility>

namespace {

struct Clock {
  int error = 0;
  std::timespec now{};
};
thread_local std::optional<Clock> clockScript;
thread_local std::optional<int> waitResult;
thread_local std::timespec waitDeadline{};
thread_local bool mutexInitFails = false;
thread_local bool conditionInitFails = false;
thread_local unsigned int locks = 0;
thread_local unsigned int destroyed = 0;
thread_local std::function<void()> beforeNextLock;

}  // namespace

namespace test {

FixedClock::FixedClock(std::time_t seconds, long nanoseconds) { clockScript = Clock{0, {seconds, nanoseconds}}; }
FixedClock::FixedClock(int error) { clockScript = Clock{error, {}}; }
FixedClock::~FixedClock() { clockScript.reset(); }

FailingMutexInit::FailingMutexInit() { mutexInitFails = true; }
FailingMutexInit::~FailingMutexInit() { mutexInitFails = false; }
FailingConditionInit::FailingConditionInit() { conditionInitFails = true; }
FailingConditionInit::~FailingConditionInit() { conditionInitFails = false; }

ScriptedWait::ScriptedWait(int result) { waitResult = result; }
ScriptedWait::~ScriptedWait() { waitResult.reset(); }
std::timespec ScriptedWait::deadline() const { return waitDeadline; }

unsigned int locksTaken() { return locks; }
unsigned int mutexesDestroyed() { return destroyed; }

BeforeNextLock::BeforeNextLock(std::function<void()> work) { beforeNextLock = std::move(work); }
BeforeNextLock::~BeforeNextLock() { beforeNextLock = nullptr; }

}  // namespace test

extern "C" {

int __real_clock_gettime(clockid_t clock, std::timespec* now);
int __wrap_clock_gettime(clockid_t clock, std::timespec* now) {
  if (!clockScript) return __real_clock_gettime(clock, now);
  *now = clockScript->now;
  if (clockScript->error == 0) return 0;
  errno = clockScript->error;
  return -1;
}

int __real_pthread_mutex_init(pthread_mutex_t* mutex, const pthread_mutexattr_t* attributes);
int __wrap_pthread_mutex_init(pthread_mutex_t* mutex, const pthread_mutexattr_t* attributes) {
  return mutexInitFails ? ENOMEM : __real_pthread_mutex_init(mutex, attributes);
}

int __real_pthread_mutex_destroy(pthread_mutex_t* mutex);
int __wrap_pthread_mutex_destroy(pthread_mutex_t* mutex) {
  ++destroyed;
  return __real_pthread_mutex_destroy(mutex);
}

int __real_pthread_cond_init(pthread_cond_t* condition, const pthread_condattr_t* attributes);
int __wrap_pthread_cond_init(pthread_cond_t* condition, const pthread_condattr_t* attributes) {
  return conditionInitFails ? ENOMEM : __real_pthread_cond_init(condition, attributes);
}

int __real_pthread_mutex_lock(pthread_mutex_t* mutex);
int __wrap_pthread_mutex_lock(pthread_mutex_t* mutex) {
  ++locks;
  if (beforeNextLock) std::exchange(beforeNextLock, nullptr)();
  return __real_pthread_mutex_lock(mutex);
}

int __real_pthread_cond_timedwait(pthread_cond_t* condition, pthread_mutex_t* mutex, const std::timespec* deadline);
int __wrap_pthread_cond_timedwait(pthread_cond_t* condition, pthread_mutex_t* mutex, const std::timespec* deadline) {
  waitDeadline = *deadline;
  return waitResult ? *waitResult : __real_pthread_cond_timedwait(condition, mutex, deadline);
}

}  // extern "C"
