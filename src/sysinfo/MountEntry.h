// SPDX-License-Identifier: Apache-2.0
//
// One mounted file system, copied from one record of the kernel's mount table.
#pragma once

#include <mntent.h>

#include <string>

namespace mirelsnapsdk_linuxcomputer {

struct MountEntry {
  MountEntry() = default;
  explicit MountEntry(const mntent& record);

  std::string fsname;  // mounted device, possibly replaced by its real device path
  std::string dir;     // mount directory
  std::string type;    // file-system type
  std::string opts;    // mount options
  int freq = 0;
  int passno = 0;
};

// Orders mount entries by device name, compared as bytes.
struct MountEntryDeviceLess {
  bool operator()(const MountEntry& a, const MountEntry& b) const { return a.fsname < b.fsname; }
};

}  // namespace mirelsnapsdk_linuxcomputer
