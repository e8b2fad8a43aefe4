// SPDX-License-Identifier: Apache-2.0
//
// What runs keep of their bases in /run/mirelsnap, which belongs to root alone: written before anything of a base is
// made, so that a run that is killed at any moment leaves word of what is its own. Lost with a boot, as mounts are.
#pragma once

#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "Failure.h"
#include "base/Handle.h"

namespace cli {

// The private directory of the records and of the bases that nobody named.
inline constexpr char kRunDirectory[] = "/run/mirelsnap";

// Held by one process at a time: by a run while it makes its base, by whoever sweeps bases of dead runs. It goes with
// its last entry.
class RunDirectory {
 public:
  // Waits for it; makes it when it is missing.
  static std::variant<RunDirectory, Failure> make();
  // Nothing when there is none.
  static std::optional<std::variant<RunDirectory, Failure>> existing();

  RunDirectory(RunDirectory&&) = default;
  RunDirectory& operator=(RunDirectory&&) = default;
  ~RunDirectory();

 private:
  explicit RunDirectory(UniqueFd held) : mHeld(std::move(held)) {}
  UniqueFd mHeld;
};

struct BaseRecord {
  int process = 0;                   // whose base it is
  std::string base;                  // where the snapshots are mounted
  std::vector<std::string> folders;  // made by the run, each after the one it lies in
  std::vector<std::string> binds;    // the folders below the base where live ones are bound
  std::string file;                  // of the record; empty when there is none

  // Those of its folders that are there and lie in no other of them.
  std::vector<std::string> shownFolders() const;
};

// Writes the record of a living process, to be called with the directory held. It counts as living for as long as the
// descriptor is open. Its file is set.
std::variant<UniqueFd, Failure> keep(BaseRecord& record);

// The bases of living processes, and those of dead ones; the latter with the directories in /run/mirelsnap that are
// named by a dead process and have no record.
std::vector<BaseRecord> livingBases();
std::vector<BaseRecord> abandonedBases();
// What keeps others from being known: a directory that cannot be read, a record or a base that somebody has locked
// though its process is gone.
std::vector<Failure> unknownBases();

}  // namespace cli
