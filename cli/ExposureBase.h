// SPDX-License-Identifier: Apache-2.0
//
// The directory that snapshots are exposed under, with the folders that the mounts need and no snapshot brings along.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

#include "BaseRecord.h"
#include "Failure.h"
#include "MountTable.h"
#include "base/Handle.h"

namespace cli {

// Checks, before anything is snapped, that each snapshot and then each bind will have a folder under a base, and that
// no bind hides a snapshot: the mount that it is mounted in must be there as well, or nothing above it.
Outcome checkCoverage(const std::vector<std::string>& volumes, const std::vector<std::string>& binds,
                      const MountTable& table);

// Checks, before anything is snapped, that snapshots can be mounted at `wanted` (empty: the default), and that nobody
// but root can put another directory in the place of it or of one above it.
Outcome checkBase(const std::string& wanted);

// Empty for a relative path while the working directory is gone. Else absolute, links resolved, as the mount table will
// spell it: mounts below it are found by comparing texts.
std::string cleanPath(const std::string& path);

class ExposureBase {
 public:
  // Makes the base and below it the folders for those of `mountPoints` that lie in no other; `binds` are the live ones
  // among them. An empty `wanted` is a directory of this process's own under /run/mirelsnap. One that exists must be
  // empty and nothing may be mounted in it; it is kept in the end. Where others may enter it, a private directory in it
  // becomes the base.
  Outcome make(const std::string& wanted, const std::vector<std::string>& mountPoints,
               const std::vector<std::string>& binds);
  // Removes what was made; names what could not be removed, which stays recorded then. Does nothing the second time.
  std::vector<Failure> remove();
  ~ExposureBase() { remove(); }

  const std::string& path() const { return mRecord.base; }
  const BaseRecord& record() const { return mRecord; }

 private:
  // What of a base was there before, as it was.
  struct Kept {
    std::string path;
    mode_t mode;
    uid_t owner;
    gid_t group;
  };

  void plan(const std::string& wanted, const std::vector<std::string>& mountPoints);
  Outcome makeFolders();
  void restoreKept();

  BaseRecord mRecord;
  UniqueFd mHeld;  // the record: its process lives
  std::optional<Kept> mKept;
};

}  // namespace cli
