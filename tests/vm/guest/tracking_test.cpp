// SPDX-License-Identifier: Apache-2.0
//
// Which blocks changed since the snapshot.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>

#include "Driver.h"
#include "Volumes.h"

namespace guest {
namespace {

constexpr std::uint64_t kMiB = 1 << 20;
constexpr char kGuid[] = "01234567-89ab-cdef-0123-456789abcdef";

class Tracked : public testing::Test {
 protected:
  SnapVolume volume() {
    SnapVolume asked = snapOf("/dev/vda", mStore.makeFile("reloc", 32 * kMiB), "/dev/vdb");
    asked.entry.independentSnapshotRequest = 0;
    asked.entry.vtrackRequest = 1;
    std::memcpy(asked.entry.trackingGuid, kGuid, sizeof kGuid);
    return asked;
  }
  static void write(std::uint64_t block, std::size_t sectors = 8, std::uint64_t sector = 0) {
    const int file = open("/dev/vda", O_WRONLY | O_DIRECT | O_CLOEXEC);
    alignas(4096) static char bytes[1 << 20];
    ASSERT_EQ(pwrite(file, bytes, sectors * 512, static_cast<off_t>(block * 4096 + sector * 512)),
              static_cast<ssize_t>(sectors * 512));
    close(file);
  }
  struct Changes {
    Result result;
    std::uint32_t more = 0;
    std::vector<std::pair<std::uint64_t, std::uint64_t>> runs;
  };
  static Changes changes(std::uint32_t room = 16, std::uint64_t from = 0) {
    Command command(IOC_GET_VDIFF, 1, bitmapCommandLength(room));
    command.put(0, std::uint32_t{1});
    const Number number = numberOf("/dev/vda");
    command.putRecord(0, BitmapPayload{number.major, number.minor, from == 0 ? 0u : 1u, room});
    if (from != 0) command.put(kBitmapRunsOffset, _run{from, 0});
    Changes found;
    found.result.error = command.issue();
    found.result.status = command.header().driverStatus;
    const auto answer = command.record<BitmapPayload>(0);
    found.more = answer.updateType;
    for (std::uint32_t i = 0; i < answer.numRuns && found.result.error == 0; ++i) {
      const auto run = command.get<_run>(kBitmapRunsOffset + i * sizeof(_run));
      found.runs.emplace_back(run.startBlock, run.numBlocks);
    }
    return found;
  }
  static TrackingVarsPayload vars() {
    Command command(IOC_GET_VTRACK_VARS, 1, 79);
    const Number number = numberOf("/dev/vda");
    TrackingVarsPayload payload{};
    payload.majorNum = number.major;
    payload.minorNum = number.minor;
    command.putRecord(0, payload);
    EXPECT_EQ(command.issue(), 0);
    return command.record<TrackingVarsPayload>(0);
  }

  Mounted mStore = ext4("/dev/vdb", "/mnt/b");
  Discarded mDiscarded{{"/dev/vda"}};
};

using Runs = std::vector<std::pair<std::uint64_t, std::uint64_t>>;

TEST_F(Tracked, blocks_are_those_that_were_written_since) {
  write(5);
  ASSERT_EQ(snap({volume()}), (Result{0, 0}));
  EXPECT_EQ(check(IOC_IS_VTRACK_ACTIVE, "/dev/vda"), (Result{0, 2}));
  EXPECT_TRUE(changes().runs.empty());
  write(10);
  write(11);
  write(20, 2048);
  write(1000, 1, 7);
  write(1000, 1, 7);
  EXPECT_EQ(changes().runs, (Runs{{10, 2}, {20, 256}, {1000, 1}}));
  EXPECT_EQ(changes(2).runs, (Runs{{10, 2}, {20, 256}}));
  EXPECT_EQ(changes(2).more, 1u);
  EXPECT_EQ(changes(2, 276).runs, (Runs{{1000, 1}}));
  EXPECT_EQ(changes(2, 276).more, 0u);
}

TEST_F(Tracked, snapshots_of_a_volume_are_numbered) {
  ASSERT_EQ(snap({volume()}), (Result{0, 0}));
  const std::uint32_t first = vars().sequenceNumber;
  EXPECT_STREQ(vars().guid, kGuid);
  ASSERT_EQ(discard({"/dev/vda"}), (Result{0, 0}));
  ASSERT_EQ(snap({volume()}), (Result{0, 0}));
  EXPECT_EQ(vars().sequenceNumber, first + 1);
}

TEST_F(Tracked, ends_when_it_is_stopped_and_the_snapshot_stays) {
  ASSERT_EQ(snap({volume()}), (Result{0, 0}));
  EXPECT_EQ(stopTracking({"/dev/vda"}), (Result{0, 0}));
  EXPECT_EQ(check(IOC_IS_VTRACK_ACTIVE, "/dev/vda"), (Result{0, 3}));
  EXPECT_EQ(changes().result, (Result{ENODATA, 0}));
  EXPECT_EQ(check(IOC_CHECK_VOLUME_SNAPPED, "/dev/vda"), (Result{0, -2}));
}

TEST_F(Tracked, goes_on_when_the_snapshot_breaks) {
  SnapVolume asked = volume();
  asked.entry.relocFileSize = 4;
  ASSERT_EQ(snap({asked}), (Result{0, 0}));
  for (std::uint64_t block = 100; block < 200; block += 10) write(block);
  EXPECT_EQ(wordOf(snapshotLines().at(0), "state"), "broken:full");
  EXPECT_EQ(changes().runs.size(), 10u);
}

TEST_F(Tracked, runs_in_use_are_taken_and_counted) {
  ASSERT_EQ(snap({volume()}), (Result{0, 0}));
  const Number number = numberOf("/dev/vda");
  const std::uint64_t last = sectorsOf("/dev/vda") / 8 - 1;
  Command command(IOC_UPDATE_BITMAP, 1, bitmapCommandLength(2));
  command.put(0, std::uint32_t{1});
  command.putRecord(0, BitmapPayload{number.major, number.minor, 0, 2});
  command.put(kBitmapRunsOffset, _run{0, 10});
  command.put(kBitmapRunsOffset + sizeof(_run), _run{last, 1});
  EXPECT_EQ(command.issue(), 0);
  EXPECT_NE(dumpedState().find("2 runs in use"), std::string::npos);
  command.put(kBitmapRunsOffset + sizeof(_run), _run{last, 2});
  EXPECT_EQ(command.issue(), EINVAL);
}

TEST_F(Tracked, a_snapshot_that_asks_for_none_has_none) {
  SnapVolume asked = volume();
  asked.entry.vtrackRequest = 0;
  EXPECT_EQ(snap({asked}), (Result{EINVAL, 0}));  // the GUID is in the way
  std::memset(asked.entry.trackingGuid, 0, sizeof asked.entry.trackingGuid);
  ASSERT_EQ(snap({asked}), (Result{0, 0}));
  EXPECT_EQ(changes().result, (Result{ENODATA, 0}));
}

}  // namespace
}  // namespace guest
