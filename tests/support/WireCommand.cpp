// SPDX-License-Identifier: Apache-2.0
#include "WireCommand.h"

#include <algorithm>

namespace test {
namespace {

template <std::size_t N>
void putText(char (&field)[N], const std::string& text) {
  text.copy(field, N - 1);
}

WireCommand mapping(std::int32_t process, const std::string& volume, const std::string& relocFile) {
  WireCommand command(sizeof(_ioctlCmd) + sizeof(RelocFileMappingEntry) + kDriverTrailerSize, 0);
  RelocFileMappingEntry entry{};
  entry.appPid = process;
  putText(entry.snappedVolumeName, volume);
  putText(entry.relocFileName, relocFile);
  command.putRecord(0, entry);
  return command;
}

template <class Record>
WireCommand records(std::size_t count) {
  return WireCommand(sizeof(_ioctlCmd) + count * sizeof(Record) + kDriverTrailerSize,
                     static_cast<std::uint32_t>(count));
}

SnapVolumeEntry snapEntry(const WireSnapVolume& volume) {
  SnapVolumeEntry entry{};
  entry.numBlocks = volume.numBlocks;
  entry.blockSize = volume.blockSize;
  entry.relocFileSize = volume.relocBlocks;
  entry.hashSize = 1021;
  entry.appPid = volume.process;
  entry.volumeMajor = volume.device.majorNum;
  entry.volumeMinor = volume.device.minorNum;
  entry.relocVolumeMajor = volume.relocDevice.majorNum;
  entry.relocVolumeMinor = volume.relocDevice.minorNum;
  putText(entry.relocFileName, volume.relocFile);
  putText(entry.volumeName, volume.name);
  entry.numRuns = static_cast<std::uint32_t>(volume.runs.size());
  entry.independentSnapshotRequest = volume.trackingGuid.empty() ? 1 : 0;
  entry.vtrackRequest = volume.trackingGuid.empty() ? 0 : 1;
  putText(entry.trackingGuid, volume.trackingGuid);
  return entry;
}

}  // namespace

WireCommand::WireCommand(std::size_t length, std::uint32_t requestValue) : mBytes(length) {
  constexpr std::uint32_t kHandshake = 1804289383;
  put(0, _ioctlCmd{0, requestValue, kHandshake, (kHandshake % 12 + 1234) % 20, static_cast<std::uint32_t>(length), 0});
}

WireCommand versionCommand() { return WireCommand(sizeof(_ioctlCmd) + sizeof(DriverVersionPayload), 0); }

WireCommand logLevelCommand(std::uint32_t level) {
  WireCommand command(sizeof(_ioctlCmd) + sizeof(LogLevelPayload), 0);
  command.putRecord(0, LogLevelPayload{level});
  return command;
}

WireCommand volumeCheckCommand(WireDevice device) {
  WireCommand command(sizeof(_ioctlCmd) + sizeof(VolumeCheckPayload) + kDriverTrailerSize, 1);
  command.putRecord(0, VolumeCheckPayload{device.majorNum, device.minorNum});
  return command;
}

WireCommand volumeListCommand(const std::vector<WireDevice>& devices) {
  WireCommand command = records<VolumeListEntry>(devices.size());
  for (std::size_t i = 0; i < devices.size(); ++i) {
    command.putRecord(i, VolumeListEntry{devices[i].majorNum, devices[i].minorNum, 0});
  }
  return command;
}

WireCommand createMappingCommand(std::int32_t process, const std::string& volume, const std::string& relocFile) {
  return mapping(process, volume, relocFile);
}

WireCommand deleteMappingCommand(std::int32_t process, const std::string& volume) {
  return mapping(process, volume, "");
}

WireCommand countCommand() { return WireCommand(sizeof(_ioctlCmd) + sizeof(CountPayload), 0); }
WireCommand mappingListingCommand(std::uint32_t room) { return records<RelocFileMappingEntry>(room); }
WireCommand snappedListingCommand(std::uint32_t room) { return records<SnappedVolumeEntry>(room); }

WireCommand snapCommand(const std::vector<WireSnapVolume>& volumes) {
  std::size_t length = sizeof(_ioctlCmd) + kDriverTrailerSize;
  for (const WireSnapVolume& volume : volumes) length += kSnapEntrySize + volume.runs.size() * sizeof(_run);
  WireCommand command(length, static_cast<std::uint32_t>(volumes.size()));
  std::size_t at = sizeof(_ioctlCmd);
  for (const WireSnapVolume& volume : volumes) {
    command.put(at, snapEntry(volume));
    at += sizeof(SnapVolumeEntry);
    for (const _run& run : volume.runs) {
      command.put(at, run);
      at += sizeof run;
    }
    at += kSnapEntryTail;
  }
  return command;
}

WireCommand discardCommand(const std::vector<WireDevice>& devices, std::uint32_t flag) {
  WireCommand command = records<DiscardEntry>(devices.size());
  for (std::size_t i = 0; i < devices.size(); ++i) {
    DiscardEntry entry{};
    entry.majorNum = devices[i].majorNum;
    entry.minorNum = devices[i].minorNum;
    entry.flag = flag;
    command.putRecord(i, entry);
  }
  return command;
}

WireCommand trackingVarsCommand(WireDevice device) {
  WireCommand command(sizeof(_ioctlCmd) + sizeof(TrackingVarsPayload), 1);
  command.putRecord(0, TrackingVarsPayload{device.majorNum, device.minorNum, 0, {}});
  return command;
}

WireCommand bitmapCommand(WireDevice device, const std::vector<_run>& runs, std::uint32_t updateType) {
  WireCommand command(bitmapCommandLength(runs.size()), 1);
  _ioctlCmd header = command.header();
  header.flags = 1;
  command.put(0, header);
  command.putRecord(
      0, BitmapPayload{device.majorNum, device.minorNum, updateType, static_cast<std::uint32_t>(runs.size())});
  for (std::size_t i = 0; i < runs.size(); ++i) command.put(kBitmapRunsOffset + i * sizeof(_run), runs[i]);
  return command;
}

WireCommand dumpStateCommand(const std::string& file) {
  WireCommand command(sizeof(_ioctlCmd) + sizeof(DumpStatePayload), 0);
  DumpStatePayload payload{};
  payload.fileFlag = file.empty() ? 0 : 1;
  putText(payload.fileName, file);
  command.putRecord(0, payload);
  return command;
}

// Only what has a meaning is set; the rest is as memory happens to be.
WireCommand verifyCommand() {
  WireCommand command = countCommand();
  _ioctlCmd header = command.header();
  header.flags = 0xABABABAB;
  header.driverStatus = -1;
  command.put(0, header);
  std::fill(command.bytes().begin() + 25, command.bytes().end(), std::byte{0xCD});
  return command;
}

}  // namespace test
