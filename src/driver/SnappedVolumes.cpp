// SPDX-License-Identifier: Apache-2.0
//
// Which volumes the driver holds snapshots of.
#include <mirelsnap/DriverInterface.h>
#include <syslog.h>

#include <algorithm>
#include <cerrno>

#include "driver/ControlDevice.h"
#include "driver/DriverCommand.h"
#include "driver/VolumeRecords.h"

namespace {

// The records that the driver filled in.
std::list<SnappedVolumeInformation> readSnappedVolumes(DriverCommand& command) {
  std::list<SnappedVolumeInformation> volumes;
  const std::uint32_t count = command.filledRecords<SnappedVolumeEntry>();
  for (std::uint32_t i = 0; i < count; ++i) {
    const auto* entry = command.record<SnappedVolumeEntry>(i);
    const std::string snappedVolumeName = getText(entry->snappedVolumeName);
    const std::string relocFileName = getText(entry->relocFileName);
    syslog(LOG_INFO, "Snapped Vol Details(Name: %s, RelFileName: %s.\n", snappedVolumeName.c_str(),
           relocFileName.c_str());
    syslog(LOG_INFO, "NumSector: %lu, blockSize: %u, relocVolSize: %u, app PID: %d.\n", entry->numBlocks,
           entry->blockSize, entry->relocFileSize, entry->appPid);
    volumes.push_back(SnappedVolumeInformation(entry->majorNum, entry->minorNum, entry->blockSize, entry->numBlocks,
                                               entry->relocFileSize, entry->appPid, StringToWString(snappedVolumeName),
                                               StringToWString(relocFileName),
                                               static_cast<_DeviceState>(entry->deviceState)));
  }
  return volumes;
}

bool hasRelocationFileMapping(SnapDriverInterface& driver, const std::string& volume) {
  std::list<RelocFileMappingInformation> mappings;
  driver.GetRelocFileMapping(mappings);  // a failure leaves the list empty
  for (const RelocFileMappingInformation& mapping : mappings) {
    syslog(LOG_DEBUG, "SVolName: %s, RelFileName: %s.\n", mapping.getSnappedVolumeName().c_str(),
           mapping.getRelocFileName().c_str());
    if (mapping.getSnappedVolumeName() == volume) return true;
  }
  return false;
}

}  // namespace

unsigned int SnapDriverInterface::GetNumOfSnappedVolumes(int* count) {
  if (count == nullptr) {
    syslog(LOG_ERR, "assert at %d in %s failed.\n", 1969, "LinuxSnapLib.cpp");
    return 3;
  }
  const UniqueFd device = openDriver();
  if (!device) return 5;
  SnapDriverInterfaceUtility* utility = storeFreshUtility();
  if (utility == nullptr) {
    syslog(LOG_ERR, "Error Allocating memory.\n");
    return 3;
  }
  struct {
    _ioctlCmd header;
    CountPayload payload;
  } command{};
  static_assert(sizeof command == 28);
  fillDriverHeader(command.header, sizeof command, 0, *utility);
  if (issueDriverRequest(device.get(), IOC_GET_NUM_OF_SNAPPED_VOLUMES, &command.header) != 0) {
    syslog(LOG_ERR, "IOC_GET_NUM_OF_SNAPPED_VOLUMES IOCTL failed, errno:%d\n", errno);
    return 6;
  }
  syslog(LOG_DEBUG, "Number of volumes snapped: %d.\n", command.header.requestValue);
  *count = static_cast<int>(command.header.requestValue);
  return 0;
}

unsigned int SnapDriverInterface::GetSnappedVolumeDetails(std::list<SnappedVolumeInformation>& volumes) {
  int count = 0;
  if (GetNumOfSnappedVolumes(&count) != 0) {
    syslog(LOG_ERR, "Unable to obtained the number of snapped volumes.\n");
    return 6;  // whatever the count's own status was
  }
  if (count == 0) return 0;
  const UniqueFd device = openDriver();
  if (!device) return 5;
  const auto expected = static_cast<std::uint32_t>(count);
  DriverCommand command(sizeof(_ioctlCmd) + expected * sizeof(SnappedVolumeEntry) + kDriverTrailerSize, expected);
  if (!command) {
    syslog(LOG_ERR, "Error Allocating memory.\n");
    return 3;
  }
  if (command.issue(device.get(), IOC_GET_SNAPPED_VOL_DETAILS) != 0) {
    syslog(LOG_ERR, "IOC_GET_SNAPPED_VOL_DETAILS IOCTL failed, errno:%d\n", errno);
    return 6;
  }
  syslog(LOG_INFO, "Driver returned info for %u snapped volumes.\n", command.header().requestValue);
  volumes.splice(volumes.end(), readSnappedVolumes(command));
  return 0;
}

bool SnapDriverInterface::IsSnapInProgress(std::string& volume) {
  if (hasRelocationFileMapping(*this, volume)) return true;
  std::list<SnappedVolumeInformation> snapped;
  if (GetSnappedVolumeDetails(snapped) != 0) {
    syslog(LOG_ERR, "Unable to obtain the snapped volume details.\n");
    return false;
  }
  return std::any_of(snapped.begin(), snapped.end(), [&](const SnappedVolumeInformation& record) {
    return WStringToString(record.getSnappedVolumeName()) == volume;
  });
}
