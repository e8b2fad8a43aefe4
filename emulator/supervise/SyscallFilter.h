// SPDX-License-Identifier: Apache-2.0
//
// The system calls that the kernel hands to the emulator before it carries them out.
#pragma once

#include "base/Handle.h"

namespace emulator {

struct FilterOptions {
  bool executions = false;  // also the starts of programs
};

// Whether the kernel can hand system calls to another process at all.
bool canHandOverSystemCalls();

// Puts the filter on the calling process and all that it will start. The descriptor on which the calls arrive; invalid
// on failure, errno says why (EBUSY: this process is supervised already).
UniqueFd installFilter(const FilterOptions& options);

}  // namespace emulator
