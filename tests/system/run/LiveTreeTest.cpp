// SPDX-License-Identifier: Apache-2.0
//
// Live folders that are bound below a base, one in another, with mounts that come and go in them: afterwards the live
// tree has the mounts and folders that it had before, however the kernel passes mounts on there.
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <optional>

#include "Agent.h"
#include "Base.h"
#include "MountList.h"
#include "OwnWorld.h"
#include "Run.h"

namespace fs = std::filesystem;

namespace {

using test::Agent;
using test::Base;
using test::Ended;
using test::Engine;
using test::LoopDevice;
using test::Mounted;
using test::Session;
using test::TempDir;
using test::Volume;

using Texts = std::vector<std::string>;

struct Case {
  const char* name;
  unsigned long propagation;  // of the outer live mount
  bool innerFirst;            // the order in which the binds are named
};

void PrintTo(const Case& tried, std::ostream* out) { *out << tried.name; }

// A live volume, another one mounted in it, and a mount that is never bound; all of them as they are to stay.
class LiveTree : public testing::TestWithParam<Case> {
 protected:
  LiveTree() {
    for (const char* folder : {"in", "below", "late"}) fs::create_directory(outer + "/" + folder);
    pass(MS_SHARED);
    if (GetParam().propagation != MS_SHARED) {
      // A slave needs a master, which passes on what is mounted there.
      master.emplace(outer, elsewhere.path(), "", MS_BIND);
      pass(GetParam().propagation);
    }
    innerLoop.mkfs("ext4");
    inner.emplace(innerLoop.path(), outer + "/in", "ext4");
    fs::create_directory(outer + "/in/folder");
    below.emplace("below", outer + "/below", "tmpfs");
    before = tree();
  }
  ~LiveTree() override {
    below.reset();
    inner.reset();
    master.reset();
  }
  void pass(unsigned long propagation) const {
    EXPECT_EQ(mount(nullptr, outer.c_str(), nullptr, propagation, nullptr), 0);
  }

  // Its mounts with the kernel's numbers, then its folders and files.
  Texts tree() const {
    Texts found;
    for (const test::MountLine& line : test::mountLines()) {
      if ((line.folder + "/").starts_with(outer + "/"))
        found.push_back(std::to_string(line.id) + " " + line.source + " on " + line.folder + " " + line.options);
    }
    for (const auto& entry : fs::recursive_directory_iterator(outer)) found.push_back(entry.path());
    std::sort(found.begin(), found.end());
    return found;
  }
  Texts binds() const { return GetParam().innerFirst ? Texts{outer + "/in", outer} : Texts{outer, outer + "/in"}; }
  // Where somebody mounts something while the binds stand: it is seen in the live tree too.
  std::string late() const { return GetParam().propagation == MS_SLAVE ? elsewhere / "late" : outer + "/late"; }
  std::string mountLate() const {
    return "mount -t tmpfs late " + late() + " && mkdir " + late() + "/deep && mount -t tmpfs deep " + late() + "/deep";
  }
  void expectLateThere() const {
    EXPECT_EQ(test::mountsUnder(outer + "/late"), (Texts{outer + "/late", outer + "/late/deep"}));
  }
  // That all is as it was, once what came late has gone.
  void expectAsBefore() const {
    for (const std::string& folder : {late() + "/deep", late()}) EXPECT_EQ(test::unmount(folder), 0) << folder;
    EXPECT_EQ(tree(), before);
  }

  const Volume live{"ext4", 32 << 20};
  const std::string outer = live.folder();
  const TempDir elsewhere;
  std::optional<Mounted> master;
  const LoopDevice innerLoop{16 << 20};
  std::optional<Mounted> inner;
  std::optional<Mounted> below;
  Texts before;
  const Volume volume{"ext4", 32 << 20};
};

INSTANTIATE_TEST_SUITE_P(
    Passed, LiveTree,
    testing::Values(Case{"to_peers", MS_SHARED, false}, Case{"to_peers_inner_named_first", MS_SHARED, true},
                    Case{"from_a_master", MS_SLAVE, false}, Case{"from_a_master_inner_named_first", MS_SLAVE, true},
                    Case{"nowhere", MS_PRIVATE, false}, Case{"nowhere_inner_named_first", MS_PRIVATE, true}),
    [](const auto& tried) { return std::string(tried.param.name); });

TEST_P(LiveTree, is_as_it_was_after_a_run) {
  Session session;
  const Texts named = binds();
  const Ended ended =
      test::runScript(session, {"--volume", volume.device(), "--bind", named[0], "--bind", named[1]},
                      "ls $MIRELSNAP_BASE" + outer + "/in; ls $MIRELSNAP_BASE" + outer + "/below; " + mountLate());
  EXPECT_EQ(ended.code, 0);
  EXPECT_EQ(ended.errors, "");
  EXPECT_EQ(ended.output, "folder\nlost+found\n") << "both are shown, and not what is mounted below";
  EXPECT_EQ(test::mountsUnder("/run"), Texts{"/run"});
  expectLateThere();
  expectAsBefore();
}

TEST_P(LiveTree, is_not_changed_while_the_binds_stand) {
  Session session;
  const Texts named = binds();
  const Ended ended = test::runScript(
      session, {"--volume", volume.device(), "--bind", named[0], "--bind", named[1]},
      "grep -c ' " + outer + "/in ' /proc/self/mountinfo; " + mountLate() + "; ls $MIRELSNAP_BASE" + outer + "/late");
  EXPECT_EQ(ended.output, "1\n");
  expectAsBefore();
}

TEST_P(LiveTree, is_as_it_was_after_a_killed_run_and_a_reconcile) {
  Session session;
  const Texts named = binds();
  test::Process killed =
      session.start(test::runArguments({"--volume", volume.device(), "--bind", named[0], "--bind", named[1]},
                                       {"/bin/sh", "-c", mountLate() + "; echo $$; exec sleep 60"}));
  ASSERT_TRUE(killed.writesLine()) << killed.errors();
  killed.kill();
  kill(std::stoi(killed.output()), SIGKILL);
  const Ended ended = session.run({MIRELSNAP_PROGRAM, "reconcile"});
  EXPECT_EQ(ended.code, 0) << ended.errors;
  EXPECT_EQ(test::mountsUnder("/run"), Texts{"/run"});
  expectLateThere();
  expectAsBefore();
}

// An agent binds as the library does, which keeps no bind to itself.
TEST_P(LiveTree, is_as_it_was_when_an_agent_has_deleted_its_set) {
  for (const bool unexposed : {true, false}) {
    SCOPED_TRACE(unexposed ? "unexposed before" : "still exposed");
    const Base base({volume.folder(), outer, outer + "/in"});
    Session session;
    Agent agent(session);
    Engine engine = agent.openedSet({&volume});
    for (const std::string& bind : binds()) ASSERT_EQ(engine.addAlternate(bind), S_OK);
    ASSERT_EQ(engine.snap(), 0);
    ASSERT_EQ(engine.expose(base.path()), S_OK);
    ASSERT_EQ(session.shell(mountLate()).code, 0);
    if (unexposed) engine.unexpose();
    EXPECT_EQ(engine.deleteSet(), S_OK);
    EXPECT_EQ(test::mountsUnder(base.path()), Texts());
    expectLateThere();
    expectAsBefore();
    engine.release();
  }
}

}  // namespace
