// SPDX-License-Identifier: Apache-2.0
//
// System calls that stand between the library and the kernel here: a driver that holds nothing and accepts everything,
// and files of any number of runs that take no room.
#pragma once

#include <cstddef>
#include <cstdint>

namespace bench {

struct Interposed {
  bool scatter = false;        // FIBMAP: no two neighbouring blocks lie side by side
  bool allocate = true;        // posix_fallocate: the kernel's; else only the size is set
  std::size_t heapAtSnap = 0;  // bytes in use when the snap command reached the driver
  std::uint32_t lengthAtSnap = 0;
};
extern Interposed interposed;

// Bytes that the program has from malloc.
std::size_t heapInUse();

}  // namespace bench
