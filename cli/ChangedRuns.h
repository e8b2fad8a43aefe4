// SPDX-License-Identifier: Apache-2.0
//
// The blocks of a tracked volume that changed, all of them.
#pragma once

#include <cstdint>
#include <string>
#include <variant>
#include <vector>

#include "Driver.h"

namespace cli {

struct ChangedRuns {
  std::uint32_t blockSize = 0;  // bytes
  std::uint64_t numBlocks = 0;  // of the volume
  std::vector<_run> runs;       // in rising order

  std::uint64_t blocks() const;
  // How many of the blocks from `first` to before `end` changed.
  std::uint64_t blocksIn(std::uint64_t first, std::uint64_t end) const;
};

// Asks the driver as often as it has more to tell. An answer that does not get on is a failure: there would be no end.
std::variant<ChangedRuns, Failure> readChangedRuns(Driver& driver, const std::string& device);

}  // namespace cli
