// SPDX-License-Identifier: Apache-2.0
//
// What a refusal of the driver means to the agent, and that it leaves nothing.
#include <gtest/gtest.h>
#include <unistd.h>

#include <ostream>

#include "Agent.h"
#include "Base.h"
#include "DriverClient.h"
#include "Frozen.h"
#include "Leftovers.h"

namespace {

using test::Agent;
using test::Base;
using test::DriverClient;
using test::Engine;
using test::Session;
using test::Volume;

using Texts = std::vector<std::string>;

// Nothing of an agent's set is left, while the agent and its engine are still there.
void expectNothingLeft(Session& session) {
  DriverClient driver(session);
  EXPECT_EQ(driver.snapped(), test::Json::array());
  EXPECT_EQ(driver.mappings(), test::Json::array());
  EXPECT_EQ(test::relocationRemains(), Texts());
  EXPECT_EQ(test::snapshotNodes(), Texts());
}

std::string refused(const std::string& command, const Agent& agent, const std::string& status = "") {
  return "mirelsnap-emulator: " + command + " from process " + std::to_string(agent.id()) +
         " refused: failure injected" + status;
}

struct Refusal {
  const char* name;
  const char* injection;
  const char* told;  // what the emulator says of the status
  int snapResult;
  int status;
};

void PrintTo(const Refusal& refusal, std::ostream* out) { *out << refusal.name; }

class SnapRefusal : public testing::TestWithParam<std::tuple<Refusal, std::size_t>> {};

TEST_P(SnapRefusal, reaches_the_agent_and_leaves_nothing) {
  const auto& [refusal, count] = GetParam();
  const Volume first("ext4", 32 << 20);
  const Volume second("ext4", 32 << 20);
  Session session({"--inject", refusal.injection});
  Agent agent(session);
  const std::vector<const Volume*> volumes = count == 1 ? std::vector{&first} : std::vector{&first, &second};
  Engine engine = agent.openedSet(volumes);
  EXPECT_EQ(engine.snap(), refusal.snapResult);
  EXPECT_EQ(engine.waitForJob(0), USC_S_ASYNC_FINISHED);
  const test::JobStatus status = engine.status();
  EXPECT_EQ(status.result, S_OK);
  EXPECT_EQ(status.status, refusal.status);
  EXPECT_EQ(status.snapResult, refusal.snapResult);
  EXPECT_EQ(session.takeComplaints(1), Texts{refused("snap", agent, refusal.told)});
  expectNothingLeft(session);

  // A failed job has nothing to delete, and no set is in progress any more.
  EXPECT_EQ(engine.deleteSet(), USC_E_BAD_STATE);
  Engine next = agent.openedSet(volumes);
  EXPECT_EQ(next.snap(), 0);
  EXPECT_EQ(next.deleteSet(), S_OK);
  next.release();
  engine.release();
}

INSTANTIATE_TEST_SUITE_P(
    Statuses, SnapRefusal,
    testing::Combine(testing::Values(Refusal{"minus_2_is_11", "snap:1:EBUSY:-2", " (status snapped)", 11,
                                             USC_E_VOLUME_ALREADY_SNAPPED},
                                     Refusal{"minus_3_is_12", "snap:1:EBUSY:one-snapped", " (status one-snapped)", 12,
                                             USC_E_VOLUME_ALREADY_SNAPPED},
                                     Refusal{"minus_8_is_26", "snap:1:ESTALE:-8", " (status size-changed)", 26,
                                             E_UNEXPECTED},
                                     Refusal{"another_status_is_6", "snap:1:EIO:-9", " (status -9)", 6, E_UNEXPECTED},
                                     Refusal{"an_errno_alone_is_6", "snap:1:ENOMEM", "", 6, E_UNEXPECTED}),
                     testing::Values(1, 2)),
    [](const auto& instance) {
      return std::string(std::get<0>(instance.param).name) +
             (std::get<1>(instance.param) == 1 ? "_for_one_volume" : "_for_two_volumes");
    });

TEST(CreateMapping, that_fails_for_the_only_volume_is_a_failed_placement) {
  const Volume volume("ext4", 32 << 20);
  Session session({"--inject", "create-mapping:1:ENOMEM"});
  Agent agent(session);
  Engine engine = agent.openedSet({&volume});
  EXPECT_EQ(engine.snap(), 20);
  EXPECT_EQ(engine.status().status, E_UNEXPECTED);
  EXPECT_EQ(session.takeComplaints(1), Texts{refused("create-mapping", agent)});
  expectNothingLeft(session);
  engine.release();
}

TEST(CreateMapping, that_fails_for_the_second_volume_undoes_the_first) {
  const Volume first("ext4", 32 << 20);
  const Volume second("ext4", 32 << 20);
  Session session({"--inject", "create-mapping:2:ENOMEM"});
  Agent agent(session);
  Engine engine = agent.openedSet({&first, &second});
  EXPECT_EQ(engine.snap(), 20);
  EXPECT_EQ(session.takeComplaints(1), Texts{refused("create-mapping", agent)});
  // Of the first volume's file only the folder stays: placing removes what it made of files, never a folder.
  EXPECT_EQ(test::relocationRemains(), Texts{first.folder() + "/.verrelocarea"});
  EXPECT_EQ(rmdir((first.folder() + "/.verrelocarea").c_str()), 0);
  expectNothingLeft(session);
  engine.release();
}

TEST(Details, of_snapped_volumes_that_cannot_be_had_fail_the_snap_and_leave_nothing) {
  const Volume volume("ext4", 32 << 20);
  Session session({"--inject", "count-snapped:1:EIO"});
  Agent agent(session);
  Engine engine = agent.openedSet({&volume});
  EXPECT_EQ(engine.snap(), 3);
  EXPECT_EQ(engine.status().status, E_UNEXPECTED);
  EXPECT_EQ(session.takeComplaints(1), Texts{refused("count-snapped", agent)});
  expectNothingLeft(session);
  engine.release();
}

TEST(Details, of_another_agents_volume_that_cannot_be_listed_fail_the_snap_and_leave_the_other_alone) {
  const Volume held("ext4", 32 << 20);
  const Volume volume("ext4", 32 << 20);
  Session session({"--inject", "list-snapped:1:EIO"});
  Agent holder(session);
  Engine holding = holder.openedSet({&held});
  ASSERT_EQ(holding.snap(), 0);
  Agent agent(session);
  Engine engine = agent.openedSet({&volume});
  EXPECT_EQ(engine.snap(), 3);
  EXPECT_EQ(session.takeComplaints(1), Texts{refused("list-snapped", agent)});
  EXPECT_EQ(DriverClient(session).snapped().size(), 1u);
  EXPECT_EQ(DriverClient(session).mappings().size(), 1u);
  EXPECT_NE(access((volume.folder() + "/.verrelocarea").c_str(), F_OK), 0);
  engine.release();
  EXPECT_EQ(holding.deleteSet(), S_OK);
  holding.release();
}

TEST(DeleteSnapshots, succeeds_though_the_driver_refuses_and_reconcile_mends_once_the_agent_is_gone) {
  const Volume volume("ext4", 32 << 20);
  Session session({"--inject", "discard:1:EIO"});
  auto agent = std::make_unique<Agent>(session);
  Engine engine = agent->openedSet({&volume});
  ASSERT_EQ(engine.snap(), 0);
  EXPECT_EQ(engine.deleteSet(), S_OK);
  EXPECT_EQ(session.takeComplaints(1), Texts{refused("discard", *agent)});
  EXPECT_EQ(DriverClient(session).snapped().size(), 1u);

  Agent other(session);
  Engine reconciler = other.engine();
  EXPECT_EQ(reconciler.reconcile(), S_OK);
  EXPECT_EQ(DriverClient(session).snapped().size(), 1u) << "its owner lives";
  agent->kill();
  EXPECT_EQ(reconciler.reconcile(), S_OK);
  expectNothingLeft(session);
  reconciler.release();
}

TEST(DeleteSnapshots, of_two_volumes_discards_both_with_one_command) {
  const Volume first("ext4", 32 << 20);
  const Volume second("ext4", 32 << 20);
  Session session;
  Agent agent(session);
  Engine engine = agent.openedSet({&first, &second});
  ASSERT_EQ(engine.snap(), 0);
  EXPECT_EQ(engine.deleteSet(), S_OK);
  ASSERT_EQ(session.trace("discard").size(), 1u);
  EXPECT_EQ(session.trace("discard").at(0)["volumes"].size(), 2u);
  expectNothingLeft(session);
  engine.release();
}

TEST(Freeze, outside_the_driver_makes_the_snap_fail_and_leaves_nothing) {
  const Volume volume("ext4", 32 << 20);
  const Volume other("ext4", 32 << 20);
  const test::Frozen frozen(volume.folder());
  {
    Session session;
    Agent agent(session);
    Engine engine = agent.openedSet({&volume});
    ASSERT_EQ(engine.setRelocation(0, other.folder(), 16), S_OK);
    EXPECT_EQ(engine.snap(), 6);
    EXPECT_EQ(engine.status().status, E_UNEXPECTED);
    EXPECT_EQ(session.takeComplaints(1).size(), 1u);
    expectNothingLeft(session);
    engine.release();
  }
  EXPECT_TRUE(test::isFrozen(volume.folder()));
}

TEST(Freeze, through_the_driver_makes_the_volume_count_as_already_snapped) {
  const Volume first("ext4", 32 << 20);
  const Volume second("ext4", 32 << 20);
  Session session;
  DriverClient driver(session);
  ASSERT_EQ(driver.freeze({second.device()}), 0u);
  EXPECT_EQ(driver.freeze({second.device()}), 24u);
  EXPECT_EQ(session.takeComplaints(1).size(), 1u);
  Agent agent(session);
  Engine engine = agent.openedSet({&first, &second});
  EXPECT_EQ(engine.snap(), 11);
  EXPECT_EQ(engine.status().status, USC_E_VOLUME_ALREADY_SNAPPED);
  expectNothingLeft(session);
  engine.release();
  EXPECT_EQ(driver.thaw({second.device()}), 0u);
  EXPECT_EQ(driver.thaw({second.device()}), 25u);
  EXPECT_EQ(session.takeComplaints(1).size(), 1u);
}

TEST(Freeze, that_the_driver_refuses_is_3_or_24) {
  const Volume volume("ext4", 32 << 20);
  Session session({"--inject", "freeze:1:EIO", "--inject", "freeze:2:EBUSY:-6", "--inject", "thaw:1:EINVAL:-7"});
  DriverClient driver(session);
  EXPECT_EQ(driver.freeze({volume.device()}), 3u);
  EXPECT_EQ(driver.freeze({volume.device()}), 24u);
  EXPECT_EQ(driver.thaw({volume.device()}), 25u);
  EXPECT_EQ(session.takeComplaints(3).size(), 3u);
}

TEST(Version, that_the_driver_refuses_means_no_support_for_snapshots) {
  Session session({"--inject", "version:1:EIO", "--version", "7.1-test"});
  Agent agent(session);
  Engine engine = agent.engine();
  EXPECT_EQ(engine.version(), "");
  EXPECT_EQ(session.takeComplaints(1).size(), 1u);
  EXPECT_TRUE(engine.supportsSnapshots());
  Engine second = agent.engine();
  EXPECT_EQ(second.version(), "7.1-test");
  second.release();
  engine.release();
}

}  // namespace
