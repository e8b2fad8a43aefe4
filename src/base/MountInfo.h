// SPDX-License-Identifier: Apache-2.0
//
// The kernel's table of mounts as one process sees it (mountinfo, proc(5)), read by libmount.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

#include "base/Handle.h"

struct MountLine {
  int id = 0;        // the kernel's number of the mount
  dev_t device = 0;  // of the file system; its major is 0 where it has no device of its own (btrfs has one, shows none)
  std::string root;  // what of the file system is mounted: "/" but for a bind of a directory or a file
  std::string folder;  // where it is mounted, seen from the process's root
  std::string type;
  std::string source;    // what was mounted: usually a device's path; empty for "none"
  bool network = false;  // its files are on another machine
  bool pseudo = false;   // it is the kernel's own (proc, tmpfs and the like)
};

// Every mount of an open mountinfo file, in its order; lines that are not of that format are left out. Nothing when no
// file is open or it cannot be read. Throws std::bad_alloc.
std::optional<std::vector<MountLine>> readMountInfo(UniqueFd file);
