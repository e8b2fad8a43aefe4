// SPDX-License-Identifier: Apache-2.0
//
// Commands in order, ways to spoil them, and what the emulator says of them.
#pragma once

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "WireCommand.h"
#include "emulator/driver/CommandCheck.h"

namespace {

using emulator::checkCommand;
using emulator::checkLength;
using emulator::Command;
using emulator::CommandBuffer;
using emulator::Complaint;
using test::WireCommand;

inline constexpr std::size_t kHeader = sizeof(_ioctlCmd);

// As the emulator looks at a command: the length first, then the rest.
inline Complaint check(unsigned long request, WireCommand command) {
  const Command* kind = emulator::findCommand(request);
  if (auto complaint = checkLength(*kind, command.header())) return complaint;
  command.bytes().resize(command.header().length);
  return checkCommand(*kind, CommandBuffer(command.bytes()));
}

inline std::string complaint(unsigned long request, WireCommand command) {
  return check(request, std::move(command)).value_or("nothing");
}

inline WireCommand withHeader(WireCommand command, void (*change)(_ioctlCmd&)) {
  _ioctlCmd header = command.header();
  change(header);
  command.put(0, header);
  return command;
}

inline WireCommand withByte(WireCommand command, std::size_t offset) {
  command.bytes()[offset] = std::byte{1};
  return command;
}

inline test::WireSnapVolume volume(std::uint32_t minorNum, std::vector<_run> runs = {}) {
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

inline std::vector<Sample> commandsInOrder() {
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

}  // namespace
