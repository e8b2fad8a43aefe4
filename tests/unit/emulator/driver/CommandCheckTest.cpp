// SPDX-License-Identifier: Apache-2.0
//
// A command's length and header against the rules of its row; every way to spoil them is found and named.
#include "emulator/driver/CommandCheck.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "CheckFixture.h"

namespace {

using testing::HasSubstr;

constexpr char kSizes[] = "its length is ";

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
            "its length is 2147483647, longer than any command");
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
            "its length is 2187, less than the 4347 of 2 volumes");
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

}  // namespace
