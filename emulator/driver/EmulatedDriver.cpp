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
    // Out of memory: the loop devices and nodes are still released by their owners.
  }
}

void EmulatedDriver::undo() {
  std::set<DeviceNumber> devices;
  for (const Snapped& snapped : mSnapped) devices.insert(snapped.image.device());
  for (const SnapshotImage& image : mReleased) devices.insert(image.device());
  if (!devices.empty()) unmountAll(mKernel, devices, [this](const std::string& text) { mMessages.warn(text); });
}

Answer EmulatedDriver::handle(const Command& command, const Caller& caller, CommandBuffer& buffer) {
  // A snapshot that was discarded while in use goes with its last user, and nothing reports that user's end.
  releaseUnused();
  return (this->*command.carryOut)(caller, buffer);
}

Answer EmulatedDriver::version(const Caller&, CommandBuffer& buffer) {
  DriverVersionPayload payload;
  putText(payload.version, mSettings.version);
  buffer.putRecord(0, payload);
  return done();
}

Answer EmulatedDriver::setLogLevel(const Caller&, CommandBuffer& buffer) {
  mLogLevel = buffer.record<LogLevelPayload>(0).level;
  return done();
}

std::vector<EmulatedDriver::Snapped>::iterator EmulatedDriver::findSnapped(DeviceNumber volume) {
  return std::find_if(mSnapped.begin(), mSnapped.end(),
                      [=](const Snapped& snapped) { return snapped.image.volume() == volume; });
}

}  // namespace emulator
