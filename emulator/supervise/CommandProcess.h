// SPDX-License-Identifier: Apache-2.0
//
// COMMAND and all that it starts.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "base/ChildProcess.h"
#include "base/Handle.h"
#include "emulator/machine/Kernel.h"
#include "emulator/machine/Result.h"
#include "emulator/supervise/SyscallFilter.h"

namespace emulator {

// COMMAND, forked with the filter installed, waiting to be executed.
struct StartedCommand {
  pid_t process = -1;
  UniqueFd listener;  // where its system calls arrive
  UniqueFd go;        // a byte here lets it start; closed without one, it ends
  UniqueFd failure;   // the errno of starting the program (an int), or the end when it runs
};

// Starts it with the signals as they were before `signals` held them, but for SIGPIPE, which acts. It is killed when
// this process is. To be called before there are threads.
Result<StartedCommand> startCommand(const std::vector<std::string>& command, const FilterOptions& options,
                                    const HeldSignals& signals);

// Closes the descriptors that this process inherited, except the standard ones: they are COMMAND's, and a reader
// waiting for end of file must not wait for the emulator.
void closeInheritedDescriptors(const Kernel& kernel);

// Executes it: an errno, or 0 once it runs. Its system calls must be answered already.
int letGo(StartedCommand& command);

// All processes below this one, parents first.
std::vector<pid_t> descendants(const Kernel& kernel);

// Terminates all processes below this one: SIGTERM, then after `grace` beforeKill() and SIGKILL.
void endAll(const Kernel& kernel, std::chrono::milliseconds grace, const std::function<void()>& beforeKill);

}  // namespace emulator
