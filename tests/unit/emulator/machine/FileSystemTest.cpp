// SPDX-License-Identifier: Apache-2.0
//
// Finding a volume's file system, holding it still, the order of freezing.
#include "emulator/machine/FileSystem.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <optional>

#include "Frozen.h"
#include "LoopVolume.h"
#include "World.h"
#include "emulator/machine/BlockDevice.h"

namespace {

using emulator::Caller;
using emulator::DeviceNumber;
using emulator::FileSystem;
using emulator::Standstill;
using std::chrono::milliseconds;

constexpr std::uint64_t kBytes = 8 << 20;

DeviceNumber numberOf(const test::LoopDevice& loop) { return {7, loop.minor()}; }

struct FileSystems : testing::Test {
  FileSystem on(const test::LoopDevice& loop) {
    auto found = FileSystem::on(*kernel, numberOf(loop), self);
    EXPECT_TRUE(found);
    return std::move(*found);
  }
  emulator::Result<emulator::Kernel> kernel = emulator::Kernel::reach();
  Caller self{*kernel, getpid()};
};

TEST_F(FileSystems, are_found_through_any_mount_of_the_device) {
  const test::Volume volume("ext4", kBytes);
  EXPECT_TRUE(on(volume.loop()).mounted());
  // One that another mount lies over is passed by for one that can be reached.
  const test::TempDir other;
  const test::Mounted again(volume.device(), other.path(), "ext4");
  const test::Mounted cover("cover", volume.folder(), "tmpfs");
  FileSystem found = on(volume.loop());
  ASSERT_TRUE(found.mounted());
  ASSERT_TRUE(found.freeze());
  EXPECT_TRUE(test::isFrozen(other.path()));
  found.thaw();
  EXPECT_FALSE(test::isFrozen(other.path()));
}

TEST_F(FileSystems, on_a_folder_with_a_blank_in_its_name_are_found) {
  const test::LoopDevice loop(kBytes);
  loop.mkfs("ext4");
  const test::TempDir dir;
  const std::string folder = dir / "a b";
  mkdir(folder.c_str(), 0755);
  const test::Mounted mounted(loop.path(), folder, "ext4");
  EXPECT_TRUE(on(loop).mounted());
}

TEST_F(FileSystems, that_are_mounted_nowhere_need_no_freezing) {
  const test::LoopDevice loop(kBytes);
  FileSystem none = on(loop);
  EXPECT_FALSE(none.mounted());
  EXPECT_TRUE(none.freeze());
  none.thaw();
}

TEST_F(FileSystems, mounted_in_another_namespace_only_are_found_there) {
  const test::LoopDevice loop(kBytes);
  loop.mkfs("ext4");
  const test::TempDir folder;
  int ready[2];
  ASSERT_EQ(pipe2(ready, O_CLOEXEC), 0);
  const pid_t child = fork();
  if (child == 0) {
    const bool done =
        unshare(CLONE_NEWNS) == 0 && mount(loop.path().c_str(), folder.path().c_str(), "ext4", 0, nullptr) == 0;
    static_cast<void>(!write(ready[1], done ? "1" : "0", 1));
    while (true) pause();
  }
  char done = '0';
  ASSERT_EQ(read(ready[0], &done, 1), 1);
  ASSERT_EQ(done, '1');
  EXPECT_TRUE(on(loop).mounted());
  kill(child, SIGKILL);
  waitpid(child, nullptr, 0);
  close(ready[0]);
  close(ready[1]);
}

TEST_F(FileSystems, on_devices_in_use_in_another_way_are_refused) {
  const test::LoopDevice loop(kBytes);
  const UniqueFd claim(open(loop.path().c_str(), O_RDONLY | O_EXCL | O_CLOEXEC));
  auto found = FileSystem::on(*kernel, numberOf(loop), self);
  ASSERT_FALSE(found);
  EXPECT_EQ(found.error().error, EBUSY);
}

TEST_F(FileSystems, stand_on_the_device_that_holds_their_image) {
  const test::Volume outer("ext4", 32 << 20);
  const test::Volume inner("ext4", kBytes, {}, outer.folder());
  const FileSystem upper = on(inner.loop());
  EXPECT_TRUE(upper.standsOn(numberOf(outer.loop())));
  EXPECT_FALSE(upper.standsOn(numberOf(inner.loop())));
  EXPECT_FALSE(on(outer.loop()).standsOn(numberOf(inner.loop())));
}

// ---- the order

TEST_F(FileSystems, are_frozen_from_the_deepest_mount_up) {
  const test::Volume outer("ext4", kBytes);
  const std::string folder = outer.folder() + "/inner";
  mkdir(folder.c_str(), 0755);
  const test::LoopDevice loop(kBytes);
  loop.mkfs("ext4");
  const test::Mounted inner(loop.path(), folder, "ext4");
  FileSystem top = on(outer.loop());
  FileSystem deep = on(loop);
  EXPECT_EQ(deep.depth(), top.depth() + 1);
  EXPECT_EQ(emulator::insideOut({&top, &deep}), (std::vector<FileSystem*>{&deep, &top}));
  EXPECT_EQ(emulator::insideOut({&deep, &top}), (std::vector<FileSystem*>{&deep, &top}));
}

TEST_F(FileSystems, that_stand_on_another_are_frozen_before_it_however_deep_it_is_mounted) {
  const test::LoopDevice loop(32 << 20);
  loop.mkfs("ext4");
  const test::TempDir dir;
  const std::string deepFolder = dir / "a";
  mkdir(deepFolder.c_str(), 0755);
  mkdir((deepFolder + "/b").c_str(), 0755);
  mkdir((deepFolder + "/b/c").c_str(), 0755);
  const test::Mounted lowerMount(loop.path(), deepFolder + "/b/c", "ext4");
  const test::Volume stacked("ext4", kBytes, {}, lowerMount.folder());
  FileSystem lower = on(loop);
  FileSystem upper = on(stacked.loop());
  ASSERT_LT(upper.depth(), lower.depth());
  EXPECT_EQ(emulator::insideOut({&lower, &upper}), (std::vector<FileSystem*>{&upper, &lower}));
}

// ---- the standstill

TEST_F(FileSystems, stand_still_until_the_end) {
  const test::Volume volume("ext4", kBytes);
  FileSystem fileSystem = on(volume.loop());
  Standstill standstill(milliseconds(60000));
  ASSERT_TRUE(standstill.begin({&fileSystem}));
  EXPECT_TRUE(test::isFrozen(volume.folder()));
  standstill.end();
  EXPECT_FALSE(test::isFrozen(volume.folder()));
  EXPECT_FALSE(standstill.expired());
}

TEST_F(FileSystems, are_let_go_when_the_time_is_up) {
  const test::Volume volume("ext4", kBytes);
  FileSystem fileSystem = on(volume.loop());
  Standstill standstill(milliseconds(50));
  ASSERT_TRUE(standstill.begin({&fileSystem}));
  test::writeFile(volume.folder() + "/file", "waits for the thaw");
  EXPECT_TRUE(standstill.expired());
}

TEST_F(FileSystems, are_let_go_when_the_standstill_goes_out_of_scope) {
  const test::Volume volume("ext4", kBytes);
  FileSystem fileSystem = on(volume.loop());
  {
    Standstill standstill(milliseconds(60000));
    ASSERT_TRUE(standstill.begin({&fileSystem}));
  }
  EXPECT_FALSE(test::isFrozen(volume.folder()));
}

TEST_F(FileSystems, are_all_let_go_when_one_cannot_be_frozen) {
  const test::Volume one("ext4", kBytes);
  const test::Volume two("ext4", kBytes);
  FileSystem first = on(one.loop());
  FileSystem second = on(two.loop());
  ASSERT_TRUE(second.freeze());
  Standstill standstill(milliseconds(60000));
  EXPECT_EQ(standstill.begin({&first, &second}).error().error, EBUSY);
  EXPECT_FALSE(test::isFrozen(one.folder()));
  second.thaw();
}

// A store that stands on a frozen volume, the other way round: freezing the upper file system waits for the lower one.
TEST_F(FileSystems, in_the_wrong_order_wait_for_each_other_only_until_the_time_is_up) {
  const test::Volume outer("ext4", 32 << 20);
  const test::Volume stacked("ext4", kBytes, {}, outer.folder());
  test::writeFile(stacked.folder() + "/dirty", std::string(100000, 'x'));
  FileSystem lower = on(outer.loop());
  FileSystem upper = on(stacked.loop());
  Standstill standstill(milliseconds(200));
  static_cast<void>(standstill.begin({&lower, &upper}));
  EXPECT_TRUE(standstill.expired());
  standstill.end();
  EXPECT_FALSE(test::isFrozen(outer.folder()));
  EXPECT_FALSE(test::isFrozen(stacked.folder()));
}

}  // namespace
