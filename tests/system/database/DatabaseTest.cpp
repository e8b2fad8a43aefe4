// SPDX-License-Identifier: Apache-2.0
//
// A database writes while it is snapped: what the snapshot holds is a database, with every transaction that was
// acknowledged before.
#include <gtest/gtest.h>

#include <filesystem>
#include <sstream>

#include "Agent.h"
#include "Base.h"
#include "Waiting.h"

namespace fs = std::filesystem;

namespace {

using test::Agent;
using test::Base;
using test::Ended;
using test::Engine;
using test::Process;
using test::Session;
using test::TempDir;
using test::Volume;

// An SQLite writer in WAL mode, one transaction after the other, each acknowledged with its number when it is
// committed.
class Database {
 public:
  Database(Session& session, const std::string& folder)
      : mFile(folder + "/data.db"), mWriter(session.start({"/bin/bash", "-c", script(mFile, mDir / "stop")})) {}
  ~Database() {
    test::writeFile(mDir / "stop", "");
    EXPECT_EQ(mWriter.wait(), 0) << mWriter.errors();
  }
  const std::string& file() const { return mFile; }
  // The last transaction that was acknowledged.
  long acknowledged() {
    std::istringstream lines(mWriter.output());
    long last = 0;
    for (std::string line; std::getline(lines, line) && !lines.eof();) last = std::stol(line);
    return last;
  }
  void waitFor(long transaction) {
    EXPECT_TRUE(test::comesTrue([&] { return acknowledged() >= transaction || !mWriter.running(); }));
    EXPECT_TRUE(mWriter.running()) << mWriter.errors();
  }

 private:
  static std::string script(const std::string& file, const std::string& stop) {
    return "{ echo \"PRAGMA synchronous=FULL; CREATE TABLE t(n INTEGER PRIMARY KEY, filling BLOB);\"; n=0; "
           "until [ -e " +
           stop +
           " ]; do n=$((n + 1)); echo \"BEGIN; INSERT INTO t VALUES($n, randomblob(3000)); "
           "UPDATE t SET filling = randomblob(3000) WHERE n = $n / 2; COMMIT; SELECT $n;\"; done; } | "
           "stdbuf -oL sqlite3 -bail -cmd 'PRAGMA journal_mode=WAL' '" +
           file + "' | stdbuf -oL grep -v wal";
  }

  TempDir mDir;
  std::string mFile;
  Process mWriter;
};

TEST(DatabaseInASnapshot, is_whole_and_holds_every_transaction_acknowledged_before) {
  const Volume volume("ext4", 96 << 20);
  const Base base({volume.folder()});
  Session session;
  Agent agent(session);
  Database database(session, volume.folder());
  for (int round = 1; round <= 4; ++round) {
    database.waitFor(100 * round);
    Engine engine = agent.openedSet({&volume});
    const long before = database.acknowledged();
    ASSERT_EQ(engine.snap(), 0);
    database.waitFor(database.acknowledged() + 50);
    const long after = database.acknowledged();
    ASSERT_EQ(engine.expose(base.path()), S_OK);
    const TempDir copy;
    for (const char* part : {"", "-wal"}) {
      fs::copy_file(base.at(database.file()) + part, copy / std::string("data.db") + part);
    }
    const Ended check =
        session.run({"/usr/bin/sqlite3", copy / "data.db", "PRAGMA integrity_check; SELECT count(*), max(n) FROM t"});
    EXPECT_EQ(check.code, 0) << check.errors;
    long count = 0;
    long last = 0;
    EXPECT_EQ(std::sscanf(check.output.c_str(), "ok\n%ld|%ld\n", &count, &last), 2) << check.output;
    EXPECT_EQ(count, last) << "a transaction is missing in between";
    EXPECT_GE(last, before);
    EXPECT_LT(last, after) << "the database went on meanwhile";
    engine.unexpose();
    EXPECT_EQ(engine.deleteSet(), S_OK);
    engine.release();
  }
}

}  // namespace
