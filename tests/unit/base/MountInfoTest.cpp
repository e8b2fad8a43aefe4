// SPDX-License-Identifier: Apache-2.0
#include "OwnWorld.h"
#include "base/MountInfo.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/sysmacros.h>

#include <algorithm>
#include <string>

#include "World.h"

namespace {

std::vector<MountLine> mountsIn(const std::string& text) {
  const test::TempDir dir;
  test::writeFile(dir / "mountinfo", text);
  return readMountInfo(UniqueFd(open((dir / "mountinfo").c_str(), O_RDONLY | O_CLOEXEC))).value();
}

TEST(MountInfo, reads_the_fields_that_matter) {
  const auto mounts = mountsIn(
      "36 35 98:0 /mnt1 /mnt2 rw,noatime master:1 - ext3 /dev/sda1 rw,errors=continue\n"
      "40 36 0:45 / /btrfs rw - btrfs /dev/sdc1 rw,subvol=/sub\n");
  ASSERT_EQ(mounts.size(), 2u);
  EXPECT_EQ(mounts[0].id, 36);
  EXPECT_EQ(mounts[0].device, makedev(98, 0));
  EXPECT_EQ(mounts[0].root, "/mnt1");
  EXPECT_EQ(mounts[0].folder, "/mnt2");
  EXPECT_EQ(mounts[0].type, "ext3");
  EXPECT_EQ(mounts[0].source, "/dev/sda1");
  EXPECT_EQ(mounts[1].device, makedev(0, 45));
  EXPECT_EQ(mounts[1].root, "/");
  EXPECT_EQ(mounts[1].source, "/dev/sdc1");
}

TEST(MountInfo, reads_lines_without_and_with_several_optional_fields) {
  const auto mounts = mountsIn(
      "1 0 7:0 / /a rw - ext4 /dev/loop0 rw\n"
      "2 0 7:1 / /b rw shared:1 master:2 propagate_from:3 - xfs /dev/loop1 rw\n");
  ASSERT_EQ(mounts.size(), 2u);
  EXPECT_EQ(mounts[0].type, "ext4");
  EXPECT_EQ(mounts[1].type, "xfs");
}

TEST(MountInfo, decodes_what_would_break_a_line) {
  const auto mounts = mountsIn("1 0 7:0 /r\\040s /a\\040b\\011c\\134d rw - ext4 /dev/x\\040y rw\n");
  ASSERT_EQ(mounts.size(), 1u);
  EXPECT_EQ(mounts[0].root, "/r s");
  EXPECT_EQ(mounts[0].folder, "/a b\tc\\d");
  EXPECT_EQ(mounts[0].source, "/dev/x y");
}

TEST(MountInfo, leaves_out_what_is_no_line_of_it_and_reads_on) {
  EXPECT_TRUE(mountsIn("").empty());
  EXPECT_TRUE(mountsIn("\n\n").empty());
  const std::string good = "2 0 7:1 / /b rw - xfs /dev/loop1 rw\n";
  for (const char* bad : {"1 0 7:0 / /a rw ext4 /dev/loop0 rw\n", "x 0 7:0 / /a rw - ext4 /dev/loop0 rw\n",
                          "1 0 7 / /a rw - ext4 /dev/loop0 rw\n"}) {
    testing::internal::CaptureStderr();
    const auto mounts = mountsIn(good + bad + good);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "") << bad;
    EXPECT_EQ(mounts.size(), 2u) << bad;
  }
}

TEST(MountInfo, is_nothing_when_nothing_is_open) { EXPECT_FALSE(readMountInfo(UniqueFd())); }

TEST(MountInfo, of_the_kernel_has_a_mount_on_a_folder_with_a_blank_in_its_name) {
  const test::TempDir dir;
  const std::string folder = dir / "a b";
  ASSERT_EQ(mkdir(folder.c_str(), 0755), 0);
  ASSERT_EQ(mount("some source", folder.c_str(), "tmpfs", 0, nullptr), 0);
  const auto mounts = readMountInfo(UniqueFd(open("/proc/self/mountinfo", O_RDONLY | O_CLOEXEC))).value();
  const auto found =
      std::find_if(mounts.begin(), mounts.end(), [&](const MountLine& mount) { return mount.folder == folder; });
  ASSERT_NE(found, mounts.end());
  EXPECT_EQ(found->type, "tmpfs");
  EXPECT_EQ(found->source, "some source");
  EXPECT_EQ(test::unmount(folder), 0);
}

}  // namespace
