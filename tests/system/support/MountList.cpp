// SPDX-License-Identifier: Apache-2.0
#include "MountList.h"

#include <cstdio>
#include <fstream>
#include <sstream>

namespace test {
namespace {

// "\040" is a blank.
std::string decoded(const std::string& field) {
  std::string text;
  for (std::size_t i = 0; i < field.size(); ++i) {
    if (field[i] == '\\' && i + 3 < field.size()) {
      text += static_cast<char>(std::stoi(field.substr(i + 1, 3), nullptr, 8));
      i += 3;
    } else {
      text += field[i];
    }
  }
  return text;
}

// "36 35 98:0 /mnt1 /mnt2 rw,noatime master:1 - ext3 /dev/root rw"
MountLine parsed(const std::string& line) {
  std::istringstream fields(line);
  MountLine mount{};
  std::string parent, device, root, word;
  fields >> mount.id >> parent >> device >> root >> mount.folder >> mount.options;
  while (fields >> word && word != "-") {
  }
  fields >> mount.type >> mount.source;
  std::sscanf(device.c_str(), "%u:%u", &mount.deviceMajor, &mount.deviceMinor);
  mount.folder = decoded(mount.folder);
  mount.source = decoded(mount.source);
  return mount;
}

}  // namespace

std::vector<MountLine> mountLines() {
  std::vector<MountLine> mounts;
  std::ifstream table("/proc/self/mountinfo");
  for (std::string line; std::getline(table, line);) mounts.push_back(parsed(line));
  return mounts;
}

std::vector<std::string> mountsUnder(const std::string& folder) {
  std::vector<std::string> found;
  for (const MountLine& mount : mountLines()) {
    if (mount.folder == folder || mount.folder.starts_with(folder + "/")) found.push_back(mount.folder);
  }
  return found;
}

}  // namespace test
