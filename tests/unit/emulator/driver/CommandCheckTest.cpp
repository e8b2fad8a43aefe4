// SPDX-License-Identifier: Apache-2.0
//
// Every command in order passes; every way to spoil one is found and named.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>

#include "WireCommand.h"
#include "emulator/driver/CommandCheck.h"

namespace {

using emulator::checkCommand;
using emulator::checkLength;
using emulator::Command;
using emulator::CommandBuffer;
using emulator::Complaint;
using test::WireCommand;
using testing::HasSubstr;

constexpr std::size_t kHeader = sizeof(_ioctlCmd);
constexpr char kSizes[] = "its length is ";

// As the emulator looks at a command: the length first, then the rest.
Complaint check(unsigned long request, WireCommand command) {
  const Command* kind = emulator::findCommand(request);
  if (auto complaint = checkLength(*kind, command.header())) return complaint;
  command.bytes().resize(command.header().length);
  return checkCommand(*kind, CommandBuffer(command.bytes()));
}

std::string complaint(unsigned long request, WireCommand command) {
  return check(request, std::move(command)).value_or("nothing");
}

WireCommand withHeader(WireCommand command, void (*change)(_ioctlCmd&)) {
  _ioctlCmd header = command.header();
  change(header);
  command.put(0, header);
  return command;
}

WireCommand withByte(WireCommand command, std::size_t offset) {
  command.bytes()[offset] = std::byte{1};
  return command;
}

test::WireSnapVolume volume(std::uint32_t minorNum, std::vector<_run> runs = {}) {
  test::WireSnapVolume wire;
  wire.device = {7, minorNum};
  wire.name = "/dev/loop" + std::to_string(minorNum);
  wire.numBlocks = 1000;
  wire.blockSize = 4096;
  wire.relocDevice = {7, 9};
  wire.relocFile = "/mnt/.verrelocarea/loop" + std::to_string(minorNum);
  wire.relocBlocks = 10;
  wire.process = 4711;
  wire.runs = std::move(runs);
  return wire;
}

struct Sample {
  unsigned long request;
  WireCommand command;
};

std::vector<Sample> commandsInOrder() {
  return {
      {IOC_GET_DRIVER_VERSION, test::versionCommand()},
      {IOC_SET_LOG_LEVEL, test::logLevelCommand(7)},
      {IOC_CHECK_VOLUME_SNAPPED, test::volumeCheckCommand({7, 1})},
      {IOC_CHECK_VOLUME_FROZEN, test::volumeCheckCommand({7, 1})},
      {IOC_FREEZE, test::volumeListCommand({{7, 1}, {7, 2}, {7, 3}})},
      {IOC_THAW, test::volumeListCommand({{7, 1}})},
      {IOC_CREATE_RELOC_FILE_MAPPING, test::createMappingCommand(1, "/dev/sda1", "/.verrelocarea/sda1")},
      {IOC_DELETE_RELOC_FILE_MAPPING, test::deleteMappingCommand(1, "/dev/sda1")},
      {IOC_GET_NUM_OF_RELOC_FILE_MAPPING, test::countCommand()},
      {IOC_GET_RELOC_FILE_MAPPING, test::mappingListingCommand(3)},
      {IOC_GET_RELOC_FILE_MAPPING, test::mappingListingCommand(0)},
      {IOC_GET_NUM_OF_SNAPPED_VOLUMES, test::countCommand()},
      {IOC_GET_SNAPPED_VOL_DETAILS, test::snappedListingCommand(2)},
      {IOC_SNAP, test::snapCommand({volume(1)})},
      {IOC_SNAP, test::snapCommand({volume(1, {{1, 9}, {999, 1}}), volume(2), volume(3, {{5, 10}})})},
      {IOC_SNAP_DISCARD, test::discardCommand({{7, 1}, {7, 2}}, 1)},
      {IOC_VERIFY_AND_CLEAN_VOLUMES, test::verifyCommand()},
      {IOC_IS_VTRACK_ACTIVE, test::volumeCheckCommand({7, 1})},
      {IOC_GET_VTRACK_VARS, test::trackingVarsCommand({7, 1})},
      {IOC_GET_VDIFF, test::bitmapCommand({7, 1}, {{0, 0}, {9, 0}}, 1)},
      {IOC_UPDATE_BITMAP, test::bitmapCommand({7, 1}, {{0, 1}, {9, 1}})},
      {IOC_UPDATE_BITMAP, test::bitmapCommand({7, 1}, {})},
      {IOC_STOP_VTRACK, test::volumeListCommand({{7, 1}, {7, 2}})},
      {IOC_DUMP_STATE, test::dumpStateCommand()},
      {IOC_DUMP_STATE, test::dumpStateCommand("/tmp/state")},
  };
}

bool carriesNames(unsigned long request) { return request == IOC_VERIFY_AND_CLEAN_VOLUMES; }
bool isBitmap(unsigned long request) { return request == IOC_GET_VDIFF || request == IOC_UPDATE_BITMAP; }

TEST(CommandCheck, passes_every_command_that_is_in_order) {
  for (const Sample& sample : commandsInOrder()) {
    EXPECT_EQ(complaint(sample.request, sample.command), "nothing") << emulator::findCommand(sample.request)->name;
  }
}

TEST(CommandCheck, the_lengths_are_those_of_the_protocol) {
  EXPECT_EQ(test::versionCommand().bytes().size(), 91u);
  EXPECT_EQ(test::logLevelCommand(1).bytes().size(), 28u);
  EXPECT_EQ(test::volumeCheckCommand({}).bytes().size(), 35u);
  EXPECT_EQ(test::volumeListCommand({{}, {}, {}}).bytes().size(), 63u);
  EXPECT_EQ(test::createMappingCommand(1, "/a", "/b").bytes().size(), 2079u);
  EXPECT_EQ(test::mappingListingCommand(2).bytes().size(), 2 * 2052u + 27);
  EXPECT_EQ(test::snappedListingCommand(2).bytes().size(), 2 * 2080u + 27);
  EXPECT_EQ(test::snapCommand({volume(1, {{1, 2}}), volume(2)}).bytes().size(), 27 + 2 * 2160u + 16);
  EXPECT_EQ(test::discardCommand({{}, {}}).bytes().size(), 2 * 1040u + 27);
  EXPECT_EQ(test::trackingVarsCommand({}).bytes().size(), 79u);
  EXPECT_EQ(test::bitmapCommand({}, {{}, {}}).bytes().size(), 75u);
  EXPECT_EQ(test::dumpStateCommand().bytes().size(), 299u);
}

TEST(CommandCheck, refuses_every_command_with_another_length) {
  for (const Sample& sample : commandsInOrder()) {
    for (const int more : {-1, 1, 1 << 20}) {
      WireCommand command = sample.command;
      _ioctlCmd header = command.header();
      header.length += static_cast<std::uint32_t>(more);
      command.put(0, header);
      // A snap's length may be any that its runs account for; what they are is looked at then.
      EXPECT_THAT(complaint(sample.request, command), HasSubstr(kSizes)) << emulator::findCommand(sample.request)->name;
    }
  }
}

TEST(CommandCheck, a_length_beyond_all_reason_is_refused_before_anything_is_read) {
  const auto huge = [](_ioctlCmd& header) { header.length = 0x7FFFFFFF; };
  EXPECT_EQ(complaint(IOC_SNAP, withHeader(test::snapCommand({volume(1)}), huge)),
            "its length is 2147483647, not plausible");
}

TEST(CommandCheck, a_count_that_does_not_match_the_length_is_refused) {
  const auto more = [](_ioctlCmd& header) { ++header.requestValue; };
  const auto wrapped = [](_ioctlCmd& header) { header.requestValue = 0x80000001; };
  for (const Sample& sample : commandsInOrder()) {
    if (sample.request == IOC_SNAP) continue;
    EXPECT_NE(complaint(sample.request, withHeader(sample.command, more)), "nothing");
    EXPECT_NE(complaint(sample.request, withHeader(sample.command, wrapped)), "nothing");
  }
  EXPECT_EQ(complaint(IOC_SNAP, withHeader(test::snapCommand({volume(1)}), more)),
            "its length is 2187, not at least the 4347 of 2 volumes");
  EXPECT_EQ(complaint(IOC_FREEZE, withHeader(test::volumeListCommand({{7, 1}}), more)),
            "its length is 39, not the 51 of 2 records");
}

TEST(CommandCheck, refuses_every_command_with_a_wrong_handshake) {
  const auto spoil = [](_ioctlCmd& header) { ++header.handshakeCheck; };
  for (const Sample& sample : commandsInOrder()) {
    EXPECT_THAT(complaint(sample.request, withHeader(sample.command, spoil)), HasSubstr("its handshake check is "));
  }
}

TEST(CommandCheck, accepts_the_handshake_of_every_value) {
  for (std::uint32_t value = 0; value < 24; ++value) {
    WireCommand command = test::countCommand();
    command.put(0, _ioctlCmd{0, 0, value, ((value % 12) + 1234) % 20, 28, 0});
    EXPECT_EQ(complaint(IOC_GET_NUM_OF_SNAPPED_VOLUMES, command), "nothing");
  }
  WireCommand command = test::countCommand();
  command.put(0, _ioctlCmd{0, 0, 12, 14, 28, 0});  // 12 mod 12 = 0 gives 14
  EXPECT_EQ(complaint(IOC_GET_NUM_OF_SNAPPED_VOLUMES, command), "nothing");
}

TEST(CommandCheck, refuses_flags_and_a_status_that_are_not_zero) {
  const auto flags = [](_ioctlCmd& header) { header.flags ^= 1; };
  const auto status = [](_ioctlCmd& header) { header.driverStatus = -4; };
  for (const Sample& sample : commandsInOrder()) {
    if (carriesNames(sample.request)) continue;
    EXPECT_EQ(complaint(sample.request, withHeader(sample.command, flags)),
              isBitmap(sample.request) ? "its command flags are 0, not 1" : "its command flags are 1, not 0");
    EXPECT_EQ(complaint(sample.request, withHeader(sample.command, status)), "its driver status is -4, not 0");
  }
}

TEST(CommandCheck, the_request_value_of_a_check_is_1_and_of_a_plain_command_0) {
  const auto zero = [](_ioctlCmd& header) { header.requestValue = 0; };
  const auto one = [](_ioctlCmd& header) { header.requestValue = 1; };
  EXPECT_EQ(complaint(IOC_CHECK_VOLUME_SNAPPED, withHeader(test::volumeCheckCommand({7, 1}), zero)),
            "its request value is 0, not 1");
  for (const Sample& sample : commandsInOrder()) {
    switch (sample.request) {
      case IOC_GET_DRIVER_VERSION:
      case IOC_SET_LOG_LEVEL:
      case IOC_CREATE_RELOC_FILE_MAPPING:
      case IOC_DELETE_RELOC_FILE_MAPPING:
      case IOC_GET_NUM_OF_RELOC_FILE_MAPPING:
      case IOC_GET_NUM_OF_SNAPPED_VOLUMES:
      case IOC_VERIFY_AND_CLEAN_VOLUMES:
      case IOC_DUMP_STATE:
        EXPECT_EQ(complaint(sample.request, withHeader(sample.command, one)), "its request value is 1, not 0");
        break;
      case IOC_IS_VTRACK_ACTIVE:
      case IOC_GET_VTRACK_VARS:
      case IOC_GET_VDIFF:
      case IOC_UPDATE_BITMAP:
        EXPECT_EQ(complaint(sample.request, withHeader(sample.command, zero)), "its request value is 0, not 1");
        break;
      default:
        break;
    }
  }
}

TEST(CommandCheck, a_command_over_volumes_names_at_least_one) {
  EXPECT_EQ(complaint(IOC_FREEZE, test::volumeListCommand({})), "it names no volume");
  EXPECT_EQ(complaint(IOC_SNAP_DISCARD, test::discardCommand({})), "it names no volume");
  EXPECT_EQ(complaint(IOC_SNAP, test::snapCommand({})), "it names no volume");
}

TEST(CommandCheck, no_volume_is_named_twice) {
  const char* const twice = "it names the volume 7:1 twice";
  EXPECT_EQ(complaint(IOC_THAW, test::volumeListCommand({{7, 1}, {7, 2}, {7, 1}})), twice);
  EXPECT_EQ(complaint(IOC_SNAP_DISCARD, test::discardCommand({{7, 1}, {7, 1}})), twice);
  EXPECT_EQ(complaint(IOC_SNAP, test::snapCommand({volume(1), volume(1)})), std::string("volume 1: ") + twice);
}

// Every byte that a client leaves zero, one after the other.
TEST(CommandCheck, spare_bytes_and_bytes_that_the_driver_fills_are_zero) {
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

TEST(CommandCheck, of_verify_and_clean_only_handshake_value_length_and_one_byte_matter) {
  const WireCommand command = test::verifyCommand();
  EXPECT_EQ(complaint(IOC_VERIFY_AND_CLEAN_VOLUMES, command), "nothing");
  EXPECT_EQ(complaint(IOC_VERIFY_AND_CLEAN_VOLUMES, withByte(command, 24)), "the byte at offset 24 is not zero");
  for (const std::size_t offset : {0u, 3u, 20u, 25u, 27u}) {
    EXPECT_EQ(complaint(IOC_VERIFY_AND_CLEAN_VOLUMES, withByte(command, offset)), "nothing");
  }
}

TEST(CommandCheck, a_log_level_is_a_priority) {
  EXPECT_EQ(complaint(IOC_SET_LOG_LEVEL, test::logLevelCommand(0)), "nothing");
  EXPECT_EQ(complaint(IOC_SET_LOG_LEVEL, test::logLevelCommand(8)), "the log level is 8, above 7");
}

TEST(CommandCheck, names_are_full_paths_with_an_end) {
  EXPECT_EQ(complaint(IOC_CREATE_RELOC_FILE_MAPPING, test::createMappingCommand(1, "sda1", "/b")),
            "the volume name \"sda1\" is not a full path");
  EXPECT_EQ(complaint(IOC_CREATE_RELOC_FILE_MAPPING, test::createMappingCommand(1, "/a", "")),
            "the relocation file name \"\" is not a full path");
  EXPECT_EQ(complaint(IOC_DELETE_RELOC_FILE_MAPPING, test::deleteMappingCommand(1, "")),
            "the volume name \"\" is not a full path");
  WireCommand endless = test::createMappingCommand(1, std::string(1023, '/'), std::string(1023, '/'));
  EXPECT_EQ(complaint(IOC_CREATE_RELOC_FILE_MAPPING, endless), "nothing");
  endless.put(kHeader + 4 + 1023, 'x');
  EXPECT_EQ(complaint(IOC_CREATE_RELOC_FILE_MAPPING, endless), "the volume name has no end");
  endless.put(kHeader + 4 + 1023, '\0').put(kHeader + 1028 + 1023, 'x');
  EXPECT_EQ(complaint(IOC_CREATE_RELOC_FILE_MAPPING, endless), "the relocation file name has no end");
}

TEST(CommandCheck, a_mapping_belongs_to_a_process) {
  EXPECT_EQ(complaint(IOC_CREATE_RELOC_FILE_MAPPING, test::createMappingCommand(0, "/a", "/b")), "the process id is 0");
  EXPECT_EQ(complaint(IOC_DELETE_RELOC_FILE_MAPPING, test::deleteMappingCommand(-1, "/a")), "the process id is -1");
}

TEST(CommandCheck, a_discards_flag_is_0_or_1) {
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

TEST(CommandCheck, a_snaps_entries_are_walked_by_their_own_run_counts) {
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

TEST(CommandCheck, the_bytes_behind_a_snaps_runs_are_zero) {
  const WireCommand command = test::snapCommand({volume(1, {{1, 1}})});
  for (std::size_t offset = kHeader + 2144 + 16; offset < kHeader + 2160 + 16; ++offset) {
    EXPECT_EQ(complaint(IOC_SNAP, withByte(command, offset)),
              "volume 0: the byte at offset " + std::to_string(offset) + " is not zero");
  }
  EXPECT_EQ(complaint(IOC_SNAP, withByte(command, command.bytes().size() - 1)),
            "the byte at offset " + std::to_string(command.bytes().size() - 1) + " is not zero");
}

TEST(CommandCheck, a_snaps_runs_lie_in_the_volume) {
  const auto withRun = [](_run run) { return complaint(IOC_SNAP, test::snapCommand({volume(1, {{1, 1}, run})})); };
  EXPECT_EQ(withRun({2, 998}), "nothing");
  EXPECT_EQ(withRun({2, 999}), "volume 0: run 1 (2 + 999 blocks) does not lie in the volume's 1000");
  EXPECT_EQ(withRun({1000, 1}), "volume 0: run 1 (1000 + 1 blocks) does not lie in the volume's 1000");
  EXPECT_EQ(withRun({UINT64_MAX, 2}),
            "volume 0: run 1 (18446744073709551615 + 2 blocks) does not lie in the volume's 1000");
  EXPECT_EQ(withRun({2, UINT64_MAX}),
            "volume 0: run 1 (2 + 18446744073709551615 blocks) does not lie in the volume's 1000");
  EXPECT_EQ(withRun({2, 0}), "volume 0: run 1 (2 + 0 blocks) does not lie in the volume's 1000");
  EXPECT_EQ(withRun({0, 1}), "volume 0: run 1 (0 + 1 blocks) does not lie in the volume's 1000");
}

TEST(CommandCheck, a_snaps_sizes_are_plausible) {
  EXPECT_EQ(snapComplaint([](SnapVolumeEntry& entry) { entry.blockSize = 512; }), "nothing");
  for (const std::uint32_t size : {0u, 256u, 513u, 4095u}) {
    EXPECT_EQ(snapComplaint([=](SnapVolumeEntry& entry) { entry.blockSize = size; }),
              "volume 0: the block size " + std::to_string(size) + " is no power of two from 512 up");
  }
  EXPECT_EQ(snapComplaint([](SnapVolumeEntry& entry) { entry.numBlocks = 0; }), "volume 0: the volume has no blocks");
  EXPECT_EQ(snapComplaint([](SnapVolumeEntry& entry) { entry.relocFileSize = 0; }),
            "volume 0: the relocation file has no blocks");
  EXPECT_EQ(snapComplaint([](SnapVolumeEntry& entry) { entry.hashSize = 0; }), "volume 0: the hash size is 0");
}

TEST(CommandCheck, a_snaps_names_and_process_are_checked) {
  EXPECT_EQ(snapComplaint([](SnapVolumeEntry& entry) { entry.volumeName[0] = 'x'; }),
            "volume 0: the volume name \"xdev/loop1\" is not a full path");
  EXPECT_EQ(snapComplaint([](SnapVolumeEntry& entry) { std::memset(entry.volumeName, '/', 1024); }),
            "volume 0: the volume name has no end");
  EXPECT_EQ(snapComplaint([](SnapVolumeEntry& entry) { entry.relocFileName[0] = '\0'; }),
            "volume 0: the relocation file name \"\" is not a full path");
  EXPECT_EQ(snapComplaint([](SnapVolumeEntry& entry) { std::memset(entry.relocFileName, '/', 1024); }),
            "volume 0: the relocation file name has no end");
  EXPECT_EQ(snapComplaint([](SnapVolumeEntry& entry) { entry.appPid = 0; }), "volume 0: the process id is 0");
  EXPECT_EQ(snapComplaint([](SnapVolumeEntry& entry) { entry.appPid = 0x80000000; }),
            "volume 0: the process id is 2147483648");
}

TEST(CommandCheck, a_snaps_requests_are_0_or_1_and_any_usage_type_goes) {
  EXPECT_EQ(snapComplaint([](SnapVolumeEntry& entry) { entry.vtrackRequest = 2; }),
            "volume 0: the change-tracking request is 2, not 0 or 1");
  EXPECT_EQ(snapComplaint([](SnapVolumeEntry& entry) { entry.independentSnapshotRequest = 2; }),
            "volume 0: the independent-snapshot request is 2, not 0 or 1");
  EXPECT_EQ(snapComplaint([](SnapVolumeEntry& entry) { entry.snapUsageType = 0xFFFFFFFF; }), "nothing");
}

TEST(CommandCheck, a_tracking_guid_is_there_exactly_when_tracking_wants_one) {
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
  EXPECT_EQ(with(0, 0, guid), "volume 0: it carries a tracking GUID that nothing asks for");
  EXPECT_EQ(with(1, 1, guid), "volume 0: it carries a tracking GUID that nothing asks for");
  EXPECT_EQ(with(1, 0, ""), "volume 0: the tracking GUID \"\" is none");
  EXPECT_EQ(with(1, 0, "{null}"), "volume 0: the tracking GUID \"{null}\" is none");
  EXPECT_EQ(with(1, 0, "0123CDEF-89ab-1def-8012-0123456789ab"),
            "volume 0: the tracking GUID \"0123CDEF-89ab-1def-8012-0123456789ab\" is none");
  EXPECT_EQ(with(1, 0, "0123cdef-89ab-1def-8012-0123456789abcdef"), "volume 0: the tracking GUID has no end");
}

TEST(CommandCheck, a_bitmap_has_as_many_runs_as_its_length_holds_up_to_1024) {
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
            "its length is 16443, not at most the 16427 of 1024 runs");
  EXPECT_EQ(complaint(IOC_GET_VDIFF, WireCommand(42, 1)), "its length is 42, not at least the 43 of no runs");
  EXPECT_EQ(complaint(IOC_GET_VDIFF, WireCommand(50, 1)), "its length is 50, not a whole number of runs");
}

TEST(CommandCheck, a_bitmaps_update_type_is_0_or_1) {
  EXPECT_EQ(complaint(IOC_GET_VDIFF, test::bitmapCommand({7, 1}, {}, 2)), "the update type is 2, not 0 or 1");
  EXPECT_EQ(complaint(IOC_UPDATE_BITMAP, test::bitmapCommand({7, 1}, {}, 2)), "the update type is 2, not 0 or 1");
}

TEST(CommandCheck, a_dumps_file_name_is_a_full_path_with_an_end_where_the_file_flag_is_1) {
  EXPECT_EQ(complaint(IOC_DUMP_STATE, test::dumpStateCommand("state")), "the file name \"state\" is not a full path");
  WireCommand command = test::dumpStateCommand("/state");
  command.bytes()[25] = std::byte{2};
  EXPECT_EQ(complaint(IOC_DUMP_STATE, command), "the byte at offset 36 is not zero");
  command = test::dumpStateCommand("/state");
  std::fill_n(command.bytes().begin() + 37, 256, std::byte{'n'});
  EXPECT_EQ(complaint(IOC_DUMP_STATE, command), "the file name has no end");
  EXPECT_EQ(complaint(IOC_DUMP_STATE, test::dumpStateCommand("/" + std::string(255, 'n'))), "nothing");
  command = test::dumpStateCommand();
  command.bytes()[24] = std::byte{0xFF};
  EXPECT_EQ(complaint(IOC_DUMP_STATE, command), "nothing") << "the first flag may be anything";
}

}  // namespace
