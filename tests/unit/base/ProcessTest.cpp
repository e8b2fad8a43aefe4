// SPDX-License-Identifier: Apache-2.0
//
// Who counts as dead.
#include "base/Process.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <functional>
#include <optional>
#include <string>

#include "World.h"

namespace {

// A child that runs `body` and then waits to be killed; reaped at the end of its scope at the latest.
class Child {
 public:
  explicit Child(const std::function<void()>& body) : mProcess(fork()) {
    if (mProcess != 0) {
      mShown.emplace(mProcess);
      return;
    }
    body();
    while (true) pause();
  }
  ~Child() { reap(); }
  pid_t id() const { return mProcess; }
  // Ends it and waits until it is a zombie.
  void end() const {
    kill(mProcess, SIGKILL);
    siginfo_t ended{};
    waitid(P_PID, static_cast<id_t>(mProcess), &ended, WEXITED | WNOWAIT);
  }
  // From here /proc does not tell about it.
  void hide() { mShown.reset(); }
  void reap() {
    if (mProcess <= 0) return;
    kill(mProcess, SIGKILL);
    waitpid(mProcess, nullptr, 0);
    mProcess = -1;
  }

 private:
  pid_t mProcess;
  std::optional<test::ShownProcess> mShown;
};

std::string stateOf(pid_t process) {
  std::ifstream file("/proc/" + std::to_string(process) + "/status");
  for (std::string line; std::getline(file, line);) {
    if (line.starts_with("State:")) return line.substr(line.find_first_not_of(" \t", 6), 1);
  }
  return "";
}

}  // namespace

TEST(ProcessIsGone, a_running_process_is_not_this_one_neither) {
  const Child child([] {});
  EXPECT_FALSE(processIsGone(child.id()));
  EXPECT_FALSE(processIsGone(getpid()));
}

TEST(ProcessIsGone, one_that_was_reaped_is) {
  Child child([] {});
  const pid_t id = child.id();
  child.reap();
  EXPECT_TRUE(processIsGone(id));
}

TEST(ProcessIsGone, a_zombie_is) {
  const Child child([] {});
  child.end();
  ASSERT_EQ(kill(child.id(), 0), 0);
  EXPECT_TRUE(processIsGone(child.id()));
}

TEST(ProcessIsGone, what_proc_does_not_tell_about_is_not) {
  Child child([] {});
  child.end();
  child.hide();
  EXPECT_FALSE(processIsGone(child.id()));
}

TEST(ProcessIsGone, a_zombie_whose_name_looks_like_a_state_is) {
  for (const char* name : {") R 1", "a) S", ")", "((", ""}) {
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    const Child child([&] {
      prctl(PR_SET_NAME, name);
      static_cast<void>(!write(ends[1], "x", 1));
    });
    char named = 0;
    ASSERT_EQ(read(ends[0], &named, 1), 1);
    EXPECT_FALSE(processIsGone(child.id())) << name;
    child.end();
    EXPECT_TRUE(processIsGone(child.id())) << name;
    close(ends[0]);
    close(ends[1]);
  }
}

TEST(ProcessIsGone, a_process_whose_first_thread_has_ended_is_not) {
  const Child child([] {
    pthread_t second;
    pthread_create(
        &second, nullptr,
        [](void*) -> void* {
          while (true) pause();
        },
        nullptr);
    syscall(SYS_exit, 0);  // of this thread alone
  });
  while (stateOf(child.id()) != "Z") usleep(1000);
  EXPECT_FALSE(processIsGone(child.id()));
  child.end();
  EXPECT_TRUE(processIsGone(child.id()));
}

// 0 and negative numbers address process groups: this one's, that of a dead process, every process.
TEST(ProcessIsGone, what_names_no_process_is_not) {
  Child child([] {});
  const pid_t dead = child.id();
  child.reap();
  for (const int id : {0, -1, -dead, -getpgrp(), static_cast<int>(0x80000000U)}) EXPECT_FALSE(processIsGone(id)) << id;
}
