// SPDX-License-Identifier: Apache-2.0
//
// The module comes and goes. These tests load it themselves, with the hook put in and taken out each time.
#include <gtest/gtest.h>

#include "Driver.h"
#include "Volumes.h"

namespace guest {
namespace {

TEST(Loading, the_module_comes_and_goes_a_hundred_times_under_writers) {
  Mounted store = ext4("/dev/vdb", "/mnt/b");
  const std::string file = store.makeFile("reloc", 32 << 20);
  Writers writers("/dev/vda", {0, sectorsOf("/dev/vda")}, 2);
  for (int round = 0; round < 100; ++round) {
    ASSERT_EQ(loadModule(""), 0);
    ASSERT_EQ(snap({snapOf("/dev/vda", file, "/dev/vdb")}), (Result{0, 0}));
    writers.waitFor(writers.writes() + 3);
    ASSERT_EQ(discard({"/dev/vda"}), (Result{0, 0}));
    ASSERT_EQ(unloadModule(), 0);
  }
  EXPECT_EQ(writers.stop(), 0);
}

TEST(Loading, a_module_with_mappings_can_be_unloaded) {
  ASSERT_EQ(loadModule(""), 0);
  SnapVolume volume;
  std::strcpy(volume.entry.volumeName, "/dev/vda");
  std::strcpy(volume.entry.relocFileName, "/file");
  volume.entry.appPid = 1;
  ASSERT_EQ(map(volume), (Result{0, 0}));
  EXPECT_EQ(unloadModule(), 0);
}

}  // namespace
}  // namespace guest
