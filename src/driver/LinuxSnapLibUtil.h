// SPDX-License-Identifier: Apache-2.0
//
// The driver interface's stateless helper: the handshake of a command, and the sizing of the driver's tables from
// the machine's memory.
#pragma once

#include <cstdint>

#include "driver/DriverProtocol.h"
#include "sysinfo/LinuxSystemInfo.h"

class SnapDriverInterfaceUtility {
 public:
  // The helper of the command issued last. Every command stores a fresh one without releasing the one before; that
  // is the contract (docs/left-allocated.md counts its cost).
  static SnapDriverInterfaceUtility* mUtilInstance;

  // Fills the two handshake words. Reseeds the C library's generator from the current UTC time.
  void generateHandShake(_ioctlCmd* command);

  // Fills `*state` from /proc/meminfo, in kB. 0, with the object that read them left allocated; 3 for null and when the
  // file cannot be opened, `*state` untouched. A line of the file without a digit throws std::out_of_range.
  unsigned int getSystemState(mirelsnapsdk_linuxcomputer::_sysMemStateInfo* state);
  // How many relocation entries the driver may hold in memory, of MemFree, Cached and AnonPages (kB).
  std::uint64_t calculateMaxRelocBlocks(mirelsnapsdk_linuxcomputer::_sysMemStateInfo state);
  // Buckets of a hash table for `count` entries: about a fiftieth, a number that passes for prime, or 1 or 2.
  unsigned int calculateHashSize(unsigned int count);
};

// Stores a fresh helper in mUtilInstance, leaving the one before allocated, and returns it; null when memory is short,
// the stored one unchanged then.
SnapDriverInterfaceUtility* storeFreshUtility();
