// SPDX-License-Identifier: Apache-2.0
//
// What a dead run left at its base is removed, and nothing besides.
#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>

#include "Agent.h"
#include "Base.h"
#include "MountList.h"
#include "OwnWorld.h"
#include "Run.h"
#include "StoppedProcess.h"

namespace fs = std::filesystem;

namespace {

using test::Agent;
using test::Base;
using test::Ended;
using test::Engine;
using test::Mounted;
using test::Session;
using test::StoppedProcess;
using test::TempDir;
using test::Volume;

using Texts = std::vector<std::string>;

class ReconcileBase : public testing::Test {
 protected:
  Ended reconcile(Texts options = {}) {
    options.insert(options.begin(), {MIRELSNAP_PROGRAM, "reconcile"});
    return session.run(options);
  }
  // A run that is killed while its command sleeps; the command ends too.
  pid_t killedRun(Texts options) {
    options.insert(options.begin(), {"--volume", volume.device()});
    test::Process killed = session.start(test::runArguments(options, {"/bin/sh", "-c", "echo $$; exec sleep 60"}));
    while (killed.running() && killed.output().empty()) usleep(1000);
    const pid_t process = killed.id();
    killed.kill();
    kill(std::stoi(killed.output()), SIGKILL);
    return process;
  }

  const TempDir dir;
  const Volume volume{"ext4", 32 << 20};
  const std::string snapshot = "/dev/snap7_" + std::to_string(volume.loop().minor());
  Session session;
};

// ---- what is nobody's

TEST_F(ReconcileBase, that_no_run_marked_keeps_its_empty_folders) {
  fs::create_directories(dir / "any/empty/folder");
  const Ended ended = reconcile({"--base", dir / "any"});
  EXPECT_EQ(ended.code, 0) << ended.errors;
  EXPECT_EQ(ended.output, "Nothing is left of dead processes.\n");
  EXPECT_TRUE(fs::exists(dir / "any/empty/folder"));
}

TEST_F(ReconcileBase, of_a_dead_agent_is_freed_of_its_snapshot_and_keeps_a_live_volume_and_empty_folders) {
  const Base base({volume.folder()});
  fs::create_directory(base.path() + "/live");
  fs::create_directory(base.path() + "/empty");
  {
    Agent agent(session);
    Engine engine = agent.openedSet({&volume});
    ASSERT_EQ(engine.snap(), 0);
    ASSERT_EQ(engine.expose(base.path()), S_OK);
    agent.kill();
  }
  {
    const Mounted live("precious", base.path() + "/live", "tmpfs");
    const Ended ended = reconcile({"--base", base.path()});
    EXPECT_EQ(ended.code, 118);
    EXPECT_EQ(ended.errors, "mirelsnap: " + base.path() +
                                "/live: is mounted there (precious), but not by an exposure: it was left alone; "
                                "unmount it if it is of no use\n");
    EXPECT_NE(ended.output.find("Removed the mount of " + snapshot + " on " + base.at(volume.folder()) + "\n"),
              std::string::npos);
    EXPECT_EQ(test::mountsUnder(base.path()), Texts{base.path() + "/live"});
  }
  EXPECT_FALSE(fs::exists(base.at(volume.folder())));
  EXPECT_TRUE(fs::exists(base.path() + "/empty"));
  fs::remove(base.path() + "/live");
  fs::remove(base.path() + "/empty");
}

TEST_F(ReconcileBase, of_its_own_that_a_dead_run_left_keeps_a_live_volume_that_is_mounted_there) {
  const std::string base = "/run/mirelsnap/" + std::to_string(killedRun({}));
  fs::create_directory(base + "/live");
  {
    const Mounted live("precious", base + "/live", "tmpfs");
    const Ended ended = reconcile();
    EXPECT_EQ(ended.code, 118);
    EXPECT_EQ(ended.errors, "mirelsnap: " + base +
                                "/live: is mounted there (precious), but not by an exposure: it was left alone; "
                                "unmount it if it is of no use\n");
    EXPECT_EQ(test::run(session, {"--volume", volume.device()}, {"/bin/true"}).code, 0);
    EXPECT_EQ(test::mountsUnder(base), Texts{base + "/live"});
  }
  fs::remove(base + "/live");
  EXPECT_EQ(reconcile().code, 0);
}

// ---- what is a dead run's

TEST_F(ReconcileBase, of_a_dead_run_is_removed_with_its_binds_and_the_folders_that_the_run_made_and_all_is_told) {
  const Volume live("ext4", 32 << 20);
  fs::create_directories(live.folder() + "/empty/empty");
  killedRun({"--base", dir / "new/base", "--bind", live.folder()});
  fs::create_directory(dir / "mine");
  const std::string base = dir / "new/base";
  const Ended ended = reconcile();
  EXPECT_EQ(ended.code, 0) << ended.errors;
  for (const std::string& line : {"mount of " + snapshot + " on " + base + volume.folder(),
                                  "mount of " + live.device() + " on " + base + live.folder(), "folder " + dir / "new"})
    EXPECT_NE(ended.output.find("Removed the " + line + "\n"), std::string::npos) << line << "\n" << ended.output;
  EXPECT_FALSE(fs::exists(dir / "new"));
  EXPECT_TRUE(fs::exists(dir / "mine"));
  EXPECT_TRUE(fs::exists(live.folder() + "/empty/empty"));
  EXPECT_EQ(reconcile().output, "Nothing is left of dead processes.\n");
}

TEST_F(ReconcileBase, of_a_dead_run_that_was_there_before_stays_with_what_else_is_in_it) {
  fs::create_directory(dir / "base");
  ASSERT_EQ(chmod((dir / "base").c_str(), 0755), 0);
  killedRun({"--base", dir / "base"});
  fs::create_directory(dir / "base/mine");
  const Ended ended = reconcile({"--base", dir / "base"});
  EXPECT_EQ(ended.code, 0) << ended.errors;
  EXPECT_NE(ended.output.find("Removed the folder " + dir / "base/snapshots" + "\n"), std::string::npos);
  EXPECT_TRUE(fs::exists(dir / "base/mine"));
  EXPECT_FALSE(fs::exists(dir / "base/snapshots"));
}

TEST_F(ReconcileBase, of_a_dead_run_is_found_again_whatever_bytes_its_name_has) {
  killedRun({"--base", dir / "two\nlines"});
  const Ended ended = reconcile();
  EXPECT_EQ(ended.code, 0) << ended.errors;
  EXPECT_NE(ended.output.find("Removed the folder " + dir / "two\\nlines" + "\n"), std::string::npos) << ended.output;
  EXPECT_TRUE(fs::is_empty(dir.path()));
}

// A run that is killed while it writes its record has made nothing yet.
TEST_F(ReconcileBase, in_a_record_that_was_not_written_to_its_end_is_left_alone) {
  fs::create_directory(dir / "any");
  fs::create_directory("/run/mirelsnap");
  test::writeFile("/run/mirelsnap/12-0.base", "base " + dir / "any" + '\0' + "folder " + dir / "any" + '\0');
  EXPECT_EQ(reconcile().code, 0);
  EXPECT_TRUE(fs::exists(dir / "any"));
  EXPECT_FALSE(fs::exists("/run/mirelsnap"));
}

TEST_F(ReconcileBase, of_a_living_run_is_refused_before_anything_is_mounted_there) {
  StoppedProcess run(session, test::runArguments({"--volume", volume.device(), "--base", dir / "base"}, {"/bin/true"}));
  while (!fs::exists(dir / "base")) ASSERT_TRUE(run.next());
  const Ended ended = reconcile({"--base", dir / "base"});
  EXPECT_EQ(ended.code, 2);
  EXPECT_EQ(ended.errors, "mirelsnap: " + dir / "base" + ": shows a snapshot of process " +
                              std::to_string(run.process().id()) + " (mirelsnap), which lives; wait until it ends\n");
  run.kill();
  EXPECT_EQ(reconcile().code, 0);
}

// However far a run got with its base: what it left is found again.
TEST_F(ReconcileBase, of_a_run_that_is_killed_before_any_of_its_steps_is_removed) {
  const Volume live("ext4", 32 << 20);
  const Texts arguments =
      test::runArguments({"--volume", volume.device(), "--base", dir / "base", "--bind", live.folder()}, {"/bin/true"});
  for (unsigned int step = 1;; ++step) {
    SCOPED_TRACE("killed before step " + std::to_string(step));
    StoppedProcess run(session, arguments);
    std::optional<long> call;
    for (unsigned int n = 0; n < step; ++n) {
      call = run.next();
      if (!call) break;
    }
    if (!call) {
      EXPECT_EQ(run.process().wait(), 0) << run.process().errors();
      EXPECT_GT(step, 20u);
      break;
    }
    run.kill();
    const Ended ended = reconcile();
    EXPECT_EQ(ended.code, 0) << ended.errors;
    EXPECT_EQ(test::mountsUnder(dir.path()), Texts());
    EXPECT_FALSE(fs::exists(dir / "base"));
    EXPECT_FALSE(fs::exists("/run/mirelsnap"));
    EXPECT_EQ(reconcile().output, "Nothing is left of dead processes.\n");
    if (HasFailure()) break;
  }
}

TEST_F(ReconcileBase, removes_an_empty_run_directory_and_tells_so) {
  fs::create_directory("/run/mirelsnap");
  const Ended ended = reconcile();
  EXPECT_EQ(ended.code, 0) << ended.errors;
  EXPECT_EQ(ended.output, "Removed the folder /run/mirelsnap\n");
  EXPECT_FALSE(fs::exists("/run/mirelsnap"));
}

TEST_F(ReconcileBase, takes_no_run_directory_that_is_a_users) {
  fs::create_directories("/run/mirelsnap/1/folder");
  ASSERT_EQ(chown("/run/mirelsnap", 4711, 4711), 0);
  const std::string line =
      "mirelsnap: /run/mirelsnap: belongs to user 4711; remove it or give it to root alone (mode 0700)\n";
  EXPECT_EQ(reconcile().errors, line);
  const Ended ended = test::run(session, {"--volume", volume.device()}, {"/bin/true"});
  EXPECT_EQ(ended.code, 117);
  EXPECT_EQ(ended.errors, line);
  EXPECT_TRUE(fs::exists("/run/mirelsnap/1/folder"));
  test::removeTree("/run/mirelsnap");
}

}  // namespace
