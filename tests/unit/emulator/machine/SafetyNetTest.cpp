// SPDX-License-Identifier: Apache-2.0
//
// What becomes of frozen file systems when the emulator is killed.
#include "OwnWorld.h"
#include "emulator/machine/SafetyNet.h"

#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>

#include "LoopVolume.h"
#include "Waiting.h"
#include "World.h"
#include "emulator/machine/FileSystem.h"

namespace {

using emulator::Caller;
using emulator::DeviceNumber;
using emulator::FileSystem;

constexpr std::uint64_t kBytes = 8 << 20;

DeviceNumber numberOf(const test::LoopDevice& loop) { return {7, loop.minor()}; }

struct SafetyNet : testing::Test {
  FileSystem on(const test::LoopDevice& loop) {
    auto found = FileSystem::on(*kernel, numberOf(loop), self);
    EXPECT_TRUE(found);
    return std::move(*found);
  }
  emulator::Result<emulator::Kernel> kernel = emulator::Kernel::reach();
  Caller self{*kernel, getpid()};
};

TEST_F(SafetyNet, holds_no_file_system_that_was_thawed) {
  auto net = emulator::SafetyNet::spread(*kernel);
  ASSERT_TRUE(net);
  const auto netInUse = kernel->use(*net);
  for (int i = 0; i < 10; ++i) {
    const test::LoopDevice loop(kBytes);
    const test::TempDir folder;
    loop.mkfs("ext4");
    ASSERT_EQ(mount(loop.path().c_str(), folder.path().c_str(), "ext4", 0, nullptr), 0);
    {
      FileSystem fileSystem = on(loop);
      ASSERT_TRUE(fileSystem.freeze());
      fileSystem.thaw();
    }
    EXPECT_EQ(test::unmount(folder.path()), 0) << std::strerror(errno);
  }
}

TEST_F(SafetyNet, is_told_only_while_it_is_in_use) {
  auto net = emulator::SafetyNet::spread(*kernel);
  ASSERT_TRUE(net);
  {
    const auto netInUse = kernel->use(*net);
    EXPECT_EQ(kernel->net(), &*net);
  }
  EXPECT_EQ(kernel->net(), nullptr);
}

TEST_F(SafetyNet, of_a_killed_emulator_thaws_its_file_systems) {
  const test::LoopDevice loop(kBytes);
  loop.mkfs("ext4");
  const test::TempDir folder;
  ASSERT_EQ(mount(loop.path().c_str(), folder.path().c_str(), "ext4", 0, nullptr), 0);
  const pid_t child = fork();
  if (child == 0) {
    auto net = emulator::SafetyNet::spread(*kernel);
    if (!net) _exit(1);
    const auto netInUse = kernel->use(*net);
    auto fileSystem = FileSystem::on(*kernel, numberOf(loop), self);
    if (!fileSystem || !fileSystem->freeze()) _exit(2);
    kill(getpid(), SIGKILL);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFSIGNALED(status));
  // Waits for the thaw; without the net it would wait for ever, and the test with it.
  test::writeFile(folder / "file", "written");
  EXPECT_EQ(test::readFile(folder / "file"), "written");
  // The net lets go of the file system right after the thaw.
  EXPECT_TRUE(test::comesTrue([&] { return test::unmount(folder.path()) == 0; }));
}

}  // namespace
