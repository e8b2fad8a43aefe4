// SPDX-License-Identifier: Apache-2.0
//
// The kernel's table of mounts, as one process sees it.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "emulator/machine/DeviceNumber.h"

namespace emulator {

struct MountLine {
  int id = 0;           // the kernel's number of the mount
  DeviceNumber device;  // of the file system; 0:n where it has no device of its own (btrfs has one and shows none)
  std::string folder;   // where it is mounted, seen from the process's root
  std::string type;
  std::string source;  // what was mounted: usually a device's path

  std::size_t depth() const;  // folders down from the root
};

// The lines of a mountinfo text, in its order; lines that do not look like one are left out.
std::vector<MountLine> parseMountInfo(std::string_view text);

}  // namespace emulator
