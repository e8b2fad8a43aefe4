// SPDX-License-Identifier: Apache-2.0
//
// Volumes mounted in one another, one volume under several mount points, live directories beside the snapshots.
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include "Agent.h"
#include "Base.h"
#include "MountList.h"
#include "Tree.h"

namespace {

using test::Agent;
using test::Base;
using test::Engine;
using test::LoopDevice;
using test::Mounted;
using test::Session;
using test::Volume;

using Texts = std::vector<std::string>;

// ext4 with xfs mounted inside it, and ext4 again inside that.
struct NestedVolumes {
  NestedVolumes() { test::writeFile(deepFolder + "/file", "deep"); }

  const Volume top{"ext4", 64 << 20};
  const LoopDevice middleLoop{300 << 20};
  const LoopDevice deepLoop{32 << 20};
  const std::string middleFolder = madeWithFileSystem(middleLoop, "xfs", top.folder() + "/middle");
  const Mounted middle{middleLoop.path(), middleFolder, "xfs"};
  const std::string deepFolder = madeWithFileSystem(deepLoop, "ext4", middleFolder + "/inside/deep");
  const Mounted deep{deepLoop.path(), deepFolder, "ext4"};

 private:
  static std::string madeWithFileSystem(const LoopDevice& loop, const std::string& type, const std::string& folder) {
    loop.mkfs(type);
    std::filesystem::create_directories(folder);
    return folder;
  }
};

// The targets of the engine's successful mounts and unmounts, in their order: "mount X", "umount X".
Texts mountsAndUnmounts(const Texts& messages) {
  Texts found;
  for (const std::string& message : messages) {
    if (message.find("SUCCEEDED!") == std::string::npos) continue;
    const std::size_t target = message.find("\", \"");
    if (message.starts_with("DoMount: mount( ")) {
      found.push_back("mount " + message.substr(target + 4, message.find('"', target + 4) - target - 4));
    } else if (const std::size_t start = message.find(": umount( "); start != std::string::npos) {
      found.push_back("umount " + message.substr(start + 10, message.find(" )", start) - start - 10));
    }
  }
  return found;
}

TEST(NestedMounts, of_three_levels_are_exposed_shallow_first_and_undone_deep_first) {
  const NestedVolumes volumes;
  const Base base({volumes.top.folder()});
  Session session;
  Agent agent(session);
  Engine engine = agent.engine();
  ASSERT_EQ(engine.start(), S_OK);
  // In no good order.
  ASSERT_EQ(engine.add(volumes.deepLoop.path(), volumes.deepFolder), S_OK);
  ASSERT_EQ(engine.add(volumes.top), S_OK);
  ASSERT_EQ(engine.add(volumes.middleLoop.path(), volumes.middleFolder), S_OK);
  ASSERT_EQ(engine.snap(), 0);
  test::writeFile(volumes.deepFolder + "/file", "changed");
  agent.messages();
  ASSERT_EQ(engine.expose(base.path()), S_OK);
  const std::string top = base.at(volumes.top.folder());
  const std::string middle = base.at(volumes.middleFolder);
  const std::string deep = base.at(volumes.deepFolder);
  EXPECT_EQ(test::readFile(deep + "/file"), "deep");
  EXPECT_EQ(test::mountsUnder(base.path()), (Texts{top, middle, deep}));
  engine.unexpose();
  EXPECT_EQ(mountsAndUnmounts(agent.messages()), (Texts{"mount " + top, "mount " + middle, "mount " + deep,
                                                        "umount " + deep, "umount " + middle, "umount " + top}));
  EXPECT_EQ(engine.deleteSet(), S_OK);
  engine.release();
}

// The middle one's snapshot brings the folder for the deep one: without it there is none.
TEST(NestedMounts, with_a_gap_are_refused_and_everything_is_undone) {
  const NestedVolumes volumes;
  const Base base({volumes.top.folder()});
  Session session;
  Agent agent(session);
  Engine engine = agent.engine();
  ASSERT_EQ(engine.start(), S_OK);
  ASSERT_EQ(engine.add(volumes.top), S_OK);
  ASSERT_EQ(engine.add(volumes.deepLoop.path(), volumes.deepFolder), S_OK);
  ASSERT_EQ(engine.snap(), 0);
  EXPECT_EQ(engine.expose(base.path()), E_UNEXPECTED);
  EXPECT_EQ(test::mountsUnder(base.path()), Texts());
  EXPECT_EQ(engine.deleteSet(), S_OK);
  engine.release();
}

TEST(OneDevice, under_two_mount_points_is_one_snapshot_that_is_exposed_under_both) {
  const Volume volume("ext4", 32 << 20);
  const test::TempDir second;
  const Mounted bound(volume.folder(), second.path(), "", MS_BIND);
  test::writeFile(volume.folder() + "/file", "then");
  const Base base({volume.folder(), second.path()});
  Session session;
  Agent agent(session);
  Engine engine = agent.openedSet({&volume});
  ASSERT_EQ(engine.add(volume.device(), second.path()), S_OK);
  EXPECT_EQ(engine.snapshot(0), engine.snapshot(1));
  ASSERT_EQ(engine.snap(), 0);
  EXPECT_EQ(session.trace("snap").at(0)["volumes"].size(), 1u);
  const test::Json properties = engine.properties(0);
  EXPECT_EQ(properties["count"], 1);
  EXPECT_EQ(properties["mount_points"], test::Json::array({volume.folder(), second.path()}));
  test::writeFile(second / "file", "now");

  ASSERT_EQ(engine.expose(base.path()), S_OK);
  EXPECT_EQ(test::readFile(base.at(volume.folder()) + "/file"), "then");
  EXPECT_EQ(test::readFile(base.at(second.path()) + "/file"), "then");
  struct stat here, there;
  ASSERT_EQ(stat(base.at(volume.folder()).c_str(), &here), 0);
  ASSERT_EQ(stat(base.at(second.path()).c_str(), &there), 0);
  EXPECT_EQ(here.st_dev, there.st_dev);
  EXPECT_EQ(test::mountsUnder(base.path()).size(), 2u);
  engine.unexpose();
  EXPECT_EQ(engine.deleteSet(), S_OK);
  engine.release();
}

TEST(AlternateSet, shows_live_mount_points_beside_the_snapshots_and_is_gone_afterwards) {
  const Volume volume("ext4", 32 << 20);
  const Volume live("ext4", 32 << 20);
  test::writeFile(volume.folder() + "/file", "then");
  test::writeFile(live.folder() + "/file", "then");
  const Base base({volume.folder(), live.folder()});
  Session session;
  Agent agent(session);
  Engine engine = agent.openedSet({&volume});
  ASSERT_EQ(engine.addAlternate(live.folder()), S_OK);
  EXPECT_EQ(engine.addAlternate(live.folder() + "/lost+found"), E_INVALIDARG) << "no mount point";
  ASSERT_EQ(engine.snap(), 0);
  ASSERT_EQ(engine.expose(base.path()), S_OK);
  test::writeFile(volume.folder() + "/file", "now");
  test::writeFile(live.folder() + "/file", "now");
  EXPECT_EQ(test::readFile(base.at(volume.folder()) + "/file"), "then");
  EXPECT_EQ(test::readFile(base.at(live.folder()) + "/file"), "now");
  engine.unexpose();
  EXPECT_EQ(test::mountsUnder(base.path()), Texts());
  EXPECT_EQ(engine.deleteSet(), S_OK);
  engine.release();
}

// A live mount point inside a snapshot's tree lies on the snapshot's own folder.
TEST(AlternateSet, fills_the_folder_that_a_volume_left_out_of_the_set_has_in_a_snapshot) {
  const NestedVolumes volumes;
  test::writeFile(volumes.middleFolder + "/file", "then");
  const Base base({volumes.top.folder()});
  Session session;
  Agent agent(session);
  Engine engine = agent.engine();
  ASSERT_EQ(engine.start(), S_OK);
  ASSERT_EQ(engine.add(volumes.top), S_OK);
  ASSERT_EQ(engine.addAlternate(volumes.middleFolder), S_OK);
  ASSERT_EQ(engine.snap(), 0);
  ASSERT_EQ(engine.expose(base.path()), S_OK);
  test::writeFile(volumes.middleFolder + "/file", "now");
  EXPECT_EQ(test::readFile(base.at(volumes.middleFolder) + "/file"), "now");
  engine.unexpose();
  EXPECT_EQ(engine.deleteSet(), S_OK);
  engine.release();
}

}  // namespace
