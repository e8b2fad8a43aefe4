// SPDX-License-Identifier: Apache-2.0
//
// A user plants links where root mounts and unmounts: nothing happens outside of the base.
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>

#include "Agent.h"
#include "Base.h"
#include "MountList.h"
#include "Run.h"
#include "User.h"

namespace fs = std::filesystem;

namespace {

using test::Agent;
using test::asUser;
using test::Base;
using test::Engine;
using test::kUser;
using test::LoopDevice;
using test::Mounted;
using test::Session;
using test::TempDir;
using test::Volume;

using Texts = std::vector<std::string>;

// A volume whose top is a user's, with another volume mounted at .../theirs/inner, and what the user has an eye on: a
// directory of root's with a folder "inner".
class Planted : public testing::Test {
 protected:
  void lay(const std::string& type, bool bound) {
    outer.emplace(type, type == "xfs" ? 300 << 20 : 32 << 20);
    top = outer->folder();
    openToUsers(fs::path(top).parent_path());
    if (bound) {
      openToUsers(elsewhere.path());
      bind.emplace(top, elsewhere.path(), "", MS_BIND);
      top = elsewhere.path();
    }
    ASSERT_EQ(chown(top.c_str(), kUser, kUser), 0);
    fs::create_directories(top + "/theirs/inner");
    inner.emplace(innerLoop.path(), top + "/theirs/inner", "ext4");
    fs::create_directory(victim / "inner");
  }
  static void openToUsers(const fs::path& folder) { ASSERT_EQ(chmod(folder.c_str(), 0755), 0); }

  // What a user does at the moment that matters.
  void swapFolderForLink() const {
    ASSERT_TRUE(asUser([&] {
      return rename((top + "/theirs").c_str(), (top + "/moved").c_str()) == 0 &&
             symlink(victim.path().c_str(), (top + "/theirs").c_str()) == 0;
    }));
  }
  // The session looks for its mounts where they were.
  void swapBack() const {
    fs::remove(top + "/theirs");
    fs::rename(top + "/moved", top + "/theirs");
  }

  TempDir elsewhere;
  TempDir victim;
  LoopDevice innerLoop{16 << 20};
  std::optional<Volume> outer;
  std::optional<Mounted> bind;
  std::optional<Mounted> inner;
  std::string top;
};

class PlantedOn : public Planted, public testing::WithParamInterface<std::pair<const char*, bool>> {};

TEST_P(PlantedOn, a_link_in_the_snapshot_above_a_nested_volume_is_a_mount_that_fails_with_ELOOP) {
  innerLoop.mkfs("ext4");
  ASSERT_NO_FATAL_FAILURE(lay(GetParam().first, GetParam().second));
  const Base base({top});
  Session session;
  Agent agent(session);
  Engine engine = agent.engine();
  ASSERT_EQ(engine.start(), S_OK);
  ASSERT_EQ(engine.add(outer->device(), top), S_OK);
  ASSERT_EQ(engine.add(innerLoop.path(), top + "/theirs/inner"), S_OK);
  ASSERT_NO_FATAL_FAILURE(swapFolderForLink());
  ASSERT_EQ(engine.snap(), 0);
  EXPECT_EQ(engine.expose(base.path()), E_UNEXPECTED);
  EXPECT_EQ(test::mountsUnder(victim.path()), Texts());
  EXPECT_EQ(test::mountsUnder(base.path()), Texts());
  const std::string failure = "DoMount: mount( \"/dev/snap7_" + std::to_string(innerLoop.minor()) + "\", \"" +
                              base.at(top) + "/theirs/inner\", \"ext4\", MS_MGC_VAL | MS_RDONLY, NULL ) FAILED! " +
                              "Error: #40, {Too many levels of symbolic links}";
  bool told = false;
  for (const std::string& message : agent.messages()) told |= message.find(failure) != std::string::npos;
  EXPECT_TRUE(told);
  EXPECT_EQ(engine.deleteSet(), S_OK);
  engine.release();
  swapBack();
}

INSTANTIATE_TEST_SUITE_P(Volumes, PlantedOn,
                         testing::Values(std::pair("ext4", false), std::pair("xfs", false), std::pair("ext4", true)));

TEST_F(Planted, a_link_above_a_nested_bind_leads_no_unmount_to_another_mount) {
  innerLoop.mkfs("ext4");
  ASSERT_NO_FATAL_FAILURE(lay("ext4", false));
  const Volume volume("ext4", 32 << 20);
  const Mounted precious("tests", victim / "inner", "tmpfs");
  Session session;
  const std::string user = std::to_string(kUser);
  const test::Ended ended =
      test::runScript(session, {"--volume", volume.device(), "--bind", top, "--bind", top + "/theirs/inner"},
                      "exec setpriv --reuid=" + user + " --regid=" + user + " --clear-groups /bin/sh -c 'mv " + top +
                          "/theirs " + top + "/moved && ln -s " + victim.path() + " " + top + "/theirs'");
  EXPECT_EQ(ended.code, 0) << ended.errors;
  EXPECT_EQ(test::mountsUnder(victim.path()), Texts{victim / "inner"});
  EXPECT_EQ(test::mountsUnder("/run"), Texts{"/run"});
  swapBack();
}

}  // namespace
