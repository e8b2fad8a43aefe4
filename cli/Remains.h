// SPDX-License-Identifier: Apache-2.0
//
// What processes left that died while they held snapshots.
#pragma once

#include <string>
#include <vector>

#include "Driver.h"
#include "MountTable.h"
#include "RelocationTraces.h"

namespace cli {

struct Remains {
  struct Snapshot {
    std::string device;
    std::string relocationFile;
    int process;
  };
  struct Mapping {
    std::string device;
    std::string relocationFile;
    int process;
  };
  std::vector<Snapshot> snapshots;
  std::vector<Mapping> mappings;
  std::vector<Trace> traces;                 // on file systems where no living process keeps a relocation file
  std::vector<std::string> relocationFiles;  // on the mounted file systems, of no living process
  std::vector<Mount> mounts;                 // of exposures, in abandoned bases, deepest last
  std::vector<Mount> others;                 // what else is mounted in these, which nothing here removes
  std::vector<std::string> bases;            // folders that dead processes made: their bases, or what is in those
  std::vector<Mount> strays;                 // of snapshots that no living process holds, in bases that nobody named
  std::vector<Failure> unknown;              // what could not be looked at; nothing is told then that depends on it

  bool empty() const {
    return snapshots.empty() && mappings.empty() && traces.empty() && relocationFiles.empty() && mounts.empty() &&
           others.empty() && bases.empty() && strays.empty() && unknown.empty();
  }
};

// What is there at this moment. `base`, unless it is empty, counts as abandoned.
Remains findRemains(Driver& driver, const std::string& base = "");

// Why a stray is one, and how it is removed: with its base, where its place tells which that was.
std::string causeOf(const Mount& stray);
std::string adviceOn(const Mount& stray);

}  // namespace cli
