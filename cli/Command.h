// SPDX-License-Identifier: Apache-2.0
//
// Running a command while signals are held back, so that what was made is always cleaned up.
#pragma once

#include <sys/types.h>

#include <map>
#include <string>
#include <vector>

namespace cli {

// From here to the end of the process the signals that ask a process to end no longer end this one: they are remembered
// and, while a command runs, passed on to it. Nor does a pipe whose reader went away, or a limit on the size of files.
// The ends of children are heard of even when they were ignored at the start. For the main thread, before there are
// others. Throws std::system_error.
void holdSignalsBack();

// The first signal that came since, 0 while none did.
int receivedSignal();

struct CommandResult {
  int spawnError = 0;  // errno when the command could not be started
  int exitCode = 0;    // its own, or 128 + the signal that ended it
  int signal = 0;
};

// How a command is started and kept.
struct CommandManner {
  bool inBase = false;      // it starts in the base folder of the exposure
  std::string folder = {};  // working directory; empty: this process's own
  // A shell that a person sits at: it may stop itself and stops this process then, it gives the terminal back in the
  // end, and what asks this process to end hangs it up, because interactive shells heed nothing else.
  bool interactive = false;
};

// Runs `arguments` with `variables` added to the environment and waits for its end. Signals must be held back.
CommandResult runCommand(const std::vector<std::string>& arguments, const std::map<std::string, std::string>& variables,
                         const CommandManner& manner = {});

}  // namespace cli
