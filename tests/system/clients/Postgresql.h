// SPDX-License-Identifier: Apache-2.0
//
// Debian's PostgreSQL as tests run it: as its own user, with its sockets in a scratch folder, without a network.
#pragma once

#include <string>
#include <vector>

#include "Session.h"

namespace test {

// Where its programs are. Throws when it is not installed.
std::string postgresqlProgram(const std::string& name);
// Lets its user, and everybody, pass through the folders above `path` that tests have made.
void openTheWayTo(const std::string& path);
// Makes a folder of its user's, who can get there.
void giveToPostgresql(const std::string& folder);
// Makes a cluster in the new folder `data`, with its write-ahead log in the new folder `log`.
void makeCluster(Session& session, const std::string& data, const std::string& log,
                 const std::vector<std::string>& settings);

// A server. When its test fails, its log is printed.
class Server {
 public:
  // Starts one on the cluster in `data`; it is on its way then.
  Server(Session& session, const std::string& data);
  // Stops it, as far as it runs, and fails the test when it does not end.
  ~Server();
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;

  // Whether it answers now. False when it has ended instead.
  bool becomesReady();
  // Its exit code, of one that ends by itself.
  int end() { return mProcess.wait(); }
  std::string log() const { return mProcess.errors(); }
  bool logHas(const std::string& text) const { return log().find(text) != std::string::npos; }
  const std::string& sockets() const { return mSockets; }
  // The answer to a statement, fields divided by '|', without the last line's end. Fails the test on errors.
  std::string ask(const std::string& statement) const;
  // One of its client programs against it.
  Ended run(const std::string& program, const std::vector<std::string>& arguments) const;
  Process start(const std::string& program, const std::vector<std::string>& arguments) const;

 private:
  std::vector<std::string> command(const std::string& program, const std::vector<std::string>& arguments) const;

  Session& mSession;
  TempDir mDir;
  std::string mSockets;
  Process mProcess;
};

}  // namespace test
