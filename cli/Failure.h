// SPDX-License-Identifier: Apache-2.0
//
// Why a verb could not do its work: what it concerns, the cause in words, what to do. One line for a person, one object
// for a program.
#pragma once

#include <initializer_list>
#include <optional>
#include <string>

#include <nlohmann/json_fwd.hpp>

namespace cli {

// Exit codes of mirelsnap's own. COMMAND's own code is passed through, 128 + N when signal N ended it; 126 and 127
// mean, as in a shell, that COMMAND could not be executed or was not found.
enum ExitCode : int {
  kSuccess = 0,
  kFindings = 1,              // doctor: something stands in the way of a snapshot
  kUsage = 2,                 // the options are wrong; nothing was done
  kNotRoot = 111,             // needs root
  kNoDriver = 112,            // the kernel driver does not answer
  kVolumeNotSupported = 113,  // a volume cannot be snapped
  kAlreadySnapped = 114,      // a volume is snapped or frozen already
  kNoRoom = 115,              // no place for a relocation file
  kSnapshotFailed = 116,      // the snapshot failed for another reason
  kCannotExpose = 117,        // the snapshots could not be mounted
  kCannotCleanUp = 118,       // something could not be removed
  kRefused = 119,             // the driver refused the request
  kNotInState = 120,          // a volume is not frozen, or not tracked
  kOutputLost = 125,          // standard output cannot be written
  kNotExecutable = 126,
  kNotFound = 127,
};

// The lines of a help text that explain these exit codes and those of every verb.
std::string exitCodeHelp(std::initializer_list<ExitCode> codes);

struct Failure {
  ExitCode code;
  std::string subject;  // the device or path
  std::string cause;
  std::string advice;  // what to do next; may be empty

  // "mirelsnap: SUBJECT: CAUSE; ADVICE"
  std::string line() const;
  nlohmann::json json() const;
};

// No failure, or the first one.
using Outcome = std::optional<Failure>;

}  // namespace cli
