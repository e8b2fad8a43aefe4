// SPDX-License-Identifier: Apache-2.0
//
// Somebody removes what a dead process left, or a snapshot of its own, and is stopped in the middle of it while
// somebody else takes a snapshot of the same volume: what the living one has is left to it.
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <syslog.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <optional>

#include "Agent.h"
#include "Base.h"
#include "DriverClient.h"
#include "LogCapture.h"
#include "Run.h"

namespace fs = std::filesystem;

namespace {

using test::Agent;
using test::Base;
using test::DriverClient;
using test::Ended;
using test::Engine;
using test::Json;
using test::Mounted;
using test::Process;
using test::Session;
using test::StartOptions;
using test::TempDir;
using test::Volume;

using Texts = std::vector<std::string>;

constexpr char kHeldOff[] =
    "Snapshots and relocation files of dead processes are left: another process is taking a snapshot, or removing one; "
    "run reconcile again when it is done.\n";

struct Place {
  const char* name;
  const char* type;
  std::uint64_t bytes;
  bool bound;  // relocation files are made by the path of a bind mount
};

void PrintTo(const Place& place, std::ostream* out) { *out << place.name; }

// A process whose reconcile stops where its mischief says.
class StoppedReconcile {
 public:
  StoppedReconcile(Session& session, const StartOptions& start) : mAgent(session, start), mEngine(mAgent.engine()) {
    mAgent.begin("reconcile", {{"engine", 0}});
    mAgent.process().waitUntilStopped();
  }
  void finish() {
    mAgent.process().signal(SIGCONT);
    EXPECT_EQ(mAgent.finish()["result"], S_OK);
    mEngine.release();
  }

 private:
  Agent mAgent;
  Engine mEngine;
};

// A process that snaps a volume while another one is stopped: it takes its snapshot, or waits until that one goes on.
class Newcomer {
 public:
  // Its relocation file is made on the volume by the path `top`.
  Newcomer(Session& session, const Volume& volume, const std::string& top)
      : mAgent(session, {.environment = test::withMischief("tell-locked-out:" + mLockedOut)}),
        mEngine(mAgent.openedSet({&volume})) {
    EXPECT_EQ(mEngine.setRelocation(0, top, 2), S_OK);
    EXPECT_GE(mEngine.startJob(), 0);
    while (!fs::exists(mLockedOut) && mEngine.status().status == USC_S_ASYNC_PENDING) mEngine.waitForJob(10);
  }
  int finish() {
    while (mEngine.status().status == USC_S_ASYNC_PENDING) mEngine.waitForJob(1000);
    return mEngine.status().snapResult;
  }
  Agent& agent() { return mAgent; }
  Engine& engine() { return mEngine; }

 private:
  const TempDir mDir;
  const std::string mLockedOut = mDir / "locked-out";
  Agent mAgent;
  Engine mEngine;
};

class Race : public testing::TestWithParam<Place> {
 protected:
  static StartOptions with(const std::string& mischief) { return {.environment = test::withMischief(mischief)}; }

  // The name of a volume's relocation file, and where that lies.
  static std::string fileName(const Volume& of) { return of.device().substr(5); }
  static std::string fileOf(const Volume& of) { return of.folder() + "/.verrelocarea/" + fileName(of); }
  // By which path relocation files on the volume are made.
  const std::string& topOf(const Volume& of) const { return &of == &volume && bound ? bound->folder() : of.folder(); }
  // An open set of one volume, with a small relocation file on it.
  Engine openedSet(Agent& agent, const Volume& of) const {
    Engine engine = agent.openedSet({&of});
    EXPECT_EQ(engine.setRelocation(0, topOf(of), 2), S_OK);
    return engine;
  }
  // A snapshot whose process is dead.
  void leaveSnapshot(const Volume& of) {
    Agent agent(session);
    Engine engine = openedSet(agent, of);
    ASSERT_EQ(engine.snap(), 0);
    agent.kill();
  }
  // A relocation file that nobody knows of.
  static void leaveFile(const Volume& of) {
    ASSERT_TRUE(fs::create_directory(of.folder() + "/.verrelocarea"));
    fs::permissions(of.folder() + "/.verrelocarea", fs::perms::owner_all);
    test::writeFile(fileOf(of), "left");
  }
  // The processes that hold snapshots, by volume.
  std::map<std::string, pid_t> holders() {
    DriverClient driver(session);
    std::map<std::string, pid_t> found;
    for (const Json& entry : driver.snapped()) found[entry["volume"]] = entry["process"];
    return found;
  }
  // That the agent's snapshot of the volume is whole: held, with its file, shown as it was, and deleted without a fuss.
  void expectWhole(Agent& agent, Engine& engine, const Volume& of) {
    EXPECT_EQ(holders()[of.device()], agent.id());
    EXPECT_TRUE(fs::exists(fileOf(of)));
    const Base base({of.folder()});
    EXPECT_EQ(engine.expose(base.path()), S_OK);
    engine.unexpose();
    EXPECT_EQ(engine.deleteSet(), S_OK);
    EXPECT_FALSE(fs::exists(fileOf(of)));
    engine.release();
  }
  void expectWhole(Newcomer& newcomer) {
    EXPECT_EQ(newcomer.finish(), 0);
    expectWhole(newcomer.agent(), newcomer.engine(), volume);
  }

  const TempDir otherFolder;
  const Volume volume{GetParam().type, GetParam().bytes};
  const std::optional<Mounted> bound =
      GetParam().bound ? std::make_optional<Mounted>(volume.folder(), otherFolder.path(), "", MS_BIND) : std::nullopt;
  Session session;
};

INSTANTIATE_TEST_SUITE_P(On, Race,
                         testing::Values(Place{"ext4", "ext4", 32 << 20, false}, Place{"xfs", "xfs", 300 << 20, false},
                                         Place{"a_bind_mount_of_ext4", "ext4", 32 << 20, true},
                                         Place{"a_bind_mount_of_xfs", "xfs", 300 << 20, true}),
                         [](const auto& place) { return std::string(place.param.name); });

// ---- the discard

TEST_P(Race, a_reconcile_that_is_stopped_after_its_listing_leaves_what_was_snapped_meanwhile) {
  leaveSnapshot(volume);
  StoppedReconcile stopped(session, with("stop-after:12:1"));

  Agent agent(session);
  Engine other = agent.engine();
  EXPECT_EQ(other.reconcile(), S_OK);
  EXPECT_EQ(other.release(), 0u);
  Engine engine = openedSet(agent, volume);
  ASSERT_EQ(engine.snap(), 0);

  stopped.finish();
  expectWhole(agent, engine, volume);
}

// What is stale keeps its volume from being snapped until it is discarded, by whoever holds the lock.
TEST_P(Race, no_run_takes_a_snapshot_while_a_reconcile_is_stopped_before_its_discard) {
  leaveSnapshot(volume);
  StoppedReconcile stopped(session, with("stop-before:20:1"));

  const Texts arguments =
      test::runArguments({"--volume", volume.device()}, {"/bin/sh", "-c", "ls $MIRELSNAP_VOLUME_1"});
  EXPECT_EQ(session.run(arguments).code, 114);
  stopped.finish();
  EXPECT_EQ(holders().size(), 0u);
  EXPECT_EQ(session.run(arguments).code, 0);
}

TEST_P(Race, no_run_takes_a_snapshot_while_the_reconcile_of_another_is_stopped_before_its_discard) {
  leaveSnapshot(volume);
  const Texts arguments =
      test::runArguments({"--volume", volume.device()}, {"/bin/sh", "-c", "ls $MIRELSNAP_VOLUME_1"});
  Process stopped = session.start(arguments, with("stop-before:20:1"));
  stopped.waitUntilStopped();
  EXPECT_EQ(session.run(arguments).code, 114);
  stopped.signal(SIGCONT);
  EXPECT_EQ(stopped.wait(), 0) << stopped.errors();
}

// ---- the removal of a file

TEST_P(Race, a_reconcile_that_is_stopped_before_it_removes_a_file_does_not_remove_that_of_a_new_snapshot) {
  leaveFile(volume);
  StoppedReconcile stopped(session, with("stop-before-unlink:" + fileName(volume)));
  Newcomer newcomer(session, volume, topOf(volume));
  stopped.finish();
  expectWhole(newcomer);
}

TEST_P(Race, a_reconcile_that_is_stopped_after_its_last_listing_does_not_remove_the_file_of_a_new_snapshot) {
  leaveFile(volume);
  StoppedReconcile stopped(session, with("stop-after:11:2"));
  Newcomer newcomer(session, volume, topOf(volume));
  stopped.finish();
  expectWhole(newcomer);
}

TEST_P(Race, the_reconcile_of_a_run_that_is_stopped_before_it_removes_a_file_does_not_remove_that_of_a_new_snapshot) {
  const Volume others("ext4", 32 << 20);
  leaveSnapshot(others);
  leaveFile(volume);
  Process stopped = session.start(test::runArguments({"--volume", others.device()}, {"/bin/true"}),
                                  with("stop-before-unlink:" + fileName(volume)));
  stopped.waitUntilStopped();
  Newcomer newcomer(session, volume, topOf(volume));
  stopped.signal(SIGCONT);
  EXPECT_EQ(stopped.wait(), 0) << stopped.errors();
  expectWhole(newcomer);
}

TEST_P(Race, a_deletion_that_is_stopped_after_its_discard_does_not_remove_the_file_of_a_new_snapshot) {
  Agent stopped(session, with("stop-before-unlink:" + fileName(volume)));
  Engine deleting = openedSet(stopped, volume);
  ASSERT_EQ(deleting.snap(), 0);
  stopped.begin("delete_set", {{"engine", 0}, {"set", deleting.set()}});
  stopped.process().waitUntilStopped();
  Newcomer newcomer(session, volume, topOf(volume));
  stopped.process().signal(SIGCONT);
  EXPECT_EQ(stopped.finish()["result"], S_OK);
  expectWhole(newcomer);
  deleting.release();
}

// ---- those who wait

TEST_P(Race, a_reconcile_does_not_wait_for_ever_for_a_snapshot_that_makes_no_progress_and_says_what_it_left) {
  test::LogCapture log;
  const Volume stale("ext4", 32 << 20);
  leaveSnapshot(stale);
  Agent slow(session, with("stop-before:19:1"));  // its relocation file is there, its snapshot is not
  Engine snapping = openedSet(slow, volume);
  slow.begin("start_job", {{"engine", 0}});
  slow.process().waitUntilStopped();

  Agent agent(session);
  Engine reconciler = agent.engine();
  EXPECT_EQ(reconciler.reconcile(), S_OK);
  EXPECT_EQ(log.count(LOG_ERR, kHeldOff), 1u) << log.dump();
  EXPECT_TRUE(fs::exists(fileOf(volume)));
  EXPECT_TRUE(fs::exists(fileOf(stale)));
  EXPECT_TRUE(holders().contains(stale.device()));

  slow.process().signal(SIGCONT);
  EXPECT_GE(slow.finish()["result"].get<int>(), 0);
  while (snapping.status().status == USC_S_ASYNC_PENDING) snapping.waitForJob(1000);
  EXPECT_EQ(snapping.status().snapResult, 0);
  EXPECT_EQ(reconciler.reconcile(), S_OK);
  EXPECT_EQ(log.count(LOG_ERR, kHeldOff), 1u) << log.dump();
  EXPECT_FALSE(fs::exists(fileOf(stale)));
  reconciler.release();
  expectWhole(slow, snapping, volume);
}

// ---- a zombie

TEST_P(Race, the_snapshot_of_a_zombie_is_reconciled) {
  const TempDir dir;
  // Its parent becomes a program that never asks how it ended.
  Process parent = session.start({"/bin/sh", "-c",
                                  "\"$0\" run --volume \"$1\" -- /bin/sh -c 'echo $$ >\"$0\"; exec sleep 600' \"$2\" & "
                                  "exec sleep 600",
                                  MIRELSNAP_PROGRAM, volume.device(), dir / "command"});
  while (parent.running() && (!fs::exists(dir / "command") || test::readFile(dir / "command").empty())) usleep(1000);
  const pid_t zombie = holders()[volume.device()];
  kill(zombie, SIGKILL);
  kill(std::stoi(test::readFile(dir / "command")), SIGKILL);
  while (test::readFile("/proc/" + std::to_string(zombie) + "/stat").find(") Z ") == std::string::npos) usleep(1000);
  ASSERT_EQ(kill(zombie, 0), 0);

  const Ended ended = session.run({MIRELSNAP_PROGRAM, "reconcile"});
  EXPECT_EQ(ended.code, 0) << ended.output << ended.errors;
  EXPECT_EQ(holders().size(), 0u);
  EXPECT_FALSE(fs::exists(fileOf(volume)));
  parent.kill();
}

}  // namespace
