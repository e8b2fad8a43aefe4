// SPDX-License-Identifier: Apache-2.0
//
// The searches among the other mounted file systems.
#include <climits>

#include "RelocTest.h"

namespace test {
namespace {

constexpr unsigned long kManyEntries = 1UL << 40;

class SetRelocFileLocation : public RelocTest {
 protected:
  // A volume of 1,000,000 blocks of 1 KB.
  SetRelocFileLocation() : volume(machine.device("volume")), reloc(volume, 1024, 1000000UL, kManyEntries) {
    log.clear();
  }

  const std::string volume;
  LinuxSnapshotreloc reloc;
};

TEST_F(SetRelocFileLocation, takes_the_file_system_with_the_most_free_space) {
  const std::string a = machine.device("a");
  const std::string b = machine.device("b");
  const std::string c = machine.device("c");
  const std::string onA = machine.mount(a, {1000, 10});
  const std::string onB = machine.mount(b, {3007, 20, kExt});
  const std::string onC = machine.mount(c, {2000, 30});
  EXPECT_EQ(reloc.SetRelocFileLocation(false), 0u);
  EXPECT_EQ(reloc.mRelocDirName, onB + "/.verrelocarea");
  EXPECT_EQ(reloc.mRelocFileName, onB + "/.verrelocarea/volume");
  EXPECT_EQ(reloc.mRelocDeviceName, b);
  EXPECT_EQ(reloc.mVolMountPoint, onB);
  EXPECT_EQ(reloc.mFSType, 0xEF53u);
  EXPECT_EQ(reloc.mRelocNumBlks, 300u);
  EXPECT_EQ(messages(),
            (Lines{"[7] Volume being checked: " + onA + ".\n", "[7] AvailS: 1000, UsedS: 10, blockSize: 1024.\n",
                   "[7] Volume being checked: " + onB + ".\n", "[7] AvailS: 3007, UsedS: 20, blockSize: 1024.\n",
                   "[7] Volume being checked: " + onC + ".\n", "[7] AvailS: 2000, UsedS: 30, blockSize: 1024.\n",
                   "[7] Reloc in other volume: relocSizeBasedOnAvailSize: 300, relocSizeBasedOnVolSize: 100000.\n"}));
  EXPECT_EQ(referencesLeft(), 0u);
}

TEST_F(SetRelocFileLocation, sizes_the_file_by_a_tenth_of_the_free_space_in_whole_KB) {
  machine.mount(machine.device("a"), {1009, 0});
  reloc.mBlockSize = 512;
  EXPECT_EQ(reloc.SetRelocFileLocation(false), 0u);
  EXPECT_EQ(reloc.mRelocNumBlks, 200u);
}

TEST_F(SetRelocFileLocation, sizes_the_file_by_a_tenth_of_the_volume) {
  machine.mount(machine.device("a"), {gib(100), 0});
  reloc.mNumBlocksOfVolume = 1009;
  EXPECT_EQ(reloc.SetRelocFileLocation(false), 0u);
  EXPECT_EQ(reloc.mRelocNumBlks, 100u);
}

TEST_F(SetRelocFileLocation, sizes_the_file_by_the_drivers_memory) {
  machine.mount(machine.device("a"), {gib(100), 0});
  reloc.mRelocEntriesInMemory = 77;
  EXPECT_EQ(reloc.SetRelocFileLocation(false), 0u);
  EXPECT_EQ(reloc.mRelocNumBlks, 77u);
}

TEST_F(SetRelocFileLocation, counts_blocks_of_the_volume_not_of_the_file_system) {
  machine.mount(machine.device("a"), {10000, 0});
  reloc.mBlockSize = 4096;
  EXPECT_EQ(reloc.SetRelocFileLocation(false), 0u);
  EXPECT_EQ(reloc.mRelocNumBlks, 250u);
}

TEST_F(SetRelocFileLocation, skips_every_mount_of_the_volume_itself_without_a_word) {
  machine.mount(volume, {gib(50), 0});
  machine.mount(volume, {gib(50), 0});
  EXPECT_EQ(reloc.SetRelocFileLocation(false), 21u);
  EXPECT_EQ(messages(), (Lines{"[3] Not enough space to create reloc file.\n"}));
  EXPECT_EQ(driver.calls().size(), 0u);
  EXPECT_EQ(referencesLeft(), 0u);
}

TEST_F(SetRelocFileLocation, takes_a_device_whose_name_only_begins_like_the_volumes) {
  machine.mount(machine.device("vol"), {1000, 0});
  machine.mount(machine.device("volume1"), {2000, 0});
  EXPECT_EQ(reloc.SetRelocFileLocation(false), 0u);
  EXPECT_EQ(reloc.mRelocDeviceName, "/dev/volume1");
  EXPECT_EQ(log.count(7, "AvailS: 1000, UsedS: 0, blockSize: 1024.\n"), 1u) << "the shorter name is looked at too";
}

TEST_F(SetRelocFileLocation, skips_snapped_frozen_and_read_only_file_systems) {
  const std::string a = machine.device("a");
  const std::string b = machine.device("b");
  const std::string c = machine.device("c");
  const std::string onA = machine.mount(a, {1000, 0});
  const std::string onB = machine.mount(b, {1000, 0});
  const std::string onC = machine.mount(c, {1000, 0});
  machine.snapped(a);
  machine.frozen(b);
  machine.makeReadOnly(onC);
  EXPECT_EQ(reloc.SetRelocFileLocation(false), 21u);
  EXPECT_EQ(messages(), (Lines{"[7] Volume being checked: " + onA + ".\n", "[7] Volume " + a + " is already snapped.\n",
                               "[7] Volume being checked: " + onB + ".\n", "[7] Volume " + b + " is already frozen.\n",
                               "[7] Volume being checked: " + onC + ".\n", "[7] Volume " + onC + " is read only.\n",
                               "[3] Not enough space to create reloc file.\n"}));
  EXPECT_EQ(driver.calls(IOC_CHECK_VOLUME_FROZEN).size(), 2u) << "a snapped volume is not asked again";
}

TEST_F(SetRelocFileLocation, asks_for_snapped_then_frozen_then_writable) {
  const std::string a = machine.device("a");
  const std::string b = machine.device("b");
  const std::string onA = machine.mount(a, {1000, 0});
  const std::string onB = machine.mount(b, {1000, 0});
  machine.snapped(a);
  for (const std::string& device : {a, b}) machine.frozen(device);
  for (const std::string& folder : {onA, onB}) machine.makeReadOnly(folder);
  EXPECT_EQ(reloc.SetRelocFileLocation(false), 21u);
  EXPECT_EQ(messages(), (Lines{"[7] Volume being checked: " + onA + ".\n", "[7] Volume " + a + " is already snapped.\n",
                               "[7] Volume being checked: " + onB + ".\n", "[7] Volume " + b + " is already frozen.\n",
                               "[3] Not enough space to create reloc file.\n"}));
}

TEST_F(SetRelocFileLocation, finds_nothing_in_an_empty_table) {
  EXPECT_EQ(reloc.SetRelocFileLocation(false), 21u);
  EXPECT_EQ(messages(), (Lines{"[3] Not enough space to create reloc file.\n"}));
}

TEST_F(SetRelocFileLocation, keeps_the_earlier_of_two_with_equal_free_space) {
  const std::string later = machine.device("b");
  const std::string earlier = machine.device("a");
  machine.mount(later, {1000, 0});
  machine.mount(earlier, {1000, 0});
  EXPECT_EQ(reloc.SetRelocFileLocation(false), 0u);
  EXPECT_EQ(reloc.mRelocDeviceName, earlier);
}

TEST_F(SetRelocFileLocation, takes_the_sizes_before_it_where_they_cannot_be_read) {
  const std::string a = machine.device("a");
  const std::string b = machine.device("b");
  const std::string onA = machine.mount(a, {1000, 5});
  const std::string onB = machine.mount(b, {0, 0});
  machine.hideSizes(onB);
  EXPECT_EQ(reloc.SetRelocFileLocation(false), 0u);
  EXPECT_EQ(reloc.mRelocDeviceName, a) << "equal sizes do not replace";
  EXPECT_EQ(log.count(7, "AvailS: 1000, UsedS: 5, blockSize: 1024.\n"), 2u);
}

TEST_F(SetRelocFileLocation, without_a_singleton_asks_no_driver) {
  const std::string a = machine.device("a");
  machine.mount(a, {1000, 0});
  machine.snapped(a);
  SnapDriverInterface::releaseInstance();
  hooks.noMemory = true;
  EXPECT_EQ(reloc.SetRelocFileLocation(false), 0u);
  hooks.noMemory = false;
  EXPECT_EQ(reloc.mRelocDeviceName, a);
  EXPECT_EQ(driver.calls().size(), 0u);
  EXPECT_EQ(SnapDriverInterface::mReferenceCount, 0u);
}

TEST_F(SetRelocFileLocation, makes_and_drops_the_singleton_when_nobody_holds_it) {
  machine.mount(machine.device("a"), {1000, 0});
  SnapDriverInterface::releaseInstance();
  EXPECT_EQ(reloc.SetRelocFileLocation(false), 0u);
  EXPECT_EQ(driver.calls(IOC_CHECK_VOLUME_SNAPPED).size(), 1u);
  EXPECT_EQ(SnapDriverInterface::mInstance, nullptr);
  EXPECT_EQ(SnapDriverInterface::mReferenceCount, 0u);
}

// --- FAT.

TEST_F(SetRelocFileLocation, takes_fat_when_there_is_nothing_else) {
  const std::string a = machine.device("a");
  const std::string onA = machine.mount(a, {1000, 0, kFat});
  EXPECT_EQ(reloc.SetRelocFileLocation(false), 0u);
  EXPECT_EQ(reloc.mRelocDeviceName, a);
  EXPECT_EQ(reloc.mFSType, 0x4D44u);
  EXPECT_EQ(messages(),
            (Lines{"[7] Volume being checked: " + onA + ".\n", "[7] Volume being checked is FAT \n",
                   "[7] savedAvailableSize before 0 ", "[7] savedAvailableSize after 1000",
                   "[7] Reloc in other volume: relocSizeBasedOnAvailSize: 100, relocSizeBasedOnVolSize: 100000.\n"}));
}

TEST_F(SetRelocFileLocation, takes_the_largest_fat_and_names_only_those_that_lead) {
  const std::string c = machine.device("c");
  machine.mount(machine.device("b"), {1000, 0, kFat});
  machine.mount(c, {2000, 0, kFat});
  machine.mount(machine.device("d"), {2000, 0, kFat});
  EXPECT_EQ(reloc.SetRelocFileLocation(false), 0u);
  EXPECT_EQ(reloc.mRelocDeviceName, c);
  EXPECT_EQ(log.count(7, "Volume being checked is FAT \n"), 2u);
}

TEST_F(SetRelocFileLocation, takes_a_larger_fat_when_the_other_has_less_than_40_GiB_free) {
  const std::string fat = machine.device("fat");
  machine.mount(machine.device("a"), {0x27FFFFF, 0, kExt});
  machine.mount(fat, {0x2800000, 0, kFat});
  EXPECT_EQ(reloc.SetRelocFileLocation(false), 0u);
  EXPECT_EQ(reloc.mRelocDeviceName, fat);
  EXPECT_TRUE(log.has(7, "savedAvailableSize before 41943039 "));
  EXPECT_TRUE(log.has(7, "savedAvailableSize after 41943040"));
}

TEST_F(SetRelocFileLocation, never_takes_fat_when_the_other_has_40_GiB_free) {
  const std::string a = machine.device("a");
  machine.mount(a, {0x2800000, 0, kExt});
  machine.mount(machine.device("fat"), {gib(1000), 0, kFat});
  EXPECT_EQ(reloc.SetRelocFileLocation(false), 0u);
  EXPECT_EQ(reloc.mRelocDeviceName, a);
  EXPECT_EQ(reloc.mFSType, 0xEF53u);
  EXPECT_EQ(log.count(7, "savedAvailableSize before 41943040 "), 0u);
}

TEST_F(SetRelocFileLocation, does_not_take_a_fat_with_as_much_free_space) {
  const std::string a = machine.device("a");
  machine.mount(a, {1000, 0, kExt});
  machine.mount(machine.device("fat"), {1000, 0, kFat});
  EXPECT_EQ(reloc.SetRelocFileLocation(false), 0u);
  EXPECT_EQ(reloc.mRelocDeviceName, a);
}

// --- Only if larger.

TEST_F(SetRelocFileLocation, only_if_larger_refuses_as_much_free_space_as_the_volume_has) {
  machine.mount(machine.device("a"), {1000, 0});
  reloc.mAvailSizeKOfVolume = 1000;
  EXPECT_EQ(reloc.SetRelocFileLocation(true), 21u);
  EXPECT_EQ(messages().back(), "[4] Could not find enough space on other mounted volumes\n");
  EXPECT_EQ(reloc.mRelocFileName, "");
  EXPECT_EQ(referencesLeft(), 0u);
}

TEST_F(SetRelocFileLocation, only_if_larger_takes_one_KB_more) {
  machine.mount(machine.device("a"), {1001, 0});
  reloc.mAvailSizeKOfVolume = 1000;
  EXPECT_EQ(reloc.SetRelocFileLocation(true), 0u);
}

TEST_F(SetRelocFileLocation, otherwise_takes_less_than_the_volume_has) {
  machine.mount(machine.device("a"), {10, 0});
  reloc.mAvailSizeKOfVolume = 1000;
  EXPECT_EQ(reloc.SetRelocFileLocation(false), 0u);
}

TEST_F(SetRelocFileLocation, throws_out_of_range_for_a_short_device_name_and_holds_no_reference) {
  const std::string onA = machine.mount(machine.device("a"), {1000, 0});
  LinuxSnapshotreloc shortName("/dev", 1024, 1000000UL, kManyEntries);
  try {
    shortName.SetRelocFileLocation(false);
    FAIL() << "no exception";
  } catch (const std::out_of_range& error) {
    EXPECT_EQ(std::string(error.what()).rfind("basic_string::substr", 0), 0u);
  }
  EXPECT_EQ(shortName.mRelocDirName, onA + "/.verrelocarea");
  EXPECT_EQ(shortName.mRelocFileName, "");
  EXPECT_EQ(referencesLeft(), 0u);
}

// --- A file of fixed size.

class CheckOtherMountVolumeForReloc : public RelocTest {
 protected:
  // 1000 blocks of 1 KB are to be placed.
  CheckOtherMountVolumeForReloc() : volume(machine.device("volume")), reloc(volume, 1024, 1000, "", kManyEntries) {
    log.clear();
  }

  const std::string volume;
  LinuxSnapshotreloc reloc;
};

TEST_F(CheckOtherMountVolumeForReloc, takes_the_largest_and_says_so_at_error_priority) {
  const std::string b = machine.device("b");
  machine.mount(machine.device("a"), {2000, 0, kExt});
  const std::string onB = machine.mount(b, {3000, 0, kExt});
  machine.mount(machine.device("c"), {3000, 0, kTmpfs});
  EXPECT_EQ(reloc.checkOtherMountVolumeForReloc(), 0u);
  EXPECT_EQ(messages(), (Lines{"[3] Found appropriate volume for SnapVol: " + volume + " , RVName: " + b +
                               ", RMName: " + onB + ".\n"}));
  EXPECT_EQ(reloc.mRelocDirName, onB + "/.verrelocarea");
  EXPECT_EQ(reloc.mRelocFileName, onB + "/.verrelocarea/volume");
  EXPECT_EQ(reloc.mRelocDeviceName, b);
  EXPECT_EQ(reloc.mVolMountPoint, onB);
  EXPECT_EQ(reloc.mRelocNumBlks, 1000u);
  EXPECT_EQ(reloc.mFSType, std::uint64_t{kTmpfs}) << "that of the last file system looked at";
  EXPECT_EQ(referencesLeft(), 0u);
}

TEST_F(CheckOtherMountVolumeForReloc, has_no_prejudice_against_fat) {
  const std::string fat = machine.device("fat");
  machine.mount(machine.device("a"), {gib(50), 0, kExt});
  machine.mount(fat, {gib(51), 0, kFat});
  EXPECT_EQ(reloc.checkOtherMountVolumeForReloc(), 0u);
  EXPECT_EQ(reloc.mRelocDeviceName, fat);
}

TEST_F(CheckOtherMountVolumeForReloc, wants_strictly_more_than_the_file_needs_in_whole_KB) {
  reloc.mBlockSize = 512;
  reloc.mRelocNumBlks = 2001;  // 1000.5 KB
  machine.mount(machine.device("a"), {1000, 0});
  EXPECT_EQ(reloc.checkOtherMountVolumeForReloc(), 21u);
  machine.mount(machine.device("b"), {1001, 0});
  EXPECT_EQ(reloc.checkOtherMountVolumeForReloc(), 0u);
  EXPECT_EQ(reloc.mRelocDeviceName, "/dev/b");
}

TEST_F(CheckOtherMountVolumeForReloc, wants_strictly_more_than_the_volume_has_free) {
  reloc.mAvailSizeKOfVolume = 5000;
  machine.mount(machine.device("a"), {5000, 0});
  EXPECT_EQ(reloc.checkOtherMountVolumeForReloc(), 21u);
  machine.mount(machine.device("b"), {5001, 0});
  EXPECT_EQ(reloc.checkOtherMountVolumeForReloc(), 0u);
  EXPECT_EQ(reloc.mRelocDeviceName, "/dev/b");
}

TEST_F(CheckOtherMountVolumeForReloc, keeps_the_earlier_of_two_with_equal_free_space) {
  machine.mount(machine.device("b"), {5000, 0});
  machine.mount(machine.device("a"), {5000, 0});
  EXPECT_EQ(reloc.checkOtherMountVolumeForReloc(), 0u);
  EXPECT_EQ(reloc.mRelocDeviceName, "/dev/a");
}

TEST_F(CheckOtherMountVolumeForReloc, skips_silently_and_never_gives_the_reference_back_when_nothing_is_found) {
  const std::string a = machine.device("a");
  const std::string b = machine.device("b");
  machine.mount(a, {5000, 0});
  machine.mount(b, {5000, 0});
  machine.makeReadOnly(machine.mount(machine.device("c"), {5000, 0}));
  machine.mount(volume, {5000, 0});
  machine.snapped(a);
  machine.frozen(b);
  EXPECT_EQ(reloc.checkOtherMountVolumeForReloc(), 21u);
  EXPECT_EQ(messages(), (Lines{"[3] No mount point avaialbe to hold reloc file of size(blocks)\n"}));
  EXPECT_EQ(referencesLeft(), 1u);
  EXPECT_EQ(reloc.mFSType, 0u);
}

TEST_F(CheckOtherMountVolumeForReloc, skips_every_mount_of_the_volume_itself) {
  machine.mount(volume, {gib(50), 0});
  machine.mount(volume, {gib(60), 0});
  const std::string other = machine.device("zzz");
  machine.mount(other, {5000, 0});
  EXPECT_EQ(reloc.checkOtherMountVolumeForReloc(), 0u);
  EXPECT_EQ(reloc.mRelocDeviceName, other);
  EXPECT_EQ(driver.calls(IOC_CHECK_VOLUME_SNAPPED).size(), 1u);
}

TEST_F(CheckOtherMountVolumeForReloc, takes_a_device_whose_name_only_begins_like_the_volumes) {
  machine.mount(machine.device("vol"), {5000, 0});
  EXPECT_EQ(reloc.checkOtherMountVolumeForReloc(), 0u);
  EXPECT_EQ(reloc.mRelocDeviceName, "/dev/vol");
  machine.mount(machine.device("volume1"), {6000, 0});
  EXPECT_EQ(reloc.checkOtherMountVolumeForReloc(), 0u);
  EXPECT_EQ(reloc.mRelocDeviceName, "/dev/volume1");
}

TEST_F(CheckOtherMountVolumeForReloc, takes_the_sizes_before_it_where_they_cannot_be_read) {
  const std::string a = machine.device("a");
  machine.mount(a, {5000, 0, kExt});
  machine.hideSizes(machine.mount(machine.device("b"), {gib(1), 0, kXfs}));
  EXPECT_EQ(reloc.checkOtherMountVolumeForReloc(), 0u);
  EXPECT_EQ(reloc.mRelocDeviceName, a) << "equal sizes do not replace";
  EXPECT_EQ(reloc.mFSType, 0xEF53u);
}

TEST_F(CheckOtherMountVolumeForReloc, without_a_singleton_asks_no_driver) {
  const std::string a = machine.device("a");
  machine.mount(a, {5000, 0});
  machine.snapped(a);
  SnapDriverInterface::releaseInstance();
  hooks.noMemory = true;
  EXPECT_EQ(reloc.checkOtherMountVolumeForReloc(), 0u);
  hooks.noMemory = false;
  EXPECT_EQ(driver.calls().size(), 0u);
}

TEST_F(CheckOtherMountVolumeForReloc, throws_out_of_range_for_a_short_device_name_and_holds_no_reference) {
  machine.mount(machine.device("a"), {5000, 0});
  LinuxSnapshotreloc shortName("/dev", 1024, 1000, "", kManyEntries);
  EXPECT_THROW(shortName.checkOtherMountVolumeForReloc(), std::out_of_range);
  EXPECT_EQ(referencesLeft(), 0u);
}

TEST_F(CheckOtherMountVolumeForReloc, counts_the_needed_space_in_64_bits) {
  // 2^24 blocks of 64 KB: 1 TiB, which is 0 in 32 bits.
  LinuxSnapshotreloc large(volume, 65536, 1U << 24, "", kManyEntries);
  machine.mount(machine.device("a"), {gib(1024), 0});
  EXPECT_EQ(large.checkOtherMountVolumeForReloc(), 21u);
}

}  // namespace
}  // namespace test
