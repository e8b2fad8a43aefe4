// SPDX-License-Identifier: Apache-2.0
//
// An agent dies; the next one reconciles. Nothing of the dead one is left, nothing of a living one is touched, and a
// second reconcile finds nothing to do.
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <memory>
#include <optional>
#include <thread>

#include "Agent.h"
#include "Base.h"
#include "DriverClient.h"
#include "Leftovers.h"
#include "MountList.h"
#include "OwnWorld.h"

namespace fs = std::filesystem;

namespace {

using test::Agent;
using test::AgentGone;
using test::Base;
using test::DriverClient;
using test::Engine;
using test::LoopDevice;
using test::Mounted;
using test::Session;
using test::Volume;

using Texts = std::vector<std::string>;

// A volume with another one mounted in it.
class NestedPair {
 public:
  NestedPair() : mInnerLoop(16 << 20), mInnerFolder(mOuter.folder() + "/inner") {
    mInnerLoop.mkfs("ext4", {"-b", "4096"});
    fs::create_directory(mInnerFolder);
    mInner.emplace(mInnerLoop.path(), mInnerFolder, "ext4");
    test::writeFile(mOuter.folder() + "/file", "then");
    test::writeFile(mInnerFolder + "/file", "then");
  }
  const std::string& outerFolder() const { return mOuter.folder(); }
  const std::string& innerFolder() const { return mInnerFolder; }
  const std::string& outerDevice() const { return mOuter.device(); }
  const std::string& innerDevice() const { return mInnerLoop.path(); }

 private:
  const Volume mOuter{"ext4", 16 << 20, {"-b", "4096"}};
  const LoopDevice mInnerLoop;
  const std::string mInnerFolder;
  std::optional<Mounted> mInner;
};

// An open set of both, with relocation files so small that making them takes few steps.
Engine openedSet(Agent& agent, const NestedPair& volumes) {
  Engine engine = agent.engine();
  EXPECT_EQ(engine.start(), S_OK);
  EXPECT_EQ(engine.add(volumes.outerDevice(), volumes.outerFolder()), S_OK);
  EXPECT_EQ(engine.add(volumes.innerDevice(), volumes.innerFolder()), S_OK);
  EXPECT_EQ(engine.setRelocation(0, volumes.outerFolder(), 2), S_OK);
  EXPECT_EQ(engine.setRelocation(1, volumes.innerFolder(), 2), S_OK);
  return engine;
}

void liveWholeLife(Agent& agent, const NestedPair& volumes, const Base& base) {
  Engine engine = openedSet(agent, volumes);
  EXPECT_EQ(engine.snap(), 0);
  EXPECT_EQ(engine.expose(base.path()), S_OK);
  engine.unexpose();
  EXPECT_EQ(engine.deleteSet(), S_OK);
  engine.release();
}

// The agent that lives on: one exposed snapshot, to be found as it was at any time.
class LivingAgent {
 public:
  explicit LivingAgent(Session& session) : mAgent(session), mEngine(mAgent.openedSet({&mVolume})) {
    test::writeFile(mVolume.folder() + "/file", "then");
    EXPECT_EQ(mEngine.snap(), 0);
    test::writeFile(mVolume.folder() + "/file", "now");
    EXPECT_EQ(mEngine.expose(mBase.path()), S_OK);
    mRelocationFile = mEngine.properties(0)["relocation_file"];
  }
  ~LivingAgent() {
    mEngine.unexpose();
    EXPECT_EQ(mEngine.deleteSet(), S_OK);
    mEngine.release();
  }
  const std::string& device() const { return mVolume.device(); }
  const std::string& relocationFile() const { return mRelocationFile; }
  void expectUntouched() const {
    EXPECT_EQ(test::readFile(mBase.at(mVolume.folder()) + "/file"), "then");
    EXPECT_EQ(access(mRelocationFile.c_str(), F_OK), 0);
  }

 private:
  const Volume mVolume{"ext4", 16 << 20};
  const Base mBase{{mVolume.folder()}};
  Agent mAgent;
  Engine mEngine;
  std::string mRelocationFile;
};

// The names of the volumes in a listing.
Texts volumesIn(const test::Json& listing) {
  Texts volumes;
  for (const test::Json& entry : listing) volumes.push_back(entry["volume"]);
  return volumes;
}

// What a test finds in relocation areas beside the living agent's file. A folder is made before its file and goes after
// it: an empty one may stay, and is removed here.
Texts remainsBeside(const LivingAgent& living) {
  Texts found;
  for (const std::string& path : test::relocationRemains()) {
    const bool isFolder = fs::path(path).filename() == ".verrelocarea";
    if (path == living.relocationFile() || (isFolder && path == fs::path(living.relocationFile()).parent_path()))
      continue;
    if (path.find("/base/") != std::string::npos) continue;  // the living agent's snapshot shows its own
    if (isFolder && rmdir(path.c_str()) == 0) continue;
    found.push_back(path);
  }
  return found;
}

// That the next agent's reconcile leaves nothing of the dead one, and everything of the living one.
void expectReconciled(Session& session, const LivingAgent& living, const Base& base) {
  Agent agent(session);
  Engine engine = agent.engine();
  EXPECT_EQ(engine.reconcile(base.path()), S_OK);
  DriverClient driver(session);
  EXPECT_EQ(volumesIn(driver.snapped()), Texts{living.device()});
  EXPECT_EQ(volumesIn(driver.mappings()), Texts{living.device()});
  EXPECT_EQ(test::mountsUnder(base.path()), Texts());
  EXPECT_EQ(test::snapshotNodes().size(), 1u);
  living.expectUntouched();

  agent.countSteps();
  EXPECT_EQ(engine.reconcile(base.path()), S_OK);
  // The lists, and the driver's own look at its volumes: nothing else.
  EXPECT_EQ(agent.takenSteps(),
            (Texts{"ioctl 11", "ioctl 12", "ioctl 15", "ioctl 16", "ioctl 11", "ioctl 12", "ioctl 25"}));
  living.expectUntouched();
  engine.release();
}

// ---- at every step

constexpr unsigned int kShares = 4;

class KillAtEveryStep : public testing::TestWithParam<unsigned int> {};

TEST_P(KillAtEveryStep, leaves_nothing_after_a_reconcile) {
  const NestedPair volumes;
  Session session;
  const LivingAgent living(session);
  Texts steps;
  {
    const Base base({volumes.outerFolder()});
    Agent agent(session);
    agent.countSteps();
    liveWholeLife(agent, volumes, base);
    steps = agent.takenSteps();
  }
  ASSERT_GT(steps.size(), 40u);
  for (std::size_t step = GetParam(); step < steps.size(); step += kShares) {
    SCOPED_TRACE("killed before step " + std::to_string(step + 1) + ": " + steps[step]);
    const Base base({volumes.outerFolder()});
    Agent agent(session);
    agent.countSteps(static_cast<unsigned int>(step + 1));
    EXPECT_THROW(liveWholeLife(agent, volumes, base), AgentGone);
    EXPECT_EQ(agent.process().wait(), 128 + SIGKILL);
    expectReconciled(session, living, base);
    Texts remains = remainsBeside(living);
    // The probe of a folder for writability is a file for a moment; the next probe there takes it away.
    if (steps[step].starts_with("unlink ") && steps[step].ends_with("/qorTESTfile.KQTA")) {
      EXPECT_EQ(remains, Texts{steps[step].substr(7)});
      for (const std::string& probe : remains) unlink(probe.c_str());
      remains.clear();
    }
    EXPECT_EQ(remains, Texts());
    if (testing::Test::HasFailure()) break;
  }
}

INSTANTIATE_TEST_SUITE_P(Share, KillAtEveryStep, testing::Range(0u, kShares));

// ---- at any moment

TEST(KillAtAnyMoment, leaves_nothing_after_a_reconcile) {
  const NestedPair volumes;
  Session session;
  const LivingAgent living(session);
  std::chrono::steady_clock::duration life;
  {
    const Base base({volumes.outerFolder()});
    Agent agent(session);
    const auto begin = std::chrono::steady_clock::now();
    liveWholeLife(agent, volumes, base);
    life = std::chrono::steady_clock::now() - begin;
  }
  constexpr int kKills = 16;
  for (int i = 0; i < kKills; ++i) {
    SCOPED_TRACE("kill " + std::to_string(i));
    const Base base({volumes.outerFolder()});
    Agent agent(session);
    std::thread killer([&, delay = life * i / kKills] {
      std::this_thread::sleep_for(delay);
      agent.process().signal(SIGKILL);
    });
    try {
      liveWholeLife(agent, volumes, base);
    } catch (const AgentGone&) {
    }
    killer.join();
    agent.kill();
    expectReconciled(session, living, base);
    for (const std::string& path : remainsBeside(living)) {
      EXPECT_TRUE(path.ends_with("/qorTESTfile.KQTA")) << path;
      unlink(path.c_str());
    }
  }
}

// ---- at moments that matter

TEST(KilledAgent, leaves_its_snapshots_until_the_next_one_reconciles) {
  const NestedPair volumes;
  Session session;
  const LivingAgent living(session);
  Agent agent(session);
  Engine engine = openedSet(agent, volumes);
  ASSERT_EQ(engine.snap(), 0);
  const Texts files = {engine.properties(0)["relocation_file"], engine.properties(1)["relocation_file"]};
  agent.kill();
  {
    DriverClient driver(session);
    EXPECT_EQ(driver.snapped().size(), 3u);
    EXPECT_EQ(driver.mappings().size(), 3u);
    for (const std::string& file : files) EXPECT_EQ(access(file.c_str(), F_OK), 0);
  }
  const Base base({});
  expectReconciled(session, living, base);
  EXPECT_EQ(remainsBeside(living), Texts());
}

TEST(KilledAgent, leaves_its_mounts_until_the_next_one_reconciles_under_its_base) {
  const NestedPair volumes;
  Session session;
  const LivingAgent living(session);
  const Base base({volumes.outerFolder()});
  Agent agent(session);
  Engine engine = openedSet(agent, volumes);
  ASSERT_EQ(engine.snap(), 0);
  ASSERT_EQ(engine.expose(base.path()), S_OK);
  agent.kill();
  EXPECT_EQ(test::mountsUnder(base.path()), (Texts{base.at(volumes.outerFolder()), base.at(volumes.innerFolder())}));
  expectReconciled(session, living, base);
  EXPECT_EQ(remainsBeside(living), Texts());
  EXPECT_EQ(access(base.at(volumes.outerFolder()).c_str(), F_OK), -1) << "the folder of a mount goes with it";
}

TEST(KilledAgent, does_not_keep_the_next_one_from_the_same_volumes) {
  const NestedPair volumes;
  Session session;
  const Base base({volumes.outerFolder()});
  Agent agent(session);
  Engine engine = openedSet(agent, volumes);
  ASSERT_EQ(engine.snap(), 0);
  agent.kill();
  Agent next(session);
  Engine early = openedSet(next, volumes);
  EXPECT_EQ(early.snap(), 12) << "until a reconcile they are snapped";
  early.release();
  Engine reconciler = next.engine();
  EXPECT_EQ(reconciler.reconcile(base.path()), S_OK);
  reconciler.release();
  liveWholeLife(next, volumes, base);
}

TEST(Reconcile, leaves_mounts_below_a_base_with_a_longer_name_alone) {
  const Volume volume("ext4", 16 << 20);
  const test::TempDir dir;
  const std::string livingBase = dir / "base2";
  fs::create_directories(livingBase + volume.folder());
  Session session;
  Agent agent(session);
  Engine engine = agent.openedSet({&volume});
  ASSERT_EQ(engine.snap(), 0);
  ASSERT_EQ(engine.expose(livingBase), S_OK);
  fs::create_directory(dir / "base");
  Agent other(session);
  Engine reconciler = other.engine();
  EXPECT_EQ(reconciler.reconcile(dir / "base"), S_OK);
  EXPECT_EQ(test::mountsUnder(livingBase).size(), 1u);
  engine.unexpose();
  EXPECT_EQ(engine.deleteSet(), S_OK);
  engine.release();
  reconciler.release();
}

// The file of the living agent is found a second time, under a path that the driver does not know.
TEST(Reconcile, leaves_a_living_agents_relocation_file_alone_where_another_mount_shows_it) {
  for (const bool bound : {false, true}) {
    SCOPED_TRACE(bound ? "a bind mount" : "a second mount of the device");
    const Volume volume("ext4", 16 << 20);
    const test::TempDir folder;
    const Mounted second(bound ? volume.folder() : volume.device(), folder.path(), bound ? "" : "ext4",
                         bound ? MS_BIND : 0);
    test::writeFile(volume.folder() + "/file", "then");
    const Base base({volume.folder()});
    Session session;
    Agent agent(session);
    Engine engine = agent.openedSet({&volume});
    ASSERT_EQ(engine.snap(), 0);
    test::writeFile(volume.folder() + "/file", "now");
    const std::string file = engine.properties(0)["relocation_file"];
    const std::string elsewhere = second.folder() + "/.verrelocarea/" + fs::path(file).filename().string();
    ASSERT_TRUE(fs::equivalent(file, elsewhere)) << file << ", " << elsewhere;

    Agent other(session);
    Engine reconciler = other.engine();
    EXPECT_EQ(reconciler.reconcile(), S_OK);
    reconciler.release();
    EXPECT_EQ(access(file.c_str(), F_OK), 0);
    DriverClient driver(session);
    EXPECT_EQ(volumesIn(driver.snapped()), Texts{volume.device()});
    EXPECT_EQ(volumesIn(driver.mappings()), Texts{volume.device()});

    ASSERT_EQ(engine.expose(base.path()), S_OK);
    EXPECT_EQ(test::readFile(base.at(volume.folder()) + "/file"), "then");
    engine.unexpose();
    EXPECT_EQ(engine.deleteSet(), S_OK);
    EXPECT_FALSE(fs::exists(file));
    EXPECT_EQ(volumesIn(driver.snapped()), Texts());
    engine.release();
  }
}

TEST(Reconcile, removes_relocation_files_that_nobody_knows_of_and_keeps_a_folder_that_holds_more) {
  const Volume volume("ext4", 16 << 20);
  const Volume second("ext4", 16 << 20);
  Session session;
  fs::create_directory(volume.folder() + "/.verrelocarea");
  test::writeFile(volume.folder() + "/.verrelocarea/loop99", "orphan");
  fs::create_directories(second.folder() + "/.verrelocarea/folder");
  test::writeFile(second.folder() + "/.verrelocarea/loop98", "orphan");
  Agent agent(session);
  Engine engine = agent.engine();
  EXPECT_EQ(engine.reconcile(), S_OK);
  EXPECT_FALSE(fs::exists(volume.folder() + "/.verrelocarea"));
  EXPECT_TRUE(fs::exists(second.folder() + "/.verrelocarea/folder"));
  EXPECT_FALSE(fs::exists(second.folder() + "/.verrelocarea/loop98"));
  engine.release();
  test::removeTree(second.folder() + "/.verrelocarea");
}

}  // namespace
