// SPDX-License-Identifier: Apache-2.0
//
// Whether a command is what the protocol says, to the byte: the emulator refuses everything else, so that a client's
// mistake shows here before it meets a driver in the kernel.
#pragma once

#include "emulator/driver/Commands.h"

namespace emulator {

// The header's length against what the command, and the count in the header, imply. To be called first: the rest of the
// buffer is as long as this length says.
Complaint checkLength(const Command& command, const _ioctlCmd& header);

// The whole buffer, as long as its header says (checkLength found nothing wrong).
Complaint checkCommand(const Command& command, const CommandBuffer& buffer);

}  // namespace emulator
