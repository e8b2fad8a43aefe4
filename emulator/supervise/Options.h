// SPDX-License-Identifier: Apache-2.0
//
// The command line.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "emulator/driver/Inject.h"

namespace emulator {

struct Options {
  std::vector<std::string> command;  // never empty
  std::string version;
  std::string store;  // empty: the emulator chooses
  std::string trace;  // empty: none
  std::vector<Injection> injections;
  std::chrono::milliseconds freezeLimit{60000};
  bool unloaded = false;
  bool quiet = false;
};

// Exit codes of the emulator itself; otherwise it ends with COMMAND's.
inline constexpr int kExitRefused = 2;  // nothing was touched
inline constexpr int kExitNotExecutable = 126;
inline constexpr int kExitNotFound = 127;

struct ParsedOptions {
  Options options;
  std::optional<int> exit;  // the program ends here, help or a complaint has been printed
};
ParsedOptions parseOptions(int argc, char** argv);

}  // namespace emulator
