// SPDX-License-Identifier: Apache-2.0
//
// Work on a thread of its own, of which a test can tell that it waits for the test's.
#pragma once

#include <unistd.h>

#include <atomic>
#include <functional>
#include <thread>
#include <utility>

#include "ProcessState.h"
#include "Waiting.h"

namespace test {

class OtherThread {
 public:
  explicit OtherThread(std::function<void()> work)
      : mThread([this, work = std::move(work)] {
          mNumber = gettid();
          work();
          mDone = true;
        }) {}
  ~OtherThread() {
    if (mThread.joinable()) mThread.join();
  }
  OtherThread(const OtherThread&) = delete;
  OtherThread& operator=(const OtherThread&) = delete;

  bool isDone() const { return mDone; }
  // Returns when the work stands still for a lock or a condition; false when it is done without.
  [[nodiscard]] bool comesToWait() const {
    return comesTrue([this] { return mDone || (mNumber != 0 && waitsForAThread(mNumber)); }) && !mDone;
  }
  void join() { mThread.join(); }

 private:
  std::atomic<pid_t> mNumber{0};
  std::atomic<bool> mDone{false};
  std::thread mThread;  // the last member: it uses the others
};

}  // namespace test
