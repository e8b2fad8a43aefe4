// SPDX-License-Identifier: Apache-2.0
//
// One snapshot, mounted read-only.
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>

#include "EngineLog.h"
#include "FinishedSet.h"
#include "Locale.h"
#include "LoopVolume.h"
#include "OwnWorld.h"
#include "SnapshotDevice.h"
#include "SystemCalls.h"
#include "engine/GetDoneWrapper.h"

using namespace MirelSnapSnapshotCoordinator;
using test::wide;

namespace {

using Lines = std::vector<std::wstring>;
using Entry = MirelSnapshotEngine::MountPointInfoWithFolderDepth;
constexpr unsigned long kReadOnly = 0xC0ED0001;

// An entry that borrows its texts.
Entry entryOf(const std::string& target, const std::string& device, const char* type) {
  static char base[] = "/";
  return {1, 0, 0, const_cast<char*>(target.c_str()), const_cast<char*>(device.c_str()), const_cast<char*>(type), base};
}

bool isReadOnly(const std::string& folder) {
  struct statvfs status {};
  return statvfs(folder.c_str(), &status) == 0 && (status.f_flag & ST_RDONLY) != 0;
}

class DoMount : public testing::Test {
 protected:
  DoMount() : target(dir / "snapshot") { std::filesystem::create_directory(target); }

  std::wstring recorded(unsigned int volume, unsigned int mountPoint) {
    const GetDoneWrapper<MirelSnapshotVolumeParams> params(set->mSnapshotSetParams->GetAt(volume));
    return params->GetSnapVolumeMountPoint(mountPoint);
  }

  test::TempDir dir;
  std::string target;
  test::FinishedSet set;
};

}  // namespace

TEST_F(DoMount, an_ext4_snapshot_is_mounted_read_only_without_mount_data_shown_as_NULL_unquoted) {
  const test::Volume volume("ext4", 16 << 20);
  test::writeFile(volume.folder() + "/file", "then");
  const test::SnapshotDevice snapshot(volume);
  test::writeFile(volume.folder() + "/file", "now");
  set.add(volume.device(), volume.folder(), snapshot.path());
  test::EngineLog log;
  test::SystemCalls calls;
  EXPECT_EQ(set->DoMount(entryOf(target, snapshot.path(), "ext4")), 0);
  EXPECT_EQ(test::readFile(target + "/file"), "then");
  EXPECT_TRUE(isReadOnly(target));
  ASSERT_EQ(calls.mounts.size(), 1u);
  EXPECT_EQ(calls.mounts[0].source, snapshot.path());
  EXPECT_EQ(calls.mounts[0].target, target);
  EXPECT_EQ(calls.mounts[0].type, "ext4");
  EXPECT_EQ(calls.mounts[0].flags, kReadOnly);
  EXPECT_EQ(calls.mounts[0].data, "(null)");
  EXPECT_EQ(log.lines(), Lines{L"DoMount: mount( \"" + snapshot.wpath() + L"\", \"" + wide(target) +
                               L"\", \"ext4\", MS_MGC_VAL | MS_RDONLY, NULL ) SUCCEEDED!"});
  EXPECT_EQ(recorded(0, 0), wide(target));
  EXPECT_EQ(test::unmount(target), 0);
}

TEST_F(DoMount, an_xfs_snapshot_is_mounted_beside_its_live_volume_with_mount_data_in_quotes) {
  const test::Volume volume("xfs", 300 << 20);
  test::writeFile(volume.folder() + "/file", "then");
  const test::SnapshotDevice snapshot(volume);
  set.add(volume.device(), volume.folder(), snapshot.path());
  test::EngineLog log;
  test::SystemCalls calls;
  EXPECT_EQ(set->DoMount(entryOf(target, snapshot.path(), "xfs")), 0);
  EXPECT_EQ(test::readFile(target + "/file"), "then");
  EXPECT_TRUE(isReadOnly(target));
  ASSERT_EQ(calls.mounts.size(), 1u);
  EXPECT_EQ(calls.mounts[0].flags, kReadOnly);
  EXPECT_EQ(calls.mounts[0].data, "nouuid,norecovery");
  EXPECT_EQ(log.lines(), Lines{L"DoMount: mount( \"" + snapshot.wpath() + L"\", \"" + wide(target) +
                               L"\", \"xfs\", MS_MGC_VAL | MS_RDONLY, \"nouuid,norecovery\" ) SUCCEEDED!"});
  EXPECT_EQ(test::unmount(target), 0);
}

TEST_F(DoMount, a_failure_without_mount_data_is_told_and_answered_with_its_errno) {
  test::EngineLog log;
  EXPECT_EQ(set->DoMount(entryOf(target, "/dev/null", "ext4")), ENOTBLK);
  EXPECT_EQ(log.lines(),
            Lines{L"DoMount: mount( \"/dev/null\", \"" + wide(target) +
                  L"\", \"ext4\", MS_MGC_VAL | MS_RDONLY, NULL ) FAILED! Error: #15, {Block device required}"});
}

TEST_F(DoMount, a_failure_with_mount_data_is_told_and_answered_with_its_errno) {
  test::EngineLog log;
  EXPECT_EQ(set->DoMount(entryOf(target, "/dev/null", "xfs")), ENOTBLK);
  EXPECT_EQ(log.lines(),
            Lines{L"DoMount: mount( \"/dev/null\", \"" + wide(target) +
                  L"\", \"xfs\", MS_MGC_VAL | MS_RDONLY, \"nouuid,norecovery\" ) FAILED! Error: #15, {Block "
                  L"device required}"});
}

TEST_F(DoMount, only_exactly_xfs_gets_mount_data) {
  for (const char* type : {"XFS", "xfs2", "xf", ""}) {
    test::SystemCalls calls;
    EXPECT_NE(set->DoMount(entryOf(target, "/dev/null", type)), 0);
    ASSERT_EQ(calls.mounts.size(), 1u);
    EXPECT_EQ(calls.mounts[0].data, "(null)") << type;
  }
}

TEST_F(DoMount, a_failed_mount_is_not_recorded) {
  const test::Volume volume("ext4", 16 << 20);
  set.add(volume.device(), volume.folder(), "/dev/null");
  EXPECT_NE(set->DoMount(entryOf(target, "/dev/null", "ext4")), 0);
  EXPECT_EQ(recorded(0, 0), L"");
}

TEST_F(DoMount, a_node_that_is_there_is_not_waited_for) {
  test::SystemCalls calls;
  set->DoMount(entryOf(target, "/dev/null", "ext4"));
  EXPECT_EQ(calls.accesses, std::vector<std::string>{"/dev/null"});
  EXPECT_TRUE(calls.sleeps.empty());
}

TEST_F(DoMount, a_missing_node_is_looked_for_five_times_a_second_apart_and_then_mounted_all_the_same) {
  test::SystemCalls calls;
  EXPECT_EQ(set->DoMount(entryOf(target, "/dev/snap9_9", "ext4")), ENOENT);
  EXPECT_EQ(calls.accesses, std::vector<std::string>(5, "/dev/snap9_9"));
  EXPECT_EQ(calls.sleeps, std::vector<double>(5, 1.0));
  EXPECT_EQ(calls.mounts.size(), 1u);
}

TEST_F(DoMount, a_node_that_appears_meanwhile_is_mounted) {
  const test::Volume volume("ext4", 16 << 20);
  const test::SnapshotDevice snapshot(volume);
  const std::string late = snapshot.path() + "_late";
  set.add(volume.device(), volume.folder(), late);
  test::SystemCalls calls;
  calls.onSleep = [&](int n) { return n != 2 || link(snapshot.path().c_str(), late.c_str()) == 0; };
  EXPECT_EQ(set->DoMount(entryOf(target, late, "ext4")), 0);
  EXPECT_EQ(calls.sleeps, std::vector<double>(2, 1.0));
  EXPECT_EQ(test::unmount(target), 0);
  unlink(late.c_str());
}

TEST_F(DoMount, a_signal_does_not_shorten_the_wait) {
  test::SystemCalls calls;
  calls.onSleep = [](int n) { return n != 1; };
  set->DoMount(entryOf(target, "/dev/snap9_9", "ext4"));
  EXPECT_EQ(calls.sleeps, (std::vector<double>{1.0, 0.5, 1.0, 1.0, 1.0, 1.0}));
}

TEST_F(DoMount, the_mount_is_recorded_at_the_entrys_volume_and_mount_point) {
  const test::Volume first("ext4", 16 << 20);
  const test::Volume second("ext4", 16 << 20);
  const test::SnapshotDevice snapshot(second);
  set.add(first.device(), first.folder());
  const _SSGUIDPLAIN id = set.add(second.device(), second.folder(), snapshot.path());
  ASSERT_EQ(set->mSnapshotSetParams->Add(id, second.wdevice().c_str(), L"/elsewhere"), 2u);
  Entry entry = entryOf(target, snapshot.path(), "ext4");
  entry.volumeIndex = 1;
  entry.mountPointIndex = 1;
  EXPECT_EQ(set->DoMount(entry), 0);
  EXPECT_EQ(recorded(0, 0), L"");
  EXPECT_EQ(recorded(1, 0), L"");
  EXPECT_EQ(recorded(1, 1), wide(target));
  EXPECT_EQ(test::unmount(target), 0);
}

TEST_F(DoMount, a_volume_that_is_gone_meanwhile_leaves_the_mount_as_it_is) {
  const test::Volume volume("ext4", 16 << 20);
  const test::SnapshotDevice snapshot(volume);
  EXPECT_EQ(set->DoMount(entryOf(target, snapshot.path(), "ext4")), 0);
  EXPECT_EQ(test::unmount(target), 0);
}

TEST_F(DoMount, a_target_that_cannot_be_widened_stays_mounted_and_is_told) {
  const test::Volume volume("ext4", 16 << 20);
  const test::SnapshotDevice snapshot(volume);
  set.add(volume.device(), volume.folder(), snapshot.path());
  const test::Locale utf8(test::kUtf8);
  const std::string undecodable = dir / "\xff";
  std::filesystem::create_directory(undecodable);
  {
    test::EngineLog log;
    EXPECT_EQ(set->DoMount(entryOf(undecodable, snapshot.path(), "ext4")), 0);
    ASSERT_EQ(log.lines().size(), 2u);
    EXPECT_EQ(log.lines()[1],
              L"DoMount: ERROR: Unable to convert Mount Point (" + wide(dir.path()) + L"/\\xFF) to UNICODE!");
  }
  EXPECT_EQ(recorded(0, 0), L"");
  EXPECT_EQ(test::unmount(undecodable), 0);
}
