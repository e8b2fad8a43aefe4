// SPDX-License-Identifier: Apache-2.0
//
// One run of the emulator: COMMAND from its start to its end, the signals meanwhile, and the end of everything.
#pragma once

#include "emulator/machine/Kernel.h"
#include "emulator/supervise/Options.h"

namespace emulator {

// Why this machine or this user cannot run the emulator, in words; empty when it can. Touches nothing.
std::string whyNot();

// Runs COMMAND; the exit code.
int runSession(Kernel& kernel, const Options& options);

}  // namespace emulator
