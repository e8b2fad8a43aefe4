// SPDX-License-Identifier: Apache-2.0
//
// Snapped volumes: listing them, discarding their snapshots, cleaning up.
#include <fcntl.h>
#include <linux/fs.h>
#include <linux/loop.h>
#include <sys/ioctl.h>
#include <sys/mount.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <memory>

#include "DriverFixture.h"
#include "OwnWorld.h"
#include "base/Handle.h"

namespace {

using test::WireCommand;
using test::WireSnapVolume;

struct SnappedVolumes : DriverTest {};

TEST_F(SnappedVolumes, a_snapped_volume_is_counted_checked_and_listed) {
  const test::Volume volume("ext4", kVolumeBytes);
  const WireSnapVolume wire = candidate(volume.loop());
  ASSERT_EQ(snap({wire}), 0);
  EXPECT_EQ(status(IOC_CHECK_VOLUME_SNAPPED, wire.device), -2);
  EXPECT_EQ(count(IOC_GET_NUM_OF_SNAPPED_VOLUMES), 1u);
  WireCommand list = test::snappedListingCommand(3);
  ASSERT_EQ(ask(IOC_GET_SNAPPED_VOL_DETAILS, list), 0);
  EXPECT_EQ(list.requestValue(), 1u);
  const auto entry = list.record<SnappedVolumeEntry>(0);
  EXPECT_EQ(entry.numBlocks, wire.numBlocks);
  EXPECT_EQ(entry.blockSize, 4096u);
  EXPECT_EQ(entry.relocFileSize, 4u);
  EXPECT_EQ(entry.majorNum, 7u);
  EXPECT_EQ(entry.minorNum, volume.loop().minor());
  EXPECT_EQ(entry.appPid, getpid());
  EXPECT_EQ(entry.deviceState, 1u);
  EXPECT_STREQ(entry.relocFileName, wire.relocFile.c_str());
  EXPECT_STREQ(entry.snappedVolumeName, volume.device().c_str());
}

TEST_F(SnappedVolumes, a_listing_of_snapped_volumes_fills_no_more_than_the_room_asked) {
  const test::LoopDevice one(kVolumeBytes);
  const test::LoopDevice two(kVolumeBytes);
  ASSERT_EQ(snap({candidate(one), candidate(two)}), 0);
  WireCommand list = test::snappedListingCommand(1);
  ASSERT_EQ(ask(IOC_GET_SNAPPED_VOL_DETAILS, list), 0);
  EXPECT_EQ(list.requestValue(), 1u);
  EXPECT_STREQ(list.record<SnappedVolumeEntry>(0).snappedVolumeName, one.path().c_str());
}

// ---- discard

TEST_F(SnappedVolumes, discarding_names_the_relocation_file_and_takes_node_mapping_and_state_with_it) {
  const test::LoopDevice one(kVolumeBytes);
  const test::LoopDevice two(kVolumeBytes);
  const WireSnapVolume first = candidate(one);
  const WireSnapVolume second = candidate(two);
  ASSERT_EQ(snap({first, second}), 0);
  WireCommand command = test::discardCommand({first.device}, 1);
  ASSERT_EQ(ask(IOC_SNAP_DISCARD, command), 0);
  const auto record = command.record<DiscardEntry>(0);
  EXPECT_EQ(record.result, 0u);
  EXPECT_EQ(record.flag, 1u);
  EXPECT_STREQ(record.relocFileName, first.relocFile.c_str());
  EXPECT_FALSE(isSnapped(first.device));
  EXPECT_TRUE(isSnapped(second.device));
  EXPECT_FALSE(exists(nodeOf(one)));
  EXPECT_TRUE(exists(nodeOf(two)));
  WireCommand mappings = test::mappingListingCommand(2);
  ASSERT_EQ(ask(IOC_GET_RELOC_FILE_MAPPING, mappings), 0);
  EXPECT_EQ(mappings.requestValue(), 1u);
  EXPECT_STREQ(mappings.record<RelocFileMappingEntry>(0).snappedVolumeName, two.path().c_str());
  // The file is the caller's to remove.
  EXPECT_TRUE(exists(first.relocFile));
}

TEST_F(SnappedVolumes, discarding_a_volume_that_is_not_snapped_fails_with_4_and_leaves_the_record) {
  WireCommand command = test::discardCommand({{7, 99}});
  EXPECT_EQ(ask(IOC_SNAP_DISCARD, command), ENOENT);
  EXPECT_EQ(command.status(), -4);
  EXPECT_EQ(command.record<DiscardEntry>(0).result, 0u);
  EXPECT_STREQ(command.record<DiscardEntry>(0).relocFileName, "");
}

TEST_F(SnappedVolumes, discarding_several_of_which_one_is_not_snapped_fails_with_5_and_discards_none) {
  const test::LoopDevice loop(kVolumeBytes);
  const WireSnapVolume volume = candidate(loop);
  ASSERT_EQ(snap({volume}), 0);
  WireCommand command = test::discardCommand({volume.device, {7, 99}});
  EXPECT_EQ(ask(IOC_SNAP_DISCARD, command), ENOENT);
  EXPECT_EQ(command.status(), -5);
  EXPECT_STREQ(command.record<DiscardEntry>(0).relocFileName, "");
  EXPECT_TRUE(isSnapped(volume.device));
  EXPECT_TRUE(exists(nodeOf(loop)));
}

TEST_F(SnappedVolumes, a_volume_can_be_snapped_again_after_the_discard) {
  const test::LoopDevice loop(kVolumeBytes);
  for (int i = 0; i < 3; ++i) {
    const WireSnapVolume volume = candidate(loop);
    ASSERT_EQ(snap({volume}), 0);
    ASSERT_EQ(error(IOC_SNAP_DISCARD, test::discardCommand({volume.device})), 0);
  }
}

TEST_F(SnappedVolumes, a_snapshot_that_is_mounted_while_it_is_discarded_stays_until_it_is_not) {
  const test::Volume volume("ext4", kVolumeBytes);
  test::writeFile(volume.folder() + "/file", "kept");
  const WireSnapVolume wire = candidate(volume.loop());
  ASSERT_EQ(snap({wire}), 0);
  const test::TempDir folder;
  {
    const test::Mounted snapshot(nodeOf(volume.loop()), folder.path(), "ext4", MS_RDONLY);
    EXPECT_EQ(error(IOC_SNAP_DISCARD, test::discardCommand({wire.device})), 0);
    EXPECT_EQ(test::readFile(folder / "file"), "kept");
    EXPECT_FALSE(isSnapped(wire.device));
  }
  ASSERT_EQ(snap({candidate(volume.loop())}), 0);
}

TEST_F(SnappedVolumes, a_snapshot_that_was_discarded_while_it_was_mounted_goes_with_the_first_command_after_that) {
  const test::Volume volume("ext4", kVolumeBytes);
  const WireSnapVolume wire = candidate(volume.loop());
  ASSERT_EQ(snap({wire}), 0);
  const test::TempDir folder;
  std::string loop;
  {
    const test::Mounted snapshot(nodeOf(volume.loop()), folder.path(), "ext4", MS_RDONLY);
    struct stat inside;
    ASSERT_EQ(stat(folder.path().c_str(), &inside), 0);
    loop = "/sys/dev/block/7:" + std::to_string(gnu_dev_minor(inside.st_dev)) + "/loop/backing_file";
    EXPECT_EQ(error(IOC_SNAP_DISCARD, test::discardCommand({wire.device})), 0);
    EXPECT_FALSE(isSnapped(wire.device));
    EXPECT_EQ(access(loop.c_str(), F_OK), 0) << "it is in use";
  }
  EXPECT_FALSE(isSnapped(wire.device));
  EXPECT_EQ(access(loop.c_str(), F_OK), -1);
}

TEST_F(SnappedVolumes, the_drivers_end_unmounts_snapshots_also_discarded_ones_and_frees_their_devices) {
  const test::Volume one("ext4", kVolumeBytes);
  const test::Volume two("ext4", kVolumeBytes);
  const WireSnapVolume first = candidate(one.loop());
  ASSERT_EQ(snap({first, candidate(two.loop())}), 0);
  const test::TempDir folders;
  const std::string a = folders / "a";
  const std::string b = folders / "b";
  mkdir(a.c_str(), 0755);
  mkdir(b.c_str(), 0755);
  ASSERT_EQ(mount(nodeOf(one.loop()).c_str(), a.c_str(), "ext4", MS_RDONLY, nullptr), 0);
  ASSERT_EQ(mount(nodeOf(two.loop()).c_str(), b.c_str(), "ext4", MS_RDONLY, nullptr), 0);
  struct stat inside;
  ASSERT_EQ(stat(a.c_str(), &inside), 0);
  const std::string bound = "/sys/dev/block/7:" + std::to_string(gnu_dev_minor(inside.st_dev)) + "/loop/backing_file";
  // The device may be another program's right after: what matters is whose file is behind it.
  const auto showsAnImage = [&] {
    std::ifstream file(bound);
    std::string path;
    return std::getline(file, path) && path.starts_with(store.path());
  };
  EXPECT_TRUE(showsAnImage());
  ASSERT_EQ(error(IOC_SNAP_DISCARD, test::discardCommand({first.device})), 0);
  driver.reset();
  EXPECT_NE(test::unmount(a), 0);
  EXPECT_NE(test::unmount(b), 0);
  EXPECT_FALSE(showsAnImage());
  EXPECT_FALSE(exists(nodeOf(two.loop())));
}

// ---- verify and clean

// Whether a loop device has a file behind it. Another program may take a device that a test has let go: then the test
// begins again.
bool isBound(test::WireDevice device) {
  return access(("/sys/dev/block/7:" + std::to_string(device.minorNum) + "/loop").c_str(), F_OK) == 0;
}

TEST_F(SnappedVolumes, verify_and_clean_drops_what_has_no_device_any_more_and_keeps_the_rest) {
  while (true) {
    make();
    const test::LoopDevice stays(kVolumeBytes);
    auto goes = std::make_unique<test::LoopDevice>(kVolumeBytes);
    const test::WireDevice gone = deviceOf(*goes);
    const std::string node = nodeOf(*goes);
    ASSERT_EQ(snap({candidate(stays), candidate(*goes)}), 0);
    ASSERT_EQ(error(IOC_VERIFY_AND_CLEAN_VOLUMES, test::verifyCommand()), 0);
    EXPECT_EQ(count(IOC_GET_NUM_OF_SNAPPED_VOLUMES), 2u);
    EXPECT_EQ(count(IOC_GET_NUM_OF_RELOC_FILE_MAPPING), 2u);
    goes.reset();
    ASSERT_EQ(error(IOC_VERIFY_AND_CLEAN_VOLUMES, test::verifyCommand()), 0);
    if (isBound(gone)) continue;
    EXPECT_EQ(count(IOC_GET_NUM_OF_SNAPPED_VOLUMES), 1u);
    EXPECT_EQ(count(IOC_GET_NUM_OF_RELOC_FILE_MAPPING), 1u);
    EXPECT_FALSE(isSnapped(gone));
    EXPECT_FALSE(exists(node));
    EXPECT_TRUE(isSnapped(deviceOf(stays)));
    return;
  }
}

TEST_F(SnappedVolumes, verify_and_clean_drops_mappings_of_devices_that_are_gone) {
  while (true) {
    make();
    auto goes = std::make_unique<test::LoopDevice>(kVolumeBytes);
    const test::WireDevice gone = deviceOf(*goes);
    candidate(*goes);
    ASSERT_EQ(error(IOC_CREATE_RELOC_FILE_MAPPING, test::createMappingCommand(1, "/dev/never-there", "/r")), 0);
    goes.reset();
    ASSERT_EQ(error(IOC_VERIFY_AND_CLEAN_VOLUMES, test::verifyCommand()), 0);
    if (isBound(gone)) continue;
    // What never named a device cannot be said to have lost one.
    EXPECT_EQ(count(IOC_GET_NUM_OF_RELOC_FILE_MAPPING), 1u);
    return;
  }
}

}  // namespace
