// SPDX-License-Identifier: Apache-2.0
#include "SnapshotDevice.h"

#include <sys/sysmacros.h>

#include <charconv>
#include <string_view>

namespace cli {
namespace {

constexpr std::string_view kNameStart = "/dev/snap";
constexpr std::size_t kMostDigits = 9;  // what fits

// Takes a number off the front of `text`; nothing when none stands there.
std::optional<unsigned int> takeNumber(std::string_view& text) {
  unsigned int number = 0;
  const std::string_view digits = text.substr(0, text.find_first_not_of("0123456789"));
  if (digits.empty() || digits.size() > kMostDigits) return std::nullopt;
  std::from_chars(digits.data(), digits.data() + digits.size(), number);
  text.remove_prefix(digits.size());
  return number;
}

}  // namespace

std::string snapshotDeviceOf(const SnappedVolumeInformation& volume) {
  return std::string(kNameStart) + std::to_string(volume.getMajorNum()) + "_" + std::to_string(volume.getMinorNum());
}

bool isSnapshotDevice(const std::string& path) { return volumeOf(path).has_value(); }

std::optional<dev_t> volumeOf(const std::string& path) {
  if (!path.starts_with(kNameStart)) return std::nullopt;
  std::string_view rest = std::string_view(path).substr(kNameStart.size());
  const std::optional<unsigned int> majorNumber = takeNumber(rest);
  if (!majorNumber || !rest.starts_with('_')) return std::nullopt;
  rest.remove_prefix(1);
  const std::optional<unsigned int> minorNumber = takeNumber(rest);
  if (!minorNumber || !rest.empty()) return std::nullopt;
  return makedev(*majorNumber, *minorNumber);
}

}  // namespace cli
