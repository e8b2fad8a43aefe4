// SPDX-License-Identifier: Apache-2.0
//
// What the mounts of exposed snapshots and of live folders allow: no more than the live ones.
#include <gtest/gtest.h>
#include <sys/mount.h>

#include <filesystem>

#include "MountList.h"
#include "OwnWorld.h"
#include "Run.h"

namespace fs = std::filesystem;

namespace {

using test::Ended;
using test::runScript;
using test::Session;
using test::Volume;

using Texts = std::vector<std::string>;

// The options of the mount at a path, as the command of a run sees them.
std::string optionsOf(const std::string& path) {
  return "awk -v at=" + path + " '$5 == at { print $6 }' /proc/self/mountinfo; ";
}

class ExposedMounts : public testing::Test {
 protected:
  void restrictLive(unsigned long flags) {
    ASSERT_EQ(mount(nullptr, volume.folder().c_str(), nullptr, MS_REMOUNT | MS_BIND | flags, nullptr), 0);
  }
  const Volume volume{"ext4", 32 << 20};
};

TEST_F(ExposedMounts, are_nosuid_nodev_and_noexec_where_the_live_ones_are) {
  const Volume other("xfs", 300 << 20);
  ASSERT_NO_FATAL_FAILURE(restrictLive(MS_NOSUID | MS_NODEV | MS_NOEXEC));
  Session session;
  const Ended ended = runScript(session, {"--volume", volume.device(), "--volume", other.device()},
                                optionsOf("$MIRELSNAP_VOLUME_1") + optionsOf("$MIRELSNAP_VOLUME_2"));
  EXPECT_EQ(ended.code, 0) << ended.errors;
  EXPECT_EQ(ended.output, "ro,nosuid,nodev,noexec,relatime\nro,relatime\n");
}

TEST_F(ExposedMounts, carry_each_restriction_by_itself) {
  const std::vector<std::pair<unsigned long, std::string>> restrictions = {
      {MS_NOSUID, "nosuid"}, {MS_NODEV, "nodev"}, {MS_NOEXEC, "noexec"}};
  Session session;
  for (const auto& [flag, name] : restrictions) {
    ASSERT_NO_FATAL_FAILURE(restrictLive(flag));
    EXPECT_EQ(runScript(session, {"--volume", volume.device()}, optionsOf("$MIRELSNAP_VOLUME_1")).output,
              "ro," + name + ",relatime\n");
  }
}

TEST_F(ExposedMounts, of_live_folders_that_are_bound_are_read_only_and_as_restricted_as_these) {
  const Volume live("ext4", 32 << 20);
  ASSERT_EQ(mount(nullptr, live.folder().c_str(), nullptr, MS_REMOUNT | MS_BIND | MS_NODEV, nullptr), 0);
  Session session;
  const Ended ended = runScript(session, {"--volume", volume.device(), "--bind", live.folder()},
                                optionsOf("$MIRELSNAP_BASE" + live.folder()) + "touch $MIRELSNAP_BASE" + live.folder() +
                                    "/file 2>/dev/null || echo refused; touch " + live.folder() + "/file && echo live");
  EXPECT_EQ(ended.code, 0) << ended.errors;
  EXPECT_EQ(ended.output, "ro,nodev,relatime\nrefused\nlive\n");
}

TEST_F(ExposedMounts, of_bound_folders_pass_no_mount_on_and_their_end_unmounts_nothing_live) {
  const Volume live("ext4", 32 << 20);
  fs::create_directory(live.folder() + "/late");
  ASSERT_EQ(mount(nullptr, live.folder().c_str(), nullptr, MS_SHARED, nullptr), 0);
  Session session;
  const Ended ended = runScript(session, {"--volume", volume.device(), "--bind", live.folder()},
                                "mount -t tmpfs tests " + live.folder() + "/late");
  EXPECT_EQ(ended.code, 0) << ended.errors;
  const Texts mounts = test::mountsUnder(live.folder());
  EXPECT_EQ(mounts, (Texts{live.folder(), live.folder() + "/late"}));
  test::unmount(live.folder() + "/late");
}

}  // namespace
