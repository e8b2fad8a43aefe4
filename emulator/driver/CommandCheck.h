// SPDX-License-Identifier: Apache-2.0
//
// Whether a command is what the protocol says, to the byte: the emulator refuses everything else, so that a client's
// mistake is seen here and not first under a real kernel.
#pragma once

#include <cstddef>
#include <optional>
#include <string>

#include "emulator/driver/Commands.h"

namespace emulator {

// What is wrong, in words; nothing when all is right.
using Complaint = std::optional<std::string>;

// The header's length against what the command, and the count in it, imply: the first thing to look at, for the rest of
// the buffer is as long as this says.
Complaint checkLength(const Command& command, const _ioctlCmd& header);

// The whole buffer, as long as its header says (checkLength found nothing wrong).
Complaint checkCommand(const Command& command, const CommandBuffer& buffer);

}  // namespace emulator
