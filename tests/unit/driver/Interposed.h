// SPDX-License-Identifier: Apache-2.0
//
// C library calls of this test program that a test can answer itself for a scope: the clock, the random generator, the
// shell, the making of nodes. Without such a scope each goes to the C library.
#pragma once

#include <sys/time.h>

#include <ctime>
#include <deque>
#include <functional>
#include <string>
#include <vector>

namespace test {

// time() stands still.
class FakeTime {
 public:
  explicit FakeTime(std::time_t now);
  ~FakeTime();
};

// gettimeofday() stands still.
class FakeTimeOfDay {
 public:
  explicit FakeTimeOfDay(timeval now);
  ~FakeTimeOfDay();
  void set(timeval now);
};

// rand() gives these values in turn, then zeros.
class FakeRand {
 public:
  explicit FakeRand(std::deque<int> values);
  ~FakeRand();
};

// system() runs nothing and gives `result`, errno set to `error`.
class FakeSystem {
 public:
  FakeSystem(int result, int error);
  ~FakeSystem();
  const std::vector<std::string>& commands() const;
};

// mknod() does this first: what another thread may do meanwhile.
class BeforeMknod {
 public:
  explicit BeforeMknod(std::function<void()> act);
  ~BeforeMknod();
};

// The paths that stat() was asked for.
class StatRecorder {
 public:
  StatRecorder();
  ~StatRecorder();
  const std::vector<std::string>& paths() const;
};

}  // namespace test
