// SPDX-License-Identifier: Apache-2.0
#include "emulator/driver/Trace.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <nlohmann/json.hpp>

#include "emulator/machine/DeviceNumber.h"

namespace emulator {
namespace {

using Json = nlohmann::ordered_json;

std::string device(std::uint32_t majorNum, std::uint32_t minorNum) { return DeviceNumber{majorNum, minorNum}.text(); }

// "2024-05-01T12:00:00.000001Z"
std::string timeText(std::int64_t microseconds) {
  const auto seconds = static_cast<std::time_t>(microseconds / 1000000);
  std::tm parts{};
  gmtime_r(&seconds, &parts);
  char day[32];
  std::strftime(day, sizeof day, "%Y-%m-%dT%H:%M:%S", &parts);
  char text[64];
  std::snprintf(text, sizeof text, "%s.%06dZ", day, static_cast<int>(microseconds % 1000000));
  return text;
}

// What a record says, in the order of its fields.
Json describe(const VolumeCheckPayload& payload) { return {{"device", device(payload.majorNum, payload.minorNum)}}; }

Json describe(const VolumeListEntry& entry) { return {{"device", device(entry.majorNum, entry.minorNum)}}; }

Json describe(const RelocFileMappingEntry& entry) {
  return {{"process", entry.appPid},
          {"volume", textOf(entry.snappedVolumeName)},
          {"relocation_file", textOf(entry.relocFileName)}};
}

Json describe(const SnappedVolumeEntry& entry) {
  return {{"device", device(entry.majorNum, entry.minorNum)},
          {"volume", textOf(entry.snappedVolumeName)},
          {"blocks", entry.numBlocks},
          {"block_size", entry.blockSize},
          {"relocation_file", textOf(entry.relocFileName)},
          {"relocation_blocks", entry.relocFileSize},
          {"process", entry.appPid}};
}

Json describe(const DiscardEntry& entry) {
  return {{"device", device(entry.majorNum, entry.minorNum)},
          {"flag", entry.flag},
          {"result", entry.result},
          {"relocation_file", textOf(entry.relocFileName)}};
}

Json describe(const SnapEntry& entry, const CommandBuffer& buffer) {
  std::uint64_t blocks = 0;
  for (std::uint32_t i = 0; i < entry.fixed.numRuns; ++i) {
    blocks += buffer.get<_run>(entry.runsAt + i * sizeof(_run)).numBlocks;
  }
  return {{"device", device(entry.fixed.volumeMajor, entry.fixed.volumeMinor)},
          {"volume", textOf(entry.fixed.volumeName)},
          {"blocks", entry.fixed.numBlocks},
          {"block_size", entry.fixed.blockSize},
          {"relocation_device", device(entry.fixed.relocVolumeMajor, entry.fixed.relocVolumeMinor)},
          {"relocation_file", textOf(entry.fixed.relocFileName)},
          {"relocation_blocks", entry.fixed.relocFileSize},
          {"hash_size", entry.fixed.hashSize},
          {"process", entry.fixed.appPid},
          {"runs", entry.fixed.numRuns},
          {"run_blocks", blocks},
          {"tracking", entry.fixed.vtrackRequest},
          {"independent", entry.fixed.independentSnapshotRequest},
          {"tracking_guid", textOf(entry.fixed.trackingGuid)},
          {"usage_type", entry.fixed.snapUsageType}};
}

Json describe(const TrackingVarsPayload& vars) {
  return {{"device", device(vars.majorNum, vars.minorNum)},
          {"guid", textOf(vars.guid)},
          {"sequence_number", vars.sequenceNumber}};
}

// Of the runs their number, and how many blocks they have.
Json describeBitmap(const CommandBuffer& buffer) {
  const auto bitmap = buffer.record<BitmapPayload>(0);
  const std::size_t room = (buffer.size() - bitmapCommandLength(0)) / sizeof(_run);
  const std::size_t runs = std::min<std::size_t>(bitmap.numRuns, room);
  std::uint64_t blocks = 0;
  for (std::size_t i = 0; i < runs; ++i) blocks += buffer.get<_run>(kBitmapRunsOffset + i * sizeof(_run)).numBlocks;
  return {{"device", device(bitmap.majorNum, bitmap.minorNum)},
          {"update_type", bitmap.updateType},
          {"runs", runs},
          {"run_blocks", blocks}};
}

Json describe(const DumpStatePayload& payload) {
  return {{"flag", payload.flag}, {"file_flag", payload.fileFlag}, {"file", textOf(payload.fileName)}};
}

// As many records as the count says and the buffer holds.
template <class Record>
Json describeAll(const CommandBuffer& buffer, std::uint32_t count) {
  Json all = Json::array();
  const std::size_t room = (buffer.size() - sizeof(_ioctlCmd)) / sizeof(Record);
  for (std::size_t i = 0; i < std::min<std::size_t>(count, room); ++i)
    all.push_back(describe(buffer.record<Record>(i)));
  return all;
}

Json describeSnap(const CommandBuffer& buffer, std::uint32_t count) {
  Json all = Json::array();
  SnapEntries entries(buffer);
  for (std::uint32_t i = 0; i < count; ++i) {
    const auto entry = entries.next();
    if (!entry) break;
    all.push_back(describe(*entry, buffer));
  }
  return all;
}

// The command's own part of the line. A payload that was refused for its form is told as far as it can be read.
void addPayload(Json& line, const TraceEntry& entry) {
  const CommandBuffer& buffer = *entry.buffer;
  const std::uint32_t filled = buffer.header().requestValue;
  switch (entry.command->layout) {
    case Layout::VolumeCheck:
      line["volumes"] = describeAll<VolumeCheckPayload>(buffer, 1);
      break;
    case Layout::VolumeList:
      line["volumes"] = describeAll<VolumeListEntry>(buffer, filled);
      break;
    case Layout::CreateMapping:
    case Layout::DeleteMapping:
      line["mappings"] = describeAll<RelocFileMappingEntry>(buffer, 1);
      break;
    case Layout::MappingListing:
      line["mappings"] = describeAll<RelocFileMappingEntry>(buffer, filled);
      break;
    case Layout::SnappedListing:
      line["volumes"] = describeAll<SnappedVolumeEntry>(buffer, filled);
      break;
    case Layout::Discard:
      line["volumes"] = describeAll<DiscardEntry>(buffer, filled);
      break;
    case Layout::Snap:
      line["volumes"] = describeSnap(buffer, filled);
      break;
    case Layout::LogLevel:
      line["level"] = buffer.record<LogLevelPayload>(0).level;
      break;
    case Layout::Version:
      line["version"] = textOf(buffer.record<DriverVersionPayload>(0).version);
      break;
    case Layout::TrackingVars:
      line["volumes"] = describeAll<TrackingVarsPayload>(buffer, 1);
      break;
    case Layout::ReadBitmap:
    case Layout::PushBitmap:
      line["volumes"] = Json::array({describeBitmap(buffer)});
      break;
    case Layout::DumpState:
      line.update(describe(buffer.record<DumpStatePayload>(0)));
      break;
    case Layout::Count:
    case Layout::Verify:
      break;
  }
}

}  // namespace

std::string traceLine(const TraceEntry& entry, std::int64_t time) {
  Json line;
  line["time"] = timeText(time);
  line["pid"] = entry.process;
  line["command"] = std::string(entry.command->name);
  if (entry.buffer != nullptr) {
    const _ioctlCmd header = entry.buffer->header();
    line["length"] = header.length;
    line["request_in"] = entry.requestValue;
    line["request_out"] = header.requestValue;
    line["status"] = header.driverStatus;
  }
  line["errno"] = entry.answer->error;
  const char* name = entry.answer->error == 0 ? nullptr : strerrorname_np(entry.answer->error);
  if (name != nullptr) line["error"] = name;
  if (!entry.answer->why.empty()) line["why"] = entry.answer->why;
  if (entry.injected) line["injected"] = true;
  if (entry.buffer != nullptr) addPayload(line, entry);
  // A name need not be UTF-8.
  return line.dump(-1, ' ', false, Json::error_handler_t::replace);
}

Trace::Trace(UniqueFd file) : mFile(std::move(file)) {
  if (mFile) mWriter.emplace(mFile.get());
}

void Trace::write(const TraceEntry& entry) {
  if (!mWriter) return;
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  mWriter->write(traceLine(entry, std::chrono::duration_cast<std::chrono::microseconds>(now).count()));
}

}  // namespace emulator
