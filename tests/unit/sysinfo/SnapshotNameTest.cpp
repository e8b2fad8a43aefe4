// SPDX-License-Identifier: Apache-2.0
#include "sysinfo/SnapshotName.h"

#include <gtest/gtest.h>
#include <sys/sysmacros.h>

TEST(SnapshotName, holds_the_numbers_of_the_volume) {
  EXPECT_EQ(volumeOfSnapshot("/dev/snap7_1"), makedev(7, 1));
  EXPECT_EQ(volumeOfSnapshot("/dev/snap259_1048575"), makedev(259, 1048575));
}

TEST(SnapshotName, is_nothing_else) {
  for (const char* path :
       {"", "/dev/snap", "/dev/snap7", "/dev/snap7_", "/dev/snap_1", "/dev/snap7_1x", "/dev/snap7_1_2", "/dev/snap-7_1",
        "/dev/snap7_-1", "/dev/snap 7_1", "/dev/snapd", "/mnt/dev/snap7_1", "/dev/snap99999999999_1"})
    EXPECT_EQ(volumeOfSnapshot(path), std::nullopt) << path;
}
