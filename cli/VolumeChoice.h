// SPDX-License-Identifier: Apache-2.0
//
// Which volumes a verb is asked for: devices, mount points, or DEVICE:MOUNTPOINT.
#pragma once

#include <string>
#include <variant>
#include <vector>

#include "Failure.h"
#include "MountTable.h"

namespace cli {

// One volume under one mount point. The same device may be chosen under several.
struct ChosenVolume {
  std::string device;      // its path as the mount table names it, aliases resolved
  std::string mountPoint;  // as the mount table spells it
  std::string type;        // file-system type
  std::uint64_t number;    // the block device's number
};

// Resolves what the user named, in the order named, each device once under each mount point. Without a name: every
// mounted volume of a file system that can be snapped, each under its first mount point.
std::variant<std::vector<ChosenVolume>, Failure> chooseVolumes(const std::vector<std::string>& names,
                                                               const MountTable& table);

}  // namespace cli
