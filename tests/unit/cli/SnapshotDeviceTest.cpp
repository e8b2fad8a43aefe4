// SPDX-License-Identifier: Apache-2.0
//
// Which paths name the device of a snapshot, and of which volume.
#include "SnapshotDevice.h"

#include <gtest/gtest.h>
#include <sys/sysmacros.h>

namespace {

TEST(SnapshotDevice, has_the_numbers_of_its_volume) {
  EXPECT_EQ(cli::volumeOf("/dev/snap8_1"), makedev(8, 1));
  EXPECT_EQ(cli::volumeOf("/dev/snap0_0"), makedev(0, 0));
  EXPECT_EQ(cli::volumeOf("/dev/snap253_1048575"), makedev(253, 1048575));
  EXPECT_EQ(cli::volumeOf("/dev/snap007_010"), makedev(7, 10));
}

TEST(SnapshotDevice, has_numbers_of_32_bits_at_most) {
  EXPECT_EQ(cli::volumeOf("/dev/snap4294967295_4294967295"), makedev(4294967295, 4294967295));
  EXPECT_FALSE(cli::isSnapshotDevice("/dev/snap4294967296_1"));
  EXPECT_FALSE(cli::isSnapshotDevice("/dev/snap1_4294967296"));
}

TEST(SnapshotDevice, is_named_so_from_the_first_character_to_the_last) {
  for (const char* path :
       {"", "/dev/snap", "/dev/snap8", "/dev/snap8_", "/dev/snap_1", "/dev/snap8_1p1", "/dev/snap8_1_", "/dev/snap8-1",
        "/dev/snap 8_1", "/dev/snap8_ 1", "/dev/snap+8_1", "/dev/snap-8_1", "/dev/snapa_1", "/dev/snapshot",
        " /dev/snap8_1", "dev/snap8_1", "/mnt/dev/snap8_1"})
    EXPECT_FALSE(cli::isSnapshotDevice(path)) << path;
}

}  // namespace
