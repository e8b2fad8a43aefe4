// SPDX-License-Identifier: Apache-2.0
#include "Processes.h"

#include <algorithm>
#include <charconv>
#include <filesystem>
#include <sstream>

#include "MountTable.h"
#include "Text.h"
#include "base/Process.h"
#include "base/ReadText.h"

namespace fs = std::filesystem;

namespace cli {
namespace {

// Of more users these are named.
constexpr std::size_t kNamedUsers = 3;

std::vector<fs::path> entriesOf(const fs::path& folder) {
  std::vector<fs::path> found;
  std::error_code error;
  for (fs::directory_iterator entry(folder, error), end; !error && entry != end; entry.increment(error))
    found.push_back(entry->path());
  return found;
}

std::string targetOf(const fs::path& link) {
  std::error_code error;
  return fs::read_symlink(link, error).string();
}

// The first path in `folder` that the process holds.
std::optional<std::string> pathInUse(const fs::path& process, const std::string& folder) {
  for (const char* link : {"cwd", "root", "exe"}) {
    if (const std::string target = targetOf(process / link); liesWithin(target, folder)) return target;
  }
  for (const char* links : {"fd", "map_files"}) {
    for (const fs::path& link : entriesOf(process / links)) {
      if (const std::string target = targetOf(link); liesWithin(target, folder)) return target;
    }
  }
  return std::nullopt;
}

// Where the process's own mount namespace has `device` mounted.
std::optional<std::string> mountOf(const fs::path& process, const std::string& device) {
  std::istringstream table(readText(process / "mounts").value_or(std::string()));
  for (std::string line; std::getline(table, line);) {
    std::istringstream fields(line);
    std::string source, folder;
    if (fields >> source >> folder && source == device) return folder;
  }
  return std::nullopt;
}

std::vector<User> loopDevicesOver(const std::string& folder) {
  std::vector<User> found;
  for (const fs::path& device : entriesOf("/sys/block")) {
    const std::string path = readLine(device / "loop/backing_file");
    if (liesWithin(path, folder)) found.push_back({"/dev/" + device.filename().string(), path});
  }
  return found;
}

}  // namespace

std::optional<int> processNamedBy(const fs::path& path) {
  const std::string name = path.filename();
  int number = 0;
  const auto [rest, problem] = std::from_chars(name.data(), name.data() + name.size(), number);
  return problem == std::errc() && rest == name.data() + name.size() && number > 0 ? std::optional(number)
                                                                                   : std::nullopt;
}

bool isGone(int process) { return processIsGone(process); }

std::string processName(int process) { return readLine("/proc/" + std::to_string(process) + "/comm"); }

std::string processText(int process) {
  const std::string name = processName(process);
  return "process " + std::to_string(process) + (name.empty() ? "" : " (" + name + ")");
}

std::string ownerText(int process) {
  return isGone(process) ? "process " + std::to_string(process) + ", which is gone" : processText(process);
}

std::vector<User> usersOf(const std::string& folder) {
  std::vector<User> found;
  for (const fs::path& process : entriesOf("/proc")) {
    const std::optional<int> number = processNamedBy(process);
    if (!number) continue;
    if (const auto path = pathInUse(process, folder)) found.push_back({processText(*number), *path});
  }
  for (User& device : loopDevicesOver(folder)) found.push_back(std::move(device));
  return found;
}

std::vector<User> holdersOf(const std::string& device) {
  std::vector<User> found;
  const std::string own = targetOf("/proc/self/ns/mnt");
  for (const fs::path& process : entriesOf("/proc")) {
    const std::optional<int> number = processNamedBy(process);
    if (!number) continue;
    if (const auto path = pathInUse(process, device)) {
      found.push_back({processText(*number), *path});
    } else if (targetOf(process / "ns/mnt") != own) {
      if (const auto folder = mountOf(process, device)) found.push_back({processText(*number), *folder});
    }
  }
  return found;
}

std::string usersText(const std::vector<User>& users) {
  if (users.empty()) return "something uses it";
  std::vector<std::string> named;
  for (std::size_t i = 0; i < std::min(users.size(), kNamedUsers); ++i)
    named.push_back(users[i].who + " uses " + users[i].what);
  if (users.size() > kNamedUsers) named.push_back(std::to_string(users.size() - kNamedUsers) + " more use it");
  return listed(named);
}

}  // namespace cli
