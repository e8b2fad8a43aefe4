// SPDX-License-Identifier: Apache-2.0
//
// Where the library would put the volumes' relocation files, without making anything.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "VolumeChoice.h"
#include "reloc/RelocationForecast.h"

namespace cli {

// The relocation options of a command line; both or neither are given.
struct RelocationOptions {
  std::string mountPoint;    // empty: the library chooses
  std::uint32_t blocks = 0;  // 0: the library chooses
};

// One volume's forecast.
struct Placement {
  ChosenVolume volume;
  RelocationOptions asked;
  RelocationForecast file;
  std::uint32_t blockSize = 0;    // bytes; 0 when it cannot be had
  std::uint64_t volumeSize = 0;   // bytes; 0 when it cannot be had
  std::string memoryProblem;      // why the state of memory cannot be read; empty when it can
  std::uint64_t memoryLimit = 0;  // blocks of relocation files that the driver could hold for the whole set

  bool placed() const { return file.status == 0; }
  std::uint64_t bytes() const { return file.blocks * blockSize; }
};

// One answer a device, in the order of `volumes`, taken as one set.
std::vector<Placement> predictPlacements(const std::vector<ChosenVolume>& volumes, const RelocationOptions& options);

}  // namespace cli
