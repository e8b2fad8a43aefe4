// SPDX-License-Identifier: Apache-2.0
//
// In which blocks a device and an image of it differ.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <vector>

#include "driver/DriverProtocol.h"
#include "emulator/machine/BlockDevice.h"

namespace emulator {

struct Comparison {
  const DeviceData& device;
  int image;  // a file that says where its holes are
  std::uint64_t numBlocks;
  std::uint32_t blockSize;  // bytes, a power of two
};

struct ChangedRuns {
  int error = 0;           // errno; that of `stop` when it ended the work
  std::vector<_run> runs;  // in rising order, no two of them adjacent
  bool more = false;       // another one follows the last
};

// The first `room` runs from block `firstBlock` on. `stop` is called often: a non-zero errno ends the work.
ChangedRuns findChangedRuns(const Comparison& comparison, std::uint64_t firstBlock, std::size_t room,
                            const std::function<int()>& stop);

}  // namespace emulator
