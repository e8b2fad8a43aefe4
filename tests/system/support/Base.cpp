// SPDX-License-Identifier: Apache-2.0
#include "Base.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>

#include "MountList.h"

namespace fs = std::filesystem;

namespace test {

Base::Base(const std::vector<std::string>& mountPoints) : mPath(mDir / "base") {
  for (const std::string& mountPoint : mountPoints) fs::create_directories(at(mountPoint));
}

Base::~Base() {
  for (const std::string& mount : mountsUnder(mPath)) ADD_FAILURE() << "left behind: mount " << mount;
  std::vector<fs::path> paths;
  std::error_code ignored;
  for (const auto& entry : fs::recursive_directory_iterator(mPath, ignored)) paths.push_back(entry.path());
  for (const fs::path& path : paths) {
    if (!fs::is_directory(fs::symlink_status(path))) ADD_FAILURE() << "left behind: " << path;
  }
}

}  // namespace test
