// SPDX-License-Identifier: Apache-2.0
#include "driver/VolumeRecords.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <syslog.h>

#include <filesystem>
#include <type_traits>

#include "DriverFixture.h"
#include "LogCapture.h"
#include "Wide.h"
#include "World.h"

namespace {

using test::error;
using test::LogCapture;
using test::LogLine;
using test::Node;
using test::TempDir;
using test::wide;

// What a caller may write through, and what is his own to keep.
static_assert(
    std::is_same_v<decltype(&SnapVolumeInformation::getSnapVolumeName), std::wstring& (SnapVolumeInformation::*)()>);
static_assert(
    std::is_same_v<decltype(&SnapVolumeInformation::getRelocMountName), std::wstring& (SnapVolumeInformation::*)()>);
static_assert(std::is_same_v<decltype(&SnapVolumeInformation::getSnapVolumeNameString),
                             std::string& (SnapVolumeInformation::*)()>);
static_assert(
    std::is_same_v<decltype(&SnapVolumeInformation::setRelocFileName), void (SnapVolumeInformation::*)(std::string)>);
static_assert(
    std::is_same_v<decltype(&SnapVolumeInformation::setRelocVolumeName), void (SnapVolumeInformation::*)(std::string)>);
static_assert(std::is_same_v<decltype(&SnappedVolumeInformation::getSnappedVolumeName),
                             std::wstring (SnappedVolumeInformation::*)() const>);
static_assert(std::is_same_v<decltype(&SnappedVolumeInformation::getRelocFileName),
                             std::wstring (SnappedVolumeInformation::*)() const>);
static_assert(std::is_same_v<decltype(&RelocFileMappingInformation::getSnappedVolumeName),
                             std::string (RelocFileMappingInformation::*)() const>);
static_assert(std::is_same_v<decltype(&RelocFileMappingInformation::getRelocFileName),
                             std::string (RelocFileMappingInformation::*)() const>);
static_assert(sizeof(_DeviceState) == 4 && sizeof(_updateBitmapIoctlType) == 4);

TEST(StringToWString, every_byte_is_sign_extended_so_high_bytes_become_negative) {
  const std::wstring widened = StringToWString("a\xE9\x80\xFF\x7F");
  ASSERT_EQ(widened.size(), 5U);
  EXPECT_EQ(widened[0], L'a');
  EXPECT_EQ(static_cast<int>(widened[1]), -23);
  EXPECT_EQ(static_cast<int>(widened[2]), -128);
  EXPECT_EQ(static_cast<int>(widened[3]), -1);
  EXPECT_EQ(static_cast<int>(widened[4]), 0x7F);
}

TEST(StringToWString, an_embedded_nul_keeps_the_length) {
  EXPECT_EQ(StringToWString(std::string("a\0b", 3)), std::wstring(L"a\0b", 3));
  EXPECT_EQ(StringToWString(""), L"");
}

TEST(WStringToString, only_the_low_byte_of_each_character_stays) {
  EXPECT_EQ(WStringToString(L"/dev/\u0141\u20AC"), "/dev/\x41\xAC");
  EXPECT_EQ(WStringToString(std::wstring(1, static_cast<wchar_t>(-23))), "\xE9");
  EXPECT_EQ(WStringToString(L""), "");
}

TEST(WStringToString, undoes_StringToWString_for_every_byte) {
  std::string all;
  for (int byte = 0; byte < 256; ++byte) all.push_back(static_cast<char>(byte));
  EXPECT_EQ(WStringToString(StringToWString(all)), all);
}

TEST(SnapVolumeInformation, the_full_constructor_stores_its_eight_values_and_the_narrow_names) {
  SnapVolumeInformation volume(4096, 0x1'0000'0001UL, L"/dev/sda1", 77, L"/mnt/x", true, false, 5);
  EXPECT_EQ(volume.getBlockSize(), 4096U);
  EXPECT_EQ(volume.getNumBlocks(), 0x1'0000'0001UL);
  EXPECT_EQ(volume.getSnapVolumeName(), L"/dev/sda1");
  EXPECT_EQ(volume.getRelocFileSize(), 77U);
  EXPECT_EQ(volume.getRelocMountName(), L"/mnt/x");
  EXPECT_TRUE(volume.getVtrackReqState());
  EXPECT_FALSE(volume.getIndSnapshotReqState());
  EXPECT_EQ(volume.getSnapUsageType(), 5U);
  EXPECT_EQ(volume.getSnapVolumeNameString(), "/dev/sda1");
  EXPECT_STREQ(volume.getcStrSnapVolumeName(), "/dev/sda1");
  EXPECT_STREQ(volume.getcStrRelocMountName(), "/mnt/x");
  EXPECT_EQ(volume.getRelocFileName(), "");
  EXPECT_STREQ(volume.getcStrRelocFileName(), "");
  EXPECT_EQ(volume.getRelocVolumeName(), "");
  EXPECT_STREQ(volume.getcStrRelocVolumeName(), "");
}

TEST(SnapVolumeInformation, the_short_constructor_leaves_both_relocation_options_empty) {
  SnapVolumeInformation volume(512, 9, L"/dev/sdb", false, true, 1);
  EXPECT_EQ(volume.getBlockSize(), 512U);
  EXPECT_EQ(volume.getNumBlocks(), 9UL);
  EXPECT_EQ(volume.getSnapVolumeNameString(), "/dev/sdb");
  EXPECT_EQ(volume.getRelocFileSize(), 0U);
  EXPECT_EQ(volume.getRelocMountName(), L"");
  EXPECT_STREQ(volume.getcStrRelocMountName(), "");
  EXPECT_FALSE(volume.getVtrackReqState());
  EXPECT_TRUE(volume.getIndSnapshotReqState());
  EXPECT_EQ(volume.getSnapUsageType(), 1U);
}

TEST(SnapVolumeInformation, setters_assign_and_a_copy_has_everything) {
  SnapVolumeInformation volume(512, 9, L"/dev/sdb", false, true, 1);
  volume.setRelocFileSize(100);
  volume.setRelocFileName("/mnt/.verrelocarea/sdb");
  volume.setRelocVolumeName("/dev/sdc");
  const SnapVolumeInformation copy = volume;
  EXPECT_EQ(copy.getRelocFileSize(), 100U);
  EXPECT_EQ(copy.getRelocFileName(), "/mnt/.verrelocarea/sdb");
  EXPECT_STREQ(copy.getcStrRelocFileName(), "/mnt/.verrelocarea/sdb");
  EXPECT_EQ(copy.getRelocVolumeName(), "/dev/sdc");
  EXPECT_STREQ(copy.getcStrRelocVolumeName(), "/dev/sdc");
  EXPECT_STREQ(copy.getcStrSnapVolumeName(), "/dev/sdb");
}

TEST(SnapVolumeInformation, a_changed_wide_name_leaves_the_narrow_one) {
  SnapVolumeInformation volume(512, 9, L"/dev/sdb", 3, L"/mnt", false, true, 1);
  volume.getSnapVolumeName() = L"/dev/other";
  volume.getRelocMountName() = L"/other";
  EXPECT_STREQ(volume.getcStrSnapVolumeName(), "/dev/sdb");
  EXPECT_STREQ(volume.getcStrRelocMountName(), "/mnt");
}

TEST(SnapVolumeInformation, the_narrow_snap_volume_name_is_one_string_behind_both_accessors) {
  SnapVolumeInformation volume(512, 9, L"/dev/sdb", false, true, 1);
  volume.getSnapVolumeNameString() = "/dev/real";
  EXPECT_STREQ(volume.getcStrSnapVolumeName(), "/dev/real");
  EXPECT_EQ(volume.getSnapVolumeName(), L"/dev/sdb");
}

TEST(SnappedVolumeInformation, gives_what_it_was_made_of) {
  const SnappedVolumeInformation volume(8, 17, 4096, 0x2'0000'0000UL, 55, -1, L"/dev/sdb1", L"/r/f",
                                        static_cast<_DeviceState>(0xFFFFFFFF));
  EXPECT_EQ(volume.getMajorNum(), 8U);
  EXPECT_EQ(volume.getMinorNum(), 17U);
  EXPECT_EQ(volume.getBlockSize(), 4096U);
  EXPECT_EQ(volume.getNumBlocks(), 0x2'0000'0000UL);
  EXPECT_EQ(volume.getRelocFileSize(), 55U);
  EXPECT_EQ(volume.getAppPid(), -1);
  EXPECT_EQ(volume.getSnappedVolumeName(), L"/dev/sdb1");
  EXPECT_EQ(volume.getRelocFileName(), L"/r/f");
  EXPECT_EQ(volume.getDeviceState(), 0xFFFFFFFFU);
}

TEST(RelocFileMappingInformation, gives_what_it_was_made_of) {
  const RelocFileMappingInformation mapping(4711, "/dev/sdb1", "/r/f");
  EXPECT_EQ(mapping.getAppPid(), 4711);
  EXPECT_EQ(mapping.getSnappedVolumeName(), "/dev/sdb1");
  EXPECT_EQ(mapping.getRelocFileName(), "/r/f");
}

TEST(SectorBitmap, refers_to_the_callers_name_and_runs_and_keeps_the_narrow_name_of_its_construction) {
  std::wstring name = L"/dev/sda";
  _run runs[2] = {{1, 2}, {3, 4}};
  SectorBitmap bitmap(name, 2, runs);
  name = L"/dev/changed";
  EXPECT_EQ(&bitmap.getVolumeName(), &name);
  EXPECT_EQ(bitmap.getVolumeName(), L"/dev/changed");
  EXPECT_STREQ(bitmap.getcStrSnapVolumeName(), "/dev/sda");
  EXPECT_EQ(bitmap.getSectorRuns(), runs);
  EXPECT_EQ(bitmap.getNumOfRuns(), 2U);
  EXPECT_EQ(bitmap.getUpdateType(), 0U);
}

TEST(SectorBitmap, update_type_and_count_can_be_set) {
  std::wstring name = L"/dev/sda";
  SectorBitmap bitmap(static_cast<_updateBitmapIoctlType>(3), name, 0, nullptr);
  EXPECT_EQ(bitmap.getUpdateType(), 3U);
  bitmap.setUpdateType(static_cast<_updateBitmapIoctlType>(9));
  bitmap.setNumOfRuns(12);
  EXPECT_EQ(bitmap.getUpdateType(), 9U);
  EXPECT_EQ(bitmap.getNumOfRuns(), 12U);
}

TEST(Run, is_sixteen_bytes_start_first) {
  const _run run[2] = {{1, 2}, {3, 4}};
  std::uint64_t words[4];
  static_assert(sizeof run == sizeof words);
  std::memcpy(words, run, sizeof words);
  EXPECT_EQ(words[0], 1U);
  EXPECT_EQ(words[1], 2U);
  EXPECT_EQ(words[2], 3U);
  EXPECT_EQ(words[3], 4U);
}

TEST(GetDeviceNumbers, a_missing_list_is_assert_399_and_a_missing_array_assert_400) {
  LogCapture log;
  DeviceNumberPair pair{};
  std::list<std::wstring> none;
  EXPECT_EQ(getDeviceNumbers(nullptr, &pair), 3U);
  EXPECT_EQ(getDeviceNumbers(nullptr, nullptr), 3U);
  EXPECT_EQ(getDeviceNumbers(&none, nullptr), 3U) << "the arguments are checked before the list is found empty";
  EXPECT_EQ(log.texts(LOG_ERR), (std::vector<std::string>{"assert at 399 in LinuxSnapLib.cpp failed.\n",
                                                          "assert at 399 in LinuxSnapLib.cpp failed.\n",
                                                          "assert at 400 in LinuxSnapLib.cpp failed.\n"}));
}

TEST(GetDeviceNumbers, an_empty_list_succeeds_and_fills_nothing) {
  LogCapture log;
  std::list<std::wstring> none;
  DeviceNumberPair pair{91, 92};
  EXPECT_EQ(getDeviceNumbers(&none, &pair), 0U);
  EXPECT_EQ(pair.majorNum, 91U);
  EXPECT_EQ(pair.minorNum, 92U);
  EXPECT_TRUE(log.lines().empty()) << log.dump();
}

TEST(GetDeviceNumbers, fills_one_pair_a_name_in_list_order) {
  LogCapture log;
  const Node first("/dev/vol-a", S_IFBLK, 8, 1), second("/dev/vol-b", S_IFBLK, 259, 70000);
  std::list<std::wstring> volumes = {L"/dev/vol-b", L"/dev/vol-a"};
  DeviceNumberPair pairs[2] = {};
  EXPECT_EQ(getDeviceNumbers(&volumes, pairs), 0U);
  EXPECT_EQ(pairs[0].majorNum, 259U);
  EXPECT_EQ(pairs[0].minorNum, 70000U);
  EXPECT_EQ(pairs[1].majorNum, 8U);
  EXPECT_EQ(pairs[1].minorNum, 1U);
  EXPECT_TRUE(log.lines().empty()) << log.dump();
}

TEST(GetDeviceNumbers, a_regular_file_behind_a_device_gives_7_with_the_first_pair_filled) {
  LogCapture log;
  const TempDir dir;
  test::writeFile(dir / "file", "");
  const Node device("/dev/vol-a", S_IFBLK, 8, 1);
  std::list<std::wstring> volumes = {L"/dev/vol-a", wide(dir / "file"), L"/dev/never-asked"};
  DeviceNumberPair pairs[3] = {{0, 0}, {91, 92}, {93, 94}};
  EXPECT_EQ(getDeviceNumbers(&volumes, pairs), 7U);
  EXPECT_EQ(pairs[0].majorNum, 8U);
  EXPECT_EQ(pairs[0].minorNum, 1U);
  EXPECT_EQ(pairs[1].majorNum, 91U);
  EXPECT_EQ(pairs[2].majorNum, 93U);
  EXPECT_EQ(log.lines(), (std::vector<LogLine>{error((dir / "file") + ": is not a valid block device.\n")}));
}

TEST(GetDeviceNumbers, a_missing_device_gives_8_and_a_character_device_7) {
  LogCapture log;
  std::list<std::wstring> missing = {L"/dev/nothing"}, character = {L"/dev/null"};
  DeviceNumberPair pair{};
  EXPECT_EQ(getDeviceNumbers(&missing, &pair), 8U);
  EXPECT_EQ(getDeviceNumbers(&character, &pair), 7U);
  EXPECT_EQ(log.lines(), (std::vector<LogLine>{error("/dev/nothing: Device does not exist.\n"),
                                               error("/dev/null: is not a valid block device.\n")}));
}

TEST(GetDeviceNumbers, a_path_that_cannot_be_asked_for_is_missing_too) {
  LogCapture log;
  std::list<std::wstring> throughADevice = {L"/dev/null/x"}, empty = {L""};
  DeviceNumberPair pair{};
  EXPECT_EQ(getDeviceNumbers(&throughADevice, &pair), 8U);
  EXPECT_EQ(getDeviceNumbers(&empty, &pair), 8U);
  EXPECT_EQ(log.lines(), (std::vector<LogLine>{error("/dev/null/x: Device does not exist.\n"),
                                               error(": Device does not exist.\n")}));
}

TEST(GetDeviceNumbers, a_symbolic_link_has_the_number_of_the_device_that_it_leads_to) {
  const TempDir dir;
  const Node device("/dev/vol-a", S_IFBLK, 8, 1);
  std::filesystem::create_symlink("/dev/vol-a", dir / "alias");
  std::list<std::wstring> volumes = {wide(dir / "alias")};
  DeviceNumberPair pair{};
  EXPECT_EQ(getDeviceNumbers(&volumes, &pair), 0U);
  EXPECT_EQ(pair.majorNum, 8U);
  EXPECT_EQ(pair.minorNum, 1U);
}

TEST(GetDeviceNumbers, the_path_is_the_low_bytes_of_the_name) {
  const Node device("/dev/vol-\xE9", S_IFBLK, 8, 3);
  std::list<std::wstring> volumes = {L"/dev/vol-\u01E9"};
  DeviceNumberPair pair{};
  EXPECT_EQ(getDeviceNumbers(&volumes, &pair), 0U);
  EXPECT_EQ(pair.minorNum, 3U);
}

}  // namespace
