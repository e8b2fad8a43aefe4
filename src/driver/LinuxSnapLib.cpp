// SPDX-License-Identifier: Apache-2.0
//
// The one object of a process that talks to the driver: its life, the driver's version and its log level.
#include <mirelsnap/DriverInterface.h>
#include <syslog.h>

#include <cerrno>
#include <cstring>
#include <new>
#include <utility>

#include "driver/ControlDevice.h"
#include "driver/DriverCommand.h"

SnapDriverInterface* SnapDriverInterface::mInstance = nullptr;
unsigned int SnapDriverInterface::mReferenceCount = 0;

namespace {

// The C library keeps the pointer, so the text must outlive an unloading of this library; it is made once a load.
const char* logIdentity() {
  static const char* const identity = strdup("MIRELSNAP_SDK");
  return identity;
}

}  // namespace

SnapDriverInterface::SnapDriverInterface() {
  openlog(logIdentity(), LOG_PID, LOG_USER);
  setlogmask(LOG_UPTO(LOG_ERR));
}

SnapDriverInterface* SnapDriverInterface::Instance() {
  ++mReferenceCount;  // on every call, also on one that finds memory short
  if (mInstance == nullptr) mInstance = new (std::nothrow) SnapDriverInterface;
  return mInstance;
}

void SnapDriverInterface::releaseInstance() {
  if (--mReferenceCount != 0 || mInstance == nullptr) return;
  delete mInstance;
  mInstance = nullptr;
}

unsigned int SnapDriverInterface::GetDriverVersionDetail(std::string& version) {
  const UniqueFd device = openDriver();
  if (!device) return 5;
  DriverCommand command(sizeof(_ioctlCmd) + sizeof(DriverVersionPayload), 0);
  if (!command) {
    syslog(LOG_ERR, "Error Allocating memory.\n");
    return 3;
  }
  if (command.issue(device.get(), IOC_GET_DRIVER_VERSION) != 0) {
    // The contract: the text of the snapped-volumes command.
    syslog(LOG_ERR, "IOC_GET_NUM_OF_SNAPPED_VOLUMES IOCTL failed, errno:%d\n", errno);
    return 6;
  }
  std::string answered = getText(command.record<DriverVersionPayload>()->version);
  syslog(LOG_DEBUG, "The Driver Version number is: %s.\n", answered.c_str());
  version = std::move(answered);
  return 0;
}

bool SnapDriverInterface::IsDriverEnabled(std::string& version) { return GetDriverVersionDetail(version) == 0; }

unsigned int SnapDriverInterface::SetLogLevel(unsigned char level) {
  const UniqueFd device = openDriver();
  if (!device) return 5;
  DriverCommand command(sizeof(_ioctlCmd) + sizeof(LogLevelPayload), 0);
  if (!command) {
    syslog(LOG_ERR, "Memory alocation failed.\n");
    return 3;
  }
  command.record<LogLevelPayload>()->level = level;
  if (command.issue(device.get(), IOC_SET_LOG_LEVEL) != 0) {
    syslog(LOG_ERR, "Set Log Level ioctl failed, errno:%d\n", errno);
    return 6;
  }
  setlogmask(static_cast<int>((1U << ((level + 1U) % 32U)) - 1U));
  return 0;
}
