// SPDX-License-Identifier: Apache-2.0
#include "driver/VolumeCommands.h"

#include <syslog.h>

#include <cerrno>

#include "driver/ControlDevice.h"
#include "driver/VolumeRecords.h"

std::optional<std::int32_t> askVolumeStatus(const std::string& volume, unsigned long request,
                                            void (*logFailure)(int error)) {
  DeviceNumberPair number{};
  if (getDeviceNumber(volume.c_str(), &number) != 0) {
    syslog(LOG_ERR, "Invalid block device: %s.\n", volume.c_str());
    return std::nullopt;
  }
  const UniqueFd device = openDriver();
  if (!device) return std::nullopt;
  DriverCommand command(sizeof(_ioctlCmd) + sizeof(VolumeCheckPayload) + kDriverTrailerSize, 1);
  if (!command) {
    syslog(LOG_ERR, "Error Allocating memory.\n");
    return std::nullopt;
  }
  auto* payload = command.record<VolumeCheckPayload>();
  payload->majorNum = number.majorNum;
  payload->minorNum = number.minorNum;
  if (command.issue(device.get(), request) != 0) {
    logFailure(errno);
    return std::nullopt;
  }
  return command.header().driverStatus;
}

unsigned int prepareVolumeList(std::list<std::wstring>* volumes, int line, UniqueFd& device, DriverCommand& command) {
  const auto pairs = resolveVolumes(volumes, line);
  if (pairs == nullptr) return 3;  // the contract: whatever was wrong with a name
  device = openDriver();
  if (!device) return 5;
  const std::size_t count = volumes->size();
  command = DriverCommand(sizeof(_ioctlCmd) + count * sizeof(VolumeListEntry) + kDriverTrailerSize,
                          static_cast<std::uint32_t>(count));
  if (!command) {
    syslog(LOG_ERR, "Error Allocating memory.\n");
    return 3;
  }
  for (std::size_t i = 0; i < count; ++i) {
    auto* entry = command.record<VolumeListEntry>(i);
    entry->majorNum = pairs[i].majorNum;
    entry->minorNum = pairs[i].minorNum;
  }
  return 0;
}
