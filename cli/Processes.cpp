// SPDX-License-Identifier: Apache-2.0
#include "Processes.h"

#include <signal.h>

#include <cerrno>
#include <charconv>
#include <filesystem>
#include <fstream>

#include "MountTable.h"

namespace fs = std::filesystem;

namespace cli {
namespace {

bool leadsInto(const fs::path& link, const std::string& folder) {
  std::error_code error;
  const fs::path target = fs::read_symlink(link, error);
  return !error && liesWithin(target, folder);
}

bool uses(const fs::path& process, const std::string& folder) {
  if (leadsInto(process / "cwd", folder) || leadsInto(process / "root", folder)) return true;
  std::error_code error;
  for (fs::directory_iterator entry(process / "fd", error), end; !error && entry != end; entry.increment(error)) {
    if (leadsInto(entry->path(), folder)) return true;
  }
  return false;
}

}  // namespace

bool isGone(int process) {
  if (kill(process, 0) != 0) return errno == ESRCH;
  // "12 (name) Z ...", where the name may hold anything.
  std::ifstream file("/proc/" + std::to_string(process) + "/stat");
  std::string text;
  std::getline(file, text, '\0');
  const std::size_t state = text.rfind(") ");
  return state != std::string::npos && (text[state + 2] == 'Z' || text[state + 2] == 'X');
}

std::string processText(int process) {
  std::ifstream file("/proc/" + std::to_string(process) + "/comm");
  std::string name;
  std::getline(file, name);
  return "process " + std::to_string(process) + (name.empty() ? "" : " (" + name + ")");
}

std::optional<int> userOf(const std::string& folder) {
  std::error_code error;
  for (fs::directory_iterator entry("/proc", error), end; !error && entry != end; entry.increment(error)) {
    const std::string name = entry->path().filename();
    int process = 0;
    const auto [rest, problem] = std::from_chars(name.data(), name.data() + name.size(), process);
    if (problem == std::errc() && rest == name.data() + name.size() && uses(entry->path(), folder)) return process;
  }
  return std::nullopt;
}

}  // namespace cli
