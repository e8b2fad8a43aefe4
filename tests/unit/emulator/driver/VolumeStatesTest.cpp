// SPDX-License-Identifier: Apache-2.0
//
// Checks, freezing and thawing.

#include <cerrno>
#include <cstring>

#include "DriverFixture.h"
#include "Frozen.h"
#include "base/Handle.h"

namespace {

using test::WireCommand;

struct VolumeStates : DriverTest {};

TEST_F(VolumeStates, a_volume_that_it_does_not_know_is_neither_snapped_nor_frozen) {
  EXPECT_EQ(status(IOC_CHECK_VOLUME_SNAPPED, {240, 1}), -4);
  EXPECT_EQ(status(IOC_CHECK_VOLUME_FROZEN, {240, 1}), -7);
}

// ---- freeze and thaw

TEST_F(VolumeStates, freezing_stops_the_file_systems_and_thawing_lets_them_go) {
  const test::Volume one("ext4", kVolumeBytes);
  const test::Volume two("ext4", kVolumeBytes);
  const auto both = test::volumeListCommand({deviceOf(one.loop()), deviceOf(two.loop())});
  EXPECT_EQ(error(IOC_FREEZE, both), 0);
  EXPECT_EQ(status(IOC_CHECK_VOLUME_FROZEN, deviceOf(one.loop())), -6);
  EXPECT_EQ(status(IOC_CHECK_VOLUME_FROZEN, deviceOf(two.loop())), -6);
  EXPECT_TRUE(test::isFrozen(one.folder()));
  EXPECT_TRUE(test::isFrozen(two.folder()));
  EXPECT_EQ(error(IOC_THAW, both), 0);
  EXPECT_EQ(status(IOC_CHECK_VOLUME_FROZEN, deviceOf(one.loop())), -7);
  EXPECT_FALSE(test::isFrozen(one.folder()));
  EXPECT_FALSE(test::isFrozen(two.folder()));
}

TEST_F(VolumeStates, freezing_a_frozen_volume_fails_with_6_and_freezes_none) {
  const test::Volume one("ext4", kVolumeBytes);
  const test::Volume two("ext4", kVolumeBytes);
  ASSERT_EQ(error(IOC_FREEZE, test::volumeListCommand({deviceOf(one.loop())})), 0);
  WireCommand both = test::volumeListCommand({deviceOf(two.loop()), deviceOf(one.loop())});
  EXPECT_EQ(ask(IOC_FREEZE, both), EBUSY);
  EXPECT_EQ(both.status(), -6);
  EXPECT_EQ(status(IOC_CHECK_VOLUME_FROZEN, deviceOf(two.loop())), -7);
  EXPECT_FALSE(test::isFrozen(two.folder()));
  driver->thawAll();
}

TEST_F(VolumeStates, thawing_a_volume_that_is_not_frozen_fails_with_7_and_thaws_none) {
  const test::Volume one("ext4", kVolumeBytes);
  const test::Volume two("ext4", kVolumeBytes);
  ASSERT_EQ(error(IOC_FREEZE, test::volumeListCommand({deviceOf(one.loop())})), 0);
  WireCommand both = test::volumeListCommand({deviceOf(one.loop()), deviceOf(two.loop())});
  EXPECT_EQ(ask(IOC_THAW, both), EINVAL);
  EXPECT_EQ(both.status(), -7);
  EXPECT_TRUE(test::isFrozen(one.folder()));
  driver->thawAll();
}

TEST_F(VolumeStates, a_volume_that_cannot_be_frozen_leaves_the_others_as_they_were) {
  const test::Volume one("ext4", kVolumeBytes);
  const test::Volume two("ext4", kVolumeBytes);
  const test::Frozen frozen(two.folder());  // by somebody else
  EXPECT_EQ(error(IOC_FREEZE, test::volumeListCommand({deviceOf(one.loop()), deviceOf(two.loop())})), EBUSY);
  EXPECT_FALSE(test::isFrozen(one.folder()));
  EXPECT_EQ(status(IOC_CHECK_VOLUME_FROZEN, deviceOf(one.loop())), -7);
}

TEST_F(VolumeStates, a_volume_that_is_mounted_nowhere_freezes_in_name) {
  const test::LoopDevice loop(kVolumeBytes);
  EXPECT_EQ(error(IOC_FREEZE, test::volumeListCommand({deviceOf(loop)})), 0);
  EXPECT_EQ(status(IOC_CHECK_VOLUME_FROZEN, deviceOf(loop)), -6);
  EXPECT_EQ(error(IOC_THAW, test::volumeListCommand({deviceOf(loop)})), 0);
}

TEST_F(VolumeStates, what_is_no_device_cannot_be_frozen) {
  EXPECT_EQ(error(IOC_FREEZE, test::volumeListCommand({{240, 77}})), ENXIO);
  EXPECT_EQ(status(IOC_CHECK_VOLUME_FROZEN, {240, 77}), -7);
}

TEST_F(VolumeStates, its_end_thaws_what_is_frozen) {
  const test::Volume volume("ext4", kVolumeBytes);
  ASSERT_EQ(error(IOC_FREEZE, test::volumeListCommand({deviceOf(volume.loop())})), 0);
  driver.reset();
  EXPECT_FALSE(test::isFrozen(volume.folder()));
}

// A file system in a file on another volume: its last writes go there.
TEST_F(VolumeStates, a_volume_on_another_one_is_frozen_first_and_thawed_last_whatever_the_order_asked) {
  const test::Volume outer("ext4", 32 << 20);
  const test::Volume stacked("ext4", kVolumeBytes, {}, outer.folder());
  const test::WireDevice inner = deviceOf(stacked.loop());
  test::writeFile(stacked.folder() + "/dirty", std::string(100000, 'x'));
  const auto both = test::volumeListCommand({deviceOf(outer.loop()), inner});
  EXPECT_EQ(error(IOC_FREEZE, both), 0);
  EXPECT_EQ(error(IOC_THAW, test::volumeListCommand({inner})), EDEADLK);
  EXPECT_EQ(error(IOC_THAW, both), 0);

  ASSERT_EQ(error(IOC_FREEZE, test::volumeListCommand({deviceOf(outer.loop())})), 0);
  EXPECT_EQ(error(IOC_FREEZE, test::volumeListCommand({inner})), EDEADLK);
  EXPECT_EQ(error(IOC_THAW, test::volumeListCommand({deviceOf(outer.loop())})), 0);
}

}  // namespace
