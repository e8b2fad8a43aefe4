// SPDX-License-Identifier: Apache-2.0
#include "Leftovers.h"

#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>

#include "MountList.h"
#include "Waiting.h"
#include "World.h"

namespace fs = std::filesystem;

namespace test {
namespace {

std::string firstLine(const fs::path& path) {
  std::ifstream file(path);
  std::string line;
  std::getline(file, line);
  return line;
}

// "7 (name) S 1 ...": the name may hold anything.
pid_t parentOf(const fs::path& process) {
  const std::string stat = firstLine(process / "stat");
  const std::size_t nameEnd = stat.rfind(')');
  int parent = 0;
  if (nameEnd == std::string::npos || std::sscanf(stat.c_str() + nameEnd, ") %*c %d", &parent) != 1) return 0;
  return parent;
}

// Something else on the machine may hold a loop device for a moment (udev looks at each).
template <class Find>
auto findWithPatience(Find find) {
  auto found = find();
  static_cast<void>(comesTrue([&] { return (found = find()).empty(); }));
  return found;
}

}  // namespace

std::vector<std::string> loopsInScratch(bool onlySnapshots) {
  std::vector<std::string> found;
  std::error_code ignored;
  for (const auto& device : fs::directory_iterator("/sys/block", ignored)) {
    const std::string file = firstLine(device.path() / "loop/backing_file");
    if (file.rfind(TempDir::prefix(), 0) != 0) continue;
    if (onlySnapshots && fs::path(file).filename().string().rfind("image", 0) == 0) continue;
    found.push_back(device.path().filename().string() + " (" + file + ")");
  }
  return found;
}

std::vector<std::string> snapshotNodes() {
  std::vector<std::string> found;
  for (const auto& entry : fs::directory_iterator("/dev")) {
    // The kernel may have a /dev/snapshot of its own.
    const std::string name = entry.path().filename();
    if (name.starts_with("snap") && name.find_first_of("0123456789") == 4) found.push_back(entry.path());
  }
  return found;
}

std::vector<std::string> relocationRemains() {
  std::vector<std::string> found;
  for (const MountLine& mount : mountLines()) {
    for (const char* name : {".verrelocarea", "qorTESTfile.KQTA"}) {
      std::error_code ignored;
      const fs::path path = fs::path(mount.folder) / name;
      if (!fs::exists(fs::symlink_status(path, ignored))) continue;
      found.push_back(path);
      for (const auto& entry : fs::directory_iterator(path, ignored)) found.push_back(entry.path());
    }
  }
  return found;
}

std::vector<pid_t> processesBelow(pid_t ancestor) {
  std::multimap<pid_t, pid_t> children;
  std::error_code ignored;
  for (const auto& entry : fs::directory_iterator("/proc", ignored)) {
    const pid_t process = std::atoi(entry.path().filename().c_str());
    if (process > 0) children.emplace(parentOf(entry.path()), process);
  }
  std::vector<pid_t> found{ancestor};
  for (std::size_t i = 0; i < found.size(); ++i) {
    const auto [first, last] = children.equal_range(found[i]);
    for (auto child = first; child != last; ++child) found.push_back(child->second);
  }
  found.erase(found.begin());
  return found;
}

void LeftoverListener::OnTestEnd(const testing::TestInfo&) {
  for (const pid_t process : findWithPatience([] {
         while (waitpid(-1, nullptr, WNOHANG) > 0) {
         }
         return processesBelow(getpid());
       })) {
    ADD_FAILURE() << "left behind: process " << process << " "
                  << firstLine("/proc/" + std::to_string(process) + "/comm");
  }
  for (const std::string& loop : findWithPatience([] { return loopsInScratch(false); })) {
    ADD_FAILURE() << "left behind: loop device " << loop;
  }
}

}  // namespace test
