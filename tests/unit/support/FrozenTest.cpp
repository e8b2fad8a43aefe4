// SPDX-License-Identifier: Apache-2.0
#include "Frozen.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <stdexcept>

#include "LoopVolume.h"
#include "Waiting.h"
#include "base/Handle.h"

namespace {

using test::Frozen;
using test::isFrozen;

constexpr std::uint64_t kBytes = 8 << 20;

TEST(Frozen, holds_a_file_system_until_it_is_thawed) {
  const test::Volume volume("ext4", kBytes);
  Frozen frozen(volume.folder());
  EXPECT_TRUE(isFrozen(volume.folder()));
  frozen.thaw();
  EXPECT_FALSE(isFrozen(volume.folder()));
}

TEST(Frozen, leaves_alone_what_somebody_else_has_frozen) {
  const test::Volume volume("ext4", kBytes);
  const Frozen frozen(volume.folder());
  EXPECT_THROW(Frozen second(volume.folder()), std::runtime_error);
  EXPECT_TRUE(isFrozen(volume.folder()));
}

TEST(Frozen, thaws_when_the_test_is_killed) {
  const test::Volume volume("ext4", kBytes);
  int ends[2];
  ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
  const UniqueFd told(ends[0]);
  UniqueFd tell(ends[1]);
  const pid_t child = fork();
  if (child == 0) {
    try {
      const Frozen frozen(volume.folder());
      static_cast<void>(!write(tell.get(), "f", 1));
      while (true) pause();
    } catch (const std::runtime_error&) {
      _exit(1);
    }
  }
  tell.reset();
  char frozen = 0;
  EXPECT_EQ(read(told.get(), &frozen, 1), 1);
  EXPECT_TRUE(isFrozen(volume.folder()));
  kill(child, SIGKILL);
  waitpid(child, nullptr, 0);
  EXPECT_TRUE(test::comesTrue([&] { return !isFrozen(volume.folder()); }));
}

}  // namespace
