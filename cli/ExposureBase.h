// SPDX-License-Identifier: Apache-2.0
//
// The directory that snapshots are exposed under, with the folders that the mounts need and no snapshot brings along.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "Failure.h"
#include "MountTable.h"
#include "base/Handle.h"

namespace cli {

// Checks, before anything is snapped, that each snapshot and then each bind will have a folder under a base, and that
// no bind hides a snapshot: the mount that it is mounted in must be there as well, or nothing above it.
Outcome checkCoverage(const std::vector<std::string>& volumes, const std::vector<std::string>& binds,
                      const MountTable& table);

// Checks, before anything is snapped, that snapshots can be mounted at `wanted` (empty: the default).
Outcome checkBase(const std::string& wanted);

// Empty for a relative path while the working directory is gone. Else absolute, links resolved, as the mount table will
// spell it: mounts below it are found by comparing texts.
std::string cleanPath(const std::string& path);

// Default bases whose processes are gone.
std::vector<std::string> abandonedBases();
// Removes the folders of one, as far as they are empty; what is still mounted in it is not entered.
void removeAbandonedBase(const std::string& base);
// Removes the empty folders below `base`, itself not; what is mounted there is not entered.
void removeEmptyFoldersBelow(const std::string& base);

class ExposureBase {
 public:
  // Makes the base and below it the folders for those of `mountPoints` that lie in no other. An empty `wanted` is a
  // directory of this process's own under /run/mirelsnap. One that exists must be empty and nothing may be mounted in
  // it; it is kept in the end.
  Outcome make(const std::string& wanted, const std::vector<std::string>& mountPoints);
  // Removes what was made; names what could not be removed. Does nothing the second time.
  std::vector<Failure> remove();
  ~ExposureBase() { remove(); }

  const std::string& path() const { return mPath; }

 private:
  Outcome makeDefault();
  Outcome makeFolder(const std::string& path, mode_t mode);
  Outcome makeFoldersTo(const std::string& path, mode_t mode);

  std::string mPath;
  std::vector<std::string> mMade;  // in the order made
  UniqueFd mLock;                  // of a base of this process's own: it is not abandoned
  bool mDefault = false;           // the base is this process's own
  bool mKept = false;              // the base was there before
  mode_t mMode = 0;
  uid_t mOwner = 0;
  gid_t mGroup = 0;
};

}  // namespace cli
