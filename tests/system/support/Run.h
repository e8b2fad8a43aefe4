// SPDX-License-Identifier: Apache-2.0
//
// `mirelsnap run` as a person at a shell starts it.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "LoopVolume.h"
#include "Session.h"

namespace test {

// A COMMAND that does nothing.
inline const std::vector<std::string> kTrue = {"/bin/true"};

inline std::vector<std::string> runArguments(std::vector<std::string> options, std::vector<std::string> command) {
  std::vector<std::string> arguments = {MIRELSNAP_PROGRAM, "run"};
  arguments.insert(arguments.end(), options.begin(), options.end());
  arguments.emplace_back("--");
  arguments.insert(arguments.end(), command.begin(), command.end());
  return arguments;
}

// mirelsnap run OPTIONS -- COMMAND, to its end.
inline Ended run(Session& session, std::vector<std::string> options, std::vector<std::string> command,
                 const StartOptions& start = {}) {
  return session.run(runArguments(std::move(options), std::move(command)), start);
}

// The same with a shell script as COMMAND.
inline Ended runScript(Session& session, std::vector<std::string> options, const std::string& script,
                       const StartOptions& start = {}) {
  return run(session, std::move(options), {"/bin/sh", "-c", script}, start);
}

// What a failed run is to be: its exit code, one line, and nothing of COMMAND's.
inline void expectFailure(const Ended& ended, int code, const std::string& line) {
  EXPECT_EQ(ended.code, code);
  EXPECT_EQ(ended.errors, line + "\n");
  EXPECT_EQ(ended.output, "");
}

}  // namespace test
