// SPDX-License-Identifier: Apache-2.0
//
// A snapshot beside what its volume was at the instant.
#pragma once

#include <string>
#include <vector>

#include "Driver.h"
#include "Volumes.h"

namespace guest {

// What a snapshot of a frozen file system must be: its device as it was at that moment.
struct Frozen {
  std::vector<std::uint64_t> sums;
  Result result;
};
inline Frozen snapFrozen(const SnapVolume& volume, const std::string& device) {
  Frozen frozen;
  freeze({device});
  frozen.sums = sums(device);
  frozen.result = snap({volume});
  thaw({device});
  return frozen;
}

// The sectors of a volume's runs.
inline std::vector<Range> rangesOf(const SnapVolume& volume) {
  std::vector<Range> ranges;
  const std::uint64_t factor = volume.entry.blockSize / 512;
  for (const _run& run : volume.runs) ranges.push_back({run.startBlock * factor, run.numBlocks * factor});
  return ranges;
}

}  // namespace guest
