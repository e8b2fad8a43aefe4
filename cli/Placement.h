// SPDX-License-Identifier: Apache-2.0
//
// Where the library would put a volume's relocation file, without making anything.
#pragma once

#include <cstdint>
#include <string>

#include "VolumeChoice.h"

namespace cli {

// The relocation options of a command line; both or neither are given.
struct RelocationOptions {
  std::string mountPoint;    // empty: the library chooses
  std::uint32_t blocks = 0;  // 0: the library chooses
};

struct Placement {
  unsigned int status;  // 0 placed; else the relocation layer's code
  std::string path;     // of the file; empty unless placed
  std::uint64_t bytes;  // its size
};

// Where the relocation file of `volume` would go when it is the first of its set.
Placement predictPlacement(const ChosenVolume& volume, const RelocationOptions& options);

}  // namespace cli
