// SPDX-License-Identifier: Apache-2.0
//
// The driver's mappings from snapped volumes to their relocation files.
#include "driver/RelocationMappings.h"

#include <mirelsnap/DriverInterface.h>
#include <syslog.h>

#include <cerrno>

#include "driver/ControlDevice.h"
#include "driver/DriverCommand.h"

namespace {

constexpr std::size_t kMappingCommandSize = sizeof(_ioctlCmd) + sizeof(RelocFileMappingEntry) + kDriverTrailerSize;
static_assert(kMappingCommandSize == 2079);

// Issues the create or delete command; a delete has no relocation file name. 0, 3, 5, 6.
unsigned int changeMapping(unsigned long request, const std::string& snappedVolumeName,
                           const std::string& relocFileName, int pid) {
  const UniqueFd device = openDriver();
  if (!device) return 5;
  DriverCommand command(kMappingCommandSize, 0);
  if (!command) {
    syslog(LOG_ERR, "Error Allocating memory.\n");
    return 3;
  }
  auto* entry = command.record<RelocFileMappingEntry>();
  entry->appPid = pid;
  putText(entry->snappedVolumeName, snappedVolumeName.c_str());
  putText(entry->relocFileName, relocFileName.c_str());
  if (command.issue(device.get(), request) != 0) {
    // The contract: creating logs this text too.
    syslog(LOG_ERR, "IOC_DELETE_RELOC_FILE_MAPPING IOCTL failed, errno:%d\n", errno);
    return 6;
  }
  return 0;
}

// The mappings that the driver filled in.
std::list<RelocFileMappingInformation> readMappings(DriverCommand& command) {
  std::list<RelocFileMappingInformation> mappings;
  const std::uint32_t count = command.filledRecords<RelocFileMappingEntry>();
  for (std::uint32_t i = 0; i < count; ++i) {
    const auto* entry = command.record<RelocFileMappingEntry>(i);
    const std::string snappedVolumeName = getText(entry->snappedVolumeName);
    const std::string relocFileName = getText(entry->relocFileName);
    syslog(LOG_DEBUG, "Reloc Map Details(Name: %s, RelFileName: %s, pid: %u.\n", snappedVolumeName.c_str(),
           relocFileName.c_str(), static_cast<unsigned int>(entry->appPid));
    mappings.push_back(RelocFileMappingInformation(entry->appPid, snappedVolumeName, relocFileName));
  }
  return mappings;
}

// Writes the number of mappings. 0, 3, 5, 6.
unsigned int countMappings(std::uint32_t& count) {
  const UniqueFd device = openDriver();
  if (!device) return 5;
  DriverCommand command(sizeof(_ioctlCmd) + sizeof(CountPayload), 0);
  if (!command) {
    syslog(LOG_ERR, "Memory Allocation Failed.\n");
    return 3;
  }
  if (command.issue(device.get(), IOC_GET_NUM_OF_RELOC_FILE_MAPPING) != 0) {
    syslog(LOG_ERR, "IOC_GET_NUM_OF_RELOC_FILE_MAPPING IOCTL failed, errno:%d\n", errno);
    return 6;
  }
  count = command.header().requestValue;
  syslog(LOG_DEBUG, "Number of reloc files mapped: %d.\n", count);
  return 0;
}

// Appends the mappings, `expected` at most. 0, 3, 5, 6.
unsigned int listMappings(std::uint32_t expected, std::list<RelocFileMappingInformation>& mappings) {
  if (static_cast<int>(expected) < 0) {
    syslog(LOG_ERR, "Unable to obtained the number of mappings.\n");
    return 6;
  }
  if (expected == 0) return 0;
  const UniqueFd device = openDriver();
  if (!device) return 5;
  DriverCommand command(sizeof(_ioctlCmd) + expected * sizeof(RelocFileMappingEntry) + kDriverTrailerSize, expected);
  if (!command) {
    syslog(LOG_ERR, "Error Allocating memory.\n");
    return 3;
  }
  if (command.issue(device.get(), IOC_GET_RELOC_FILE_MAPPING) != 0) {
    syslog(LOG_ERR, "IOC_GET_RELOC_FILE_MAPPING IOCTL failed, errno:%d\n", errno);
    return 6;
  }
  syslog(LOG_INFO, "Driver returned info for %u mapped volumes.\n", command.header().requestValue);
  mappings.splice(mappings.end(), readMappings(command));
  return 0;
}

}  // namespace

unsigned int SnapDriverInterface::CreateRelocationFileMapping(const std::string& snappedVolumeName,
                                                              const std::string& relocFileName, int pid) {
  return changeMapping(IOC_CREATE_RELOC_FILE_MAPPING, snappedVolumeName, relocFileName, pid);
}

unsigned int SnapDriverInterface::DeleteRelocationFileMapping(const std::string& snappedVolumeName, int pid) {
  return changeMapping(IOC_DELETE_RELOC_FILE_MAPPING, snappedVolumeName, std::string(), pid);
}

unsigned int SnapDriverInterface::GetNumOfRelocFileMapping() {
  std::uint32_t count = 0;
  const unsigned int status = countMappings(count);
  return status == 0 ? count : status;  // the contract: the failure codes share the value with the count
}

unsigned int SnapDriverInterface::GetRelocFileMapping(std::list<RelocFileMappingInformation>& mappings) {
  // The contract: the count's failure codes are taken for counts.
  return listMappings(GetNumOfRelocFileMapping(), mappings);
}

bool readAllMappings(std::list<RelocFileMappingInformation>& mappings) {
  std::uint32_t count = 0;
  return countMappings(count) == 0 && listMappings(count, mappings) == 0;
}
