// SPDX-License-Identifier: Apache-2.0
//
// The table of commands: a full row for each request of the protocol.
#include "emulator/driver/Commands.h"

#include <gtest/gtest.h>

#include <set>
#include <string>

namespace {

using emulator::Answered;
using emulator::Command;
using emulator::findCommand;
using emulator::kCommands;

TEST(Commands, have_a_row_each_in_the_order_of_their_numbers) {
  std::set<unsigned long> requests;
  unsigned long last = 0;
  for (const Command& command : kCommands) {
    EXPECT_LT(last, command.request) << command.name;
    last = command.request;
    requests.insert(command.request);
  }
  std::set<unsigned long> expected;
  for (unsigned int number = 3; number <= 25; ++number) {
    if (number != 5 && number != 6) expected.insert(driverRequest(number));
  }
  EXPECT_EQ(requests, expected);
}

TEST(Commands, have_nothing_left_open_in_their_rows) {
  for (const Command& command : kCommands) {
    EXPECT_FALSE(command.name.empty());
    EXPECT_NE(command.checkPayload, nullptr) << command.name;
    EXPECT_NE(command.carryOut, nullptr) << command.name;
    EXPECT_NE(command.describe, nullptr) << command.name;
  }
}

TEST(Commands, are_found_by_request_and_by_name) {
  for (const Command& command : kCommands) {
    EXPECT_EQ(findCommand(command.request), &command);
    EXPECT_EQ(findCommand(command.name), &command);
  }
  EXPECT_EQ(findCommand(driverRequest(5)), nullptr);
  EXPECT_EQ(findCommand("snapshot"), nullptr);
}

TEST(Commands, that_answer_in_their_records_give_the_whole_buffer_back_the_others_the_header) {
  std::set<unsigned long> whole;
  for (const Command& command : kCommands) {
    if (command.answered == Answered::Whole) whole.insert(command.request);
  }
  EXPECT_EQ(whole,
            (std::set<unsigned long>{IOC_GET_SNAPPED_VOL_DETAILS, IOC_GET_RELOC_FILE_MAPPING, IOC_GET_DRIVER_VERSION,
                                     IOC_SNAP_DISCARD, IOC_GET_VDIFF, IOC_GET_VTRACK_VARS}));
}

}  // namespace
