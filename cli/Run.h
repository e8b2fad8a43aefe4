// SPDX-License-Identifier: Apache-2.0
//
// `mirelsnap run`: snapshot, run a command on it, clean up.
#pragma once

#include <string>
#include <vector>

#include "Placement.h"

namespace cli {

struct RunOptions {
  std::vector<std::string> volumes;  // devices, mount points, DEVICE:MOUNTPOINT
  std::string base;                  // empty: a directory of this process's own
  std::vector<std::string> binds;    // live mount points to show under the base as well
  RelocationOptions relocation;
  bool json = false;
  bool verbose = false;
  std::vector<std::string> command;
};

// Returns the exit code (Failure.h).
int run(const RunOptions& options);

}  // namespace cli
