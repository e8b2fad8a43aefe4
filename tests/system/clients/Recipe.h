// SPDX-License-Identifier: Apache-2.0
//
// The recipes for backups with other people's programs, as a person starts them.
#pragma once

#include <csignal>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "Session.h"

namespace test {

// A recipe on its way. Its client is held before its first step: the snapshots stand then, and nothing has been read.
class Recipe {
 public:
  using Environment = std::map<std::string, std::string>;

  // `client` is the program that the recipe calls in the end.
  Recipe(Session& session, const std::string& name, const std::vector<std::string>& arguments,
         const std::string& client, Environment environment = {});

  // Returns when the client is held. Throws when the recipe ends without it.
  void waitForClient();
  // Lets the client go on.
  void release();
  // Sends SIGTERM; returns when it has arrived everywhere.
  void terminate();
  Ended finish();

  // The same in one, with nothing held.
  static Ended run(Session& session, const std::string& name, const std::vector<std::string>& arguments,
                   Environment environment = {});

 private:
  TempDir mDir;
  std::optional<Process> mProcess;
};

}  // namespace test
