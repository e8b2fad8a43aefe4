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

// Their devices in order, each once.
std::vector<std::string> devicesOf(const std::vector<ChosenVolume>& volumes);
// Every mounted block device once, in table order, under its first mount point.
std::vector<ChosenVolume> everyMounted(const MountTable& table);
// A block device, mounted or not, or the device of a mount point.
std::variant<std::string, Failure> deviceNamed(const std::string& name, const MountTable& table);
// Whether files of this type of file system can be mapped to blocks, which snapping a volume takes.
bool canBeMapped(const std::string& type);

}  // namespace cli
