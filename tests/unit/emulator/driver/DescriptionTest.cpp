// SPDX-License-Identifier: Apache-2.0
//
// What the trace says of each command's payload.
#include "emulator/driver/Description.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "WireCommand.h"
#include "emulator/driver/Commands.h"

namespace {

using emulator::CommandBuffer;
using test::WireCommand;
using json = nlohmann::ordered_json;

json describe(unsigned long request, WireCommand command) {
  json line = json::object();
  emulator::findCommand(request)->describe(line, CommandBuffer(command.bytes()));
  return line;
}

TEST(Description, tells_a_snaps_volumes_sizes_and_run_counts) {
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
  const json line = describe(IOC_SNAP, test::snapCommand({volume, volume}));
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

TEST(Description, tells_the_records_of_the_other_commands) {
  EXPECT_EQ(describe(IOC_FREEZE, test::volumeListCommand({{7, 1}, {7, 2}}))["volumes"][1]["device"], "7:2");
  EXPECT_EQ(describe(IOC_CHECK_VOLUME_SNAPPED, test::volumeCheckCommand({7, 5}))["volumes"][0]["device"], "7:5");
  EXPECT_EQ(describe(IOC_SET_LOG_LEVEL, test::logLevelCommand(6))["level"], 6);
  const json mapping =
      describe(IOC_CREATE_RELOC_FILE_MAPPING, test::createMappingCommand(9, "/dev/a", "/r"))["mappings"][0];
  EXPECT_EQ(mapping["process"], 9);
  EXPECT_EQ(mapping["volume"], "/dev/a");
  EXPECT_EQ(mapping["relocation_file"], "/r");
  const json discarded = describe(IOC_SNAP_DISCARD, test::discardCommand({{7, 6}}, 1))["volumes"][0];
  EXPECT_EQ(discarded["device"], "7:6");
  EXPECT_EQ(discarded["flag"], 1);
  EXPECT_EQ(discarded["result"], 0);
}

TEST(Description, of_a_spoilt_command_tells_no_more_than_its_buffer_holds) {
  test::WireCommand snap = test::snapCommand({});
  _ioctlCmd header = snap.header();
  header.requestValue = 0xFFFFFFFF;
  snap.put(0, header);
  EXPECT_TRUE(describe(IOC_SNAP, snap)["volumes"].empty());
  test::WireCommand list = test::volumeListCommand({{7, 1}});
  list.put(0, header);
  EXPECT_EQ(describe(IOC_THAW, list)["volumes"].size(), 1u);
}

TEST(Description, of_change_tracking_tells_what_went_over) {
  WireCommand vars = test::trackingVarsCommand({7, 1});
  vars.put(32, std::uint32_t{5});
  vars.bytes()[36] = std::byte{'g'};
  EXPECT_EQ(describe(IOC_GET_VTRACK_VARS, vars)["volumes"][0],
            (json{{"device", "7:1"}, {"guid", "g"}, {"sequence_number", 5}}));
  WireCommand bitmap = test::bitmapCommand({7, 1}, {{10, 2}, {20, 3}}, 1);
  EXPECT_EQ(describe(IOC_GET_VDIFF, bitmap)["volumes"][0],
            (json{{"device", "7:1"}, {"update_type", 1}, {"runs", 2}, {"run_blocks", 5}}));
  bitmap.put(36, std::uint32_t{3});  // more than it holds, as one that was refused may say
  EXPECT_EQ(describe(IOC_UPDATE_BITMAP, bitmap)["volumes"][0]["runs"], 2);
  EXPECT_EQ(describe(IOC_IS_VTRACK_ACTIVE, test::volumeCheckCommand({7, 1}))["volumes"][0]["device"], "7:1");
  EXPECT_EQ(describe(IOC_STOP_VTRACK, test::volumeListCommand({{7, 1}, {7, 2}}))["volumes"][1]["device"], "7:2");
}

TEST(Description, of_a_dump_tells_its_flags_and_its_file) {
  const json line = describe(IOC_DUMP_STATE, test::dumpStateCommand("/tmp/state"));
  EXPECT_EQ(line["flag"], 0);
  EXPECT_EQ(line["file_flag"], 1);
  EXPECT_EQ(line["file"], "/tmp/state");
}

}  // namespace
