// SPDX-License-Identifier: Apache-2.0
//
// Snapshots of real volumes.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <thread>

#include "EmulatorRun.h"
#include "Frozen.h"
#include "ProcessState.h"
#include "Waiting.h"
#include "World.h"
#include "base/Handle.h"

namespace {

using test::Client;
using test::ClientRun;
using test::SnapCandidate;
using test::Volume;

bool isBlockDevice(const std::string& path) {
  struct stat found;
  return stat(path.c_str(), &found) == 0 && S_ISBLK(found.st_mode);
}

bool isSnapped(Client& client, test::WireDevice device) {
  const auto outcome = client.issue(IOC_CHECK_VOLUME_SNAPPED, test::volumeCheckCommand(device));
  EXPECT_EQ(outcome.error, 0);
  return outcome.status() == -2;
}

TEST(Snap, gives_a_device_that_mounts_read_only_and_holds_what_the_volume_held) {
  const Volume volume("ext4", 32 << 20);
  test::writeFile(volume.folder() + "/file", "before");
  ClientRun run;
  SnapCandidate candidate(*run, volume.device());
  const auto snapped = run->issue(IOC_SNAP, test::snapCommand({candidate.wire()}));
  ASSERT_EQ(snapped.error, 0);
  EXPECT_EQ(snapped.status(), 0);
  test::writeFile(volume.folder() + "/file", "after");

  ASSERT_TRUE(isBlockDevice(candidate.node()));
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
  EXPECT_FALSE(isBlockDevice(candidate.node()));
  EXPECT_EQ(run.end(), 0);
  EXPECT_EQ(run.emulator().errors(), "");
}

TEST(Snap, of_an_xfs_volume_mounts_beside_the_live_one_without_recovery) {
  const Volume volume("xfs", 300 << 20);
  test::writeFile(volume.folder() + "/file", "before");
  ClientRun run;
  SnapCandidate candidate(*run, volume.device());
  ASSERT_EQ(run->issue(IOC_SNAP, test::snapCommand({candidate.wire()})).error, 0);
  test::writeFile(volume.folder() + "/file", "after");
  const test::TempDir folder;
  const test::Mounted snapshot(candidate.node(), folder.path(), "xfs", MS_RDONLY, "nouuid,norecovery");
  EXPECT_EQ(test::readFile(folder / "file"), "before");
}

// The snapshot of the inner volume is mounted inside the outer one's, as an agent exposes a set.
TEST(Snap, of_nested_volumes_of_two_kinds_stand_inside_each_other_again) {
  const Volume outer("ext4", 32 << 20);
  const std::string inside = outer.folder() + "/inside";
  mkdir(inside.c_str(), 0755);
  const test::LoopDevice innerLoop(300 << 20);
  innerLoop.mkfs("xfs");
  const test::Mounted inner(innerLoop.path(), inside, "xfs");
  test::writeFile(outer.folder() + "/a", "outer");
  test::writeFile(inside + "/b", "inner");
  ClientRun run;
  SnapCandidate one(*run, outer.device());
  SnapCandidate two(*run, innerLoop.path());
  ASSERT_EQ(run->issue(IOC_SNAP, test::snapCommand({one.wire(), two.wire()})).error, 0);
  const test::TempDir base;
  const test::Mounted outerSnapshot(one.node(), base.path(), "ext4", MS_RDONLY);
  const test::Mounted innerSnapshot(two.node(), base / "inside", "xfs", MS_RDONLY, "nouuid,norecovery");
  EXPECT_EQ(test::readFile(base / "a"), "outer");
  EXPECT_EQ(test::readFile(base / "inside/b"), "inner");
}

// One file system lies in a file on the other: its last writes go through that.
TEST(Snap, of_a_volume_and_one_that_lies_in_a_file_on_it_takes_both) {
  const Volume outer("ext4", 64 << 20);
  const Volume inner("ext4", 16 << 20, {}, outer.folder());
  test::writeFile(inner.folder() + "/file", std::string(1 << 20, 'x'));
  ClientRun run({"--freeze-limit", "20"});
  SnapCandidate one(*run, outer.device());
  SnapCandidate two(*run, inner.device());
  ASSERT_EQ(run->issue(IOC_SNAP, test::snapCommand({one.wire(), two.wire()})).error, 0);
  const test::TempDir folder;
  const test::Mounted snapshot(two.node(), folder.path(), "ext4", MS_RDONLY);
  EXPECT_EQ(test::readFile(folder / "file"), std::string(1 << 20, 'x'));
}

// ---- one instant

// Counts up in two files, first in one, then in the other, as fast as it can.
class Writer {
 public:
  Writer(const std::string& first, const std::string& second)
      : mFirst(open(first.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600)),
        mSecond(open(second.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600)),
        mThread([this] { run(); }) {}
  ~Writer() {
    mEnding = true;
    mThread.join();
  }
  std::uint64_t count() const { return mCount; }

 private:
  void run() {
    for (std::uint64_t count = 1; !mEnding; ++count) {
      put(mFirst, count);
      put(mSecond, count);
      mCount = count;
    }
  }
  static void put(const UniqueFd& file, std::uint64_t count) {
    if (pwrite(file.get(), &count, sizeof count, 0) != sizeof count) std::abort();
  }

  UniqueFd mFirst;
  UniqueFd mSecond;
  std::atomic<std::uint64_t> mCount{0};
  std::atomic<bool> mEnding{false};
  std::thread mThread;
};

std::uint64_t countIn(const std::string& path) {
  std::uint64_t count = 0;
  std::memcpy(&count, test::readFile(path).data(), sizeof count);
  return count;
}

TEST(Snap, of_two_volumes_stands_at_one_instant_while_a_writer_goes_on) {
  const Volume one("ext4", 64 << 20);
  const Volume two("xfs", 300 << 20);
  // Something to copy, so that the two copies take their time.
  test::writeFile(one.folder() + "/bulk", std::string(30 << 20, 'b'));
  test::writeFile(two.folder() + "/bulk", std::string(30 << 20, 'b'));
  ClientRun run;
  const test::TempDir folder;
  const Writer writer(one.folder() + "/count", two.folder() + "/count");
  std::uint64_t last = 0;
  for (int round = 0; round < 5; ++round) {
    ASSERT_TRUE(test::comesTrue([&] { return writer.count() > last + 100; }));
    SnapCandidate first(*run, one.device());
    SnapCandidate second(*run, two.device());
    const std::uint64_t before = writer.count();
    ASSERT_EQ(run->issue(IOC_SNAP, test::snapCommand({first.wire(), second.wire()})).error, 0);
    const std::uint64_t after = writer.count();
    std::uint64_t counts[2];
    {
      const test::Mounted snapshot(first.node(), folder.path(), "ext4", MS_RDONLY);
      counts[0] = countIn(folder / "count");
    }
    {
      const test::Mounted snapshot(second.node(), folder.path(), "xfs", MS_RDONLY, "nouuid,norecovery");
      counts[1] = countIn(folder / "count");
    }
    // The writer is never more than one step ahead in the first file.
    EXPECT_GE(counts[0], counts[1]);
    EXPECT_LE(counts[0], counts[1] + 1);
    EXPECT_GE(counts[1] + 1, before);
    EXPECT_LE(counts[0], after + 1);
    last = after;
    ASSERT_EQ(run->issue(IOC_SNAP_DISCARD, test::discardCommand({first.device(), second.device()})).error, 0);
  }
}

TEST(Snap, of_sixteen_volumes_at_once) {
  ClientRun run;
  std::vector<std::unique_ptr<Volume>> volumes;
  std::vector<std::unique_ptr<SnapCandidate>> candidates;
  std::vector<test::WireSnapVolume> wire;
  std::vector<test::WireDevice> devices;
  for (int i = 0; i < 16; ++i) {
    volumes.push_back(std::make_unique<Volume>("ext4", 16 << 20));
    test::writeFile(volumes.back()->folder() + "/number", std::to_string(i));
    candidates.push_back(std::make_unique<SnapCandidate>(*run, volumes.back()->device()));
    wire.push_back(candidates.back()->wire());
    devices.push_back(candidates.back()->device());
  }
  ASSERT_EQ(run->issue(IOC_SNAP, test::snapCommand(wire)).error, 0);
  const test::TempDir folder;
  for (std::size_t i = 0; i < 16; ++i) {
    const test::Mounted snapshot(candidates[i]->node(), folder.path(), "ext4", MS_RDONLY);
    EXPECT_EQ(test::readFile(folder / "number"), std::to_string(i));
  }
  const auto list = run->issue(IOC_GET_SNAPPED_VOL_DETAILS, test::snappedListingCommand(16));
  EXPECT_EQ(list.command.requestValue(), 16u);
  EXPECT_EQ(run->issue(IOC_SNAP_DISCARD, test::discardCommand(devices)).error, 0);
}

// ---- others meanwhile

// Whether a process waits for the answer to a device request.
bool isInRequest(pid_t process) { return test::isInCall(process, SYS_ioctl); }

// A store that takes no writes until it is let go: a snap into it lasts as long as a test wants.
class StuckStore {
 public:
  const std::string& folder() const { return mVolume.folder(); }
  void letGo() { mFrozen.thaw(); }

 private:
  Volume mVolume{"ext4", 64 << 20};
  test::Frozen mFrozen{mVolume.folder()};
};

TEST(Snap, that_lasts_leaves_other_processes_their_files) {
  const Volume volume("ext4", 16 << 20);
  StuckStore store;
  ClientRun run({"--store", store.folder()}, 2);
  SnapCandidate candidate(run.client(0), volume.device());
  run.client(0).begin(IOC_SNAP, test::snapCommand({candidate.wire()}));
  for (int i = 0; i < 20; ++i) EXPECT_EQ(run.client(1).shell("cat /proc/mirelsnap/dev /dev/null > /dev/null"), 0);
  EXPECT_FALSE(run.client(0).isAnswered());
  store.letGo();
  EXPECT_EQ(run.client(0).finish().error, 0);
}

TEST(Snap, of_a_client_that_is_killed_meanwhile_is_there_for_the_next_one) {
  const Volume volume("ext4", 16 << 20);
  StuckStore store;
  ClientRun run({"--store", store.folder()}, 2);
  SnapCandidate candidate(run.client(0), volume.device());
  const pid_t process = run.client(0).process();
  run.client(0).begin(IOC_SNAP, test::snapCommand({candidate.wire()}));
  ASSERT_TRUE(test::comesTrue([&] { return isInRequest(process); }));
  // Calls are taken in their order: once a later one was answered, the emulator has this one.
  EXPECT_EQ(run.client(1).shell("cat /dev/null"), 0);
  kill(process, SIGKILL);
  EXPECT_TRUE(test::comesTrue([&] { return !isInRequest(process); }));
  store.letGo();
  // Commands are carried out one after the other: this one comes behind the snap.
  EXPECT_TRUE(isSnapped(run.client(1), candidate.device()));
  const auto list = run.client(1).issue(IOC_GET_SNAPPED_VOL_DETAILS, test::snappedListingCommand(1));
  EXPECT_EQ(list.command.record<SnappedVolumeEntry>().appPid, process);
  EXPECT_TRUE(isBlockDevice(candidate.node()));
  EXPECT_EQ(run.client(1).issue(IOC_SNAP_DISCARD, test::discardCommand({candidate.device()})).error, 0);
}

TEST(Snap, state_is_one_for_all_processes_and_survives_them) {
  const Volume volume("ext4", 16 << 20);
  ClientRun run({}, 3);
  SnapCandidate candidate(run.client(0), volume.device());
  ASSERT_EQ(run.client(0).issue(IOC_SNAP, test::snapCommand({candidate.wire()})).error, 0);
  EXPECT_TRUE(isSnapped(run.client(1), candidate.device()));
  kill(run.client(0).process(), SIGKILL);
  EXPECT_TRUE(isSnapped(run.client(1), candidate.device()));
  EXPECT_EQ(run.client(1).issue(IOC_GET_NUM_OF_RELOC_FILE_MAPPING, test::countCommand()).command.requestValue(), 1u);
  EXPECT_EQ(run.client(1).issue(IOC_SNAP_DISCARD, test::discardCommand({candidate.device()})).error, 0);
  EXPECT_FALSE(isSnapped(run.client(2), candidate.device()));
  EXPECT_EQ(run.client(2).issue(IOC_GET_NUM_OF_RELOC_FILE_MAPPING, test::countCommand()).command.requestValue(), 0u);
}

// The volume is mounted, and has its node, only where the client lives.
TEST(Snap, serves_a_client_with_a_mount_namespace_and_a_dev_of_its_own) {
  const test::LoopDevice loop(16 << 20);
  loop.mkfs("ext4");
  const test::TempDir folder;
  ClientRun run;
  run->leaveNamespace();
  const std::string number = std::to_string(loop.minor());
  ASSERT_EQ(run->shell("mount -t tmpfs theirs /dev && mknod /dev/null c 1 3 && mknod /dev/zero c 1 5 &&"
                       "mknod /dev/volume b 7 " +
                       number + " && mount /dev/volume " + folder.path() + " && echo theirs > " + folder / "file"),
            0);
  SnapCandidate candidate(*run, loop.path(), "/dev/volume");
  ASSERT_EQ(run->issue(IOC_SNAP, test::snapCommand({candidate.wire()})).error, 0);
  EXPECT_FALSE(isBlockDevice(candidate.node()));
  EXPECT_EQ(run->shell("echo more > " + folder / "file"), 0);  // it is thawed
  EXPECT_EQ(run->shell("test -b " + candidate.node() + " && umount " + folder.path() + " && mount -o ro " +
                       candidate.node() + " " + folder.path() + " && grep -qx theirs " + folder / "file"),
            0);
  EXPECT_EQ(run->issue(IOC_SNAP_DISCARD, test::discardCommand({candidate.device()})).error, 0);
  EXPECT_NE(run->shell("test -e " + candidate.node()), 0);
}

}  // namespace
