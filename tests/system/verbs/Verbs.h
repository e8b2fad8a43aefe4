// SPDX-License-Identifier: Apache-2.0
//
// The verbs of mirelsnap as a person at a shell starts them.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "DriverClient.h"
#include "LoopVolume.h"
#include "Session.h"

namespace test {

using Texts = std::vector<std::string>;

// mirelsnap VERB ..., to its end.
inline Ended verb(Session& session, Texts arguments, const StartOptions& start = {}) {
  arguments.insert(arguments.begin(), MIRELSNAP_PROGRAM);
  return session.run(arguments, start);
}

// The document of a verb with --json, whose exit code it holds.
inline Json document(Session& session, Texts arguments) {
  arguments.emplace_back("--json");
  const Ended ended = verb(session, std::move(arguments));
  const Json document = Json::parse(ended.output);
  EXPECT_EQ(document["exit_code"], ended.code);
  return document;
}

inline void expectText(const Ended& ended, const std::string& output) {
  EXPECT_EQ(ended.code, 0);
  EXPECT_EQ(ended.output, output);
  EXPECT_EQ(ended.errors, "");
}

inline void expectFailure(const Ended& ended, int code, const std::string& line) {
  EXPECT_EQ(ended.code, code);
  EXPECT_EQ(ended.errors, "mirelsnap: " + line + "\n");
}

// Fills the file system until `share` of it (in percent) is in use.
void fillVolume(const std::string& folder, unsigned int share);

// A run that was killed while its command slept, with what it left: its snapshot is mounted below `base` ("" for its
// own). The command is gone too. Answers its process number.
pid_t killedRun(Session& session, const Volume& volume, const std::string& base = "");

// Another agent, which keeps no record, killed with its snapshot mounted below `base`, made here. Answers its number.
pid_t killedAgent(Session& session, const Volume& volume, const std::string& base);

}  // namespace test
