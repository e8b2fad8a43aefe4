// SPDX-License-Identifier: Apache-2.0
//
// The four ways of placing a file.
#include "OwnWorld.h"
#include "RelocTest.h"

namespace test {
namespace {

constexpr unsigned long kManyEntries = 1UL << 40;

class InitialiserTest : public RelocTest {
 protected:
  InitialiserTest() : volume(machine.device("vol/ume")) {}
  ~InitialiserTest() override = default;

  const std::string volume;
};

// A device in a folder under /dev, as logical volumes have it.
class DeviceFolder {
 public:
  DeviceFolder() { std::filesystem::create_directory("/dev/vol"); }
  ~DeviceFolder() { removeTree("/dev/vol"); }
};

// --- Neither option.

class Initialize : private DeviceFolder, public InitialiserTest {
 protected:
  Initialize() : reloc(volume, 1024, 1000000UL, kManyEntries) { log.clear(); }
  LinuxSnapshotreloc reloc;
};

TEST_F(Initialize, without_a_device_name_answers_7) {
  LinuxSnapshotreloc nameless("", 1024, 1000000UL, kManyEntries);
  log.clear();
  EXPECT_EQ(nameless.initialize(), 7u);
  EXPECT_EQ(messages(), (Lines{"[3] Invalid device name passed to Snap.\n"}));
}

TEST_F(Initialize, hands_on_what_the_volumes_details_answer) {
  hooks.getVolumeDetails = 16;
  EXPECT_EQ(reloc.initialize(), 16u);
  EXPECT_EQ(messages(), (Lines{"[3] Unable to obtain volume details.\n"}));
}

TEST_F(Initialize, keeps_the_file_on_a_volume_with_room) {
  const std::string folder = machine.mount(volume, {10000, 5000, kXfs});
  machine.mount(machine.device("other"), {gib(9), 0});
  EXPECT_EQ(reloc.initialize(), 0u);
  EXPECT_EQ(reloc.mRelocDeviceName, volume);
  EXPECT_EQ(reloc.mRelocDirName, folder + "/.verrelocarea");
  EXPECT_EQ(reloc.mRelocFileName, folder + "/.verrelocarea/vol_ume");
  EXPECT_EQ(reloc.mRelocNumBlks, 1000u);
  EXPECT_EQ(reloc.mTotalSizeKOfVolume, 15000u);
  EXPECT_EQ(reloc.mFSType, std::uint64_t{kXfs});
  EXPECT_EQ(messages(), (Lines{"[7] VolumeName to be checked: " + volume + ".\n",
                               "[7] Volume " + volume + " is mounted on : " + folder + ".\n",
                               "[7] AvSize: 10000, UsedSize: 5000, threshHold: 1000.\n", "[7] threshold size: 1000.\n",
                               "[6] threshold size: 1000mRelocEntriesInMemory : 1099511627776.\n",
                               "[6] mUsedSizeKofVolume : 5000,mTotalSizeKOfVolume :15000\n"}));
  EXPECT_EQ(driver.calls(IOC_CHECK_VOLUME_SNAPPED).size(), 1u);
  EXPECT_EQ(driver.calls(IOC_CHECK_VOLUME_FROZEN).size(), 0u);
  EXPECT_EQ(referencesLeft(), 0u);
}

TEST_F(Initialize, refuses_a_volume_that_is_snapped_already_with_the_directory_set) {
  const std::string folder = machine.mount(volume, {10000, 5000});
  machine.snapped(volume);
  EXPECT_EQ(reloc.initialize(), 17u);
  EXPECT_EQ(messages().back(), "[3] Volume is already snapped.\n");
  EXPECT_EQ(reloc.mRelocDirName, folder + "/.verrelocarea");
  EXPECT_EQ(reloc.mRelocFileName, "");
  EXPECT_EQ(reloc.mRelocDeviceName, volume);
  EXPECT_EQ(referencesLeft(), 0u);
}

TEST_F(Initialize, on_a_volume_90_percent_full_takes_a_larger_file_system) {
  machine.mount(volume, {1000, 9000});
  const std::string other = machine.device("other");
  machine.mount(other, {1001, 0});
  EXPECT_EQ(reloc.initialize(), 0u);
  EXPECT_EQ(reloc.mRelocDeviceName, other);
  EXPECT_EQ(reloc.mRelocNumBlks, 100u);
}

TEST_F(Initialize, on_a_volume_90_percent_full_keeps_the_file_when_the_largest_other_has_exactly_as_much_free) {
  const std::string folder = machine.mount(volume, {1000, 9000, kExt});
  machine.mount(machine.device("other"), {1000, 0, kXfs});
  EXPECT_EQ(reloc.initialize(), 0u);
  EXPECT_EQ(reloc.mRelocDeviceName, volume);
  EXPECT_EQ(reloc.mVolMountPoint, folder);
  EXPECT_EQ(reloc.mRelocNumBlks, 100u);
  EXPECT_EQ(reloc.mFSType, 0xEF53u);
  EXPECT_TRUE(log.has(4, "Could not find enough space on other mounted volumes\n"));
}

TEST_F(Initialize, cuts_90_percent_to_whole_KB) {
  machine.mount(volume, {1001, 9000});  // 90 % of 10001 are 9000.9
  const std::string other = machine.device("other");
  machine.mount(other, {1002, 0});
  EXPECT_EQ(reloc.initialize(), 0u);
  EXPECT_EQ(reloc.mRelocDeviceName, other);
}

TEST_F(Initialize, leaves_a_volume_90_percent_full_without_asking_whether_it_is_snapped) {
  machine.mount(volume, {1000, 9000});
  machine.snapped(volume);
  const std::string other = machine.device("other");
  machine.mount(other, {1001, 0});
  EXPECT_EQ(reloc.initialize(), 0u);
  EXPECT_EQ(reloc.mRelocDeviceName, other);
  EXPECT_EQ(driver.calls(IOC_CHECK_VOLUME_SNAPPED).size(), 1u) << "the other only";
}

TEST_F(Initialize, refuses_a_volume_90_percent_full_that_is_snapped_when_no_other_is_larger) {
  machine.mount(volume, {1000, 9000});
  machine.snapped(volume);
  EXPECT_EQ(reloc.initialize(), 17u);
  EXPECT_EQ(messages().back(), "[3] Volume is already snapped.\n");
}

TEST_F(Initialize, on_a_volume_almost_90_percent_full_keeps_the_file) {
  machine.mount(volume, {1002, 9007});  // of 10009; nine times a tenth in whole KB would be 9000
  machine.mount(machine.device("other"), {gib(9), 0});
  EXPECT_EQ(reloc.initialize(), 0u);
  EXPECT_EQ(reloc.mRelocDeviceName, volume);
}

TEST_F(Initialize, for_an_unmounted_volume_takes_another_file_system) {
  const std::string other = machine.device("other");
  machine.mount(other, {1000, 0});
  EXPECT_EQ(reloc.initialize(), 0u);
  EXPECT_EQ(reloc.mRelocDeviceName, other);
}

TEST_F(Initialize, for_a_read_only_volume_takes_another_file_system_and_predicts_nothing) {
  const std::string folder = machine.mount(volume, {10000, 5000});
  machine.makeReadOnly(folder);
  const std::string other = machine.device("other");
  machine.mount(other, {1000, 0});
  EXPECT_EQ(reloc.initialize(), 0u);
  EXPECT_EQ(reloc.mRelocDeviceName, other) << "also when it has less free space";
  EXPECT_FALSE(log.has(7, "threshold size: 1000.\n"));
}

TEST_F(Initialize, for_a_volume_whose_sizes_cannot_be_read_takes_another_file_system) {
  machine.hideSizes(machine.mount(volume, {10000, 5000}));
  const std::string other = machine.device("other");
  machine.mount(other, {1000, 0});
  EXPECT_EQ(reloc.initialize(), 0u);
  EXPECT_EQ(reloc.mRelocDeviceName, other);
}

TEST_F(Initialize, for_a_volume_without_free_space_takes_another_file_system) {
  machine.mount(volume, {9, 5000});
  const std::string other = machine.device("other");
  machine.mount(other, {1000, 0});
  EXPECT_EQ(reloc.initialize(), 0u);
  EXPECT_EQ(reloc.mRelocDeviceName, other);
}

TEST_F(Initialize, answers_20_when_there_is_no_place_at_all) {
  EXPECT_EQ(reloc.initialize(), 20u);
  EXPECT_EQ(messages(),
            (Lines{"[7] VolumeName to be checked: " + volume + ".\n", "[3] Not enough space to create reloc file.\n",
                   "[3] Not Enough space or unable to place the reloc file.\n"}));
  EXPECT_EQ(referencesLeft(), 0u);
}

TEST_F(Initialize, on_the_own_volume_throws_out_of_range_for_a_short_device_name_and_holds_no_reference) {
  // No listed device has a name that short: an alias leads from one to it.
  const std::string folder = machine.mount("/dev/alias", {10000, 5000});
  LinuxSnapshotreloc shortName("/a", 1024, 1000000UL, kManyEntries);
  shortName.volumeAliases["/dev/alias"] = "/a";
  EXPECT_THROW(shortName.initialize(), std::out_of_range);
  EXPECT_EQ(shortName.mRelocDirName, folder + "/.verrelocarea");
  EXPECT_EQ(referencesLeft(), 0u);
}

// --- The mount point.

class LocationOption : private DeviceFolder, public InitialiserTest {
 protected:
  LocationOption() : device(machine.device("target")), folder(machine.mount(device, {50007, 100, kXfs})) {}

  // 17, and nothing but these messages.
  void expectRefusal(LinuxSnapshotreloc reloc, const Lines& expected, unsigned int left = 0) {
    log.clear();
    EXPECT_EQ(reloc.initializeRelocLocationOption(1000), 17u);
    EXPECT_EQ(messages(), expected);
    EXPECT_EQ(referencesLeft(), left);
    EXPECT_EQ(reloc.mRelocFileName, "");
  }
  LinuxSnapshotreloc on(const std::string& mountPoint) { return {volume, 4096, 0, mountPoint, kManyEntries}; }
  std::string deviceLine() const { return "[6] Device name for " + folder + " is " + device + " .\n"; }

  const std::string device;
  const std::string folder;
};

TEST_F(LocationOption, without_a_volume_or_a_mount_point_is_refused) {
  expectRefusal({"", 4096, 0, folder, kManyEntries}, {"[3] Invalid Reloc option provided.\n"});
  expectRefusal(on(""), {"[3] Invalid Reloc option provided.\n"});
}

TEST_F(LocationOption, a_mount_point_that_does_not_resolve_is_refused) {
  expectRefusal(on("/no/such/folder"), {"[3] Mount point /no/such/folder is invalid.\n"});
}

TEST_F(LocationOption, a_snapped_file_system_is_refused) {
  machine.snapped(device);
  expectRefusal(on(folder), {deviceLine(), "[3] User provided Mount point already snapped.\n"});
}

TEST_F(LocationOption, a_frozen_file_system_is_refused) {
  machine.frozen(device);
  expectRefusal(on(folder), {deviceLine(), "[3] User provided Mount point already frozen.\n"});
}

TEST_F(LocationOption, a_read_only_file_system_is_refused_and_the_reference_given_back) {
  machine.makeReadOnly(folder);
  expectRefusal(on(folder), {deviceLine(), "[3] User provided Mount point is not writable.\n"});
}

TEST_F(LocationOption, a_file_system_without_sizes_is_refused_and_the_reference_never_given_back) {
  machine.hideSizes(folder);
  expectRefusal(on(folder), {deviceLine(), "[3] User provided Mount point not valid.\n"}, 1);
}

TEST_F(LocationOption, asks_for_snapped_then_frozen_then_writable_then_sizes) {
  machine.makeReadOnly(folder);
  machine.hideSizes(folder);
  expectRefusal(on(folder), {deviceLine(), "[3] User provided Mount point is not writable.\n"});
  machine.frozen(device);
  expectRefusal(on(folder), {deviceLine(), "[3] User provided Mount point already frozen.\n"});
  machine.snapped(device);
  expectRefusal(on(folder), {deviceLine(), "[3] User provided Mount point already snapped.\n"});
}

TEST_F(LocationOption, of_a_volume_without_details_is_refused_and_the_reference_never_given_back) {
  hooks.getVolumeDetails = 16;
  expectRefusal(on(folder), {deviceLine(), "[3] User provided mount point not valid for relocation file.\n"}, 1);
}

TEST_F(LocationOption, sizes_by_a_tenth_of_what_a_mounted_volume_uses) {
  const std::string own = machine.mount(volume, {1, 40009, kExt});
  LinuxSnapshotreloc reloc = on(folder);
  log.clear();
  EXPECT_EQ(reloc.initializeRelocLocationOption(999999), 0u);
  EXPECT_EQ(reloc.mRelocNumBlks, 1000u);
  EXPECT_EQ(reloc.mRelocDirName, folder + "/.verrelocarea");
  EXPECT_EQ(reloc.mRelocFileName, folder + "/.verrelocarea/vol_ume");
  EXPECT_EQ(reloc.mRelocDeviceName, device);
  EXPECT_EQ(reloc.mFSType, std::uint64_t{kXfs}) << "of the chosen file system, not of the volume's";
  EXPECT_EQ(messages(),
            (Lines{deviceLine(), "[7] VolumeName to be checked: " + volume + ".\n",
                   "[7] Volume " + volume + " is mounted on : " + own + ".\n",
                   "[6] relocSizeBasedOnRelocVol: 5000, relocSizeBasedOnVol: 4000\n", "[6] actualRelocSize : 4000\n"}));
  EXPECT_EQ(referencesLeft(), 0u);
}

TEST_F(LocationOption, sizes_by_a_tenth_of_the_chosen_file_systems_free_space) {
  machine.mount(volume, {1, 90000});
  LinuxSnapshotreloc reloc = on(folder);
  EXPECT_EQ(reloc.initializeRelocLocationOption(0), 0u);
  EXPECT_EQ(reloc.mRelocNumBlks, 1250u);
}

TEST_F(LocationOption, takes_the_blocks_of_an_unmounted_volume_for_KB) {
  LinuxSnapshotreloc reloc = on(folder);
  log.clear();
  EXPECT_EQ(reloc.initializeRelocLocationOption(20009), 0u);
  EXPECT_EQ(reloc.mRelocNumBlks, 500u);
  EXPECT_TRUE(log.has(6, "relocSizeBasedOnRelocVol: 5000, relocSizeBasedOnVol: 2000\n"));
  EXPECT_TRUE(log.has(6, "actualRelocSize : 2000\n"));
}

TEST_F(LocationOption, is_bounded_by_the_drivers_memory) {
  LinuxSnapshotreloc reloc(volume, 4096, 0, folder, 7);
  EXPECT_EQ(reloc.initializeRelocLocationOption(20000), 0u);
  EXPECT_EQ(reloc.mRelocNumBlks, 7u);
}

TEST_F(LocationOption, resolves_links_and_takes_a_folder_inside_the_file_system) {
  const std::string inside = folder + "/inside";
  ASSERT_TRUE(std::filesystem::create_directory(inside));
  const TempDir links;
  std::filesystem::create_symlink(inside, links / "link");
  hooks.statfs = [](const char*, struct statfs* sizes) {
    *sizes = {};
    sizes->f_bsize = 1024;
    sizes->f_blocks = sizes->f_bfree = 100000;
    return std::optional<int>(0);
  };
  LinuxSnapshotreloc reloc = on(links / "link");
  EXPECT_EQ(reloc.initializeRelocLocationOption(20000), 0u);
  EXPECT_EQ(reloc.mRelocMountName, inside);
  EXPECT_EQ(reloc.mRelocDeviceName, device);
  EXPECT_EQ(reloc.mRelocFileName, inside + "/.verrelocarea/vol_ume");
}

TEST_F(LocationOption, throws_out_of_range_for_a_short_device_name_and_holds_no_reference) {
  LinuxSnapshotreloc shortName("/dev", 4096, 0, folder, kManyEntries);
  EXPECT_THROW(shortName.initializeRelocLocationOption(1000), std::out_of_range);
  EXPECT_EQ(referencesLeft(), 0u);
}

// --- The size.

class SizeOption : private DeviceFolder, public InitialiserTest {
 protected:
  LinuxSnapshotreloc of(unsigned int blocks, unsigned long entries = kManyEntries) {
    return {volume, 1024, blocks, "", entries};
  }
};

TEST_F(SizeOption, without_a_volume_or_a_size_is_refused) {
  LinuxSnapshotreloc nameless("", 1024, 1, "", kManyEntries);
  LinuxSnapshotreloc sizeless = of(0);
  log.clear();
  EXPECT_EQ(nameless.initializeRelocSizeOption(), 17u);
  EXPECT_EQ(sizeless.initializeRelocSizeOption(), 17u);
  EXPECT_EQ(messages(), (Lines(2, "[3] Invalid options passed by the User.\n")));
}

TEST_F(SizeOption, more_than_the_driver_can_hold_is_refused) {
  LinuxSnapshotreloc reloc = of(1001, 1000);
  log.clear();
  EXPECT_EQ(reloc.initializeRelocSizeOption(), 17u);
  EXPECT_EQ(messages(), (Lines{"[3] System doesnt have enough memroy to hold relocation file.\n"}));
}

TEST_F(SizeOption, hands_on_what_the_volumes_details_answer) {
  hooks.getVolumeDetails = 16;
  LinuxSnapshotreloc reloc = of(1);
  log.clear();
  EXPECT_EQ(reloc.initializeRelocSizeOption(), 16u);
  EXPECT_EQ(messages(), (Lines{"[3] Unable to obtain volume details.\n"}));
}

TEST_F(SizeOption, as_much_as_the_driver_can_hold_stays_on_a_volume_with_room_without_asking_the_driver) {
  const std::string folder = machine.mount(volume, {1001, 500, kExt});
  machine.snapped(volume);
  LinuxSnapshotreloc reloc = of(1000, 1000);
  log.clear();
  EXPECT_EQ(reloc.initializeRelocSizeOption(), 0u);
  EXPECT_EQ(reloc.mRelocDeviceName, volume);
  EXPECT_EQ(reloc.mRelocDirName, folder + "/.verrelocarea");
  EXPECT_EQ(reloc.mRelocFileName, folder + "/.verrelocarea/vol_ume");
  EXPECT_EQ(reloc.mRelocNumBlks, 1000u);
  EXPECT_EQ(reloc.mTotalSizeKOfVolume, 1501u);
  EXPECT_EQ(reloc.mFSType, 0xEF53u);
  EXPECT_EQ(messages(), (Lines{"[7] VolumeName to be checked: " + volume + ".\n",
                               "[7] Volume " + volume + " is mounted on : " + folder + ".\n",
                               "[6] mUsedSizeKofVolume : 500,mTotalSizeKOfVolume :1501\n"}));
  EXPECT_EQ(driver.calls().size(), 0u);
}

TEST_F(SizeOption, a_file_of_exactly_the_free_space_goes_elsewhere_without_the_total_and_the_full_message) {
  const std::string folder = machine.mount(volume, {1000, 500});
  const std::string other = machine.device("other");
  const std::string onOther = machine.mount(other, {1001, 0});
  LinuxSnapshotreloc reloc = of(1000);
  log.clear();
  EXPECT_EQ(reloc.initializeRelocSizeOption(), 0u);
  EXPECT_EQ(reloc.mRelocDeviceName, other);
  EXPECT_EQ(reloc.mTotalSizeKOfVolume, 0u);
  EXPECT_EQ(messages(), (Lines{"[7] VolumeName to be checked: " + volume + ".\n",
                               "[7] Volume " + volume + " is mounted on : " + folder + ".\n",
                               "[3] Found appropriate volume for SnapVol: " + volume + " , RVName: " + other +
                                   ", RMName: " + onOther + ".\n"}));
}

TEST_F(SizeOption, from_a_volume_90_percent_full_goes_elsewhere_with_the_full_message) {
  const std::string folder = machine.mount(volume, {1000, 9000});
  const std::string other = machine.device("other");
  const std::string onOther = machine.mount(other, {2000, 0});
  LinuxSnapshotreloc reloc = of(100);
  log.clear();
  EXPECT_EQ(reloc.initializeRelocSizeOption(), 0u);
  EXPECT_EQ(reloc.mRelocDeviceName, other);
  EXPECT_EQ(messages(), (Lines{"[7] VolumeName to be checked: " + volume + ".\n",
                               "[7] Volume " + volume + " is mounted on : " + folder + ".\n",
                               "[6] mUsedSizeKofVolume : 9000,mTotalSizeKOfVolume :10000\n",
                               "[3] Volume " + volume + " is full, checking for other volumes.\n",
                               "[3] Found appropriate volume for SnapVol: " + volume + " , RVName: " + other +
                                   ", RMName: " + onOther + ".\n"}));
}

TEST_F(SizeOption, on_a_volume_almost_90_percent_full_stays) {
  machine.mount(volume, {1001, 8999});
  machine.mount(machine.device("other"), {gib(1), 0});
  LinuxSnapshotreloc reloc = of(100);
  EXPECT_EQ(reloc.initializeRelocSizeOption(), 0u);
  EXPECT_EQ(reloc.mRelocDeviceName, volume);
}

TEST_F(SizeOption, from_a_read_only_or_unmounted_volume_goes_elsewhere) {
  const std::string other = machine.device("other");
  machine.mount(other, {20000, 0});
  LinuxSnapshotreloc unmounted = of(100);
  EXPECT_EQ(unmounted.initializeRelocSizeOption(), 0u);
  EXPECT_EQ(unmounted.mRelocDeviceName, other);
  machine.makeReadOnly(machine.mount(volume, {10000, 0}));
  LinuxSnapshotreloc readOnly = of(100);
  EXPECT_EQ(readOnly.initializeRelocSizeOption(), 0u);
  EXPECT_EQ(readOnly.mRelocDeviceName, other);
}

TEST_F(SizeOption, without_a_place_answers_21_and_never_gives_the_reference_back) {
  machine.mount(volume, {1000, 9000});
  LinuxSnapshotreloc reloc = of(100);
  EXPECT_EQ(reloc.initializeRelocSizeOption(), 21u);
  EXPECT_EQ(messages().back(), "[3] No mount point avaialbe to hold reloc file of size(blocks)\n");
  EXPECT_EQ(referencesLeft(), 1u);
}

TEST_F(SizeOption, counts_the_needed_space_in_64_bits) {
  machine.mount(volume, {gib(1024), 0});  // what 2^24 blocks of 64 KB need is 0 in 32 bits
  LinuxSnapshotreloc reloc(volume, 65536, 1U << 24, "", kManyEntries);
  EXPECT_EQ(reloc.initializeRelocSizeOption(), 21u);
}

// --- Both.

class Validate : private DeviceFolder, public InitialiserTest {
 protected:
  Validate() : device(machine.device("target")), folder(machine.mount(device, {1000, 0, kXfs})) {}

  LinuxSnapshotreloc of(unsigned int blocks, unsigned long entries = kManyEntries) {
    return {volume, 1024, blocks, folder, entries};
  }
  void expectRefusal(LinuxSnapshotreloc reloc, const std::string& message, unsigned int left = 0) {
    log.clear();
    EXPECT_EQ(reloc.validate(), 17u);
    EXPECT_EQ(messages(), (Lines{invoking(folder), message}));
    EXPECT_EQ(referencesLeft(), left);
  }
  static std::string invoking(const std::string& mountPoint) {
    return "[7] Invoking GetMountDetails with relocMountName : " + mountPoint + ".\n";
  }

  const std::string device;
  const std::string folder;
};

TEST_F(Validate, refuses_what_was_not_given) {
  LinuxSnapshotreloc nameless("", 1024, 1, folder, kManyEntries);
  LinuxSnapshotreloc placeless(volume, 1024, 1, "", kManyEntries);
  LinuxSnapshotreloc sizeless = of(0);
  log.clear();
  EXPECT_EQ(nameless.validate(), 17u);
  EXPECT_EQ(placeless.validate(), 17u);
  EXPECT_EQ(sizeless.validate(), 17u);
  EXPECT_EQ(messages(), (Lines(3, "[3] Reloc options not provided to validate.\n")));
}

TEST_F(Validate, refuses_a_mount_point_that_does_not_resolve) {
  LinuxSnapshotreloc reloc(volume, 1024, 1, "/no/such/folder", kManyEntries);
  log.clear();
  EXPECT_EQ(reloc.validate(), 17u);
  EXPECT_EQ(messages(), (Lines{invoking("/no/such/folder"), "[3] Mount point /no/such/folder is invalid.\n"}));
}

TEST_F(Validate, refuses_a_folder_on_which_nothing_is_mounted) {
  const std::string inside = folder + "/inside";
  std::filesystem::create_directory(inside);
  LinuxSnapshotreloc reloc(volume, 1024, 1, inside, kManyEntries);
  log.clear();
  EXPECT_EQ(reloc.validate(), 17u);
  EXPECT_EQ(messages(), (Lines{invoking(inside), "[3] Invalid mountPoint selected by User.\n"}));
  EXPECT_EQ(referencesLeft(), 0u);
}

TEST_F(Validate, refuses_a_snapped_file_system) {
  machine.snapped(device);
  expectRefusal(of(1), "[3] Volume is already snapped.\n");
}

TEST_F(Validate, refuses_a_frozen_file_system) {
  machine.frozen(device);
  expectRefusal(of(1), "[3] Volume is already Frozen. Could not create relocation file\n");
}

TEST_F(Validate, refuses_a_read_only_file_system_and_never_gives_the_reference_back) {
  machine.makeReadOnly(folder);
  expectRefusal(of(1), "[3] Mount point " + folder + " is read only.\n", 1);
}

TEST_F(Validate, refuses_a_file_system_of_unknown_kind_and_never_gives_the_reference_back) {
  machine.hideSizes(folder);
  expectRefusal(of(1), "[3] Mount point " + folder + " is invalid mount point.\n", 1);
}

TEST_F(Validate, refuses_a_file_that_reaches_the_limit_naming_its_size_and_never_gives_the_reference_back) {
  const std::string fat = machine.mount(machine.device("fat"), {gib(100), 0, kFat});
  LinuxSnapshotreloc reloc(volume, 1024, 4194305, fat, kManyEntries);
  log.clear();
  EXPECT_EQ(reloc.validate(), 17u);
  EXPECT_EQ(messages(),
            (Lines{invoking(fat), "[6] mRelocNumBlks : 4194305\t\t\t\t\t\t\t   ,maxFileSizeLimitInBlocks :4194304\n",
                   "[3] System can not create a file with more than 4194305 blocks\n"}));
  EXPECT_EQ(referencesLeft(), 1u);
}

TEST_F(Validate, refuses_more_than_the_driver_can_hold_and_never_gives_the_reference_back) {
  expectRefusal(of(11, 10), "[3] System can not reserve enough memory for relocation blocks, try freeing some memory\n",
                1);
}

TEST_F(Validate, refuses_more_than_the_free_space) {
  expectRefusal(of(1001), "[3] Invalid Reloc options : RelocMount point doesnt have enough space.\n");
}

TEST_F(Validate, asks_for_snapped_then_frozen_then_writable_then_kind) {
  machine.makeReadOnly(folder);
  machine.hideSizes(folder);
  expectRefusal(of(1), "[3] Mount point " + folder + " is read only.\n", 1);
  machine.frozen(device);
  expectRefusal(of(1), "[3] Volume is already Frozen. Could not create relocation file\n", 1);
  machine.snapped(device);
  expectRefusal(of(1), "[3] Volume is already snapped.\n", 1);
}

TEST_F(Validate, asks_for_the_limit_then_the_drivers_memory_then_the_free_space) {
  const std::string fat = machine.mount(machine.device("fat"), {1, 0, kFat});
  LinuxSnapshotreloc beyondAll(volume, 1024, 4194304, fat, 1);
  EXPECT_EQ(beyondAll.validate(), 17u);
  EXPECT_EQ(messages().back(), "[3] System can not create a file with more than 4194304 blocks\n");
  LinuxSnapshotreloc withinLimit(volume, 1024, 4194303, fat, 1);
  EXPECT_EQ(withinLimit.validate(), 17u);
  EXPECT_EQ(messages().back(),
            "[3] System can not reserve enough memory for relocation blocks, try freeing some memory\n");
}

TEST_F(Validate, counts_the_needed_space_in_whole_KB) {
  LinuxSnapshotreloc fits(volume, 512, 2001, folder, kManyEntries);  // 1000.5
  EXPECT_EQ(fits.validate(), 0u);
  LinuxSnapshotreloc exceeds(volume, 512, 2002, folder, kManyEntries);
  EXPECT_EQ(exceeds.validate(), 17u);
}

TEST_F(Validate, accepts_exactly_the_free_space_and_the_drivers_memory) {
  LinuxSnapshotreloc reloc = of(1000, 1000);
  log.clear();
  EXPECT_EQ(reloc.validate(), 0u);
  EXPECT_EQ(messages(), (Lines{invoking(folder)}));
  EXPECT_EQ(reloc.mRelocDeviceName, device);
  EXPECT_EQ(reloc.mFSType, std::uint64_t{kXfs});
  EXPECT_EQ(reloc.mRelocFileName, "");
  EXPECT_EQ(referencesLeft(), 0u);
}

TEST_F(Validate, resolves_links) {
  const TempDir links;
  std::filesystem::create_symlink(folder, links / "link");
  LinuxSnapshotreloc reloc(volume, 1024, 1, links / "link", kManyEntries);
  EXPECT_EQ(reloc.validate(), 0u);
  EXPECT_EQ(reloc.mRelocMountName, folder);
}

TEST_F(Validate, counts_the_needed_space_in_64_bits) {
  const std::string large = machine.mount(machine.device("large"), {gib(1023), 0, kXfs});
  LinuxSnapshotreloc reloc(volume, 65536, 1U << 24, large, kManyEntries);
  EXPECT_EQ(reloc.validate(), 17u);
  EXPECT_TRUE(log.has(3, "Invalid Reloc options : RelocMount point doesnt have enough space.\n"));
}

TEST_F(Validate, then_the_users_choice_names_the_file_and_keeps_the_device) {
  LinuxSnapshotreloc reloc = of(10);
  ASSERT_EQ(reloc.validate(), 0u);
  log.clear();
  EXPECT_EQ(reloc.initializeUserSelectedOptions(), 0u);
  EXPECT_EQ(reloc.mRelocDirName, folder + "/.verrelocarea");
  EXPECT_EQ(reloc.mRelocFileName, folder + "/.verrelocarea/vol_ume");
  EXPECT_EQ(reloc.mRelocDeviceName, device);
  EXPECT_EQ(reloc.mRelocNumBlks, 10u);
  EXPECT_EQ(messages(), (Lines{"[7] RelocFileName is: " + folder + "/.verrelocarea/vol_ume.\n"}));
}

TEST_F(Validate, the_users_choice_refuses_what_was_not_given) {
  LinuxSnapshotreloc nameless("", 1024, 1, folder, kManyEntries);
  LinuxSnapshotreloc placeless(volume, 1024, 1, "", kManyEntries);
  LinuxSnapshotreloc sizeless = of(0);
  log.clear();
  EXPECT_EQ(nameless.initializeUserSelectedOptions(), 17u);
  EXPECT_EQ(placeless.initializeUserSelectedOptions(), 17u);
  EXPECT_EQ(sizeless.initializeUserSelectedOptions(), 17u);
  EXPECT_EQ(messages(), (Lines(3, "[3] Invalid options passed by the User.\n")));
}

TEST_F(Validate, the_users_choice_throws_out_of_range_for_a_short_device_name) {
  LinuxSnapshotreloc shortName("/dev", 1024, 1, folder, kManyEntries);
  EXPECT_THROW(shortName.initializeUserSelectedOptions(), std::out_of_range);
}

TEST_F(Validate, the_users_choice_for_a_device_name_of_just_the_prefix_names_the_directory) {
  LinuxSnapshotreloc prefixOnly("/dev/", 1024, 1, folder, kManyEntries);
  EXPECT_EQ(prefixOnly.initializeUserSelectedOptions(), 0u);
  EXPECT_EQ(prefixOnly.mRelocFileName, folder + "/.verrelocarea/");
}

TEST_F(Validate, the_users_choice_on_the_root_has_two_slashes) {
  LinuxSnapshotreloc reloc(volume, 1024, 1, "/", kManyEntries);
  EXPECT_EQ(reloc.initializeUserSelectedOptions(), 0u);
  EXPECT_EQ(reloc.mRelocFileName, "//.verrelocarea/vol_ume");
}

}  // namespace
}  // namespace test
