// SPDX-License-Identifier: Apache-2.0
//
// Payloads: every way to spoil one is found and named.
#include "emulator/driver/PayloadCheck.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <functional>

#include "CheckFixture.h"

namespace {

// Every byte that a client leaves zero, one after the other.
TEST(PayloadCheck, spare_bytes_and_bytes_that_the_driver_fills_are_zero) {
  const auto expectZero = [](unsigned long request, const WireCommand& command, std::size_t from, std::size_t to) {
    for (std::size_t offset = from; offset < to; ++offset) {
      EXPECT_EQ(complaint(request, withByte(command, offset)),
                "the byte at offset " + std::to_string(offset) + " is not zero");
    }
  };
  expectZero(IOC_GET_DRIVER_VERSION, test::versionCommand(), 24, 91);
  expectZero(IOC_CHECK_VOLUME_SNAPPED, test::volumeCheckCommand({7, 1}), 32, 35);
  const WireCommand list = test::volumeListCommand({{7, 1}, {7, 2}});
  expectZero(IOC_FREEZE, list, 32, 36);
  expectZero(IOC_FREEZE, list, 44, 51);
  expectZero(IOC_CREATE_RELOC_FILE_MAPPING, test::createMappingCommand(1, "/a", "/b"), 2076, 2079);
  expectZero(IOC_DELETE_RELOC_FILE_MAPPING, test::deleteMappingCommand(1, "/a"), 1052, 2079);
  expectZero(IOC_GET_NUM_OF_SNAPPED_VOLUMES, test::countCommand(), 24, 28);
  expectZero(IOC_GET_RELOC_FILE_MAPPING, test::mappingListingCommand(1), 24, 24 + 2052 + 3);
  expectZero(IOC_GET_SNAPPED_VOL_DETAILS, test::snappedListingCommand(1), 24, 24 + 2080 + 3);
  const WireCommand discard = test::discardCommand({{7, 1}});
  expectZero(IOC_SNAP_DISCARD, discard, 24 + 8, 24 + 12);
  expectZero(IOC_SNAP_DISCARD, discard, 24 + 16, 24 + 1040 + 3);
  expectZero(IOC_IS_VTRACK_ACTIVE, test::volumeCheckCommand({7, 1}), 32, 35);
  expectZero(IOC_GET_VTRACK_VARS, test::trackingVarsCommand({7, 1}), 32, 79);
  expectZero(IOC_GET_VDIFF, test::bitmapCommand({7, 1}, {{1, 1}}), 56, 59);
  expectZero(IOC_UPDATE_BITMAP, test::bitmapCommand({7, 1}, {{1, 1}}), 56, 59);
  expectZero(IOC_STOP_VTRACK, test::volumeListCommand({{7, 1}}), 32, 39);
  expectZero(IOC_DUMP_STATE, test::dumpStateCommand(), 26, 299);
  expectZero(IOC_DUMP_STATE, test::dumpStateCommand("/state"), 26, 36);
  expectZero(IOC_DUMP_STATE, test::dumpStateCommand("/state"), 293, 299);
}

TEST(PayloadCheck, of_verify_and_clean_only_handshake_value_length_and_one_byte_matter) {
  const WireCommand command = test::verifyCommand();
  EXPECT_EQ(complaint(IOC_VERIFY_AND_CLEAN_VOLUMES, command), "nothing");
  EXPECT_EQ(complaint(IOC_VERIFY_AND_CLEAN_VOLUMES, withByte(command, 24)), "the byte at offset 24 is not zero");
  for (const std::size_t offset : {0u, 3u, 20u, 25u, 27u}) {
    EXPECT_EQ(complaint(IOC_VERIFY_AND_CLEAN_VOLUMES, withByte(command, offset)), "nothing");
  }
}

TEST(PayloadCheck, no_volume_is_named_twice) {
  const char* const twice = "it names the volume 7:1 twice";
  EXPECT_EQ(complaint(IOC_THAW, test::volumeListCommand({{7, 1}, {7, 2}, {7, 1}})), twice);
  EXPECT_EQ(complaint(IOC_SNAP_DISCARD, test::discardCommand({{7, 1}, {7, 1}})), twice);
  EXPECT_EQ(complaint(IOC_SNAP, test::snapCommand({volume(1), volume(1)})), std::string("volume 1: ") + twice);
}

TEST(PayloadCheck, a_log_level_may_be_any) {
  for (const std::uint32_t level : {0u, 7u, 8u, 255u}) {
    EXPECT_EQ(complaint(IOC_SET_LOG_LEVEL, test::logLevelCommand(level)), "nothing") << level;
  }
}

TEST(PayloadCheck, names_are_full_paths_with_an_end) {
  EXPECT_EQ(complaint(IOC_CREATE_RELOC_FILE_MAPPING, test::createMappingCommand(1, "sda1", "/b")),
            "the volume name \"sda1\" is not a full path");
  EXPECT_EQ(complaint(IOC_CREATE_RELOC_FILE_MAPPING, test::createMappingCommand(1, "/a", "")),
            "the relocation file name \"\" is not a full path");
  EXPECT_EQ(complaint(IOC_DELETE_RELOC_FILE_MAPPING, test::deleteMappingCommand(1, "")),
            "the volume name \"\" is not a full path");
  WireCommand endless = test::createMappingCommand(1, std::string(1023, '/'), std::string(1023, '/'));
  EXPECT_EQ(complaint(IOC_CREATE_RELOC_FILE_MAPPING, endless), "nothing");
  endless.put(kHeader + 4 + 1023, 'x');
  EXPECT_EQ(complaint(IOC_CREATE_RELOC_FILE_MAPPING, endless), "the volume name is not terminated");
  endless.put(kHeader + 4 + 1023, '\0').put(kHeader + 1028 + 1023, 'x');
  EXPECT_EQ(complaint(IOC_CREATE_RELOC_FILE_MAPPING, endless), "the relocation file name is not terminated");
}

TEST(PayloadCheck, a_mapping_belongs_to_a_process) {
  EXPECT_EQ(complaint(IOC_CREATE_RELOC_FILE_MAPPING, test::createMappingCommand(0, "/a", "/b")),
            "the process id is 0, out of range");
  EXPECT_EQ(complaint(IOC_DELETE_RELOC_FILE_MAPPING, test::deleteMappingCommand(-1, "/a")),
            "the process id is -1, out of range");
}

TEST(PayloadCheck, a_discards_flag_is_0_or_1) {
  EXPECT_EQ(complaint(IOC_SNAP_DISCARD, test::discardCommand({{7, 1}}, 2)), "the flag of a volume is 2, not 0 or 1");
}

// ---- snap

// A snap command of one volume, its fixed part changed.
std::string snapComplaint(const std::function<void(SnapVolumeEntry&)>& change) {
  WireCommand command = test::snapCommand({volume(1)});
  auto entry = command.get<SnapVolumeEntry>(kHeader);
  change(entry);
  command.put(kHeader, entry);
  return complaint(IOC_SNAP, command);
}

TEST(PayloadCheck, a_snaps_entries_are_walked_by_their_own_run_counts) {
  // Two volumes whose run counts are swapped: the length is right, the entries are not.
  WireCommand command = test::snapCommand({volume(1, {{1, 1}}), volume(2)});
  auto first = command.get<SnapVolumeEntry>(kHeader);
  first.numRuns = 0;
  command.put(kHeader, first);
  EXPECT_NE(complaint(IOC_SNAP, command), "nothing");

  EXPECT_EQ(snapComplaint([](SnapVolumeEntry& entry) { entry.numRuns = 1; }),
            "volume 0: its entry does not fit into the command");
  EXPECT_EQ(snapComplaint([](SnapVolumeEntry& entry) { entry.numRuns = 0xFFFFFFFF; }),
            "volume 0: its entry does not fit into the command");
  // A run more in the length than in the entry.
  WireCommand longer = test::snapCommand({volume(1)});
  _ioctlCmd header = longer.header();
  header.length += 16;
  longer.put(0, header);
  EXPECT_EQ(complaint(IOC_SNAP, longer), "its length is 2203, not the 2187 that its volumes take");
}

TEST(PayloadCheck, the_bytes_behind_a_snaps_runs_are_zero) {
  const WireCommand command = test::snapCommand({volume(1, {{1, 1}})});
  for (std::size_t offset = kHeader + 2144 + 16; offset < kHeader + 2160 + 16; ++offset) {
    EXPECT_EQ(complaint(IOC_SNAP, withByte(command, offset)),
              "volume 0: the byte at offset " + std::to_string(offset) + " is not zero");
  }
  EXPECT_EQ(complaint(IOC_SNAP, withByte(command, command.bytes().size() - 1)),
            "the byte at offset " + std::to_string(command.bytes().size() - 1) + " is not zero");
}

TEST(PayloadCheck, a_snaps_runs_lie_in_the_volume) {
  const auto withRun = [](_run run) { return complaint(IOC_SNAP, test::snapCommand({volume(1, {{1, 1}, run})})); };
  EXPECT_EQ(withRun({2, 998}), "nothing");
  EXPECT_EQ(withRun({2, 999}), "volume 0: run 1 (2 + 999 blocks) does not lie within the volume's 1000 blocks");
  EXPECT_EQ(withRun({1000, 1}), "volume 0: run 1 (1000 + 1 blocks) does not lie within the volume's 1000 blocks");
  EXPECT_EQ(withRun({UINT64_MAX, 2}),
            "volume 0: run 1 (18446744073709551615 + 2 blocks) does not lie within the volume's 1000 blocks");
  EXPECT_EQ(withRun({2, UINT64_MAX}),
            "volume 0: run 1 (2 + 18446744073709551615 blocks) does not lie within the volume's 1000 blocks");
  EXPECT_EQ(withRun({2, 0}), "volume 0: run 1 (2 + 0 blocks) does not lie within the volume's 1000 blocks");
  EXPECT_EQ(withRun({0, 1}), "volume 0: run 1 (0 + 1 blocks) does not lie within the volume's 1000 blocks");
}

TEST(PayloadCheck, a_snaps_sizes_are_plausible) {
  EXPECT_EQ(snapComplaint([](SnapVolumeEntry& entry) { entry.blockSize = 512; }), "nothing");
  for (const std::uint32_t size : {0u, 256u, 513u, 4095u}) {
    EXPECT_EQ(snapComplaint([=](SnapVolumeEntry& entry) { entry.blockSize = size; }),
              "volume 0: the block size " + std::to_string(size) + " is not a power of two of at least 512");
  }
  EXPECT_EQ(snapComplaint([](SnapVolumeEntry& entry) { entry.numBlocks = 0; }), "volume 0: the volume has no blocks");
  EXPECT_EQ(snapComplaint([](SnapVolumeEntry& entry) { entry.relocFileSize = 0; }),
            "volume 0: the relocation file has no blocks");
  EXPECT_EQ(snapComplaint([](SnapVolumeEntry& entry) { entry.hashSize = 0; }), "volume 0: the hash size is 0");
}

TEST(PayloadCheck, a_snaps_names_and_process_are_checked) {
  EXPECT_EQ(snapComplaint([](SnapVolumeEntry& entry) { entry.volumeName[0] = 'x'; }),
            "volume 0: the volume name \"xdev/loop1\" is not a full path");
  EXPECT_EQ(snapComplaint([](SnapVolumeEntry& entry) { std::memset(entry.volumeName, '/', 1024); }),
            "volume 0: the volume name is not terminated");
  EXPECT_EQ(snapComplaint([](SnapVolumeEntry& entry) { entry.relocFileName[0] = '\0'; }),
            "volume 0: the relocation file name \"\" is not a full path");
  EXPECT_EQ(snapComplaint([](SnapVolumeEntry& entry) { std::memset(entry.relocFileName, '/', 1024); }),
            "volume 0: the relocation file name is not terminated");
  EXPECT_EQ(snapComplaint([](SnapVolumeEntry& entry) { entry.appPid = 0; }),
            "volume 0: the process id is 0, out of range");
  EXPECT_EQ(snapComplaint([](SnapVolumeEntry& entry) { entry.appPid = 0x80000000; }),
            "volume 0: the process id is 2147483648, out of range");
}

TEST(PayloadCheck, a_snaps_requests_are_0_or_1_and_any_usage_type_goes) {
  EXPECT_EQ(snapComplaint([](SnapVolumeEntry& entry) { entry.vtrackRequest = 2; }),
            "volume 0: the change-tracking request is 2, not 0 or 1");
  EXPECT_EQ(snapComplaint([](SnapVolumeEntry& entry) { entry.independentSnapshotRequest = 2; }),
            "volume 0: the independent-snapshot request is 2, not 0 or 1");
  EXPECT_EQ(snapComplaint([](SnapVolumeEntry& entry) { entry.snapUsageType = 0xFFFFFFFF; }), "nothing");
}

TEST(PayloadCheck, a_tracking_guid_is_there_exactly_when_tracking_wants_one) {
  const auto with = [](std::uint32_t vtrack, std::uint32_t independent, const char* guid) {
    return snapComplaint([=](SnapVolumeEntry& entry) {
      entry.vtrackRequest = vtrack;
      entry.independentSnapshotRequest = independent;
      std::string(guid).copy(entry.trackingGuid, sizeof entry.trackingGuid);
    });
  };
  const char* const guid = "0123cdef-89ab-1def-8012-0123456789ab";
  EXPECT_EQ(with(1, 0, guid), "nothing");
  EXPECT_EQ(with(1, 1, ""), "nothing");
  EXPECT_EQ(with(0, 0, ""), "nothing");
  EXPECT_EQ(with(0, 0, guid), "volume 0: it carries a tracking GUID but requests no tracking");
  EXPECT_EQ(with(1, 1, guid), "volume 0: it carries a tracking GUID but requests no tracking");
  EXPECT_EQ(with(1, 0, ""), "volume 0: the tracking GUID \"\" is malformed");
  EXPECT_EQ(with(1, 0, "{null}"), "volume 0: the tracking GUID \"{null}\" is malformed");
  EXPECT_EQ(with(1, 0, "0123CDEF-89ab-1def-8012-0123456789ab"),
            "volume 0: the tracking GUID \"0123CDEF-89ab-1def-8012-0123456789ab\" is malformed");
  EXPECT_EQ(with(1, 0, "0123cdef-89ab-1def-8012-0123456789abcdef"), "volume 0: the tracking GUID is not terminated");
}

TEST(PayloadCheck, a_bitmap_has_as_many_runs_as_its_length_holds_up_to_1024) {
  const auto withRuns = [](std::uint32_t numRuns) {
    WireCommand command = test::bitmapCommand({7, 1}, {{1, 1}, {2, 1}});
    command.put(36, numRuns);
    return command;
  };
  EXPECT_EQ(complaint(IOC_GET_VDIFF, withRuns(1)), "its number of runs is 1, not the 2 that it has room for");
  EXPECT_EQ(complaint(IOC_UPDATE_BITMAP, withRuns(0xFFFFFFFF)),
            "its number of runs is 4294967295, not the 2 that it has room for");
  const auto most = std::vector<_run>(1024, {1, 1});
  EXPECT_EQ(complaint(IOC_GET_VDIFF, test::bitmapCommand({7, 1}, most)), "nothing");
  EXPECT_EQ(complaint(IOC_UPDATE_BITMAP, test::bitmapCommand({7, 1}, std::vector<_run>(1025, {1, 1}))),
            "its length is 16443, more than the 16427 of 1024 runs");
  EXPECT_EQ(complaint(IOC_GET_VDIFF, WireCommand(42, 1)), "its length is 42, less than the 43 of no runs");
  EXPECT_EQ(complaint(IOC_GET_VDIFF, WireCommand(50, 1)), "its length is 50, not a whole number of runs");
}

TEST(PayloadCheck, a_bitmaps_update_type_is_0_or_1) {
  EXPECT_EQ(complaint(IOC_GET_VDIFF, test::bitmapCommand({7, 1}, {}, 2)), "the update type is 2, not 0 or 1");
  EXPECT_EQ(complaint(IOC_UPDATE_BITMAP, test::bitmapCommand({7, 1}, {}, 2)), "the update type is 2, not 0 or 1");
}

TEST(PayloadCheck, a_dumps_file_name_is_a_full_path_with_an_end_where_the_file_flag_is_1) {
  EXPECT_EQ(complaint(IOC_DUMP_STATE, test::dumpStateCommand("state")), "the file name \"state\" is not a full path");
  WireCommand command = test::dumpStateCommand("/state");
  command.bytes()[25] = std::byte{2};
  EXPECT_EQ(complaint(IOC_DUMP_STATE, command), "the byte at offset 36 is not zero");
  command = test::dumpStateCommand("/state");
  std::fill_n(command.bytes().begin() + 37, 256, std::byte{'n'});
  EXPECT_EQ(complaint(IOC_DUMP_STATE, command), "the file name is not terminated");
  EXPECT_EQ(complaint(IOC_DUMP_STATE, test::dumpStateCommand("/" + std::string(255, 'n'))), "nothing");
  command = test::dumpStateCommand();
  command.bytes()[24] = std::byte{0xFF};
  EXPECT_EQ(complaint(IOC_DUMP_STATE, command), "nothing") << "the first flag may be anything";
}

}  // namespace
