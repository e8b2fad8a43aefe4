// SPDX-License-Identifier: Apache-2.0
//
// The driver takes the snapshots of a set, and the answer is lost: the call fails. No snapshot is held whose relocation
// file is gone.
#include <gtest/gtest.h>
#include <syslog.h>
#include <unistd.h>

#include <filesystem>

#include "Agent.h"
#include "DriverClient.h"
#include "LogCapture.h"

namespace fs = std::filesystem;

namespace {

using test::Agent;
using test::DriverClient;
using test::Engine;
using test::Json;
using test::Session;
using test::Volume;

struct FileSystemKind {
  const char* type;
  std::uint64_t bytes;
};

class LostAnswer : public testing::TestWithParam<FileSystemKind> {
 protected:
  DriverClient::Request request(const Volume& of) { return {of.device(), of.folder(), 2, of.folder()}; }
  static std::string fileOf(const Volume& of) { return of.folder() + "/.verrelocarea/" + of.device().substr(5); }

  Volume volume{GetParam().type, GetParam().bytes};
  Volume second{"ext4", 32 << 20};
};

INSTANTIATE_TEST_SUITE_P(On, LostAnswer,
                         testing::Values(FileSystemKind{"ext4", 32 << 20}, FileSystemKind{"xfs", 300 << 20}),
                         [](const auto& kind) { return std::string(kind.param.type); });

TEST_P(LostAnswer, the_snapshots_are_discarded_with_their_files) {
  Session session({"--inject", "snap:1:lost=EIO"});
  DriverClient client(session);
  EXPECT_EQ(client.snap({request(volume), request(second)}).result, 6);
  EXPECT_EQ(session.takeComplaints(1).size(), 1u);
  EXPECT_EQ(client.snapped(), Json::array());
  EXPECT_EQ(client.mappings(), Json::array());
  EXPECT_FALSE(fs::exists(fileOf(volume)));
  EXPECT_FALSE(fs::exists(fileOf(second)));
  EXPECT_EQ(client.snap({request(volume), request(second)}).result, 0) << "the volumes are free again";
  EXPECT_EQ(client.unsnap({volume.device(), second.device()}), 0u);
}

TEST_P(LostAnswer, a_snapshot_that_cannot_be_discarded_keeps_its_file_until_a_reconcile) {
  test::LogCapture log;
  Session session({"--inject", "snap:1:lost=EIO", "--inject", "discard:1:EIO"});
  {
    DriverClient client(session);
    EXPECT_EQ(client.snap({request(volume), request(second)}).result, 6);
    EXPECT_EQ(session.takeComplaints(2).size(), 2u);
    ASSERT_EQ(client.snapped().size(), 1u);
    EXPECT_EQ(client.snapped()[0]["volume"], volume.device());
    ASSERT_EQ(client.mappings().size(), 1u);
    EXPECT_EQ(client.mappings()[0]["volume"], volume.device());
    EXPECT_TRUE(fs::exists(fileOf(volume)));
    EXPECT_FALSE(fs::exists(fileOf(second)));
    EXPECT_EQ(
        log.count(LOG_ERR, "The snapshot of " + volume.device() +
                               " may be held though its command failed: relocation file " + fileOf(volume) +
                               " is kept; run reconcile when process " + std::to_string(client.id()) + " has ended.\n"),
        1u)
        << log.dump();
    client.kill();
  }
  DriverClient next(session);
  EXPECT_EQ(next.reconcile(), 0u);
  EXPECT_EQ(next.snapped(), Json::array());
  EXPECT_FALSE(fs::exists(fileOf(volume)));
}

TEST_P(LostAnswer, the_driver_that_cannot_be_asked_then_costs_no_file) {
  // The first count is that of the relocation files on the volume, before the snap.
  Session session({"--inject", "snap:1:lost=EIO", "--inject", "count-snapped:2:EIO"});
  {
    DriverClient client(session);
    EXPECT_EQ(client.snap({request(volume)}).result, 6);
    EXPECT_EQ(session.takeComplaints(2).size(), 2u);
    EXPECT_EQ(client.snapped().size(), 1u);
    EXPECT_EQ(client.mappings().size(), 1u);
    EXPECT_TRUE(fs::exists(fileOf(volume)));
    client.kill();
  }
  DriverClient next(session);
  EXPECT_EQ(next.reconcile(), 0u);
  EXPECT_FALSE(fs::exists(fileOf(volume)));
}

TEST_P(LostAnswer, another_set_of_the_same_process_is_left_alone) {
  Session session({"--inject", "snap:2:lost=EIO"});
  DriverClient client(session);
  EXPECT_EQ(client.snap({request(second)}).result, 0);
  EXPECT_EQ(client.snap({request(volume)}).result, 6);
  EXPECT_EQ(session.takeComplaints(1).size(), 1u);
  ASSERT_EQ(client.snapped().size(), 1u);
  EXPECT_EQ(client.snapped()[0]["volume"], second.device());
  EXPECT_TRUE(fs::exists(fileOf(second)));
  EXPECT_FALSE(fs::exists(fileOf(volume)));
  EXPECT_EQ(client.unsnap({second.device()}), 0u);
}

// The job of an engine tells of the failure as ever.
TEST_P(LostAnswer, a_set_of_an_agent_fails_with_6_and_leaves_nothing) {
  Session session({"--inject", "snap:1:lost=EIO"});
  Agent agent(session);
  Engine engine = agent.openedSet({&volume, &second});
  EXPECT_EQ(engine.snap(), 6);
  EXPECT_EQ(session.takeComplaints(1).size(), 1u);
  EXPECT_EQ(engine.release(), 0u);
}

}  // namespace
