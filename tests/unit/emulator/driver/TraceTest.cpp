// SPDX-License-Identifier: Apache-2.0
//
// The lines that are told of commands.
#include "emulator/driver/Trace.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <unistd.h>
#include <algorithm>

#include <cerrno>
#include <nlohmann/json.hpp>

#include "WireCommand.h"
#include "World.h"
#include "emulator/driver/Messages.h"

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
  EXPECT_EQ(line["errno"], 0);
  EXPECT_FALSE(line.contains("error"));
  EXPECT_FALSE(line.contains("injected"));
}

TEST(TraceLine, tells_why_a_command_failed_and_whether_that_was_asked_for) {
  const json line =
      lineOf(IOC_GET_NUM_OF_SNAPPED_VOLUMES, test::countCommand(), emulator::refuse(EIO, "as asked"), true);
  EXPECT_EQ(line["errno"], EIO);
  EXPECT_EQ(line["error"], "EIO");
  EXPECT_EQ(line["why"], "as asked");
  EXPECT_EQ(line["injected"], true);
}

TEST(TraceLine, tells_a_snaps_volumes_sizes_and_run_counts) {
  test::WireSnapVolume volume;
  volume.device = {7, 3};
  volume.name = "/dev/loop3";
  volume.numBlocks = 100;
  volume.blockSize = 4096;
  volume.relocDevice = {7, 4};
  volume.relocFile = "/r";
  volume.relocBlocks = 10;
  volume.process = 12;
  volume.runs = {{5, 6}, {20, 4}};
  const json line = lineOf(IOC_SNAP, test::snapCommand({volume, volume}));
  ASSERT_EQ(line["volumes"].size(), 2u);
  const json told = line["volumes"][1];
  EXPECT_EQ(told["device"], "7:3");
  EXPECT_EQ(told["volume"], "/dev/loop3");
  EXPECT_EQ(told["blocks"], 100);
  EXPECT_EQ(told["block_size"], 4096);
  EXPECT_EQ(told["relocation_device"], "7:4");
  EXPECT_EQ(told["relocation_file"], "/r");
  EXPECT_EQ(told["relocation_blocks"], 10);
  EXPECT_EQ(told["process"], 12);
  EXPECT_EQ(told["runs"], 2);
  EXPECT_EQ(told["run_blocks"], 10);
}

TEST(TraceLine, tells_the_records_of_the_other_commands) {
  EXPECT_EQ(lineOf(IOC_FREEZE, test::volumeListCommand({{7, 1}, {7, 2}}))["volumes"][1]["device"], "7:2");
  EXPECT_EQ(lineOf(IOC_CHECK_VOLUME_SNAPPED, test::volumeCheckCommand({7, 5}))["volumes"][0]["device"], "7:5");
  EXPECT_EQ(lineOf(IOC_SET_LOG_LEVEL, test::logLevelCommand(6))["level"], 6);
  const json mapping =
      lineOf(IOC_CREATE_RELOC_FILE_MAPPING, test::createMappingCommand(9, "/dev/a", "/r"))["mappings"][0];
  EXPECT_EQ(mapping["process"], 9);
  EXPECT_EQ(mapping["volume"], "/dev/a");
  EXPECT_EQ(mapping["relocation_file"], "/r");
  const json discarded = lineOf(IOC_SNAP_DISCARD, test::discardCommand({{7, 6}}, 1))["volumes"][0];
  EXPECT_EQ(discarded["device"], "7:6");
  EXPECT_EQ(discarded["flag"], 1);
  EXPECT_EQ(discarded["result"], 0);
}

TEST(TraceLine, of_a_spoilt_command_tells_no_more_than_its_buffer_holds) {
  test::WireCommand snap = test::snapCommand({});
  _ioctlCmd header = snap.header();
  header.requestValue = 0xFFFFFFFF;
  snap.put(0, header);
  EXPECT_TRUE(lineOf(IOC_SNAP, snap)["volumes"].empty());
  test::WireCommand list = test::volumeListCommand({{7, 1}});
  list.put(0, header);
  EXPECT_EQ(lineOf(IOC_THAW, list)["volumes"].size(), 1u);
}

TEST(TraceLine, of_change_tracking_tells_what_went_over) {
  WireCommand vars = test::trackingVarsCommand({7, 1});
  vars.put(32, std::uint32_t{5});
  vars.bytes()[36] = std::byte{'g'};
  EXPECT_EQ(lineOf(IOC_GET_VTRACK_VARS, vars)["volumes"][0],
            (json{{"device", "7:1"}, {"guid", "g"}, {"sequence_number", 5}}));
  WireCommand bitmap = test::bitmapCommand({7, 1}, {{10, 2}, {20, 3}}, 1);
  EXPECT_EQ(lineOf(IOC_GET_VDIFF, bitmap)["volumes"][0],
            (json{{"device", "7:1"}, {"update_type", 1}, {"runs", 2}, {"run_blocks", 5}}));
  bitmap.put(36, std::uint32_t{3});  // more than it holds, as one that was refused may say
  EXPECT_EQ(lineOf(IOC_UPDATE_BITMAP, bitmap)["volumes"][0]["runs"], 2);
  EXPECT_EQ(lineOf(IOC_IS_VTRACK_ACTIVE, test::volumeCheckCommand({7, 1}))["volumes"][0]["device"], "7:1");
  EXPECT_EQ(lineOf(IOC_STOP_VTRACK, test::volumeListCommand({{7, 1}, {7, 2}}))["volumes"][1]["device"], "7:2");
}

TEST(TraceLine, of_a_dump_tells_its_flags_and_its_file) {
  const json line = lineOf(IOC_DUMP_STATE, test::dumpStateCommand("/tmp/state"));
  EXPECT_EQ(line["flag"], 0);
  EXPECT_EQ(line["file_flag"], 1);
  EXPECT_EQ(line["file"], "/tmp/state");
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

// Who speaks does not wait for who reads: the reader may be held still by the emulator itself.
TEST(LineWriter, never_makes_the_speaker_wait_and_loses_nothing) {
  int ends[2];
  ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
  const int room = fcntl(ends[1], F_SETPIPE_SZ, 4096);
  const std::string line(1000, 'x');
  std::string all;
  {
    emulator::LineWriter writer(ends[1]);
    for (int i = 0; i < 100; ++i) writer.write(line);  // far more than the pipe takes
    ASSERT_LT(room, 100 * 1000);
    while (all.size() < 100 * 1001) {
      char piece[4096];
      const ssize_t got = read(ends[0], piece, sizeof piece);
      ASSERT_GT(got, 0);
      all.append(piece, static_cast<std::size_t>(got));
    }
  }
  EXPECT_EQ(all.substr(0, 1001), line + "\n");
  close(ends[0]);
  close(ends[1]);
}

TEST(LineWriter, writes_what_is_left_at_its_end) {
  const test::TempDir dir;
  const UniqueFd file(open((dir / "file").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
  {
    emulator::LineWriter writer(file.get());
    for (int i = 0; i < 1000; ++i) writer.write(std::to_string(i));
  }
  const std::string text = test::readFile(dir / "file");
  EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 1000);
  EXPECT_TRUE(text.ends_with("998\n999\n"));
}

}  // namespace
