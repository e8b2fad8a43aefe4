// SPDX-License-Identifier: Apache-2.0
//
// Version, checks, freezing, mappings.
#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>

#include <cerrno>
#include <cstring>

#include "DriverFixture.h"
#include "base/Handle.h"

namespace {

using test::WireCommand;

// Whether a file system takes no writes: freezing it again is refused.
bool standsStill(const std::string& folder) {
  const UniqueFd root(open(folder.c_str(), O_RDONLY | O_CLOEXEC));
  if (ioctl(root.get(), FIFREEZE, 0) == 0) {
    ioctl(root.get(), FITHAW, 0);
    return false;
  }
  return errno == EBUSY;
}

struct DriverState : DriverTest {};

TEST_F(DriverState, the_version_is_the_one_it_was_given) {
  WireCommand command = test::versionCommand();
  EXPECT_EQ(ask(IOC_GET_DRIVER_VERSION, command).error, 0);
  EXPECT_STREQ(command.record<DriverVersionPayload>().version, "version 1");
}

TEST_F(DriverState, the_log_level_is_that_of_errors_until_it_is_set) {
  EXPECT_EQ(driver->logLevel(), 3u);
  EXPECT_EQ(error(IOC_SET_LOG_LEVEL, test::logLevelCommand(7)), 0);
  EXPECT_EQ(driver->logLevel(), 7u);
  EXPECT_EQ(error(IOC_SET_LOG_LEVEL, test::logLevelCommand(0)), 0);
  EXPECT_EQ(driver->logLevel(), 0u);
}

TEST_F(DriverState, a_volume_that_it_does_not_know_is_neither_snapped_nor_frozen) {
  EXPECT_EQ(status(IOC_CHECK_VOLUME_SNAPPED, {240, 1}), -4);
  EXPECT_EQ(status(IOC_CHECK_VOLUME_FROZEN, {240, 1}), -7);
}

// ---- freeze and thaw

TEST_F(DriverState, freezing_stops_the_file_systems_and_thawing_lets_them_go) {
  const test::Volume one("ext4", kVolumeBytes);
  const test::Volume two("ext4", kVolumeBytes);
  const auto both = test::volumeListCommand({deviceOf(one.loop()), deviceOf(two.loop())});
  EXPECT_EQ(error(IOC_FREEZE, both), 0);
  EXPECT_EQ(status(IOC_CHECK_VOLUME_FROZEN, deviceOf(one.loop())), -6);
  EXPECT_EQ(status(IOC_CHECK_VOLUME_FROZEN, deviceOf(two.loop())), -6);
  EXPECT_TRUE(standsStill(one.folder()));
  EXPECT_TRUE(standsStill(two.folder()));
  EXPECT_EQ(error(IOC_THAW, both), 0);
  EXPECT_EQ(status(IOC_CHECK_VOLUME_FROZEN, deviceOf(one.loop())), -7);
  EXPECT_FALSE(standsStill(one.folder()));
  EXPECT_FALSE(standsStill(two.folder()));
}

TEST_F(DriverState, freezing_a_frozen_volume_fails_with_6_and_freezes_none) {
  const test::Volume one("ext4", kVolumeBytes);
  const test::Volume two("ext4", kVolumeBytes);
  ASSERT_EQ(error(IOC_FREEZE, test::volumeListCommand({deviceOf(one.loop())})), 0);
  WireCommand both = test::volumeListCommand({deviceOf(two.loop()), deviceOf(one.loop())});
  EXPECT_EQ(ask(IOC_FREEZE, both).error, EBUSY);
  EXPECT_EQ(both.status(), -6);
  EXPECT_EQ(status(IOC_CHECK_VOLUME_FROZEN, deviceOf(two.loop())), -7);
  EXPECT_FALSE(standsStill(two.folder()));
  driver->thawAll();
}

TEST_F(DriverState, thawing_a_volume_that_is_not_frozen_fails_with_7_and_thaws_none) {
  const test::Volume one("ext4", kVolumeBytes);
  const test::Volume two("ext4", kVolumeBytes);
  ASSERT_EQ(error(IOC_FREEZE, test::volumeListCommand({deviceOf(one.loop())})), 0);
  WireCommand both = test::volumeListCommand({deviceOf(one.loop()), deviceOf(two.loop())});
  EXPECT_EQ(ask(IOC_THAW, both).error, EINVAL);
  EXPECT_EQ(both.status(), -7);
  EXPECT_TRUE(standsStill(one.folder()));
  driver->thawAll();
}

TEST_F(DriverState, a_volume_that_cannot_be_frozen_leaves_the_others_as_they_were) {
  const test::Volume one("ext4", kVolumeBytes);
  const test::Volume two("ext4", kVolumeBytes);
  const UniqueFd root(open(two.folder().c_str(), O_RDONLY | O_CLOEXEC));
  ASSERT_EQ(ioctl(root.get(), FIFREEZE, 0), 0);  // by somebody else
  EXPECT_EQ(error(IOC_FREEZE, test::volumeListCommand({deviceOf(one.loop()), deviceOf(two.loop())})), EBUSY);
  EXPECT_FALSE(standsStill(one.folder()));
  EXPECT_EQ(status(IOC_CHECK_VOLUME_FROZEN, deviceOf(one.loop())), -7);
  ioctl(root.get(), FITHAW, 0);
}

TEST_F(DriverState, a_volume_that_is_mounted_nowhere_freezes_in_name) {
  const test::LoopDevice loop(kVolumeBytes);
  EXPECT_EQ(error(IOC_FREEZE, test::volumeListCommand({deviceOf(loop)})), 0);
  EXPECT_EQ(status(IOC_CHECK_VOLUME_FROZEN, deviceOf(loop)), -6);
  EXPECT_EQ(error(IOC_THAW, test::volumeListCommand({deviceOf(loop)})), 0);
}

TEST_F(DriverState, what_is_no_device_cannot_be_frozen) {
  EXPECT_EQ(error(IOC_FREEZE, test::volumeListCommand({{240, 77}})), ENXIO);
  EXPECT_EQ(status(IOC_CHECK_VOLUME_FROZEN, {240, 77}), -7);
}

TEST_F(DriverState, its_end_thaws_what_is_frozen) {
  const test::Volume volume("ext4", kVolumeBytes);
  ASSERT_EQ(error(IOC_FREEZE, test::volumeListCommand({deviceOf(volume.loop())})), 0);
  driver.reset();
  EXPECT_FALSE(standsStill(volume.folder()));
}

// A file system in a file on another volume: its last writes go there.
TEST_F(DriverState, a_volume_on_another_one_is_frozen_first_and_thawed_last_whatever_the_order_asked) {
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

// ---- mappings

TEST_F(DriverState, mappings_of_several_processes_are_counted_and_listed_in_their_order) {
  EXPECT_EQ(count(IOC_GET_NUM_OF_RELOC_FILE_MAPPING), 0u);
  ASSERT_EQ(error(IOC_CREATE_RELOC_FILE_MAPPING, test::createMappingCommand(11, "/dev/a", "/r/a")), 0);
  ASSERT_EQ(error(IOC_CREATE_RELOC_FILE_MAPPING, test::createMappingCommand(12, "/dev/b", "/r/b")), 0);
  EXPECT_EQ(count(IOC_GET_NUM_OF_RELOC_FILE_MAPPING), 2u);
  WireCommand list = test::mappingListingCommand(2);
  ASSERT_EQ(ask(IOC_GET_RELOC_FILE_MAPPING, list).error, 0);
  EXPECT_EQ(list.requestValue(), 2u);
  const auto first = list.record<RelocFileMappingEntry>(0);
  EXPECT_EQ(first.appPid, 11);
  EXPECT_STREQ(first.snappedVolumeName, "/dev/a");
  EXPECT_STREQ(first.relocFileName, "/r/a");
  EXPECT_EQ(list.record<RelocFileMappingEntry>(1).appPid, 12);
}

TEST_F(DriverState, a_listing_fills_no_more_than_the_room_asked_and_says_how_much) {
  ASSERT_EQ(error(IOC_CREATE_RELOC_FILE_MAPPING, test::createMappingCommand(11, "/dev/a", "/r/a")), 0);
  ASSERT_EQ(error(IOC_CREATE_RELOC_FILE_MAPPING, test::createMappingCommand(12, "/dev/b", "/r/b")), 0);
  WireCommand one = test::mappingListingCommand(1);
  ASSERT_EQ(ask(IOC_GET_RELOC_FILE_MAPPING, one).error, 0);
  EXPECT_EQ(one.requestValue(), 1u);
  EXPECT_STREQ(one.record<RelocFileMappingEntry>(0).snappedVolumeName, "/dev/a");
  WireCommand five = test::mappingListingCommand(5);
  ASSERT_EQ(ask(IOC_GET_RELOC_FILE_MAPPING, five).error, 0);
  EXPECT_EQ(five.requestValue(), 2u);
  EXPECT_EQ(five.record<RelocFileMappingEntry>(2).appPid, 0);
  ASSERT_EQ(error(IOC_CREATE_RELOC_FILE_MAPPING, test::createMappingCommand(11, "/dev/a", "/r/again")), 0);
  WireCommand again = test::mappingListingCommand(1);
  ASSERT_EQ(ask(IOC_GET_RELOC_FILE_MAPPING, again).error, 0);
  EXPECT_STREQ(again.record<RelocFileMappingEntry>(0).relocFileName, "/r/again") << "it keeps its place";
  WireCommand none = test::mappingListingCommand(0);
  ASSERT_EQ(ask(IOC_GET_RELOC_FILE_MAPPING, none).error, 0);
  EXPECT_EQ(none.requestValue(), 0u);
}

TEST_F(DriverState, a_second_mapping_of_a_volume_replaces_the_same_processs_and_is_refused_to_another) {
  ASSERT_EQ(error(IOC_CREATE_RELOC_FILE_MAPPING, test::createMappingCommand(11, "/dev/a", "/r/a")), 0);
  EXPECT_EQ(error(IOC_CREATE_RELOC_FILE_MAPPING, test::createMappingCommand(12, "/dev/a", "/r/b")), EEXIST);
  EXPECT_EQ(error(IOC_CREATE_RELOC_FILE_MAPPING, test::createMappingCommand(11, "/dev/a", "/r/c")), 0);
  EXPECT_EQ(count(IOC_GET_NUM_OF_RELOC_FILE_MAPPING), 1u);
  WireCommand list = test::mappingListingCommand(1);
  ASSERT_EQ(ask(IOC_GET_RELOC_FILE_MAPPING, list).error, 0);
  EXPECT_STREQ(list.record<RelocFileMappingEntry>(0).relocFileName, "/r/c");
  EXPECT_EQ(list.record<RelocFileMappingEntry>(0).appPid, 11);
}

TEST_F(DriverState, a_mapping_is_deleted_by_its_volume_and_its_makers_process_id) {
  ASSERT_EQ(error(IOC_CREATE_RELOC_FILE_MAPPING, test::createMappingCommand(11, "/dev/a", "/r/a")), 0);
  EXPECT_EQ(error(IOC_DELETE_RELOC_FILE_MAPPING, test::deleteMappingCommand(12, "/dev/a")), ENOENT);
  EXPECT_EQ(error(IOC_DELETE_RELOC_FILE_MAPPING, test::deleteMappingCommand(11, "/dev/b")), ENOENT);
  EXPECT_EQ(count(IOC_GET_NUM_OF_RELOC_FILE_MAPPING), 1u);
  EXPECT_EQ(error(IOC_DELETE_RELOC_FILE_MAPPING, test::deleteMappingCommand(11, "/dev/a")), 0);
  EXPECT_EQ(count(IOC_GET_NUM_OF_RELOC_FILE_MAPPING), 0u);
  EXPECT_EQ(error(IOC_DELETE_RELOC_FILE_MAPPING, test::deleteMappingCommand(11, "/dev/a")), ENOENT);
}

TEST_F(DriverState, a_name_of_1023_bytes_comes_back_whole) {
  const std::string name = "/" + std::string(1022, 'n');
  ASSERT_EQ(error(IOC_CREATE_RELOC_FILE_MAPPING, test::createMappingCommand(11, name, name)), 0);
  WireCommand list = test::mappingListingCommand(1);
  ASSERT_EQ(ask(IOC_GET_RELOC_FILE_MAPPING, list).error, 0);
  EXPECT_EQ(list.record<RelocFileMappingEntry>(0).relocFileName, name);
}

}  // namespace
