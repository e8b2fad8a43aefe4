// SPDX-License-Identifier: Apache-2.0
#include "SnapshotDevice.h"

#include <sys/sysmacros.h>

#include <regex>

namespace cli {

std::string snapshotDeviceOf(const SnappedVolumeInformation& volume) {
  return "/dev/snap" + std::to_string(volume.getMajorNum()) + "_" + std::to_string(volume.getMinorNum());
}

bool isSnapshotDevice(const std::string& path) { return volumeOf(path).has_value(); }

std::optional<dev_t> volumeOf(const std::string& path) {
  static const std::regex pattern("/dev/snap([0-9]{1,9})_([0-9]{1,9})");  // nine digits fit
  std::smatch numbers;
  if (!std::regex_match(path, numbers, pattern)) return std::nullopt;
  const auto number = [&](std::size_t part) { return static_cast<unsigned int>(std::stoul(numbers[part])); };
  return makedev(number(1), number(2));
}

}  // namespace cli
