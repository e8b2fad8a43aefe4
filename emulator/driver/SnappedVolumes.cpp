// SPDX-License-Identifier: Apache-2.0
//
// The driver's commands about volumes that are snapped: listing them, discarding their snapshots, cleaning up.
#include <algorithm>
#include <cerrno>

#include "emulator/driver/EmulatedDriver.h"
#include "emulator/machine/BlockDevice.h"

namespace emulator {
namespace {

// The one state that a listed volume can be in.
constexpr std::uint32_t kStateSnapped = 1;

SnappedVolumeEntry describe(const SnapVolumeEntry& snapped) {
  SnappedVolumeEntry entry{};
  entry.numBlocks = snapped.numBlocks;
  entry.blockSize = snapped.blockSize;
  entry.relocFileSize = snapped.relocFileSize;
  entry.majorNum = snapped.volumeMajor;
  entry.minorNum = snapped.volumeMinor;
  entry.appPid = static_cast<std::int32_t>(snapped.appPid);
  entry.deviceState = kStateSnapped;
  putText(entry.relocFileName, textOf(snapped.relocFileName));
  putText(entry.snappedVolumeName, textOf(snapped.volumeName));
  return entry;
}

}  // namespace

Answer EmulatedDriver::countSnapped(const Caller&, CommandBuffer& buffer) {
  buffer.putRequestValue(static_cast<std::uint32_t>(mSnapped.size()));
  return done();
}

// As many as there is room for.
Answer EmulatedDriver::listSnapped(const Caller&, CommandBuffer& buffer) {
  const std::size_t filled = std::min<std::size_t>(buffer.header().requestValue, mSnapped.size());
  for (std::size_t i = 0; i < filled; ++i) buffer.putRecord(i, describe(mSnapped[i].entry));
  buffer.putRequestValue(static_cast<std::uint32_t>(filled));
  return done();
}

// All or none: when one of several is not snapped, nothing is discarded and the records stay as they came.
Answer EmulatedDriver::discard(const Caller&, CommandBuffer& buffer) {
  const std::uint32_t count = buffer.header().requestValue;
  for (std::uint32_t i = 0; i < count; ++i) {
    const auto entry = buffer.record<DiscardEntry>(i);
    const DeviceNumber volume{entry.majorNum, entry.minorNum};
    if (findSnapped(volume) == mSnapped.end()) {
      return refuse(ENOENT, "the volume " + volume.text() + " is not snapped",
                    count == 1 ? kStatusNotSnapped : kStatusOneNotSnapped);
    }
  }
  for (std::uint32_t i = 0; i < count; ++i) {
    auto entry = buffer.record<DiscardEntry>(i);
    const auto snapped = findSnapped({entry.majorNum, entry.minorNum});
    entry.result = 0;
    putText(entry.relocFileName, textOf(snapped->entry.relocFileName));
    buffer.putRecord(i, entry);
    dropSnapped(snapped);
  }
  releaseUnused();
  return done();
}

// Drops snapshots, mappings and freezes of volumes that have no device any more.
Answer EmulatedDriver::verifyAndClean(const Caller&, CommandBuffer&) {
  const auto isGone = [&](DeviceNumber volume) {
    auto device = BlockDevice::open(mKernel, volume);
    if (device) return false;
    const int error = device.error().error;
    return error == ENXIO || error == ENODEV;
  };
  for (std::size_t i = mSnapped.size(); i-- > 0;) {
    const DeviceNumber volume = mSnapped[i].image.volume();
    if (!isGone(volume)) continue;
    mMessages.say("the volume " + volume.text() + " is gone; its snapshot was dropped");
    dropSnapped(mSnapped.begin() + static_cast<std::ptrdiff_t>(i));
  }
  std::erase_if(mMappings, [&](const Mapping& mapping) { return mapping.volume && isGone(*mapping.volume); });
  std::erase_if(mFrozen, [&](FileSystem& frozen) {
    const bool gone = isGone(frozen.device());
    if (gone) frozen.thaw();
    return gone;
  });
  releaseUnused();
  return done();
}

// Drops the snapshot and its mapping. The device of a mounted snapshot is released once it is unmounted.
void EmulatedDriver::dropSnapped(std::vector<Snapped>::iterator snapped) {
  const auto process = static_cast<std::int32_t>(snapped->entry.appPid);
  const std::string volumeName = textOf(snapped->entry.volumeName);
  std::erase_if(mMappings,
                [&](const Mapping& mapping) { return mapping.process == process && mapping.volumeName == volumeName; });
  snapped->image.removeNode();
  mReleased.push_back(std::move(snapped->image));
  mSnapped.erase(snapped);
}

void EmulatedDriver::releaseUnused() {
  std::erase_if(mReleased, [&](const SnapshotImage& image) { return !isClaimed(mKernel, image.device()); });
}

}  // namespace emulator
