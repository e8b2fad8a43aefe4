// SPDX-License-Identifier: Apache-2.0
//
// The driver's own state, as it tells it.
#include <mirelsnap/DriverInterface.h>
#include <syslog.h>

#include <cerrno>
#include <cstring>

#include "driver/ControlDevice.h"
#include "driver/DriverCommand.h"
#include "driver/VolumeRecords.h"

namespace {

constexpr signed char kIntoFile = 1;  // the one value that selects the file
constexpr unsigned int kLongestFileName = sizeof(DumpStatePayload::fileName) - 1;

}  // namespace

unsigned int SnapDriverInterface::DumpState(signed char flag, signed char fileFlag, const std::wstring&,
                                            const std::wstring& fileName) {
  if (fileFlag == kIntoFile && fileName.size() > kLongestFileName) {
    syslog(LOG_ERR, "Length of the dump file name %zu exceeds the maximum %u.\n", fileName.size(), kLongestFileName);
    return 3;
  }
  const UniqueFd device = openDriver();
  if (!device) return 5;
  DriverCommand command(sizeof(_ioctlCmd) + sizeof(DumpStatePayload), 0);
  if (!command) {
    syslog(LOG_ERR, "Memory alocation failed.\n");
    return 3;
  }
  auto* payload = command.record<DumpStatePayload>();
  if (fileFlag == kIntoFile) std::memcpy(payload->fileName, WStringToString(fileName).data(), fileName.size());
  payload->flag = flag;
  payload->fileFlag = fileFlag;
  syslog(LOG_DEBUG, "DumpState: file : %s\n", payload->fileName);
  if (command.issue(device.get(), IOC_DUMP_STATE) != 0) {
    syslog(LOG_ERR, "Set Log Level ioctl failed, errno:%d\n", errno);  // the contract: the log level's text
    return 6;
  }
  return 0;
}
