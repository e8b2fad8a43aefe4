// SPDX-License-Identifier: Apache-2.0
//
// The driver's commands about change tracking.
#include <algorithm>
#include <cerrno>

#include "emulator/driver/EmulatedDriver.h"
#include "emulator/machine/BlockDevice.h"
#include "emulator/machine/ChangedRuns.h"

namespace emulator {
namespace {

// More than a client needs to tell which blocks of a volume are in use.
constexpr std::size_t kMostUsedRuns = 1 << 20;

DeviceNumber volumeOf(const BitmapPayload& bitmap) { return {bitmap.majorNum, bitmap.minorNum}; }

_run runAt(const CommandBuffer& buffer, std::size_t index) {
  return buffer.get<_run>(kBitmapRunsOffset + index * sizeof(_run));
}

std::string runText(const _run& run) {
  return std::to_string(run.startBlock) + " + " + std::to_string(run.numBlocks) + " blocks";
}

}  // namespace

// An independent snapshot is not tracked: it carries no identifier.
std::optional<EmulatedDriver::Tracking> EmulatedDriver::startTracking(const SnapVolumeEntry& entry) {
  if (entry.vtrackRequest == 0 || entry.independentSnapshotRequest != 0) return std::nullopt;
  return Tracking{textOf(entry.trackingGuid), ++mSequenceNumbers[{entry.volumeMajor, entry.volumeMinor}], {}};
}

Result<EmulatedDriver::Snapped*> EmulatedDriver::findTracked(DeviceNumber volume) {
  const auto snapped = findSnapped(volume);
  if (snapped == mSnapped.end())
    return refuse(ENOENT, "the volume " + volume.text() + " is not snapped", kStatusNotSnapped);
  if (!snapped->tracking) return refuse(ENODATA, "changes of the volume " + volume.text() + " are not tracked");
  return &*snapped;
}

Answer EmulatedDriver::checkTracked(const Caller&, CommandBuffer& buffer) {
  const auto payload = buffer.record<VolumeCheckPayload>(0);
  const auto snapped = findSnapped({payload.majorNum, payload.minorNum});
  buffer.putStatus(snapped != mSnapped.end() && snapped->tracking ? kStatusTracked : kStatusNotTracked);
  return done();
}

Answer EmulatedDriver::trackingVars(const Caller&, CommandBuffer& buffer) {
  auto payload = buffer.record<TrackingVarsPayload>(0);
  auto tracked = findTracked({payload.majorNum, payload.minorNum});
  if (!tracked) return refusalOf(tracked);
  const Tracking& tracking = *(*tracked)->tracking;
  payload.sequenceNumber = tracking.sequenceNumber;
  putText(payload.guid, tracking.guid);
  buffer.putRecord(0, payload);
  return done();
}

// The blocks in which the device differs from its snapshot now. What the file system has not written yet is not a
// change.
Answer EmulatedDriver::readBitmap(const Caller& caller, CommandBuffer& buffer) {
  auto bitmap = buffer.record<BitmapPayload>(0);
  auto tracked = findTracked(volumeOf(bitmap));
  if (!tracked) return refusalOf(tracked);
  const Snapped& snapped = **tracked;
  auto device = BlockDevice::open(mKernel, volumeOf(bitmap));
  if (!device) return refusalOf(device);
  auto data = openDeviceData(mKernel, *device, caller);
  if (!data) return refusalOf(data);
  writeOut(*device);

  const bool goesOn = bitmap.updateType == UPDATE_BITMAP_CONTINUE && bitmap.numRuns > 0;
  const std::uint64_t firstBlock = goesOn ? runAt(buffer, 0).startBlock : 0;
  if (firstBlock > snapped.entry.numBlocks) {
    return refuse(EINVAL, "block " + std::to_string(firstBlock) + " is beyond the volume's " +
                              std::to_string(snapped.entry.numBlocks) + " blocks");
  }
  const ChangedRuns changed =
      findChangedRuns({*data, snapped.image.file().get(), snapped.entry.numBlocks, snapped.entry.blockSize}, firstBlock,
                      bitmap.numRuns, [this] { return mCancelled ? ECANCELED : 0; });
  if (changed.error != 0) return failedCall(changed.error, "cannot compare the volume " + volumeOf(bitmap).text());
  bitmap.updateType = changed.more ? UPDATE_BITMAP_CONTINUE : UPDATE_BITMAP_WHOLE;
  bitmap.numRuns = static_cast<std::uint32_t>(changed.runs.size());
  buffer.putRecord(0, bitmap);
  for (std::size_t i = 0; i < changed.runs.size(); ++i) {
    buffer.put(kBitmapRunsOffset + i * sizeof(_run), changed.runs[i]);
  }
  return done();
}

Answer EmulatedDriver::pushBitmap(const Caller&, CommandBuffer& buffer) {
  const auto bitmap = buffer.record<BitmapPayload>(0);
  auto tracked = findTracked(volumeOf(bitmap));
  if (!tracked) return refusalOf(tracked);
  const std::uint64_t numBlocks = (*tracked)->entry.numBlocks;
  std::vector<_run> pushed;
  for (std::uint32_t i = 0; i < bitmap.numRuns; ++i) {
    const _run run = runAt(buffer, i);
    if (run.numBlocks == 0 || run.startBlock >= numBlocks || run.numBlocks > numBlocks - run.startBlock) {
      return refuse(EINVAL, "run " + std::to_string(i) + " (" + runText(run) + ") does not lie within the volume's " +
                                std::to_string(numBlocks) + " blocks");
    }
    pushed.push_back(run);
  }
  std::vector<_run>& used = (*tracked)->tracking->used;
  if (bitmap.updateType == UPDATE_BITMAP_WHOLE) {
    used = std::move(pushed);
    return done();
  }
  if (used.size() + pushed.size() > kMostUsedRuns) return refuse(ENOSPC, "too many runs of used blocks");
  used.insert(used.end(), pushed.begin(), pushed.end());
  return done();
}

// Stops the volumes that are snapped even when others are not: the client takes the refusal for success, as a volume
// that is not snapped is not tracked either.
Answer EmulatedDriver::stopTracking(const Caller&, CommandBuffer& buffer) {
  const std::uint32_t count = buffer.header().requestValue;
  std::optional<DeviceNumber> unknown;
  for (std::uint32_t i = 0; i < count; ++i) {
    const auto entry = buffer.record<VolumeListEntry>(i);
    const DeviceNumber volume{entry.majorNum, entry.minorNum};
    const auto snapped = findSnapped(volume);
    if (snapped != mSnapped.end()) {
      snapped->tracking.reset();
    } else if (!unknown) {
      unknown = volume;
    }
  }
  if (!unknown) return done();
  return refuse(ENOENT, "the volume " + unknown->text() + " is not snapped",
                count == 1 ? kStatusNotSnapped : kStatusOneNotSnapped);
}

}  // namespace emulator
