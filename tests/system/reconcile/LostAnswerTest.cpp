// SPDX-License-Identifier: Apache-2.0
//
// The driver takes the snapshots of a set, and the answer is lost: the call fails. No snapshot is held whose relocation
// file is gone.
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <optional>
#include <ostream>

#include "Agent.h"
#include "DriverClient.h"
#include "LogCapture.h"
#include "OwnWorld.h"
#include "Run.h"

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

void PrintTo(const FileSystemKind& kind, std::ostream* out) { *out << kind.type; }

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

// ---- a run

TEST_P(LostAnswer, a_run_whose_snapshot_cannot_be_discarded_says_what_is_left_and_what_to_do) {
  const test::TempDir folder;
  const test::Mounted bound(volume.folder(), folder.path(), "", MS_BIND);
  for (const std::string& path : {volume.folder(), bound.folder()}) {
    SCOPED_TRACE(path);
    Session session({"--inject", "snap:1:lost=EIO", "--inject", "discard:1:EIO"});
    const test::Ended ended = test::run(session, {"--volume", path}, {"/bin/true"});
    EXPECT_EQ(session.takeComplaints(2).size(), 2u);
    EXPECT_EQ(ended.code, 118);
    EXPECT_EQ(ended.errors,
              "mirelsnap: " + volume.device() +
                  ": the driver refused the snapshot: ioctl(IOC_SNAP): Input/output error; look for MIRELSNAP_SDK in "
                  "the system log, or use --verbose\nmirelsnap: " +
                  volume.device() +
                  ": is snapped though the command failed: the driver refused to discard the snapshot: "
                  "ioctl(IOC_SNAP_DISCARD): Input/output error; run mirelsnap reconcile: that removes what is left\n");
    {
      DriverClient driver(session);
      EXPECT_EQ(driver.snapped().size(), 1u);
      EXPECT_EQ(driver.mappings().size(), 1u) << "the driver goes on writing to the file";
      EXPECT_TRUE(fs::exists(fileOf(volume)));
    }
    EXPECT_EQ(session.run({MIRELSNAP_PROGRAM, "reconcile"}).code, 0);
    EXPECT_FALSE(fs::exists(fileOf(volume)));
  }
}

TEST_P(LostAnswer, a_run_whose_relocation_file_is_moved_before_it_is_removed_says_so) {
  Session session({"--inject", "snap:1:lost=EIO"});
  test::Process run = session.start(test::runArguments({"--volume", volume.device()}, {"/bin/true"}),
                                    {.environment = test::withMischief("stop-before:20:1")});
  run.waitUntilStopped();
  const std::string area = volume.folder() + "/.verrelocarea";
  fs::rename(area, volume.folder() + "/moved");
  run.signal(SIGCONT);
  EXPECT_EQ(run.wait(), 118);
  EXPECT_EQ(session.takeComplaints(1).size(), 1u);
  EXPECT_NE(run.errors().find("mirelsnap: " + fileOf(volume) +
                              ": the relocation file could not be removed: unlink: No such file or directory; look for "
                              "it: it was moved, or what it lies on was\n"),
            std::string::npos)
      << run.errors();
  test::removeTree(volume.folder() + "/moved");
}

// Who owns the folder above a mount point puts a link in its place, which leads to an empty directory of root's.
TEST(FailedSnap, of_a_run_removes_no_directory_that_a_link_leads_to) {
  for (const bool bound : {false, true}) {
    SCOPED_TRACE(bound ? "a bind mount" : "the mount");
    const test::TempDir top, victim;
    fs::create_directories(top / "theirs/folder");
    fs::create_directories(victim / "folder/.verrelocarea");
    ASSERT_EQ(chmod((victim / "folder/.verrelocarea").c_str(), 0600), 0);
    const test::LoopDevice loop(32 << 20);
    loop.mkfs("ext4");
    const std::string path = top / "theirs/folder";
    const test::TempDir first;
    std::optional<test::Mounted> whole;
    if (bound) whole.emplace(loop.path(), first.path(), "ext4");
    {
      std::optional<test::Mounted> mounted;
      mounted.emplace(bound ? first.path() : loop.path(), path, bound ? "" : "ext4", bound ? MS_BIND : 0);
      Session session({"--inject", "snap:1:EIO", "--inject", "delete-mapping:1:EIO"});
      test::Process run = session.start(
          test::runArguments({"--volume", loop.path(), "--reloc-mount", path, "--reloc-size", "100"}, {"/bin/true"}),
          {.environment = test::withMischief("stop-after:19:1")});
      run.waitUntilStopped();
      fs::rename(top / "theirs", top / "moved");
      fs::create_symlink(victim.path(), top / "theirs");
      run.signal(SIGCONT);
      EXPECT_EQ(run.wait(), 116) << run.errors();
      EXPECT_EQ(session.takeComplaints(2).size(), 2u);
      EXPECT_TRUE(fs::exists(victim / "folder/.verrelocarea"));
      fs::remove(top / "theirs");
      fs::rename(top / "moved", top / "theirs");
      EXPECT_EQ(session.run({MIRELSNAP_PROGRAM, "reconcile"}).code, 0);
    }
  }
}

}  // namespace
