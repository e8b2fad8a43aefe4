// SPDX-License-Identifier: Apache-2.0
//
// Change tracking: whether it is active, what identifies it, which blocks changed, which are in use, stopping it.
#include <mirelsnap/DriverInterface.h>
#include <syslog.h>

#include <algorithm>
#include <cerrno>
#include <optional>
#include <utility>

#include "driver/ControlDevice.h"
#include "driver/DriverCommand.h"
#include "driver/VolumeCommands.h"
#include "driver/VolumeRecords.h"

namespace {

enum TrackingStatus : std::int32_t {
  kTracked = 2,
  kNotTracked = 3,
  kNotSnapped = -4,
  kNotSnappedEither = -5,
};

// The contract: without its errno.
void logCheckFailure(int) { syslog(LOG_ERR, "Is_Vtrack_Active IOCTL failed\n"); }

// Whether the record has what a bitmap command needs, and the number of its device. 0, 3, 7, 15.
unsigned int checkBitmap(const SectorBitmap& bitmap, DeviceNumberPair* number) {
  const char* name = bitmap.getcStrSnapVolumeName();  // null in a record that was never constructed
  if (name == nullptr) {
    syslog(LOG_ERR, "Memory Allocation failure.\n");
    return 3;
  }
  if (getDeviceNumber(name, number) != 0) {
    syslog(LOG_ERR, "Invalid block device.\n");
    return 7;  // the contract: also for a device that does not exist
  }
  if (bitmap.getNumOfRuns() > kMaxBitmapRuns) {
    syslog(LOG_ERR, "Number of runs passed %u exceeds the maximum %u.\n", bitmap.getNumOfRuns(), kMaxBitmapRuns);
    return 15;
  }
  if (bitmap.getSectorRuns() == nullptr && bitmap.getNumOfRuns() > 0) {
    syslog(LOG_ERR, "Memory Allocation failure.\n");
    return 3;
  }
  return 0;
}

// A command with the record's runs; empty, logged, when memory is short.
DriverCommand makeBitmapCommand(const SectorBitmap& bitmap, const DeviceNumberPair& number) {
  DriverCommand command(bitmapCommandLength(bitmap.getNumOfRuns()), 1);
  if (!command) {
    syslog(LOG_ERR, "Memory allocation failure.\n");
    return command;
  }
  command.header().flags = 1;
  auto* payload = command.record<BitmapPayload>();
  payload->majorNum = number.majorNum;
  payload->minorNum = number.minorNum;
  payload->updateType = bitmap.getUpdateType();
  payload->numRuns = bitmap.getNumOfRuns();
  std::copy_n(bitmap.getSectorRuns(), bitmap.getNumOfRuns(), command.at<_run>(kBitmapRunsOffset));
  return command;
}

// Takes the driver's answer over: its count as far as the command, and so the caller's array, had room.
void readBitmap(DriverCommand& command, SectorBitmap& bitmap) {
  const auto* payload = command.record<BitmapPayload>();
  const unsigned int answered = payload->numRuns;
  syslog(LOG_DEBUG, "Number of Vtrack runs obtained: %u.\n", answered);
  const unsigned int filled = std::min(answered, bitmap.getNumOfRuns());
  bitmap.setUpdateType(static_cast<_updateBitmapIoctlType>(payload->updateType));
  bitmap.setNumOfRuns(filled);
  std::copy_n(command.at<_run>(kBitmapRunsOffset), filled, bitmap.getSectorRuns());
  syslog(LOG_DEBUG, "Vdiff Bitmap returned successfully.\n");
}

// Makes the command with the record's runs, and opens the control device to issue it on. 0, 3, 5, 7, 15.
unsigned int prepareBitmap(const SectorBitmap& bitmap, UniqueFd& device, DriverCommand& command) {
  DeviceNumberPair number{};
  if (const unsigned int result = checkBitmap(bitmap, &number); result != 0) return result;
  command = makeBitmapCommand(bitmap, number);
  if (!command) return 3;
  device = openDriver();  // the contract: only now
  return device ? 0 : 5;
}

void logStoppedVolumes(DriverCommand& command, std::size_t count) {
  for (std::size_t i = 0; i < count; ++i) {
    const auto* entry = command.record<VolumeListEntry>(i);
    syslog(LOG_DEBUG, "STOP VTRACK VOL ID: (MAJ, MIN): (%d, %d).\n", static_cast<int>(entry->majorNum),
           static_cast<int>(entry->minorNum));
  }
}

}  // namespace

bool SnapDriverInterface::IsVtrackActive(const std::wstring& volume) {
  const std::optional<std::int32_t> status =
      askVolumeStatus(WStringToString(volume), IOC_IS_VTRACK_ACTIVE, &logCheckFailure);
  if (!status) return false;
  switch (*status) {
    case kTracked:
      syslog(LOG_DEBUG, "Vtrack is Active.\n");
      return true;
    case kNotTracked:
      syslog(LOG_DEBUG, "Vtrack is not Active.\n");
      return false;
    default:
      syslog(LOG_ERR, "Unkown return code.\n");
      return false;
  }
}

unsigned int SnapDriverInterface::GetVtrackVars(const std::wstring& volume, std::string& guid,
                                                unsigned int& sequenceNumber) {
  const UniqueFd device = openDriver();  // the contract: before the name is looked at
  if (!device) return 5;
  const std::string name = WStringToString(volume);
  DeviceNumberPair number{};
  if (const unsigned int result = getDeviceNumber(name.c_str(), &number); result != 0) {
    syslog(LOG_ERR, "Device is invalid: %s.\n", name.c_str());
    return result;
  }
  DriverCommand command(sizeof(_ioctlCmd) + sizeof(TrackingVarsPayload), 1);
  if (!command) {
    syslog(LOG_ERR, "Error Allocating memory.\n");
    return 3;
  }
  auto* payload = command.record<TrackingVarsPayload>();
  payload->majorNum = number.majorNum;
  payload->minorNum = number.minorNum;
  if (command.issue(device.get(), IOC_GET_VTRACK_VARS) != 0) {
    syslog(LOG_ERR, "IOC_GET_VTRACK_VARS IOCTL failed, errno:%d\n", errno);
    return 6;
  }
  std::string answered = getText(payload->guid);
  syslog(LOG_INFO, "Driver returned info for volume: %s.\n", name.c_str());
  syslog(LOG_DEBUG, "GUID: %s, Sequence Number: %u.\n", answered.c_str(), payload->sequenceNumber);
  guid = std::move(answered);
  sequenceNumber = payload->sequenceNumber;
  return 0;
}

unsigned int SnapDriverInterface::GetVtrackBitmap(SectorBitmap& bitmap) {
  UniqueFd device;
  DriverCommand command;
  if (const unsigned int result = prepareBitmap(bitmap, device, command); result != 0) return result;
  if (command.issue(device.get(), IOC_GET_VDIFF) != 0) {
    syslog(LOG_ERR, "Get VDIFF IOCTL failed, errno:%d\n", errno);
    return 6;
  }
  readBitmap(command, bitmap);
  return 0;
}

unsigned int SnapDriverInterface::UpdateUsedSectorBitmap(SectorBitmap& bitmap) {
  UniqueFd device;
  DriverCommand command;
  if (const unsigned int result = prepareBitmap(bitmap, device, command); result != 0) return result;
  if (command.issue(device.get(), IOC_UPDATE_BITMAP) != 0) {
    syslog(LOG_ERR, "Update Bitmap IOCTL failed, errno:%d\n", errno);
    return 6;
  }
  syslog(LOG_DEBUG, "Used Sector Bitmap updated successfully.\n");
  return 0;
}

unsigned int SnapDriverInterface::StopVtrack(std::list<std::wstring>* volumes) {
  UniqueFd device;
  DriverCommand command;
  if (const unsigned int result = prepareVolumeList(volumes, 1328, device, command); result != 0) return result;
  logStoppedVolumes(command, volumes->size());
  if (command.issue(device.get(), IOC_STOP_VTRACK) == 0) return 0;
  const int error = errno;
  switch (command.header().driverStatus) {
    case kNotSnapped:
    case kNotSnappedEither:
      syslog(LOG_ERR, "The volume is not snapped\n");
      return 0;  // the contract: what is not snapped is not tracked either
    default:
      syslog(LOG_ERR, "Snap Discard IOCTL failed, errno:%d\n", error);  // the contract: the discard's text
      return 6;
  }
}
