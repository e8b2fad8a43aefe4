// SPDX-License-Identifier: Apache-2.0
//
// A block device as the driver knows it: by its numbers.
#pragma once

#include <sys/sysmacros.h>
#include <sys/types.h>

#include <compare>
#include <string>

namespace emulator {

struct DeviceNumber {
  unsigned int majorNum = 0;
  unsigned int minorNum = 0;

  auto operator<=>(const DeviceNumber&) const = default;
  dev_t value() const { return makedev(majorNum, minorNum); }
  // "7:3"
  std::string text() const { return std::to_string(majorNum) + ':' + std::to_string(minorNum); }
};

inline DeviceNumber numberOf(dev_t device) { return {gnu_dev_major(device), gnu_dev_minor(device)}; }

}  // namespace emulator
