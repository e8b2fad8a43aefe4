// SPDX-License-Identifier: Apache-2.0
//
// The lock on the control node.
#include "driver/DriverLock.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <optional>
#include <thread>

#include "World.h"
#include "driver/ControlDevice.h"

namespace {

using Kind = DriverLock::Kind;
using Outcome = DriverLock::Outcome;

constexpr std::chrono::milliseconds kAtOnce{0};
constexpr std::chrono::seconds kLong{60};

// One that stands for another process's: locks of one process exclude each other as those of two do.
class Other {
 public:
  explicit Other(Kind kind) {
    mLock.adoptNode();
    EXPECT_EQ(mLock.take(kind, kAtOnce), Outcome::kHeld);
  }
  void end() { mLock.release(); }

 private:
  DriverLock mLock;
};

class Lock : public testing::Test {
 protected:
  Lock() { node.emplace(kControlNode, S_IFCHR, 1, 3); }
  Outcome take(Kind kind, std::chrono::milliseconds limit = kAtOnce) {
    lock.adoptNode();
    return lock.take(kind, limit);
  }
  std::optional<test::Node> node;
  DriverLock lock;
};

}  // namespace

TEST_F(Lock, is_shared_by_those_who_share_it) {
  const Other other(Kind::kShared);
  EXPECT_EQ(take(Kind::kShared), Outcome::kHeld);
}

TEST_F(Lock, is_held_alone_by_who_holds_it_alone) {
  Other other(Kind::kExclusive);
  EXPECT_EQ(take(Kind::kShared), Outcome::kBusy);
  EXPECT_EQ(take(Kind::kExclusive), Outcome::kBusy);
  other.end();
  EXPECT_EQ(take(Kind::kExclusive), Outcome::kHeld);
}

TEST_F(Lock, cannot_be_held_alone_while_another_shares_it) {
  Other other(Kind::kShared);
  EXPECT_EQ(take(Kind::kExclusive), Outcome::kBusy);
  other.end();
  EXPECT_EQ(take(Kind::kExclusive), Outcome::kHeld);
}

TEST_F(Lock, is_waited_for) {
  Other other(Kind::kExclusive);
  Outcome outcome = Outcome::kUnavailable;
  std::thread waiting([&] { outcome = take(Kind::kShared, kLong); });
  other.end();
  waiting.join();
  EXPECT_EQ(outcome, Outcome::kHeld);
}

TEST_F(Lock, ends_with_its_owner) {
  {
    DriverLock brief;
    brief.adoptNode();
    EXPECT_EQ(brief.take(Kind::kExclusive, kAtOnce), Outcome::kHeld);
  }
  EXPECT_EQ(take(Kind::kExclusive), Outcome::kHeld);
}

// A fork that executes nothing inherits the descriptor, close-on-exec or not.
TEST_F(Lock, ends_with_its_owner_although_a_child_has_the_descriptor) {
  ASSERT_EQ(take(Kind::kExclusive), Outcome::kHeld);
  const pid_t child = fork();
  if (child == 0) {
    while (true) pause();
  }
  lock.release();
  const Other other(Kind::kExclusive);
  kill(child, SIGKILL);
  waitpid(child, nullptr, 0);
}

TEST_F(Lock, is_not_inherited_by_programs) {
  ASSERT_EQ(take(Kind::kShared), Outcome::kHeld);
  EXPECT_EQ(fcntl(lock.descriptor(), F_GETFD), FD_CLOEXEC);
}

TEST_F(Lock, is_that_of_the_node_that_was_made_meanwhile) {
  lock.adoptNode();
  struct stat opened {
  }, anew{};
  node.reset();
  node.emplace(kControlNode, S_IFCHR, 1, 3);
  EXPECT_EQ(lock.take(Kind::kExclusive, kLong), Outcome::kHeld);
  ASSERT_EQ(fstat(lock.descriptor(), &opened), 0);
  ASSERT_EQ(stat(kControlNode, &anew), 0);
  EXPECT_EQ(opened.st_ino, anew.st_ino);
  DriverLock other;
  other.adoptNode();
  EXPECT_EQ(other.take(Kind::kShared, kAtOnce), Outcome::kBusy);
}

TEST_F(Lock, is_unavailable_without_a_node_and_nothing_is_made) {
  node.reset();
  EXPECT_EQ(take(Kind::kExclusive), Outcome::kUnavailable);
  EXPECT_EQ(lock.descriptor(), -1);
  EXPECT_EQ(access(kControlNode, F_OK), -1);
}

// The opener's placeholder for a node with wrong numbers that could not be replaced.
TEST_F(Lock, is_unavailable_on_a_descriptor_that_cannot_be_locked_which_stays) {
  lock.adopt(UniqueFd(open("/", O_PATH | O_CLOEXEC)));
  const int placeholder = lock.descriptor();
  EXPECT_EQ(lock.take(Kind::kShared, kLong), Outcome::kUnavailable);
  EXPECT_EQ(lock.descriptor(), placeholder);
}

TEST_F(Lock, is_unavailable_when_the_node_goes_and_the_descriptor_stays) {
  lock.adoptNode();
  const int opened = lock.descriptor();
  node.reset();
  EXPECT_EQ(lock.take(Kind::kShared, kLong), Outcome::kUnavailable);
  EXPECT_EQ(lock.descriptor(), opened);
}

TEST_F(Lock, survives_signals_while_it_waits) {
  struct sigaction handler {
  }, old{};
  handler.sa_handler = [](int) {};
  sigaction(SIGUSR1, &handler, &old);
  Other other(Kind::kExclusive);
  Outcome outcome = Outcome::kUnavailable;
  std::thread waiting([&] { outcome = take(Kind::kExclusive, kLong); });
  for (int i = 0; i < 100; ++i) pthread_kill(waiting.native_handle(), SIGUSR1);
  other.end();
  waiting.join();
  EXPECT_EQ(outcome, Outcome::kHeld);
  sigaction(SIGUSR1, &old, nullptr);
}
