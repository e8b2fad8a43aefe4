// SPDX-License-Identifier: Apache-2.0
#include "LeakListener.h"

#include <syslog.h>

#include <filesystem>
#include <fstream>

#include "World.h"

namespace fs = std::filesystem;

namespace test {
namespace {

void addFiles(std::set<std::string>& world, const std::string& folder) {
  std::error_code ignored;
  for (const auto& entry : fs::directory_iterator(folder, ignored)) world.insert("file " + entry.path().string());
}

std::set<std::string> everythingThatCanLeak() {
  std::set<std::string> world;
  std::ifstream mounts(std::string(kRealProc) + "/self/mountinfo");
  for (std::string line; std::getline(mounts, line);) world.insert("mount " + line);
  addFiles(world, "/dev");
  addFiles(world, kScratch);
  std::error_code ignored;
  for (const auto& entry : fs::directory_iterator(std::string(kRealProc) + "/self/fd", ignored)) {
    const fs::path target = fs::read_symlink(entry.path(), ignored);
    // The listing's own descriptor is not the test's.
    if (!ignored && target.filename() != "fd")
      world.insert("descriptor " + entry.path().filename().string() + " -> " + target.string());
  }
  return world;
}

}  // namespace

void LeakListener::OnTestStart(const testing::TestInfo&) { mBefore = everythingThatCanLeak(); }

void LeakListener::OnTestEnd(const testing::TestInfo&) {
  closelog();
  for (const std::string& thing : everythingThatCanLeak()) {
    if (mBefore.count(thing) == 0) ADD_FAILURE() << "left behind: " << thing;
  }
}

}  // namespace test
