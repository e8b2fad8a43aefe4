// SPDX-License-Identifier: Apache-2.0
//
// The snap command.
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
#include "Frozen.h"
#include "base/Handle.h"

namespace {

using test::WireCommand;
using test::WireSnapVolume;

struct Snapping : DriverTest {
  emulator::Refusal refusal(const std::vector<WireSnapVolume>& volumes) {
    WireCommand command = test::snapCommand(volumes);
    return answer(IOC_SNAP, command).error();
  }
};

TEST_F(Snapping, the_snapshot_is_a_read_only_block_device_of_the_same_size_and_sector_size) {
  const test::LoopDevice loop(kVolumeBytes);
  ASSERT_EQ(snap({candidate(loop)}), 0);
  struct stat node;
  ASSERT_EQ(stat(nodeOf(loop).c_str(), &node), 0);
  EXPECT_TRUE(S_ISBLK(node.st_mode));
  const UniqueFd device(open(nodeOf(loop).c_str(), O_RDONLY | O_CLOEXEC));
  std::uint64_t bytes = 0;
  int readOnly = 0;
  int sectorSize = 0;
  ASSERT_EQ(ioctl(device.get(), BLKGETSIZE64, &bytes), 0);
  ASSERT_EQ(ioctl(device.get(), BLKROGET, &readOnly), 0);
  ASSERT_EQ(ioctl(device.get(), BLKSSZGET, &sectorSize), 0);
  EXPECT_EQ(bytes, kVolumeBytes);
  EXPECT_NE(readOnly, 0);
  EXPECT_EQ(sectorSize, 512);
}

TEST_F(Snapping, an_unmounted_volumes_snapshot_holds_its_bytes) {
  const test::LoopDevice loop(kVolumeBytes);
  const std::string data(8192, 'd');
  {
    const UniqueFd device(open(loop.path().c_str(), O_WRONLY | O_CLOEXEC));
    ASSERT_EQ(pwrite(device.get(), data.data(), data.size(), 1 << 20), 8192);  // still in the page cache
    ASSERT_EQ(snap({candidate(loop)}), 0);
    ASSERT_EQ(pwrite(device.get(), "later", 5, 1 << 20), 5);
    ASSERT_EQ(fsync(device.get()), 0);
  }
  const UniqueFd snapshot(open(nodeOf(loop).c_str(), O_RDONLY | O_CLOEXEC));
  std::string seen(8192, '\0');
  ASSERT_EQ(pread(snapshot.get(), seen.data(), seen.size(), 1 << 20), 8192);
  EXPECT_EQ(seen, data);
}

TEST_F(Snapping, a_snapped_volume_alone_is_refused_with_2_and_among_several_with_3) {
  const test::LoopDevice one(kVolumeBytes);
  const test::LoopDevice two(kVolumeBytes);
  const WireSnapVolume first = candidate(one);
  const WireSnapVolume second = candidate(two);
  ASSERT_EQ(snap({first}), 0);
  const emulator::Refusal alone = refusal({first});
  EXPECT_EQ(alone.error, EBUSY);
  EXPECT_EQ(alone.status, -2);
  const emulator::Refusal among = refusal({second, first});
  EXPECT_EQ(among.error, EBUSY);
  EXPECT_EQ(among.status, -3);
  EXPECT_FALSE(isSnapped(second.device));
  EXPECT_FALSE(exists(nodeOf(two)));
}

TEST_F(Snapping, a_size_that_is_no_longer_the_devices_is_refused_with_8) {
  const test::LoopDevice loop(kVolumeBytes + 1024);
  WireSnapVolume volume = candidate(loop);
  for (const int more : {-1, 1}) {
    WireSnapVolume changed = volume;
    changed.numBlocks += static_cast<std::uint64_t>(more);
    const emulator::Refusal answer = refusal({changed});
    EXPECT_EQ(answer.error, ESTALE);
    EXPECT_EQ(answer.status, -8);
  }
  // What is left behind the last whole block does not count.
  EXPECT_EQ(snap({volume}), 0);
}

TEST_F(Snapping, a_volume_without_a_device_is_refused) {
  const test::LoopDevice loop(kVolumeBytes);
  WireSnapVolume volume = candidate(loop);
  volume.device = {240, 77};
  EXPECT_EQ(snap({volume}), ENXIO);
}

TEST_F(Snapping, is_refused_without_the_mapping_of_its_process_volume_and_file) {
  const test::LoopDevice loop(kVolumeBytes);
  const WireSnapVolume volume = candidate(loop);
  WireSnapVolume other = volume;
  other.process = 1;
  EXPECT_EQ(snap({other}), EINVAL);
  other = volume;
  other.name = "/dev/loop-else";
  EXPECT_EQ(snap({other}), EINVAL);
  other = volume;
  other.relocFile += "x";
  EXPECT_EQ(snap({other}), EINVAL);
  ASSERT_EQ(error(IOC_DELETE_RELOC_FILE_MAPPING, test::deleteMappingCommand(getpid(), volume.name)), 0);
  EXPECT_EQ(snap({volume}), EINVAL);
  EXPECT_EQ(count(IOC_GET_NUM_OF_SNAPPED_VOLUMES), 0u);
}

// ---- relocation files

TEST_F(Snapping, is_refused_without_its_relocation_file_or_when_that_is_too_small_or_no_file) {
  const test::LoopDevice loop(kVolumeBytes);
  const WireSnapVolume volume = candidate(loop);
  WireSnapVolume bigger = volume;
  bigger.relocBlocks = 5;
  EXPECT_EQ(snap({bigger}), EINVAL);
  ASSERT_EQ(unlink(volume.relocFile.c_str()), 0);
  EXPECT_EQ(snap({volume}), ENOENT);
  ASSERT_EQ(mkdir(volume.relocFile.c_str(), 0755), 0);
  EXPECT_EQ(snap({volume}), EINVAL);
}

TEST_F(Snapping, the_relocation_file_lies_on_the_volume_that_is_said_to_hold_it) {
  const test::LoopDevice loop(kVolumeBytes);
  const test::Volume holder("ext4", kVolumeBytes);
  WireSnapVolume volume = candidate(loop);
  volume.relocFile = holder.folder() + "/reloc";
  makeRelocFile(volume.relocFile, 4 * 4096);
  ASSERT_EQ(error(IOC_CREATE_RELOC_FILE_MAPPING, test::createMappingCommand(getpid(), volume.name, volume.relocFile)),
            0);
  volume.relocDevice = {7, loop.minor()};
  EXPECT_EQ(snap({volume}), EINVAL);
  volume.relocDevice = deviceOf(holder.loop());
  EXPECT_EQ(snap({volume}), 0);
}

TEST_F(Snapping, a_relocation_file_on_its_own_volume_is_covered_by_the_runs) {
  const test::Volume own("ext4", kVolumeBytes);
  WireSnapVolume volume = candidate(own.loop());
  volume.relocFile = own.folder() + "/reloc";
  volume.relocDevice = volume.device;
  makeRelocFile(volume.relocFile, 4 * 4096);
  ASSERT_EQ(error(IOC_CREATE_RELOC_FILE_MAPPING, test::createMappingCommand(getpid(), volume.name, volume.relocFile)),
            0);
  EXPECT_EQ(snap({volume}), EINVAL);
  volume.runs = {{100, 2}, {200, 1}};
  EXPECT_EQ(snap({volume}), EINVAL);
  volume.runs = {{100, 2}, {200, 2}};
  EXPECT_EQ(snap({volume}), 0);
}

TEST_F(Snapping, is_refused_with_a_relocation_file_that_is_not_roots_alone) {
  const test::LoopDevice loop(kVolumeBytes);
  const WireSnapVolume volume = candidate(loop);
  const char* const file = volume.relocFile.c_str();
  for (const mode_t mode : {0640, 0620, 0604, 0602, 0610, 0601}) {
    ASSERT_EQ(chmod(file, mode), 0);
    EXPECT_EQ(snap({volume}), EPERM) << std::oct << mode;
  }
  ASSERT_EQ(chmod(file, 0600), 0);
  ASSERT_EQ(chown(file, 1000, 0), 0);
  EXPECT_EQ(snap({volume}), EPERM);
  ASSERT_EQ(chown(file, 0, 0), 0);
  const std::string second = volume.relocFile + "-second";
  ASSERT_EQ(link(file, second.c_str()), 0);
  EXPECT_EQ(snap({volume}), EPERM);
  ASSERT_EQ(unlink(second.c_str()), 0);
  EXPECT_EQ(snap({volume}), 0);
}

TEST_F(Snapping, is_refused_with_a_relocation_file_that_is_reached_through_a_link) {
  const test::LoopDevice loop(kVolumeBytes);
  WireSnapVolume volume = candidate(loop);
  const std::string moved = files / "moved";
  ASSERT_EQ(rename(volume.relocFile.c_str(), moved.c_str()), 0);
  ASSERT_EQ(symlink(moved.c_str(), volume.relocFile.c_str()), 0);
  EXPECT_EQ(snap({volume}), ELOOP);
  ASSERT_EQ(symlink(".", (files / "folder").c_str()), 0);
  volume.relocFile = files / "folder/moved";
  ASSERT_EQ(error(IOC_CREATE_RELOC_FILE_MAPPING, test::createMappingCommand(getpid(), volume.name, volume.relocFile)),
            0);
  EXPECT_EQ(snap({volume}), ELOOP);
}

// ---- all or nothing

TEST_F(Snapping, leaves_nothing_when_one_volume_of_several_cannot_be_snapped) {
  const test::Volume good("ext4", kVolumeBytes);
  const test::Volume bad("ext4", kVolumeBytes);
  test::Frozen frozen(bad.folder());  // by somebody else
  EXPECT_EQ(snap({candidate(good.loop()), candidate(bad.loop())}), EBUSY);
  frozen.thaw();
  EXPECT_FALSE(exists(nodeOf(good.loop())));
  EXPECT_EQ(count(IOC_GET_NUM_OF_SNAPPED_VOLUMES), 0u);
  test::writeFile(good.folder() + "/written", "it is thawed");
}

TEST_F(Snapping, a_node_that_cannot_be_made_undoes_the_whole_set) {
  const test::LoopDevice one(kVolumeBytes);
  const test::LoopDevice two(kVolumeBytes);
  const std::vector<WireSnapVolume> both = {candidate(one), candidate(two)};
  test::writeFile(nodeOf(two), "in the way");
  EXPECT_EQ(snap(both), EEXIST);
  EXPECT_FALSE(exists(nodeOf(one)));
  EXPECT_EQ(test::readFile(nodeOf(two)), "in the way");
  unlink(nodeOf(two).c_str());
  EXPECT_EQ(snap(both), 0);
}

TEST_F(Snapping, a_node_that_an_earlier_run_left_makes_room) {
  const test::LoopDevice loop(kVolumeBytes);
  const test::Node stale(nodeOf(loop), S_IFBLK, 7, 255);
  ASSERT_EQ(snap({candidate(loop)}), 0);
  struct stat node;
  ASSERT_EQ(stat(nodeOf(loop).c_str(), &node), 0);
  EXPECT_NE(node.st_rdev, makedev(7, 255));
}

TEST_F(Snapping, a_store_without_room_is_named_and_leaves_nothing) {
  const test::Volume volume("ext4", kVolumeBytes);
  test::writeFile(volume.folder() + "/data", std::string(4 << 20, 'x'));
  const test::Mounted room("room", store.path(), "tmpfs", 0, "size=256k");
  const emulator::Refusal answer = refusal({candidate(volume.loop())});
  EXPECT_EQ(answer.error, ENOSPC);
  EXPECT_EQ(answer.why,
            "the store has no room for the image of " + std::string("7:") + std::to_string(volume.loop().minor()));
  test::writeFile(volume.folder() + "/written", "it is thawed");
}

TEST_F(Snapping, a_store_on_a_volume_of_the_set_is_refused) {
  const test::Volume volume("ext4", kVolumeBytes);
  driver = std::make_unique<emulator::EmulatedDriver>(
      kernel, messages, emulator::DriverSettings{"", {volume.folder()}, std::chrono::seconds(60)});
  EXPECT_EQ(snap({candidate(volume.loop())}), EDEADLK);
}

// The store's file system lies in a file on the volume: it would stand still with it.
TEST_F(Snapping, a_store_that_stands_on_a_volume_of_the_set_is_passed_by_for_the_next) {
  const test::Volume volume("ext4", 32 << 20);
  const test::Volume inner("ext4", kVolumeBytes, {}, volume.folder());
  driver = std::make_unique<emulator::EmulatedDriver>(
      kernel, messages, emulator::DriverSettings{"", {inner.folder()}, std::chrono::seconds(60)});
  EXPECT_EQ(snap({candidate(volume.loop(), 32 << 20)}), EDEADLK);
  driver = std::make_unique<emulator::EmulatedDriver>(
      kernel, messages, emulator::DriverSettings{"", {inner.folder(), store.path()}, std::chrono::seconds(60)});
  EXPECT_EQ(snap({candidate(volume.loop(), 32 << 20)}), 0);
  driver.reset();
}

TEST_F(Snapping, a_standstill_that_lasts_too_long_is_given_up_and_thawed) {
  const test::Volume volume("ext4", kVolumeBytes);
  make(std::chrono::milliseconds(0));
  EXPECT_EQ(snap({candidate(volume.loop())}), ETIMEDOUT);
  test::writeFile(volume.folder() + "/written", "it is thawed");
  EXPECT_FALSE(exists(nodeOf(volume.loop())));
}

TEST_F(Snapping, is_refused_once_the_emulator_is_ending) {
  const test::Volume volume("ext4", kVolumeBytes);
  const WireSnapVolume wire = candidate(volume.loop());
  driver->cancel();
  EXPECT_EQ(snap({wire}), ECANCELED);
  test::writeFile(volume.folder() + "/written", "it is thawed");
}

TEST_F(Snapping, a_volume_that_is_frozen_is_snapped_and_stays_frozen) {
  const test::Volume volume("ext4", kVolumeBytes);
  const WireSnapVolume wire = candidate(volume.loop());
  ASSERT_EQ(error(IOC_FREEZE, test::volumeListCommand({wire.device})), 0);
  EXPECT_EQ(snap({wire}), 0);
  EXPECT_EQ(status(IOC_CHECK_VOLUME_FROZEN, wire.device), -6);
  EXPECT_EQ(error(IOC_THAW, test::volumeListCommand({wire.device})), 0);
}

TEST_F(Snapping, a_device_in_use_whose_mount_cannot_be_seen_is_refused) {
  const test::LoopDevice loop(kVolumeBytes);
  const UniqueFd claim(open(loop.path().c_str(), O_RDONLY | O_EXCL | O_CLOEXEC));
  EXPECT_EQ(snap({candidate(loop)}), EBUSY);
}

}  // namespace
