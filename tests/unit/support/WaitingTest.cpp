// SPDX-License-Identifier: Apache-2.0
//
// How tests wait for what happens, and see where others stand.
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <mutex>

#include "OtherThread.h"
#include "ProcessState.h"
#include "Waiting.h"

namespace {

// A process that sleeps, and notices SIGUSR1 or holds it back; killed at the end.
class Sleeper {
 public:
  explicit Sleeper(bool holdsBack) : mProcess(fork()) {
    if (mProcess != 0) return;
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGUSR1);
    if (holdsBack) sigprocmask(SIG_BLOCK, &signals, nullptr);
    signal(SIGUSR1, [](int) {});
    while (true) pause();
  }
  ~Sleeper() {
    kill(mProcess, SIGKILL);
    waitpid(mProcess, nullptr, 0);
  }
  pid_t id() const { return mProcess; }
  bool sleeps() const {
    return test::comesTrue([this] { return test::isInCall(mProcess, SYS_pause); });
  }

 private:
  pid_t mProcess;
};

TEST(OtherThread, comes_to_wait_for_a_lock_that_the_test_holds) {
  std::mutex mutex;
  std::unique_lock hold(mutex);
  const test::OtherThread other([&] { const std::lock_guard inner(mutex); });
  EXPECT_TRUE(other.comesToWait());
  EXPECT_FALSE(other.isDone());
  hold.unlock();
}

TEST(OtherThread, that_takes_no_lock_is_done_without_waiting) {
  const test::OtherThread other([] {});
  EXPECT_FALSE(other.comesToWait());
  EXPECT_TRUE(other.isDone());
}

TEST(ProcessState, tells_whether_a_signal_was_taken) {
  const Sleeper deaf(true), awake(false);
  ASSERT_TRUE(deaf.sleeps() && awake.sleeps());
  ASSERT_EQ(kill(deaf.id(), SIGUSR1), 0);
  ASSERT_EQ(kill(awake.id(), SIGUSR1), 0);
  EXPECT_TRUE(test::comesTrue([&] { return test::hasTaken(awake.id(), SIGUSR1); }));
  EXPECT_FALSE(test::hasTaken(deaf.id(), SIGUSR1));
}

TEST(ProcessState, tells_the_program_and_its_state_until_the_process_is_gone) {
  pid_t process = 0;
  {
    const Sleeper sleeper(false);
    process = sleeper.id();
    EXPECT_EQ(test::programOf(process), test::programOf(getpid()));
    kill(process, SIGSTOP);
    ASSERT_EQ(waitpid(process, nullptr, WUNTRACED), process);
    EXPECT_EQ(test::stateOf(process), 'T');
    EXPECT_EQ(test::threadsOf(process), std::vector<pid_t>{process});
  }
  EXPECT_EQ(test::programOf(process), "");
  EXPECT_EQ(test::stateOf(process), '\0');
  EXPECT_FALSE(test::isInCall(process, SYS_pause));
}

}  // namespace
