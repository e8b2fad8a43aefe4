// SPDX-License-Identifier: Apache-2.0
//
// Whether the payload of a command is what the protocol says. Each function looks at everything after the header, and
// is called once length and header are known to be right.
#pragma once

#include <optional>
#include <string>

#include "emulator/driver/CommandBuffer.h"

namespace emulator {

// What is wrong, in words; nothing when all is right.
using Complaint = std::optional<std::string>;

// A payload that the driver fills in, or that has no meaning: all zero.
Complaint checkEmpty(const CommandBuffer& buffer);

Complaint checkLogLevel(const CommandBuffer& buffer);
Complaint checkVolumeCheck(const CommandBuffer& buffer);
Complaint checkVolumeList(const CommandBuffer& buffer);
Complaint checkCreateMapping(const CommandBuffer& buffer);
Complaint checkDeleteMapping(const CommandBuffer& buffer);
Complaint checkSnap(const CommandBuffer& buffer);
Complaint checkDiscard(const CommandBuffer& buffer);
Complaint checkTrackingVars(const CommandBuffer& buffer);
Complaint checkBitmap(const CommandBuffer& buffer);
Complaint checkDumpState(const CommandBuffer& buffer);
// Only the first byte has a meaning: the client leaves the others as they were in its memory.
Complaint checkVerify(const CommandBuffer& buffer);

}  // namespace emulator
