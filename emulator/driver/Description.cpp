// SPDX-License-Identifier: Apache-2.0
#include "emulator/driver/Description.h"

#include <algorithm>
#include <nlohmann/json.hpp>

#include "emulator/machine/DeviceNumber.h"

namespace emulator {
namespace {

using Json = nlohmann::ordered_json;

std::string device(std::uint32_t majorNum, std::uint32_t minorNum) { return DeviceNumber{majorNum, minorNum}.text(); }

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
Json describeRuns(const CommandBuffer& buffer) {
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

// The count of records in the header: as it came, or as the driver filled it in.
std::uint32_t countOf(const CommandBuffer& buffer) { return buffer.header().requestValue; }

}  // namespace

void describeNothing(Json&, const CommandBuffer&) {}

void describeVersion(Json& line, const CommandBuffer& buffer) {
  line["version"] = textOf(buffer.record<DriverVersionPayload>(0).version);
}

void describeLogLevel(Json& line, const CommandBuffer& buffer) {
  line["level"] = buffer.record<LogLevelPayload>(0).level;
}

void describeVolumeCheck(Json& line, const CommandBuffer& buffer) {
  line["volumes"] = describeAll<VolumeCheckPayload>(buffer, 1);
}

void describeVolumeList(Json& line, const CommandBuffer& buffer) {
  line["volumes"] = describeAll<VolumeListEntry>(buffer, countOf(buffer));
}

void describeMapping(Json& line, const CommandBuffer& buffer) {
  line["mappings"] = describeAll<RelocFileMappingEntry>(buffer, 1);
}

void describeMappings(Json& line, const CommandBuffer& buffer) {
  line["mappings"] = describeAll<RelocFileMappingEntry>(buffer, countOf(buffer));
}

void describeSnappedVolumes(Json& line, const CommandBuffer& buffer) {
  line["volumes"] = describeAll<SnappedVolumeEntry>(buffer, countOf(buffer));
}

void describeSnap(Json& line, const CommandBuffer& buffer) {
  Json& volumes = line["volumes"] = Json::array();
  SnapEntries entries(buffer);
  for (std::uint32_t i = 0; i < countOf(buffer); ++i) {
    const auto entry = entries.next();
    if (!entry) break;
    volumes.push_back(describe(*entry, buffer));
  }
}

void describeDiscard(Json& line, const CommandBuffer& buffer) {
  line["volumes"] = describeAll<DiscardEntry>(buffer, countOf(buffer));
}

void describeTrackingVars(Json& line, const CommandBuffer& buffer) {
  line["volumes"] = describeAll<TrackingVarsPayload>(buffer, 1);
}

void describeBitmap(Json& line, const CommandBuffer& buffer) { line["volumes"] = Json::array({describeRuns(buffer)}); }

void describeDumpState(Json& line, const CommandBuffer& buffer) {
  line.update(describe(buffer.record<DumpStatePayload>(0)));
}

}  // namespace emulator
