// SPDX-License-Identifier: Apache-2.0
//
// Copies a device into a sparse file: holes and zeros stay holes.
#pragma once

#include <cstdint>
#include <functional>
#include <vector>

namespace emulator {

struct SparseCopy {
  int source;            // a device opened for direct reading, or a loop device's file
  std::uint64_t offset;  // where the data begin in it, bytes
  std::uint64_t bytes;
  bool hasHoles;  // whether the source can say where its holes are
  int target;     // an empty file; gets `bytes` bytes
};

struct CopyResult {
  int error = 0;              // errno; that of `stop` when it ended the copy
  std::size_t copy = 0;       // the copy that failed
  bool whileWriting = false;  // the target failed, not the source
};

// Makes all copies, several at a time. `stop` is called often, from any thread: a non-zero errno ends the work.
CopyResult copyAll(const std::vector<SparseCopy>& copies, const std::function<int()>& stop);

}  // namespace emulator
