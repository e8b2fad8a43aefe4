// SPDX-License-Identifier: Apache-2.0
#include "Interposed.h"

#include <dlfcn.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <memory>
#include <utility>

#include "Waiting.h"

namespace {

thread_local int failure[test::FailingCall::kCalls];
thread_local test::ThreadStart threadStart;
std::atomic<int> detachedThreads{0};
thread_local std::optional<timespec> shownTime;
thread_local int clockError = 0;
thread_local test::TimedWait::Answer timedWait;
thread_local bool spurious = false;
thread_local int spuriousWaits = 0;
thread_local int unlocksToGo = 0;
thread_local std::function<void()> afterUnlock;
std::atomic<const pthread_cond_t*> watched{nullptr};
std::atomic<int> signalled{0};
std::atomic<int> broadcast{0};

// What a detached thread runs: the routine, and the note that it has ended.
void* runDetached(void* start) {
  const std::unique_ptr<test::ThreadStart> own(static_cast<test::ThreadStart*>(start));
  void* const value = own->routine(own->argument);
  --detachedThreads;
  return value;
}

// The C library's function behind the one that stands here.
template <class Function>
Function* next(const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

}  // namespace

namespace test {

FailingCall::FailingCall(Call call, int error) : mCall(call) { failure[call] = error; }
FailingCall::~FailingCall() { failure[mCall] = 0; }

const ThreadStart& lastThreadStart() { return threadStart; }

bool detachedThreadsEnded() {
  return comesTrue([] { return detachedThreads == 0; });
}

Clock::Clock(timespec now) { shownTime = now; }
Clock::Clock(int error) { clockError = error; }
Clock::~Clock() {
  shownTime.reset();
  clockError = 0;
}

TimedWait::TimedWait(Answer wait) { timedWait = std::move(wait); }
TimedWait::~TimedWait() { timedWait = nullptr; }

SpuriousWakeUp::SpuriousWakeUp() {
  spurious = true;
  spuriousWaits = 0;
}
SpuriousWakeUp::~SpuriousWakeUp() { spurious = false; }
int SpuriousWakeUp::waits() const { return spuriousWaits; }

AfterUnlock::AfterUnlock(int n, std::function<void()> act) {
  unlocksToGo = n;
  afterUnlock = std::move(act);
}
AfterUnlock::~AfterUnlock() { afterUnlock = nullptr; }

SignalCount::SignalCount(const pthread_cond_t& condition) {
  signalled = 0;
  broadcast = 0;
  watched = &condition;
}
SignalCount::~SignalCount() { watched = nullptr; }
int SignalCount::signals() const { return signalled; }
int SignalCount::broadcasts() const { return broadcast; }

}  // namespace test

// The functions take the place of the C library's in this program.

extern "C" int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*routine)(void*),
                              void* argument) noexcept {
  static const auto real = next<decltype(pthread_create)>("pthread_create");
  threadStart.routine = routine;
  threadStart.argument = argument;
  int state = PTHREAD_CREATE_JOINABLE;
  if (attributes != nullptr) pthread_attr_getdetachstate(attributes, &state);
  threadStart.detached = state == PTHREAD_CREATE_DETACHED;
  const int error = failure[test::FailingCall::kThreadCreate];
  if (error != 0) return error;
  if (!threadStart.detached) return real(thread, attributes, routine, argument);
  ++detachedThreads;
  return real(thread, attributes, &runDetached, new test::ThreadStart(threadStart));
}

extern "C" int pthread_mutex_init(pthread_mutex_t* mutex, const pthread_mutexattr_t* attributes) noexcept {
  static const auto real = next<decltype(pthread_mutex_init)>("pthread_mutex_init");
  const int error = failure[test::FailingCall::kMutexInit];
  return error != 0 ? error : real(mutex, attributes);
}

extern "C" int pthread_cond_init(pthread_cond_t* condition, const pthread_condattr_t* attributes) noexcept {
  static const auto real = next<decltype(pthread_cond_init)>("pthread_cond_init");
  const int error = failure[test::FailingCall::kConditionInit];
  return error != 0 ? error : real(condition, attributes);
}

extern "C" int pthread_mutex_lock(pthread_mutex_t* mutex) noexcept {
  static const auto real = next<decltype(pthread_mutex_lock)>("pthread_mutex_lock");
  const int error = failure[test::FailingCall::kMutexLock];
  return error != 0 ? error : real(mutex);
}

extern "C" int pthread_mutex_unlock(pthread_mutex_t* mutex) noexcept {
  static const auto real = next<decltype(pthread_mutex_unlock)>("pthread_mutex_unlock");
  const int result = real(mutex);
  if (afterUnlock && unlocksToGo-- == 0) std::exchange(afterUnlock, nullptr)();
  const int error = failure[test::FailingCall::kMutexUnlock];
  return error != 0 ? error : result;
}

extern "C" int pthread_cond_signal(pthread_cond_t* condition) noexcept {
  static const auto real = next<decltype(pthread_cond_signal)>("pthread_cond_signal");
  if (condition == watched) ++signalled;
  return real(condition);
}

extern "C" int pthread_cond_broadcast(pthread_cond_t* condition) noexcept {
  static const auto real = next<decltype(pthread_cond_broadcast)>("pthread_cond_broadcast");
  if (condition == watched) ++broadcast;
  return real(condition);
}

extern "C" int pthread_cond_wait(pthread_cond_t* condition, pthread_mutex_t* mutex) {
  static const auto real = next<decltype(pthread_cond_wait)>("pthread_cond_wait");
  if (!spurious) return real(condition, mutex);
  // A caller that waits until it is signalled would never come back.
  if (++spuriousWaits == 10) std::abort();
  return 0;
}

extern "C" int pthread_cond_timedwait(pthread_cond_t* condition, pthread_mutex_t* mutex, const timespec* deadline) {
  static const auto real = next<decltype(pthread_cond_timedwait)>("pthread_cond_timedwait");
  return timedWait ? timedWait(condition, mutex, *deadline) : real(condition, mutex, deadline);
}

extern "C" int clock_gettime(clockid_t clock, timespec* now) noexcept {
  static const auto real = next<decltype(clock_gettime)>("clock_gettime");
  if (clock == CLOCK_REALTIME && clockError != 0) {
    errno = clockError;
    return -1;
  }
  if (clock == CLOCK_REALTIME && shownTime.has_value()) {
    *now = *shownTime;
    return 0;
  }
  return real(clock, now);
}
