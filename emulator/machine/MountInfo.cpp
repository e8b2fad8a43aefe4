// SPDX-License-Identifier: Apache-2.0
#include "emulator/machine/MountInfo.h"

#include <algorithm>
#include <charconv>
#include <optional>

namespace emulator {
namespace {

std::vector<std::string_view> split(std::string_view text, char separator) {
  std::vector<std::string_view> parts;
  while (!text.empty()) {
    const std::size_t end = std::min(text.find(separator), text.size());
    if (end > 0) parts.push_back(text.substr(0, end));
    text.remove_prefix(std::min(end + 1, text.size()));
  }
  return parts;
}

template <class Number>
bool parseNumber(std::string_view text, Number& number) {
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  return error == std::errc() && end == text.data() + text.size();
}

// "\040" and its like stand for characters that would break the line.
std::string decode(std::string_view text) {
  std::string plain;
  for (std::size_t i = 0; i < text.size(); ++i) {
    unsigned int code = 0;
    const bool escape = text[i] == '\\' && i + 3 < text.size() &&
                        std::from_chars(text.data() + i + 1, text.data() + i + 4, code, 8).ptr == text.data() + i + 4;
    plain += escape ? static_cast<char>(code) : text[i];
    if (escape) i += 3;
  }
  return plain;
}

std::optional<MountLine> parseLine(std::string_view line) {
  const std::vector<std::string_view> fields = split(line, ' ');
  const auto dash = std::find(fields.begin(), fields.end(), "-");
  if (dash - fields.begin() < 6 || fields.end() - dash < 3) return std::nullopt;
  const std::vector<std::string_view> numbers = split(fields[2], ':');
  MountLine mount;
  if (numbers.size() != 2 || !parseNumber(fields[0], mount.id) || !parseNumber(numbers[0], mount.device.majorNum) ||
      !parseNumber(numbers[1], mount.device.minorNum)) {
    return std::nullopt;
  }
  mount.folder = decode(fields[4]);
  mount.type = dash[1];
  mount.source = decode(dash[2]);
  return mount;
}

}  // namespace

std::size_t MountLine::depth() const {
  return folder == "/" ? 0 : static_cast<std::size_t>(std::count(folder.begin(), folder.end(), '/'));
}

std::vector<MountLine> parseMountInfo(std::string_view text) {
  std::vector<MountLine> mounts;
  for (const std::string_view line : split(text, '\n')) {
    if (auto mount = parseLine(line)) mounts.push_back(std::move(*mount));
  }
  return mounts;
}

}  // namespace emulator
