// SPDX-License-Identifier: Apache-2.0
#include "Postgresql.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <iostream>
#include <stdexcept>

#include "LoopVolume.h"
#include "Waiting.h"

namespace fs = std::filesystem;

namespace test {
namespace {

constexpr char kUser[] = "postgres";

std::vector<std::string> joined(std::vector<std::string> first, const std::vector<std::string>& second) {
  first.insert(first.end(), second.begin(), second.end());
  return first;
}

// As the server's user; one that crashes leaves no core file.
std::vector<std::string> asItsUser(const std::string& program, const std::vector<std::string>& arguments) {
  return joined({"prlimit", "--core=0", "setpriv", std::string("--reuid=") + kUser, std::string("--regid=") + kUser,
                 "--clear-groups", postgresqlProgram(program)},
                arguments);
}

std::string madeForItsUser(const std::string& folder) {
  giveToPostgresql(folder);
  return folder;
}

}  // namespace

std::string postgresqlProgram(const std::string& name) {
  std::string found;
  std::error_code ignored;
  for (const auto& version : fs::directory_iterator("/usr/lib/postgresql", ignored)) {
    const std::string program = version.path() / "bin" / name;
    if (fs::exists(program)) found = std::max(found, program);
  }
  if (found.empty()) throw std::runtime_error("PostgreSQL's " + name + " is not installed");
  return found;
}

void openTheWayTo(const std::string& path) {
  for (fs::path folder = fs::path(path).parent_path(); folder != kScratch; folder = folder.parent_path()) {
    fs::permissions(folder, fs::perms::owner_all | fs::perms::group_exec | fs::perms::others_exec);
  }
}

void giveToPostgresql(const std::string& folder) {
  fs::create_directory(folder);
  openTheWayTo(folder);
  if (run({"chown", std::string(kUser) + ":", folder}) != 0) throw std::runtime_error("cannot give away " + folder);
}

void makeCluster(Session& session, const std::string& data, const std::string& log,
                 const std::vector<std::string>& settings) {
  giveToPostgresql(data);
  giveToPostgresql(log);
  const Ended made = session.run(
      asItsUser("initdb", {"--pgdata=" + data, "--waldir=" + log, "--wal-segsize=1", "--data-checksums", "--no-sync",
                           "--auth=trust", "--no-locale", "--encoding=UTF8", "--no-instructions"}));
  if (made.code != 0) throw std::runtime_error("initdb: " + made.errors);
  std::string configuration = readFile(data + "/postgresql.conf");
  for (const std::string& setting : settings) configuration += setting + "\n";
  writeFile(data + "/postgresql.conf", configuration);
}

Server::Server(Session& session, const std::string& data)
    : mSession(session),
      mSockets(madeForItsUser(mDir / "sockets")),
      mProcess(session.start(asItsUser(
          "postgres", {"-D", data, "-k", mSockets, "-c", "listen_addresses=", "-c", "shared_buffers=16MB"}))) {}

Server::~Server() {
  if (mProcess.running()) {
    mProcess.signal(SIGINT);  // ends its sessions first
    EXPECT_EQ(mProcess.wait(), 0);
  }
  if (testing::Test::HasFailure()) std::cerr << "---- the server's log\n" << log() << "----\n";
}

bool Server::becomesReady() {
  const auto ready = [this] { return logHas("database system is ready to accept connections"); };
  return comesTrue([&] { return ready() || !mProcess.running(); }) && ready();
}

std::string Server::ask(const std::string& statement) const {
  const Ended answer = run("psql", {"--no-psqlrc", "--tuples-only", "--no-align", "--set=ON_ERROR_STOP=1", "--command",
                                    statement, "postgres"});
  EXPECT_EQ(answer.code, 0) << statement << ": " << answer.errors;
  return answer.output.substr(0, answer.output.find_last_not_of('\n') + 1);
}

std::vector<std::string> Server::command(const std::string& program, const std::vector<std::string>& arguments) const {
  return joined({postgresqlProgram(program), "--host=" + mSockets, std::string("--username=") + kUser}, arguments);
}

Ended Server::run(const std::string& program, const std::vector<std::string>& arguments) const {
  return mSession.run(command(program, arguments));
}

Process Server::start(const std::string& program, const std::vector<std::string>& arguments) const {
  return mSession.start(command(program, arguments));
}

}  // namespace test
