// SPDX-License-Identifier: Apache-2.0
//
// Change tracking.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "DriverFixture.h"
#include "base/Handle.h"

namespace {

using test::WireCommand;
using test::WireDevice;

constexpr std::uint32_t kBlock = 4096;

struct Run {
  std::uint64_t start, blocks;
  bool operator==(const Run&) const = default;
};
void PrintTo(const Run& run, std::ostream* out) { *out << run.start << '+' << run.blocks; }
using Runs = std::vector<Run>;

struct ChangeTracking : DriverTest {
  void discard(const test::LoopDevice& volume) {
    ASSERT_EQ(error(IOC_SNAP_DISCARD, test::discardCommand({deviceOf(volume)})), 0);
  }
  bool isTracked(const test::LoopDevice& volume) { return status(IOC_IS_VTRACK_ACTIVE, deviceOf(volume)) == 2; }

  struct Reading {
    int error;
    std::uint32_t type;
    Runs runs;
  };
  Reading read(WireDevice volume, std::size_t room, std::uint32_t type = 0, std::uint64_t from = 0) {
    std::vector<_run> sent(room, {0xAAAA, 0xBBBB});
    if (room > 0) sent[0].startBlock = from;
    WireCommand command = test::bitmapCommand(volume, sent, type);
    const int error = ask(IOC_GET_VDIFF, command);
    const auto bitmap = command.record<BitmapPayload>();
    Reading reading{error, bitmap.updateType, {}};
    for (std::uint32_t i = 0; error == 0 && i < bitmap.numRuns; ++i) {
      const auto run = command.get<_run>(kBitmapRunsOffset + i * sizeof(_run));
      reading.runs.push_back({run.startBlock, run.numBlocks});
    }
    return reading;
  }
  Runs changed(const test::LoopDevice& volume) {
    const Reading reading = read(deviceOf(volume), 100);
    EXPECT_EQ(reading.error, 0);
    EXPECT_EQ(reading.type, 0u);
    return reading.runs;
  }
  // Writes one byte that was not there at a place of the device.
  static void touch(const test::LoopDevice& volume, std::uint64_t at, char byte = 'x') {
    const UniqueFd opened(open(volume.path().c_str(), O_WRONLY | O_CLOEXEC));
    ASSERT_EQ(pwrite(opened.get(), &byte, 1, static_cast<off_t>(at)), 1);
  }

  const test::LoopDevice loop{kVolumeBytes};
  const WireDevice device = deviceOf(loop);
};

// ---- its life

TEST_F(ChangeTracking, starts_with_a_snap_that_asks_for_it_and_has_the_identifier_of_that) {
  EXPECT_EQ(status(IOC_IS_VTRACK_ACTIVE, device), 3);
  snapTracked(loop);
  EXPECT_EQ(status(IOC_IS_VTRACK_ACTIVE, device), 2);
  WireCommand vars = test::trackingVarsCommand(device);
  ASSERT_EQ(ask(IOC_GET_VTRACK_VARS, vars), 0);
  EXPECT_STREQ(vars.record<TrackingVarsPayload>().guid, kGuid);
  EXPECT_EQ(vars.record<TrackingVarsPayload>().sequenceNumber, 1u);
}

TEST_F(ChangeTracking, does_not_start_with_a_snap_that_asks_for_none) {
  ASSERT_EQ(error(IOC_SNAP, test::snapCommand({candidate(loop)})), 0);
  EXPECT_FALSE(isTracked(loop));
  EXPECT_EQ(error(IOC_GET_VTRACK_VARS, test::trackingVarsCommand(device)), ENODATA);
  EXPECT_EQ(read(device, 1).error, ENODATA);
  EXPECT_EQ(error(IOC_UPDATE_BITMAP, test::bitmapCommand(device, {})), ENODATA);
}

TEST_F(ChangeTracking, does_not_start_with_an_independent_snapshot_that_asks_for_it) {
  WireCommand command = test::snapCommand({candidate(loop)});
  command.put(24 + 2092, std::uint32_t{1});
  ASSERT_EQ(error(IOC_SNAP, command), 0);
  EXPECT_FALSE(isTracked(loop));
}

TEST_F(ChangeTracking, counts_the_trackings_of_a_volume) {
  const test::LoopDevice other(kVolumeBytes);
  const auto sequenceNumber = [&](WireDevice of) {
    WireCommand vars = test::trackingVarsCommand(of);
    EXPECT_EQ(ask(IOC_GET_VTRACK_VARS, vars), 0);
    return vars.record<TrackingVarsPayload>().sequenceNumber;
  };
  for (const std::uint32_t number : {1u, 2u, 3u}) {
    snapTracked(loop);
    EXPECT_EQ(sequenceNumber(device), number);
    discard(loop);
  }
  snapTracked(other);
  EXPECT_EQ(sequenceNumber(deviceOf(other)), 1u);
}

TEST_F(ChangeTracking, ends_with_the_snapshot) {
  snapTracked(loop);
  discard(loop);
  EXPECT_FALSE(isTracked(loop));
  WireCommand vars = test::trackingVarsCommand(device);
  EXPECT_EQ(ask(IOC_GET_VTRACK_VARS, vars), ENOENT);
  EXPECT_EQ(vars.status(), -4);
}

TEST_F(ChangeTracking, ends_when_it_is_stopped_and_the_snapshot_stays) {
  snapTracked(loop);
  EXPECT_EQ(error(IOC_STOP_VTRACK, test::volumeListCommand({device})), 0);
  EXPECT_FALSE(isTracked(loop));
  EXPECT_TRUE(isSnapped(device));
  EXPECT_EQ(error(IOC_STOP_VTRACK, test::volumeListCommand({device})), 0) << "once more does no harm";
}

TEST_F(ChangeTracking, stopping_it_on_a_volume_that_is_not_snapped_is_refused_and_stops_the_others) {
  WireCommand one = test::volumeListCommand({{240, 1}});
  EXPECT_EQ(ask(IOC_STOP_VTRACK, one), ENOENT);
  EXPECT_EQ(one.status(), -4);
  snapTracked(loop);
  WireCommand two = test::volumeListCommand({{240, 1}, device});
  EXPECT_EQ(ask(IOC_STOP_VTRACK, two), ENOENT);
  EXPECT_EQ(two.status(), -5);
  EXPECT_FALSE(isTracked(loop));
}

// ---- what changed

TEST_F(ChangeTracking, reads_nothing_while_nothing_changes) {
  snapTracked(loop);
  EXPECT_EQ(changed(loop), Runs{});
}

TEST_F(ChangeTracking, reads_the_blocks_that_differ_neighbours_as_one_run) {
  touch(loop, 7 * kBlock, 'b');
  snapTracked(loop);
  touch(loop, 0);
  touch(loop, 3 * kBlock + 4095);
  touch(loop, 4 * kBlock);
  touch(loop, 7 * kBlock, '\0');  // what was there is gone
  touch(loop, kVolumeBytes - 1);  // the last block
  touch(loop, (1 << 20) - 1);     // either side of what is compared at a time
  touch(loop, 1 << 20);
  EXPECT_EQ(changed(loop), (Runs{{0, 1}, {3, 2}, {7, 1}, {255, 2}, {kVolumeBytes / kBlock - 1, 1}}));
}

TEST_F(ChangeTracking, a_block_that_is_as_it_was_again_has_not_changed) {
  touch(loop, 5 * kBlock, 'a');
  snapTracked(loop);
  touch(loop, 5 * kBlock, 'b');
  EXPECT_EQ(changed(loop), (Runs{{5, 1}}));
  touch(loop, 5 * kBlock, 'a');
  EXPECT_EQ(changed(loop), Runs{});
}

TEST_F(ChangeTracking, counts_in_blocks_of_the_snapshots_size) {
  for (const std::uint32_t size : {512u, 1024u, 65536u}) {
    test::WireSnapVolume volume = candidate(loop);
    volume.trackingGuid = kGuid;
    volume.blockSize = size;
    volume.numBlocks = kVolumeBytes / size;
    volume.relocBlocks = 1;
    makeRelocFile(volume.relocFile, size);
    ASSERT_EQ(error(IOC_SNAP, test::snapCommand({volume})), 0);
    touch(loop, 3 * 65536 + 700, static_cast<char>('a' + size % 26));
    EXPECT_EQ(changed(loop), (Runs{{(3 * 65536 + 700) / size, 1}})) << size;
    discard(loop);
  }
}

TEST_F(ChangeTracking, a_reading_fills_the_first_runs_that_there_is_room_for_and_says_that_more_follow) {
  snapTracked(loop);
  for (const std::uint64_t block : {2u, 10u, 11u, 20u}) touch(loop, block * kBlock);
  Reading reading = read(device, 2);
  EXPECT_EQ(reading.error, 0);
  EXPECT_EQ(reading.type, 1u);
  EXPECT_EQ(reading.runs, (Runs{{2, 1}, {10, 2}}));
  reading = read(device, 3);
  EXPECT_EQ(reading.type, 0u) << "exactly as many as there is room for";
  EXPECT_EQ(reading.runs, (Runs{{2, 1}, {10, 2}, {20, 1}}));
  reading = read(device, 0);
  EXPECT_EQ(reading.error, 0);
  EXPECT_EQ(reading.type, 1u);
  EXPECT_EQ(reading.runs, Runs{});
}

TEST_F(ChangeTracking, a_reading_goes_on_from_the_block_that_the_first_run_names) {
  snapTracked(loop);
  for (const std::uint64_t block : {2u, 10u, 11u, 20u}) touch(loop, block * kBlock);
  EXPECT_EQ(read(device, 2, 1, 12).runs, (Runs{{20, 1}}));
  EXPECT_EQ(read(device, 2, 1, 12).type, 0u);
  EXPECT_EQ(read(device, 2, 1, 11).runs, (Runs{{11, 1}, {20, 1}}));
  EXPECT_EQ(read(device, 1, 1, 0).runs, (Runs{{2, 1}}));
  EXPECT_EQ(read(device, 1, 1, kVolumeBytes / kBlock).runs, Runs{}) << "the end is no mistake";
  EXPECT_EQ(read(device, 1, 1, kVolumeBytes / kBlock + 1).error, EINVAL);
  EXPECT_EQ(read(device, 2, 0, 12).runs, (Runs{{2, 1}, {10, 2}})) << "only when asked to";
}

TEST_F(ChangeTracking, thousands_of_runs_are_read_in_pieces) {
  snapTracked(loop);
  Runs all;
  for (std::uint64_t block = 1; block < kVolumeBytes / kBlock; block += 2) {
    touch(loop, block * kBlock);
    all.push_back({block, 1});
  }
  Runs found;
  std::uint64_t from = 0;
  for (std::uint32_t type = 0, pieces = 0;; ++pieces) {
    ASSERT_LT(pieces, 20u);
    const Reading reading = read(device, 100, type, from);
    ASSERT_EQ(reading.error, 0);
    found.insert(found.end(), reading.runs.begin(), reading.runs.end());
    if ((type = reading.type) == 0) break;
    from = found.back().start + found.back().blocks;
  }
  EXPECT_EQ(found, all);
}

TEST_F(ChangeTracking, a_volume_that_is_gone_cannot_be_compared) {
  WireCommand command = test::bitmapCommand({240, 1}, {});
  EXPECT_EQ(ask(IOC_GET_VDIFF, command), ENOENT);
  EXPECT_EQ(command.status(), -4);
}

// ---- what is in use

TEST_F(ChangeTracking, pushed_runs_take_the_place_of_those_before_or_come_to_them) {
  snapTracked(loop);
  const std::uint64_t end = kVolumeBytes / kBlock;
  EXPECT_EQ(error(IOC_UPDATE_BITMAP, test::bitmapCommand(device, {{0, 1}, {5, end - 5}})), 0);
  EXPECT_NE(dump().find(", 2 runs in use\n"), std::string::npos);
  EXPECT_EQ(error(IOC_UPDATE_BITMAP, test::bitmapCommand(device, {{1, 1}}, 1)), 0);
  EXPECT_NE(dump().find(", 3 runs in use\n"), std::string::npos);
  EXPECT_EQ(error(IOC_UPDATE_BITMAP, test::bitmapCommand(device, {{1, 1}})), 0);
  EXPECT_NE(dump().find(", 1 runs in use\n"), std::string::npos);
}

TEST_F(ChangeTracking, pushed_runs_lie_in_the_volume) {
  snapTracked(loop);
  const std::uint64_t end = kVolumeBytes / kBlock;
  for (const _run& run : {_run{end, 1}, _run{0, end + 1}, _run{end - 1, 2}, _run{1, 0}, _run{2, UINT64_MAX}}) {
    EXPECT_EQ(error(IOC_UPDATE_BITMAP, test::bitmapCommand(device, {{0, 1}, run})), EINVAL);
  }
  EXPECT_NE(dump().find(", 0 runs in use\n"), std::string::npos);
}

}  // namespace
