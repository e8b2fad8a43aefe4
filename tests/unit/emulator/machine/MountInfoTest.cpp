// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include "emulator/machine/MountInfo.h"

namespace {

using emulator::DeviceNumber;
using emulator::MountLine;
using emulator::parseMountInfo;

TEST(MountInfo, reads_the_fields_that_matter) {
  const auto mounts = parseMountInfo(
      "36 35 98:0 /mnt1 /mnt2 rw,noatime master:1 - ext3 /dev/root rw,errors=continue\n"
      "40 36 0:45 /sub /btrfs rw - btrfs /dev/sdc1 rw,subvol=/sub\n");
  ASSERT_EQ(mounts.size(), 2u);
  EXPECT_EQ(mounts[0].id, 36);
  EXPECT_EQ(mounts[0].device, (DeviceNumber{98, 0}));
  EXPECT_EQ(mounts[0].folder, "/mnt2");
  EXPECT_EQ(mounts[0].type, "ext3");
  EXPECT_EQ(mounts[0].source, "/dev/root");
  EXPECT_EQ(mounts[1].device, (DeviceNumber{0, 45}));
  EXPECT_EQ(mounts[1].source, "/dev/sdc1");
}

TEST(MountInfo, reads_lines_without_and_with_several_optional_fields) {
  const auto mounts = parseMountInfo(
      "1 0 7:0 / /a rw - ext4 /dev/loop0 rw\n"
      "2 0 7:1 / /b rw shared:1 master:2 propagate_from:3 - xfs /dev/loop1 rw\n");
  ASSERT_EQ(mounts.size(), 2u);
  EXPECT_EQ(mounts[0].type, "ext4");
  EXPECT_EQ(mounts[1].type, "xfs");
}

TEST(MountInfo, decodes_what_would_break_a_line) {
  const auto mounts = parseMountInfo("1 0 7:0 / /a\\040b\\011c\\134d\\0 rw - ext4 /dev/x\\040y rw\n");
  ASSERT_EQ(mounts.size(), 1u);
  EXPECT_EQ(mounts[0].folder, "/a b\tc\\d\\0");
  EXPECT_EQ(mounts[0].source, "/dev/x y");
}

TEST(MountInfo, leaves_out_what_is_no_line_of_it) {
  EXPECT_TRUE(parseMountInfo("").empty());
  EXPECT_TRUE(parseMountInfo("\n\n").empty());
  EXPECT_TRUE(parseMountInfo("1 0 7:0 / /a rw ext4 /dev/loop0 rw\n").empty());
  EXPECT_TRUE(parseMountInfo("x 0 7:0 / /a rw - ext4 /dev/loop0 rw\n").empty());
  EXPECT_TRUE(parseMountInfo("1 0 7 / /a rw - ext4 /dev/loop0 rw\n").empty());
  EXPECT_TRUE(parseMountInfo("1 0 7:0 / /a rw - ext4\n").empty());
}

TEST(MountInfo, counts_how_deep_a_folder_lies) {
  MountLine mount;
  mount.folder = "/";
  EXPECT_EQ(mount.depth(), 0u);
  mount.folder = "/a";
  EXPECT_EQ(mount.depth(), 1u);
  mount.folder = "/a/b/c";
  EXPECT_EQ(mount.depth(), 3u);
}

}  // namespace
