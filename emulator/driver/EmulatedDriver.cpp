// SPDX-License-Identifier: Apache-2.0
#include "emulator/driver/EmulatedDriver.h"

#include <algorithm>
#include <cerrno>
#include <set>

#include "emulator/machine/Mounts.h"

namespace emulator {

EmulatedDriver::EmulatedDriver(const Kernel& kernel, Messages& messages, DriverSettings settings)
    : mKernel(kernel), mMessages(messages), mSettings(std::move(settings)) {}

EmulatedDriver::~EmulatedDriver() {
  thawAll();
  try {
    undo();
  } catch (const std::exception&) {
    // Memory is short: the loop devices and nodes still go with their owners.
  }
}

void EmulatedDriver::undo() {
  std::set<DeviceNumber> devices;
  for (const Snapped& snapped : mSnapped) devices.insert(snapped.image.device());
  for (const SnapshotImage& image : mReleased) devices.insert(image.device());
  if (!devices.empty()) unmountAll(mKernel, devices, [this](const std::string& text) { mMessages.warn(text); });
}

Answer EmulatedDriver::handle(const Command& command, const Caller& caller, CommandBuffer& buffer) {
  // What was discarded while it was in use goes with its last user, of which nobody tells.
  releaseUnused();
  switch (command.request) {
    case IOC_GET_DRIVER_VERSION:
      return version(buffer);
    case IOC_SET_LOG_LEVEL:
      return setLogLevel(buffer);
    case IOC_CHECK_VOLUME_SNAPPED:
      return checkSnapped(buffer);
    case IOC_CHECK_VOLUME_FROZEN:
      return checkFrozen(buffer);
    case IOC_FREEZE:
      return freeze(caller, buffer);
    case IOC_THAW:
      return thaw(buffer);
    case IOC_CREATE_RELOC_FILE_MAPPING:
      return createMapping(caller, buffer);
    case IOC_DELETE_RELOC_FILE_MAPPING:
      return deleteMapping(buffer);
    case IOC_GET_NUM_OF_RELOC_FILE_MAPPING:
      return countMappings(buffer);
    case IOC_GET_RELOC_FILE_MAPPING:
      return listMappings(buffer);
    case IOC_SNAP:
      return snap(caller, buffer);
    case IOC_GET_NUM_OF_SNAPPED_VOLUMES:
      return countSnapped(buffer);
    case IOC_GET_SNAPPED_VOL_DETAILS:
      return listSnapped(buffer);
    case IOC_SNAP_DISCARD:
      return discard(buffer);
    case IOC_VERIFY_AND_CLEAN_VOLUMES:
      return verifyAndClean();
    case IOC_IS_VTRACK_ACTIVE:
      return checkTracked(buffer);
    case IOC_GET_VTRACK_VARS:
      return trackingVars(buffer);
    case IOC_GET_VDIFF:
      return readBitmap(caller, buffer);
    case IOC_UPDATE_BITMAP:
      return pushBitmap(buffer);
    case IOC_STOP_VTRACK:
      return stopTracking(buffer);
    case IOC_DUMP_STATE:
      return dumpState(caller, buffer);
    default:
      return refuse(ENOTTY, "there is no such command");
  }
}

Answer EmulatedDriver::version(CommandBuffer& buffer) {
  DriverVersionPayload payload;
  putText(payload.version, mSettings.version);
  buffer.putRecord(0, payload);
  return done();
}

Answer EmulatedDriver::setLogLevel(const CommandBuffer& buffer) {
  mLogLevel = buffer.record<LogLevelPayload>(0).level;
  return done();
}

std::vector<EmulatedDriver::Snapped>::iterator EmulatedDriver::findSnapped(DeviceNumber volume) {
  return std::find_if(mSnapped.begin(), mSnapped.end(),
                      [=](const Snapped& snapped) { return snapped.image.volume() == volume; });
}

}  // namespace emulator
