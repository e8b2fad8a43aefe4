// SPDX-License-Identifier: Apache-2.0
//
// The mounts of this machine as the verbs look at them.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "base/Paths.h"

namespace cli {

struct Mount {
  std::string folder;
  std::string root;  // what of the file system is mounted: "/" but for a bind of one of its folders or files
  std::string type;
  std::string source;        // as the kernel prints it
  std::uint64_t device = 0;  // number of the block device; 0 when there is none
};

class MountTable {
 public:
  // The table at this moment; empty when it cannot be read.
  MountTable();

  const std::vector<Mount>& mounts() const { return mMounts; }
  // What is visible at exactly `folder`: the last mount there.
  std::optional<Mount> at(const std::string& folder) const;
  // The deepest mount that holds `path`, which must be absolute and clean.
  std::optional<Mount> holding(const std::string& path) const;
  // Every mount of a block device, in table order.
  std::vector<Mount> of(std::uint64_t device) const;
  // Every mount at or below `folder`.
  std::vector<Mount> under(const std::string& folder) const;

 private:
  std::vector<Mount> mMounts;
};

// Whether all of the file system is mounted there.
bool isWhole(const Mount& mount);
// `path` as the mount table spells it, absolute and with links resolved; as it is when it leads nowhere.
std::string resolved(const std::string& path);

}  // namespace cli
