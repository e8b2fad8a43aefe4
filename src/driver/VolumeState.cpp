// SPDX-License-Identifier: Apache-2.0
//
// Whether volumes are snapped or frozen, and freezing and thawing them.
#include <syslog.h>

#include <cerrno>
#include <optional>

#include "driver/ControlDevice.h"
#include "driver/DriverCommand.h"
#include "driver/LinuxSnapLib.h"

namespace {

enum VolumeStatus : std::int32_t {
  kSnapped = -2,
  kNotSnapped = -4,
  kFrozen = -6,
  kNotFrozen = -7,
};

// The driver's status word for `volume` after `request`; nothing, logged, when the driver could not be asked.
std::optional<std::int32_t> askVolumeStatus(const std::string& volume, unsigned long request) {
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
    syslog(LOG_ERR, "CheckVolume IOCTL failed, errno:%d\n", errno);
    return std::nullopt;
  }
  return command.header().driverStatus;
}

// A freeze or thaw command for `count` volumes; empty, logged, when memory is short.
DriverCommand makeVolumeListCommand(const DeviceNumberPair* pairs, std::size_t count) {
  DriverCommand command(sizeof(_ioctlCmd) + count * sizeof(VolumeListEntry) + kDriverTrailerSize,
                        static_cast<std::uint32_t>(count));
  if (!command) {
    syslog(LOG_ERR, "Error Allocating memory.\n");
    return command;
  }
  for (std::size_t i = 0; i < count; ++i) {
    auto* entry = command.record<VolumeListEntry>(i);
    entry->majorNum = pairs[i].majorNum;
    entry->minorNum = pairs[i].minorNum;
    // The contract: thawing logs this text too.
    syslog(LOG_DEBUG, "FREEZE VOL ID: (MAJ, MIN): (%d, %d).\n", pairs[i].majorNum, pairs[i].minorNum);
  }
  return command;
}

}  // namespace

bool SnapDriverInterface::IsVolumeSnapped(const std::string& volume) {
  const std::optional<std::int32_t> status = askVolumeStatus(volume, IOC_CHECK_VOLUME_SNAPPED);
  if (!status) return false;
  switch (*status) {
    case kNotSnapped:
      syslog(LOG_DEBUG, "The volume is not snapped.\n");
      return false;
    case kSnapped:
      syslog(LOG_DEBUG, "The volume is snapped.\n");
      return true;
    default:
      syslog(LOG_ERR, "Unkown return code.\n");
      return false;
  }
}

bool SnapDriverInterface::IsVolumeFrozen(const std::string& volume) {
  const std::optional<std::int32_t> status = askVolumeStatus(volume, IOC_CHECK_VOLUME_FROZEN);
  if (!status) return false;
  switch (*status) {
    case kNotFrozen:
      syslog(LOG_DEBUG, "The volume is not frozen.\n");
      return false;
    case kFrozen:
      syslog(LOG_DEBUG, "The volume is frozen.\n");
      return true;
    default:
      syslog(LOG_ERR, "Unkown return code.\n");
      return false;
  }
}

unsigned int SnapDriverInterface::checkIfVolSnapped(std::list<SnapVolumeInformation>* volumes) {
  if (volumes == nullptr) return 0;
  for (SnapVolumeInformation& volume : *volumes) {
    if (IsVolumeSnapped(volume.getSnapVolumeNameString())) return 17;
  }
  return 0;
}

unsigned int SnapDriverInterface::checkIfVolFrozen(std::list<SnapVolumeInformation>* volumes) {
  if (volumes == nullptr) return 0;
  for (SnapVolumeInformation& volume : *volumes) {
    if (IsVolumeFrozen(volume.getSnapVolumeNameString())) {
      syslog(LOG_ERR, "One of the Volumes is already frozen.\n");
      return 17;
    }
  }
  return 0;
}

unsigned int SnapDriverInterface::FreezeVolume(std::list<std::wstring>* volumes) {
  if (volumes == nullptr) {
    syslog(LOG_ERR, "assert at %d in %s failed.\n", 2502, "LinuxSnapLib.cpp");
    return 3;
  }
  if (volumes->empty()) {
    syslog(LOG_ERR, "assert at %d in %s failed.\n", 2503, "LinuxSnapLib.cpp");
    return 3;
  }
  const auto pairs = resolveVolumes(volumes);
  if (pairs == nullptr) return 3;  // the contract: whatever was wrong with a name
  const UniqueFd device = openDriver();
  if (!device) return 5;
  DriverCommand command = makeVolumeListCommand(pairs.get(), volumes->size());
  if (!command) return 3;

  unsigned int result = 0;
  if (command.issue(device.get(), IOC_FREEZE) != 0) {
    syslog(LOG_ERR, "Freeze IOCTL failed, errno:%d\n", errno);
    result = 3;  // the contract: not the 6 of other commands
  }
  // The contract: the status word counts whether or not the request failed.
  if (command.header().driverStatus == kFrozen) result = 24;
  return result;
}

unsigned int SnapDriverInterface::ThawVolume(std::list<std::wstring>* volumes) {
  if (volumes == nullptr) {
    syslog(LOG_ERR, "assert at %d in %s failed.\n", 2606, "LinuxSnapLib.cpp");
    return 3;
  }
  if (volumes->empty()) {
    syslog(LOG_ERR, "assert at %d in %s failed.\n", 2607, "LinuxSnapLib.cpp");
    return 3;
  }
  const auto pairs = resolveVolumes(volumes);
  if (pairs == nullptr) return 3;  // the contract: whatever was wrong with a name
  const UniqueFd device = openDriver();
  if (!device) return 5;
  DriverCommand command = makeVolumeListCommand(pairs.get(), volumes->size());
  if (!command) return 3;

  unsigned int result = 0;
  if (command.issue(device.get(), IOC_THAW) != 0) {
    syslog(LOG_ERR, "Thaw IOCTL failed, errno:%d\n", errno);
    result = 3;  // the contract: not the 6 of other commands
  }
  // The contract: the status word counts whether or not the request failed.
  if (command.header().driverStatus == kNotFrozen) result = 25;
  return result;
}
