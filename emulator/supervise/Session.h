// SPDX-License-Identifier: Apache-2.0
//
// One run of the emulator: COMMAND from start to end, the signals in between, and cleaning up.
#pragma once

#include "emulator/machine/Kernel.h"
#include "emulator/supervise/Options.h"

namespace emulator {

// Why this machine or this user cannot run the emulator, in words; empty when it can. Touches nothing.
std::string whyNot();

// Runs COMMAND; the exit code.
int runSession(Kernel& kernel, const Options& options);

}  // namespace emulator
