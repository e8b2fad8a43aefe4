// SPDX-License-Identifier: Apache-2.0
//
// Snapshot, run a command on it, clean up: what `run` and `shell` share.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "Command.h"
#include "Placement.h"
#include "Verbs.h"

namespace cli {

struct RunOptions {
  std::vector<std::string> volumes;  // devices, mount points, DEVICE:MOUNTPOINT
  std::string base;                  // empty: a directory of this process's own
  std::vector<std::string> binds;    // live mount points to show under the base as well
  RelocationOptions relocation;
  bool json = false;
  bool verbose = false;
};

// The options that say what is snapped and where it is shown.
void addSnapshotOptions(Syntax& verb, RunOptions& options);
// The two options that say where relocation files go.
void addRelocationOptions(Syntax& verb, RelocationOptions& options);
// What the command finds in its environment, for a help text.
std::string environmentHelp();

// What is run on the snapshots.
struct Command {
  std::string verb;  // whose failures are told
  std::vector<std::string> arguments;
  std::map<std::string, std::string> variables;  // added to its environment, beside those of the set
  std::string greeting;                          // shown at a terminal before it starts, with the base behind it
  CommandManner manner;
};

// Returns the exit code (Failure.h).
int snapshotAndRun(const RunOptions& options, Command command);

}  // namespace cli
