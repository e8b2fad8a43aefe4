// SPDX-License-Identifier: Apache-2.0
#include "Ledger.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <stdexcept>

#include "Waiting.h"

namespace test {
namespace {

long long nanoseconds(Moment moment) {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(moment.time_since_epoch()).count();
}

// False when the other end is gone.
bool say(int socket, const std::string& text) {
  return send(socket, text.data(), text.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(text.size());
}

// The next line, empty when the other end is gone.
std::string hear(int socket) {
  std::string line;
  for (char character; recv(socket, &character, 1, 0) == 1 && character != '\n';) line += character;
  return line;
}

}  // namespace

void Ledger::makeTable(const Server& server, const std::string& tablespace) {
  server.ask("CREATE TABLE ledger(client int, number bigint, filling text, PRIMARY KEY(client, number)) TABLESPACE " +
             tablespace);
}

Ledger::Ledger(const Server& server, int client) : mClient(client) {
  const std::string psql = postgresqlProgram("psql");
  const std::string host = "--host=" + server.sockets();
  int ends[2];
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) throw std::runtime_error("socketpair");
  mProcess = fork();
  if (mProcess == 0) {
    dup2(ends[1], STDIN_FILENO);
    dup2(ends[1], STDOUT_FILENO);
    execl(psql.c_str(), psql.c_str(), host.c_str(), "--username=postgres", "--no-psqlrc", "--quiet", "--tuples-only",
          "--no-align", "--set=ON_ERROR_STOP=1", "postgres", nullptr);
    _exit(127);
  }
  close(ends[1]);
  mDatabase = ends[0];
  mThread = std::thread([this] { work(); });
}

Ledger::~Ledger() {
  mStop = true;
  mThread.join();
  close(mDatabase);
  int status = 0;
  waitpid(mProcess, &status, 0);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "psql ended with wait status " << status;
}

// A line is written before a transaction is begun, and one after it was acknowledged.
void Ledger::work() {
  std::ofstream book(mDir / "book");
  const auto write = [&](const char* what, long number) {
    book << what << ' ' << number << ' ' << nanoseconds(std::chrono::steady_clock::now()) << std::endl;
  };
  for (long number = 1; !mStop; ++number) {
    const std::string text = std::to_string(number);
    write("begun", number);
    if (!say(mDatabase, "INSERT INTO ledger VALUES (" + std::to_string(mClient) + ", " + text +
                            ", repeat('filling ', 50)) RETURNING number;\n") ||
        hear(mDatabase) != text) {
      break;
    }
    write("acknowledged", number);
    mAcknowledged = number;
  }
  mEnded = true;
}

bool Ledger::goesOn(long more) const {
  const long until = mAcknowledged + more;
  return comesTrue([&] { return mEnded || mAcknowledged >= until; }) && mAcknowledged >= until;
}

long Ledger::lastBefore(const std::string& wanted, Moment moment) const {
  std::ifstream book(mDir / "book");
  long last = 0;
  std::string what;
  long number;
  for (long long time; book >> what >> number >> time;) {
    if (what == wanted && time < nanoseconds(moment)) last = number;
  }
  return last;
}

}  // namespace test
