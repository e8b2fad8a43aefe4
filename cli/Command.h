// SPDX-License-Identifier: Apache-2.0
//
// Running a command while signals are held back, so that what was made is always cleaned up.
#pragma once

#include <sys/types.h>

#include <map>
#include <string>
#include <vector>

namespace cli {

// From construction to destruction SIGINT, SIGTERM, SIGHUP and SIGQUIT no longer end this process; they are remembered
// and, while a command runs, passed on to it. One at a time exists.
class SignalGuard {
 public:
  SignalGuard();
  ~SignalGuard();
  SignalGuard(const SignalGuard&) = delete;
  SignalGuard& operator=(const SignalGuard&) = delete;

  // The first signal that came, 0 while none did.
  static int received();
};

struct CommandResult {
  int spawnError = 0;  // errno when the command could not be started
  int exitCode = 0;    // its own, or 128 + the signal that ended it
  int signal = 0;
};

// Runs `arguments` with `variables` added to the environment and waits for its end. Needs a SignalGuard.
CommandResult runCommand(const std::vector<std::string>& arguments,
                         const std::map<std::string, std::string>& variables);

}  // namespace cli
