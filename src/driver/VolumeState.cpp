// SPDX-License-Identifier: Apache-2.0
//
// Whether volumes are snapped or frozen, and freezing and thawing them.
#include <mirelsnap/DriverInterface.h>
#include <syslog.h>

#include <cerrno>
#include <optional>

#include "driver/VolumeCommands.h"

namespace {

enum VolumeStatus : std::int32_t {
  kSnapped = -2,
  kNotSnapped = -4,
  kFrozen = -6,
  kNotFrozen = -7,
};

void logCheckFailure(int error) { syslog(LOG_ERR, "CheckVolume IOCTL failed, errno:%d\n", error); }

void logVolumes(DriverCommand& command, std::size_t count) {
  for (std::size_t i = 0; i < count; ++i) {
    const auto* entry = command.record<VolumeListEntry>(i);
    // The contract: thawing logs this text too.
    syslog(LOG_DEBUG, "FREEZE VOL ID: (MAJ, MIN): (%d, %d).\n", static_cast<int>(entry->majorNum),
           static_cast<int>(entry->minorNum));
  }
}

}  // namespace

bool SnapDriverInterface::IsVolumeSnapped(const std::string& volume) {
  const std::optional<std::int32_t> status = askVolumeStatus(volume, IOC_CHECK_VOLUME_SNAPPED, &logCheckFailure);
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
  const std::optional<std::int32_t> status = askVolumeStatus(volume, IOC_CHECK_VOLUME_FROZEN, &logCheckFailure);
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
  UniqueFd device;
  DriverCommand command;
  if (const unsigned int result = prepareVolumeList(volumes, 2502, device, command); result != 0) return result;
  logVolumes(command, volumes->size());

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
  UniqueFd device;
  DriverCommand command;
  if (const unsigned int result = prepareVolumeList(volumes, 2606, device, command); result != 0) return result;
  logVolumes(command, volumes->size());

  unsigned int result = 0;
  if (command.issue(device.get(), IOC_THAW) != 0) {
    syslog(LOG_ERR, "Thaw IOCTL failed, errno:%d\n", errno);
    result = 3;  // the contract: not the 6 of other commands
  }
  // The contract: the status word counts whether or not the request failed.
  if (command.header().driverStatus == kNotFrozen) result = 25;
  return result;
}
