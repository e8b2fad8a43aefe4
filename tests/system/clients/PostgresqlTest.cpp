// SPDX-License-Identifier: Apache-2.0
//
// PostgreSQL with its data and its write-ahead log on two volumes: what one set of both is worth, and two sets are not.
#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>

#include "Ledger.h"
#include "LoopVolume.h"
#include "Postgresql.h"
#include "Recipe.h"

namespace fs = std::filesystem;

namespace {

using test::Ended;
using test::Ledger;
using test::Moment;
using test::Process;
using test::Recipe;
using test::Server;
using test::Session;
using test::Volume;

class PostgresqlCopy : public testing::Test {
 protected:
  PostgresqlCopy() {
    test::makeCluster(session, data, log, {"max_wal_size=16MB", "min_wal_size=2MB"});
    test::openTheWayTo(copy);
    live.emplace(session, data);
    if (!live->becomesReady()) throw std::runtime_error("the server does not start");
  }

  // Writes on until no file of the log is left that a server on the data as they are now would begin with.
  void moveOn() {
    const std::string first = live->ask("SELECT pg_walfile_name(redo_lsn) FROM pg_control_checkpoint()");
    for (int round = 0; live->ask("SELECT count(*) FROM pg_ls_waldir() WHERE name = '" + first + "'") != "0"; ++round) {
      ASSERT_LT(round, 20) << "the log keeps " << first;
      live->ask("CREATE TABLE more_" + std::to_string(round) + " AS SELECT generate_series(1, 10000) AS number");
      live->ask("SELECT pg_switch_wal()");
      live->ask("CHECKPOINT");
    }
  }

  // Copies a folder of a volume from a set of this volume alone.
  void copyFromSetOf(const Volume& volume, const std::string& folder, const std::string& to) {
    const std::string from = "\"$MIRELSNAP_BASE\"" + folder;
    const Ended ended = session.run(
        {MIRELSNAP_PROGRAM, "run", "--volume", volume.folder(), "--", "/bin/sh", "-c", "cp -a " + from + " " + to});
    ASSERT_EQ(ended.code, 0) << ended.errors;
  }
  // Puts the two together as the recipe does.
  void joinCopies() {
    fs::remove(copy + "/data/postmaster.pid");
    fs::remove(copy + "/data/pg_wal");
    fs::rename(copy + "/log", copy + "/data/pg_wal");
  }
  void expectThatItDoesNotStart() {
    Server restored(session, copy + "/data");
    EXPECT_FALSE(restored.becomesReady()) << restored.log();
    EXPECT_EQ(restored.end(), 1);
    EXPECT_TRUE(restored.logHas("PANIC:  could not locate a valid checkpoint record")) << restored.log();
  }

  const Volume dataVolume{"ext4", 160 << 20};
  const Volume logVolume{"xfs", 300 << 20};
  const Volume store{"ext4", 160 << 20};
  const std::string data = dataVolume.folder() + "/data";
  const std::string log = logVolume.folder() + "/log";
  const std::string space = logVolume.folder() + "/space";
  const std::string copy = store.folder() + "/copy";
  Session session;
  std::optional<Server> live;
};

// Several clients, pgbench's own among them, while the copy is taken.
class PostgresqlCopyUnderLoad : public PostgresqlCopy {
 protected:
  PostgresqlCopyUnderLoad() {
    test::giveToPostgresql(space);
    live->ask("CREATE TABLESPACE elsewhere LOCATION '" + space + "'");
    // A recovery that came across this again would make the tablespace where it was made at first.
    live->ask("CHECKPOINT");
    Ledger::makeTable(*live, "elsewhere");
    const Ended made = live->run("pgbench", {"--initialize", "--quiet", "postgres"});
    if (made.code != 0) throw std::runtime_error(made.errors);
    pgbench.emplace(live->start("pgbench", {"--no-vacuum", "--client=4", "--time=86400", "postgres"}));
    for (int client = 0; client < 2; ++client) ledgers.push_back(std::make_unique<Ledger>(*live, client));
  }

  // Each client of the ledger gets 100 more acknowledgements.
  void waitForClients() {
    for (const auto& ledger : ledgers) ASSERT_TRUE(ledger->goesOn(100)) << live->log();
  }
  void stopPgbench() {
    ASSERT_TRUE(pgbench->running()) << pgbench->errors();
    pgbench->signal(SIGINT);
    pgbench->wait();
  }

  std::optional<Process> pgbench;
  std::vector<std::unique_ptr<Ledger>> ledgers;
};

TEST_F(PostgresqlCopyUnderLoad, of_one_set_recovers_and_holds_what_was_acknowledged_before_and_nothing_begun_after) {
  waitForClients();
  const Moment asked = std::chrono::steady_clock::now();
  Recipe recipe(session, "postgresql.sh", {data, copy}, "cp");
  recipe.waitForClient();
  const Moment snapped = std::chrono::steady_clock::now();
  waitForClients();
  moveOn();
  recipe.release();
  const Ended ended = recipe.finish();
  ASSERT_EQ(ended.code, 0) << ended.errors;
  waitForClients();
  stopPgbench();

  Server restored(session, copy + "/data");
  ASSERT_TRUE(restored.becomesReady());
  EXPECT_TRUE(restored.logHas("database system was not properly shut down; automatic recovery in progress"));
  EXPECT_TRUE(restored.logHas("redo starts at"));
  for (const auto& ledger : ledgers) {
    const std::string held =
        restored.ask("SELECT count(*), max(number) FROM ledger WHERE client = " + std::to_string(ledger->client()));
    long count = 0, last = 0;
    ASSERT_EQ(std::sscanf(held.c_str(), "%ld|%ld", &count, &last), 2) << held;
    EXPECT_EQ(count, last) << "a transaction is missing in between";
    EXPECT_GE(last, ledger->acknowledgedBefore(asked));
    EXPECT_LE(last, ledger->begunBefore(snapped));
    EXPECT_GE(ledger->acknowledgedBefore(asked), 100);
    EXPECT_GE(ledger->acknowledgedBefore(Moment::max()), ledger->begunBefore(snapped) + 100)
        << "the load does not go on";
  }
  // Each of pgbench's transactions adds the same to an account, a teller and a branch, and to the history.
  EXPECT_EQ(restored.ask("SELECT count(DISTINCT total), bool_and(total IS NOT NULL) FROM ("
                         "SELECT sum(abalance) AS total FROM pgbench_accounts UNION ALL "
                         "SELECT sum(tbalance) FROM pgbench_tellers UNION ALL "
                         "SELECT sum(bbalance) FROM pgbench_branches UNION ALL "
                         "SELECT sum(delta) FROM pgbench_history) AS totals"),
            "1|t");
  const Ended check = restored.run("pg_amcheck", {"--all", "--install-missing", "--heapallindexed"});
  EXPECT_EQ(check.code, 0) << check.output << check.errors;
  EXPECT_EQ(restored.ask("SELECT pg_tablespace_location(oid) FROM pg_tablespace WHERE spcname = 'elsewhere'")
                .rfind(copy + "/tablespaces/", 0),
            0u)
      << "the copy would use the live tablespace";
}

TEST_F(PostgresqlCopy, of_two_sets_with_the_log_taken_before_the_data_does_not_start) {
  fs::create_directory(copy);
  copyFromSetOf(logVolume, log, copy + "/log");
  live->ask("CHECKPOINT");
  copyFromSetOf(dataVolume, data, copy + "/data");
  joinCopies();
  expectThatItDoesNotStart();
}

TEST_F(PostgresqlCopy, of_two_sets_with_the_data_taken_before_the_log_does_not_start) {
  fs::create_directory(copy);
  copyFromSetOf(dataVolume, data, copy + "/data");
  moveOn();
  copyFromSetOf(logVolume, log, copy + "/log");
  joinCopies();
  expectThatItDoesNotStart();
}

}  // namespace
