// SPDX-License-Identifier: Apache-2.0
//
// The kernel's mount table as the tests read it.
#pragma once

#include <string>
#include <vector>

namespace test {

struct MountLine {
  int id;
  unsigned int deviceMajor;
  unsigned int deviceMinor;
  std::string folder;
  std::string options;
  std::string type;
  std::string source;
};

// This process's mounts, in table order.
std::vector<MountLine> mountLines();
// The folders of those at or below `folder`.
std::vector<std::string> mountsUnder(const std::string& folder);

}  // namespace test
