// SPDX-License-Identifier: Apache-2.0
#include "emulator/driver/Inject.h"

#include <cerrno>
#include <charconv>
#include <cstring>
#include <string_view>

namespace emulator {
namespace {

constexpr int kHighestErrno = 133;
constexpr std::string_view kLost = "lost=";

std::vector<std::string_view> splitAtColons(std::string_view text) {
  std::vector<std::string_view> parts;
  for (std::size_t end; (end = text.find(':')) != text.npos; text.remove_prefix(end + 1)) {
    parts.push_back(text.substr(0, end));
  }
  parts.push_back(text);
  return parts;
}

template <class Number>
bool parseNumber(std::string_view text, Number& number) {
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  return error == std::errc() && end == text.data() + text.size();
}

// "EIO" or "5".
bool parseErrno(std::string_view text, int& error) {
  if (parseNumber(text, error)) return error >= 0 && error <= kHighestErrno;
  for (error = 1; error <= kHighestErrno; ++error) {
    const char* name = strerrorname_np(error);
    if (name != nullptr && text == name) return true;
  }
  return false;
}

std::string statusNames() {
  std::string names;
  for (const auto& [status, name] : kDriverStatusNames) {
    if (!names.empty()) names += ", ";
    names += name;
  }
  return names;
}

// "size-changed" or "-8".
bool parseStatus(std::string_view text, std::int32_t& status) {
  if (parseNumber(text, status)) return true;
  for (const auto& [known, name] : kDriverStatusNames) {
    if (text != name) continue;
    status = known;
    return true;
  }
  return false;
}

}  // namespace

std::optional<std::string> Injection::parse(const std::string& text, Injection& injection) {
  const auto complain = [&](const std::string& what) { return "\"" + text + "\": " + what; };
  const std::vector<std::string_view> parts = splitAtColons(text);
  if (parts.size() != 3 && parts.size() != 4) return complain("not COMMAND:N:[lost=]ERRNO[:STATUS]");
  Injection parsed;
  parsed.command = findCommand(parts[0]);
  if (parsed.command == nullptr) return complain("unknown command \"" + std::string(parts[0]) + "\"");
  if (!parseNumber(parts[1], parsed.number) || parsed.number == 0) return complain("N counts from 1");
  std::string_view error = parts[2];
  parsed.lost = error.starts_with(kLost);
  if (parsed.lost) error.remove_prefix(kLost.size());
  if (!parseErrno(error, parsed.error)) return complain("ERRNO is a name such as EIO, a number, or 0");
  if (parts.size() == 4 && !parseStatus(parts[3], parsed.status.emplace()))
    return complain("STATUS is a number or one of " + statusNames());
  if (parsed.error == 0 && parsed.lost) return complain("lost= needs an ERRNO other than 0");
  if (parsed.error == 0 && !parsed.status) return complain("ERRNO 0 needs a STATUS");
  injection = parsed;
  return std::nullopt;
}

const Injection* Injections::next(const Command& command) {
  const unsigned int number = ++mSeen[command.request];
  for (const Injection& injection : mInjections) {
    if (injection.command == &command && injection.number == number) return &injection;
  }
  return nullptr;
}

}  // namespace emulator
