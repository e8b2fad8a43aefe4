// SPDX-License-Identifier: Apache-2.0
//
// Several engines in one process, several agents on one machine.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <memory>

#include "Agent.h"
#include "Base.h"
#include "DriverClient.h"
#include "Gate.h"
#include "ProcessState.h"
#include "Waiting.h"

namespace {

using test::Agent;
using test::Base;
using test::DriverClient;
using test::Engine;
using test::Session;
using test::Volume;

TEST(SecondEngine, of_the_process_is_told_that_a_set_is_in_progress_and_works_once_the_first_is_released) {
  const Volume volume("ext4", 16 << 20);
  const Volume other("ext4", 16 << 20);
  Session session;
  Agent agent(session);
  Engine first = agent.openedSet({&volume});
  Engine second = agent.engine();
  EXPECT_EQ(second.start(), USC_E_SNAPSHOT_SET_IN_PROGRESS) << "while the first's set is open";
  ASSERT_EQ(first.snap(), 0);
  EXPECT_EQ(second.start(), USC_E_SNAPSHOT_SET_IN_PROGRESS) << "while the first's set lives";
  EXPECT_EQ(second.waitForNewSet(10), USC_S_ASYNC_PENDING);
  // The engine goes, its snapshot stays: nobody deleted it.
  EXPECT_EQ(first.release(), 0u);
  EXPECT_EQ(second.waitForNewSet(10), USC_S_ASYNC_FINISHED);
  ASSERT_EQ(second.start(), S_OK);
  EXPECT_EQ(second.add(volume), USC_E_OBJECT_ALREADY_EXISTS);
  EXPECT_EQ(second.add(other), S_OK);
  EXPECT_EQ(second.snap(), 0);
  EXPECT_EQ(DriverClient(session).snapped().size(), 2u);
  // A set that is not the first one of the process stays on its list; the driver's snapshot goes all the same.
  EXPECT_EQ(second.deleteSet(), S_OK);
  EXPECT_EQ(second.release(), 0u);
  EXPECT_EQ(DriverClient(session).snapped().size(), 1u);
  EXPECT_EQ(DriverClient(session).unsnap({volume.device()}), 0u);
}

TEST(SecondEngine, that_waits_is_woken_when_the_firsts_set_is_deleted) {
  const Volume volume("ext4", 16 << 20);
  Session session;
  Agent agent(session);
  Engine first = agent.openedSet({&volume});
  ASSERT_EQ(first.snap(), 0);
  Engine second = agent.engine();
  second.beginWaitForNewSet(600'000);
  EXPECT_TRUE(test::comesTrue([&] {
    const std::vector<pid_t> threads = test::threadsOf(agent.id());
    return std::any_of(threads.begin(), threads.end(), test::waitsForAThread);
  }));
  EXPECT_EQ(first.deleteSet(), S_OK);
  EXPECT_EQ(second.endWaitForNewSet(), USC_S_ASYNC_FINISHED);
  ASSERT_EQ(second.start(), S_OK);
  ASSERT_EQ(second.add(volume), S_OK);
  EXPECT_EQ(second.snap(), 0);
  EXPECT_EQ(second.deleteSet(), S_OK);
  second.release();
  first.release();
}

TEST(TwoAgents, at_once_on_different_volumes_each_take_expose_and_delete_their_own) {
  const Volume here("ext4", 32 << 20);
  const Volume there("ext4", 32 << 20);
  test::writeFile(here.folder() + "/file", "here");
  test::writeFile(there.folder() + "/file", "there");
  const Base hereBase({here.folder()});
  const Base thereBase({there.folder()});
  Session session;
  Agent first(session);
  Agent second(session);
  for (int round = 0; round < 3; ++round) {
    Engine one = first.openedSet({&here});
    Engine two = second.openedSet({&there});
    ASSERT_EQ(one.startJob(), S_OK);
    ASSERT_EQ(two.startJob(), S_OK);
    for (Engine* engine : {&one, &two}) {
      while (engine->status().status == USC_S_ASYNC_PENDING) engine->waitForJob(1000);
      EXPECT_EQ(engine->status().status, USC_S_ASYNC_FINISHED);
    }
    EXPECT_EQ(DriverClient(session).snapped().size(), 2u);
    ASSERT_EQ(one.expose(hereBase.path()), S_OK);
    ASSERT_EQ(two.expose(thereBase.path()), S_OK);
    EXPECT_EQ(test::readFile(hereBase.at(here.folder()) + "/file"), "here");
    one.unexpose();
    EXPECT_EQ(one.deleteSet(), S_OK);
    EXPECT_EQ(test::readFile(thereBase.at(there.folder()) + "/file"), "there") << "after the other's set is gone";
    two.unexpose();
    EXPECT_EQ(two.deleteSet(), S_OK);
    one.release();
    two.release();
  }
}

TEST(TwoAgents, on_one_volume_leave_the_second_with_already_snapped_11_until_the_first_deletes) {
  const Volume volume("ext4", 32 << 20);
  const Volume other("ext4", 32 << 20);
  Session session;
  Agent first(session);
  Agent second(session);
  Engine one = first.openedSet({&volume});
  ASSERT_EQ(one.snap(), 0);
  {
    Engine two = second.openedSet({&volume});
    EXPECT_EQ(two.snap(), 11);
    EXPECT_EQ(two.status().status, USC_E_VOLUME_ALREADY_SNAPPED);
    two.release();
  }
  {
    Engine two = second.openedSet({&other, &volume});
    EXPECT_EQ(two.snap(), 12);
    EXPECT_EQ(two.status().status, USC_E_VOLUME_ALREADY_SNAPPED);
    two.release();
  }
  EXPECT_EQ(session.trace("snap").size(), 1u) << "the driver need not be asked";
  EXPECT_EQ(one.deleteSet(), S_OK);
  Engine two = second.openedSet({&volume});
  EXPECT_EQ(two.snap(), 0);
  EXPECT_EQ(two.deleteSet(), S_OK);
  two.release();
  one.release();
}

// Whoever comes second, in whichever step: at most one of them has the volume, and both can go on afterwards.
TEST(TwoAgents, that_race_for_one_volume_never_both_have_it) {
  const Volume volume("ext4", 32 << 20);
  Session session;
  // The loser is refused in one step or the other.
  session.tolerateComplaints("mirelsnap-emulator: (create-mapping|delete-mapping|snap) from process .* refused: .*");
  Agent first(session);
  Agent second(session);
  int taken = 0;
  for (int round = 0; round < 6; ++round) {
    Engine one = first.openedSet({&volume});
    Engine two = second.openedSet({&volume});
    ASSERT_EQ(one.startJob(), S_OK);
    ASSERT_EQ(two.startJob(), S_OK);
    int winners = 0;
    for (Engine* engine : {&one, &two}) {
      while (engine->status().status == USC_S_ASYNC_PENDING) engine->waitForJob(1000);
      if (engine->status().snapResult == 0) ++winners;
    }
    EXPECT_LE(winners, 1);
    EXPECT_EQ(DriverClient(session).snapped().size(), static_cast<std::size_t>(winners));
    taken += winners;
    for (Engine* engine : {&one, &two}) {
      EXPECT_EQ(engine->deleteSet(), engine->status().snapResult == 0 ? S_OK : USC_E_BAD_STATE);
      engine->release();
    }
  }
  EXPECT_GT(taken, 0);
}

TEST(Library, loads_the_driver_by_itself_when_an_engine_is_made) {
  const Volume volume("ext4", 32 << 20);
  Session session({"--unloaded"});
  Agent agent(session);
  Engine engine = agent.openedSet({&volume});
  EXPECT_TRUE(engine.supportsSnapshots());
  ASSERT_EQ(engine.snap(), 0);
  EXPECT_EQ(engine.deleteSet(), S_OK);
  engine.release();
}

TEST(Library, without_a_driver_says_so_in_each_of_its_ways) {
  const Volume volume("ext4", 32 << 20);
  Session session = Session::withoutDriver();
  Agent agent(session);
  Engine engine = agent.engine();
  EXPECT_FALSE(engine.supportsSnapshots());
  EXPECT_EQ(engine.version(), "");
  EXPECT_EQ(engine.reconcile(), E_FAIL);
  ASSERT_EQ(engine.start(), S_OK);
  ASSERT_EQ(engine.add(volume), S_OK);
  EXPECT_EQ(engine.snap(), 5);
  EXPECT_EQ(engine.status().status, E_UNEXPECTED);
  engine.release();
}

TEST(Agent, that_drops_the_library_while_its_job_runs_goes_on_and_so_does_the_job) {
  const Volume volume("xfs", 300 << 20);
  test::Gate gate;
  Session session;
  DriverClient driver(session);
  Agent agent(session, {.environment = gate.environment("held-relocation-file")});
  Engine engine = agent.openedSet({&volume});
  ASSERT_EQ(engine.setRelocation(0, volume.folder(), 256), S_OK);
  const std::size_t threads = test::threadsOf(agent.id()).size();
  ASSERT_EQ(engine.startJob(), S_OK);
  gate.waitForProgram();
  EXPECT_EQ(agent.call("unload")["result"], 0);
  EXPECT_TRUE(driver.snapped().empty());
  gate.letGoOn();
  EXPECT_TRUE(test::comesTrue([&] { return test::threadsOf(agent.id()).size() == threads; })) << "the job goes on";
  EXPECT_EQ(driver.snapped().size(), 1u);
  EXPECT_TRUE(agent.process().running());
  EXPECT_NO_THROW(agent.messages());
  agent.kill();
  EXPECT_EQ(driver.reconcile(), 0u);
}

}  // namespace
