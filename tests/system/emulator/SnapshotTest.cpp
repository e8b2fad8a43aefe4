// SPDX-License-Identifier: Apache-2.0
//
// Snapshots of real volumes.
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include "EmulatorRun.h"
#include "World.h"

namespace {

TEST(Snap, gives_a_device_that_mounts_read_only_and_holds_what_the_volume_held) {
  const test::Volume volume("ext4", 32 << 20);
  test::writeFile(volume.folder() + "/file", "before");
  test::ClientRun run;
  test::SnapCandidate candidate(*run, volume.device());
  const auto snapped = run->issue(IOC_SNAP, test::snapCommand({candidate.wire()}));
  ASSERT_EQ(snapped.error, 0);
  EXPECT_EQ(snapped.status(), 0);
  test::writeFile(volume.folder() + "/file", "after");

  struct stat node;
  ASSERT_EQ(stat(candidate.node().c_str(), &node), 0);
  EXPECT_TRUE(S_ISBLK(node.st_mode));
  const test::TempDir folder;
  {
    const test::Mounted snapshot(candidate.node(), folder.path(), "ext4", MS_RDONLY);
    EXPECT_EQ(test::readFile(folder / "file"), "before");
    EXPECT_EQ(test::readFile(volume.folder() + "/file"), "after");
  }
  const auto discarded = run->issue(IOC_SNAP_DISCARD, test::discardCommand({candidate.device()}));
  EXPECT_EQ(discarded.error, 0);
  const auto record = discarded.command.record<DiscardEntry>();
  EXPECT_EQ(record.result, 0u);
  EXPECT_EQ(record.relocFileName, candidate.relocFile());
  EXPECT_NE(stat(candidate.node().c_str(), &node), 0);
  EXPECT_EQ(run.end(), 0) << run.emulator().errors();
}

}  // namespace
