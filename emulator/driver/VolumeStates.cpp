// SPDX-License-Identifier: Apache-2.0
//
// The driver's commands about the state of volumes: snapped, frozen, freezing, thawing.
#include <algorithm>
#include <cerrno>
#include <vector>

#include "emulator/driver/EmulatedDriver.h"
#include "emulator/machine/BlockDevice.h"

namespace emulator {
namespace {

DeviceNumber checkedVolume(const CommandBuffer& buffer) {
  const auto payload = buffer.record<VolumeCheckPayload>(0);
  return {payload.majorNum, payload.minorNum};
}

std::vector<DeviceNumber> listedVolumes(const CommandBuffer& buffer) {
  std::vector<DeviceNumber> volumes;
  for (std::uint32_t i = 0; i < buffer.header().requestValue; ++i) {
    const auto entry = buffer.record<VolumeListEntry>(i);
    volumes.push_back({entry.majorNum, entry.minorNum});
  }
  return volumes;
}

std::string standing(const FileSystem& upper, const FileSystem& lower) {
  return "the volume " + upper.device().text() + " lies on " + lower.device().text() + ", which is frozen";
}

}  // namespace

Answer EmulatedDriver::checkSnapped(const Caller&, CommandBuffer& buffer) {
  buffer.putStatus(findSnapped(checkedVolume(buffer)) == mSnapped.end() ? kStatusNotSnapped : kStatusSnapped);
  return done();
}

Answer EmulatedDriver::checkFrozen(const Caller&, CommandBuffer& buffer) {
  buffer.putStatus(isFrozen(checkedVolume(buffer)) ? kStatusFrozen : kStatusNotFrozen);
  return done();
}

bool EmulatedDriver::isFrozen(DeviceNumber volume) const {
  return std::any_of(mFrozen.begin(), mFrozen.end(),
                     [=](const FileSystem& frozen) { return frozen.device() == volume; });
}

// All or none.
Answer EmulatedDriver::freeze(const Caller& caller, CommandBuffer& buffer) {
  std::vector<FileSystem> fileSystems;
  for (const DeviceNumber volume : listedVolumes(buffer)) {
    if (isFrozen(volume)) return refuse(EBUSY, "the volume " + volume.text() + " is frozen already", kStatusFrozen);
    auto device = BlockDevice::open(mKernel, volume);
    if (!device) return refusalOf(device);
    auto fileSystem = FileSystem::on(mKernel, volume, caller);
    if (!fileSystem) return refusalOf(fileSystem);
    for (const FileSystem& frozen : mFrozen) {
      if (fileSystem->standsOn(frozen.device())) return refuse(EDEADLK, standing(*fileSystem, frozen));
    }
    fileSystems.push_back(std::move(*fileSystem));
  }
  mFrozen.reserve(mFrozen.size() + fileSystems.size());

  std::vector<FileSystem*> order;
  for (FileSystem& fileSystem : fileSystems) order.push_back(&fileSystem);
  order = insideOut(std::move(order));
  for (std::size_t i = 0; i < order.size(); ++i) {
    if (Answer answer = order[i]->freeze(); !answer) {
      while (i > 0) order[--i]->thaw();
      return answer;
    }
  }
  for (FileSystem* fileSystem : order) mFrozen.push_back(std::move(*fileSystem));
  return done();
}

// All or none. The last one frozen is thawed first: a thaw writes to the devices below, which were frozen later.
Answer EmulatedDriver::thaw(const Caller&, CommandBuffer& buffer) {
  const std::vector<DeviceNumber> volumes = listedVolumes(buffer);
  const auto isListed = [&](const FileSystem& frozen) {
    return std::find(volumes.begin(), volumes.end(), frozen.device()) != volumes.end();
  };
  for (const DeviceNumber volume : volumes) {
    if (!isFrozen(volume)) return refuse(EINVAL, "the volume " + volume.text() + " is not frozen", kStatusNotFrozen);
  }
  for (const FileSystem& upper : mFrozen) {
    for (const FileSystem& lower : mFrozen) {
      if (isListed(upper) && !isListed(lower) && upper.standsOn(lower.device())) {
        return refuse(EDEADLK, standing(upper, lower));
      }
    }
  }
  for (auto frozen = mFrozen.rbegin(); frozen != mFrozen.rend(); ++frozen) {
    if (isListed(*frozen)) frozen->thaw();
  }
  std::erase_if(mFrozen, isListed);
  return done();
}

void EmulatedDriver::thawAll() {
  for (auto frozen = mFrozen.rbegin(); frozen != mFrozen.rend(); ++frozen) frozen->thaw();
  mFrozen.clear();
}

}  // namespace emulator
