// SPDX-License-Identifier: Apache-2.0
#include "driver/DriverCommand.h"

#include <sys/ioctl.h>

#include <cerrno>
#include <limits>

#include "base/Causes.h"
#include "driver/RequestName.h"

void fillDriverHeader(_ioctlCmd& header, std::uint32_t length, std::uint32_t requestValue,
                      SnapDriverInterfaceUtility& utility) {
  header.requestValue = requestValue;
  header.length = length;
  utility.generateHandShake(&header);
}

int issueDriverRequest(int descriptor, unsigned long request, _ioctlCmd* command) {
  const int result = ioctl(descriptor, request, command);
  if (result != 0) noteFailedCall("ioctl", requestName(request), errno);
  return result;
}

DriverCommand::DriverCommand(std::size_t length, std::uint32_t requestValue) : DriverCommand(length) {
  SnapDriverInterfaceUtility* utility = mBuffer == nullptr ? nullptr : storeFreshUtility();
  if (utility == nullptr) {
    if (mBuffer != nullptr) noteShortMemory();
    mBuffer.reset();
    return;
  }
  fillDriverHeader(header(), static_cast<std::uint32_t>(length), requestValue, *utility);
}

DriverCommand::DriverCommand(std::size_t length, std::uint32_t requestValue, SnapDriverInterfaceUtility& utility)
    : DriverCommand(length) {
  if (mBuffer != nullptr) fillDriverHeader(header(), static_cast<std::uint32_t>(length), requestValue, utility);
}

DriverCommand::DriverCommand(std::size_t length) : mLength(length) {
  // What the header's length field cannot express cannot be sent.
  if (length > std::numeric_limits<std::uint32_t>::max()) return;
  mBuffer.reset(static_cast<std::byte*>(std::calloc(length, 1)));
  if (mBuffer == nullptr) noteShortMemory();
}

int DriverCommand::issue(int descriptor, unsigned long request) {
  return issueDriverRequest(descriptor, request, &header());
}
