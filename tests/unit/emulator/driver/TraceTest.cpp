// SPDX-License-Identifier: Apache-2.0
//
// The lines that are told of commands.
#include "emulator/driver/Trace.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <nlohmann/json.hpp>

#include "WireCommand.h"

namespace {

using emulator::Answer;
using emulator::CommandBuffer;
using emulator::traceLine;
using nlohmann::json;
using test::WireCommand;

json lineOf(unsigned long request, test::WireCommand command, const Answer& answer = {}, bool injected = false) {
  const CommandBuffer buffer(command.bytes());
  const std::uint32_t requestValue = command.requestValue();
  const std::string line =
      traceLine({4711, emulator::findCommand(request), &buffer, requestValue, &answer, injected}, 1714564800000001);
  EXPECT_EQ(line.find('\n'), std::string::npos);
  return json::parse(line);
}

TEST(TraceLine, tells_time_process_command_length_values_status_and_errno) {
  const json line = lineOf(IOC_GET_NUM_OF_SNAPPED_VOLUMES, test::countCommand());
  EXPECT_EQ(line["time"], "2024-05-01T12:00:00.000001Z");
  EXPECT_EQ(line["pid"], 4711);
  EXPECT_EQ(line["command"], "count-snapped");
  EXPECT_EQ(line["length"], 28);
  EXPECT_EQ(line["request_in"], 0);
  EXPECT_EQ(line["request_out"], 0);
  EXPECT_EQ(line["status"], 0);
  EXPECT_FALSE(line.contains("status_name"));
  EXPECT_EQ(line["errno"], 0);
  EXPECT_FALSE(line.contains("error"));
  EXPECT_FALSE(line.contains("injected"));
}

TEST(TraceLine, names_the_status_where_it_has_a_name) {
  WireCommand check = test::volumeCheckCommand({7, 1});
  check.put(offsetof(_ioctlCmd, driverStatus), std::int32_t{-4});
  EXPECT_EQ(lineOf(IOC_CHECK_VOLUME_SNAPPED, check)["status"], -4);
  EXPECT_EQ(lineOf(IOC_CHECK_VOLUME_SNAPPED, check)["status_name"], "not-snapped");
  check.put(offsetof(_ioctlCmd, driverStatus), std::int32_t{99});
  EXPECT_EQ(lineOf(IOC_CHECK_VOLUME_SNAPPED, check)["status"], 99);
  EXPECT_FALSE(lineOf(IOC_CHECK_VOLUME_SNAPPED, check).contains("status_name"));
}

TEST(TraceLine, tells_why_a_command_failed_and_whether_that_was_asked_for) {
  const json line =
      lineOf(IOC_GET_NUM_OF_SNAPPED_VOLUMES, test::countCommand(), emulator::refuse(EIO, "failure injected"), true);
  EXPECT_EQ(line["errno"], EIO);
  EXPECT_EQ(line["error"], "EIO");
  EXPECT_EQ(line["why"], "failure injected");
  EXPECT_EQ(line["injected"], true);
}

TEST(TraceLine, takes_names_that_are_no_utf8) {
  const json line = lineOf(IOC_DELETE_RELOC_FILE_MAPPING, test::deleteMappingCommand(9, "/dev/\xFF"));
  EXPECT_EQ(line["mappings"][0]["volume"], "/dev/\xEF\xBF\xBD");
}

TEST(TraceLine, without_a_buffer_tells_the_command_and_its_fate) {
  const Answer answer = emulator::refuse(EFAULT, "its header cannot be read");
  const json line = json::parse(traceLine({1, emulator::findCommand(IOC_SNAP), nullptr, 0, &answer, false}, 0));
  EXPECT_EQ(line["command"], "snap");
  EXPECT_EQ(line["error"], "EFAULT");
  EXPECT_FALSE(line.contains("volumes"));
}

}  // namespace
