// SPDX-License-Identifier: Apache-2.0
#include "sysinfo/SnapshotName.h"

#include <sys/sysmacros.h>

#include <charconv>
#include <string_view>

namespace {

constexpr std::string_view kPrefix = "/dev/snap";

// Takes a number, digits only, off the text's beginning.
std::optional<unsigned int> takeNumber(std::string_view& text) {
  unsigned int number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc()) return std::nullopt;
  text.remove_prefix(static_cast<std::size_t>(end - text.data()));
  return number;
}

}  // namespace

std::optional<dev_t> volumeOfSnapshot(const std::string& path) {
  std::string_view rest = path;
  if (!rest.starts_with(kPrefix)) return std::nullopt;
  rest.remove_prefix(kPrefix.size());
  const auto majorNum = takeNumber(rest);
  if (!majorNum || !rest.starts_with('_')) return std::nullopt;
  rest.remove_prefix(1);
  const auto minorNum = takeNumber(rest);
  return minorNum && rest.empty() ? std::optional(makedev(*majorNum, *minorNum)) : std::nullopt;
}
