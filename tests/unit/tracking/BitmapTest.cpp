// SPDX-License-Identifier: Apache-2.0
//
// Reading the runs of changed blocks, and pushing those of blocks in use.
#include <cerrno>
#include <cstddef>
#include <limits>
#include <ostream>

#include "TrackingFixture.h"

namespace {

using test::debug;
using test::error;
using test::LogLine;
using test::Wire;

constexpr auto kType = static_cast<_updateBitmapIoctlType>(0x90000001);
constexpr _run kUntouched{0xAAAAAAAAAAAAAAAA, 0xBBBBBBBBBBBBBBBB};

bool same(const _run& a, const _run& b) { return a.startBlock == b.startBlock && a.numBlocks == b.numBlocks; }

// Reading and pushing are one shape with their own request and texts.
struct Way {
  const char* name;
  unsigned int (SnapDriverInterface::*operation)(SectorBitmap&);
  unsigned long request;
  const char* failure;  // without its errno
};

void PrintTo(const Way& way, std::ostream* out) { *out << way.name; }

class Bitmap : public test::TrackingTest, public testing::WithParamInterface<Way> {
 protected:
  unsigned int call(SectorBitmap& bitmap) { return (driver().*GetParam().operation)(bitmap); }
};

TEST_P(Bitmap, sends_flags_1_the_devices_numbers_type_count_and_the_callers_runs) {
  _run runs[2] = {{0x1122334455667788, 2}, {3, 0xFFFFFFFFFFFFFFFF}};
  SectorBitmap bitmap(kType, volume, 2, runs);
  EXPECT_EQ(call(bitmap), 0U);
  expectSent(GetParam().request, Wire(1, 1, 75)
                                     .u32(24, 8)
                                     .u32(28, 0x12345)
                                     .u32(32, 0x90000001)
                                     .u32(36, 2)
                                     .u64(40, 0x1122334455667788)
                                     .u64(48, 2)
                                     .u64(56, 3)
                                     .u64(64, 0xFFFFFFFFFFFFFFFF));
}

TEST_P(Bitmap, of_no_runs_is_43_bytes_and_needs_no_array) {
  SectorBitmap bitmap(volume, 0, nullptr);
  EXPECT_EQ(call(bitmap), 0U);
  expectSent(GetParam().request, Wire(1, 1, 43).u32(24, 8).u32(28, 0x12345));
}

TEST_P(Bitmap, of_1024_runs_is_sent) {
  std::vector<_run> runs(1024, {1, 1});
  SectorBitmap bitmap(volume, 1024, runs.data());
  EXPECT_EQ(call(bitmap), 0U);
  ASSERT_EQ(kernel.calls().size(), 1U);
  EXPECT_EQ(kernel.calls()[0].sent.size(), 16427U);
}

TEST_P(Bitmap, of_1025_runs_gives_15_before_the_control_device_is_opened) {
  std::vector<_run> runs(1025);
  SectorBitmap bitmap(volume, 1025, runs.data());
  EXPECT_EQ(call(bitmap), 15U);
  EXPECT_EQ(log.lines(), std::vector<LogLine>{error("Number of runs passed 1025 exceeds the maximum 1024.\n")});
  expectUntouched();
  bitmap.setNumOfRuns(4294967295U);
  EXPECT_EQ(call(bitmap), 15U);
  EXPECT_TRUE(log.has(LOG_ERR, "Number of runs passed 4294967295 exceeds the maximum 1024.\n"));
}

TEST_P(Bitmap, the_device_is_looked_at_before_the_count) {
  _run run{};
  SectorBitmap bitmap(missing, 1025, &run);
  EXPECT_EQ(call(bitmap), 7U);
  EXPECT_FALSE(log.has(LOG_ERR, "Number of runs passed 1025 exceeds the maximum 1024.\n"));
}

TEST_P(Bitmap, a_missing_device_gives_7_like_one_that_is_none) {
  SectorBitmap ofMissing(missing, 0, nullptr), ofWrong(wrong, 0, nullptr);
  EXPECT_EQ(call(ofMissing), 7U);
  EXPECT_EQ(call(ofWrong), 7U);
  EXPECT_EQ(log.lines(), (std::vector<LogLine>{
                             error("/dev/nothing: Device does not exist.\n"), error("Invalid block device.\n"),
                             error("/dev/null: is not a valid block device.\n"), error("Invalid block device.\n")}));
  expectUntouched();
}

TEST_P(Bitmap, a_record_without_a_name_gives_3) {
  // What an agent gets that fills a record's memory with zeros instead of constructing it.
  alignas(SectorBitmap) std::byte zeros[sizeof(SectorBitmap)]{};
  EXPECT_EQ(call(*reinterpret_cast<SectorBitmap*>(zeros)), 3U);
  EXPECT_EQ(log.lines(), std::vector<LogLine>{error("Memory Allocation failure.\n")});
  expectUntouched();
}

TEST_P(Bitmap, a_count_without_an_array_gives_3_when_nothing_else_is_wrong) {
  SectorBitmap bitmap(volume, 1024, nullptr), ofMissing(missing, 1, nullptr), tooMany(volume, 1025, nullptr);
  EXPECT_EQ(call(bitmap), 3U);
  EXPECT_EQ(log.lines(), std::vector<LogLine>{error("Memory Allocation failure.\n")});
  EXPECT_EQ(call(ofMissing), 7U);
  EXPECT_EQ(call(tooMany), 15U);
  expectUntouched();
}

TEST_P(Bitmap, without_a_driver_gives_5) {
  unload();
  _run run{};
  SectorBitmap bitmap(volume, 1, &run);
  EXPECT_EQ(call(bitmap), 5U);
  expectOpenFailure();
}

TEST_P(Bitmap, asks_for_the_name_of_the_records_construction) {
  std::wstring name = L"/dev/vol-2";
  SectorBitmap bitmap(name, 0, nullptr);
  name = L"/dev/nothing";
  EXPECT_EQ(call(bitmap), 0U);
  EXPECT_EQ(kernel.calls().at(0).get<std::uint32_t>(24), 259U);
}

TEST_P(Bitmap, a_failed_request_gives_6_and_leaves_the_record) {
  kernel.on(GetParam().request, [](std::byte* buffer, std::size_t length) {
    std::memset(buffer + 24, 0x11, length - 24);
    return EIO;
  });
  _run runs[2] = {{1, 2}, {3, 4}};
  SectorBitmap bitmap(kType, volume, 2, runs);
  EXPECT_EQ(call(bitmap), 6U);
  EXPECT_EQ(lines(), std::vector<LogLine>{error(std::string(GetParam().failure) + "5\n")});
  EXPECT_EQ(bitmap.getNumOfRuns(), 2U);
  EXPECT_EQ(bitmap.getUpdateType(), kType);
  EXPECT_TRUE(same(runs[0], {1, 2}) && same(runs[1], {3, 4}));
}

TEST_P(Bitmap, a_request_that_answers_anything_but_0_failed) {
  kernel.on(GetParam().request, [](std::byte* buffer, std::size_t) {
    test::answer<std::uint32_t>(buffer, 36, 0);
    return -1;  // the request call returns 1
  });
  _run run{1, 2};
  SectorBitmap bitmap(kType, volume, 1, &run);
  EXPECT_EQ(call(bitmap), 6U);
  EXPECT_EQ(bitmap.getNumOfRuns(), 1U);
}

INSTANTIATE_TEST_SUITE_P(Both, Bitmap,
                         testing::Values(Way{"read", &SnapDriverInterface::GetVtrackBitmap, 0xC01C5315,
                                             "Get VDIFF IOCTL failed, errno:"},
                                         Way{"push", &SnapDriverInterface::UpdateUsedSectorBitmap, 0xC01C5309,
                                             "Update Bitmap IOCTL failed, errno:"}),
                         [](const testing::TestParamInfo<Way>& way) { return way.param.name; });

class GetVtrackBitmap : public test::TrackingTest {
 protected:
  // The driver says that it filled `count` runs, and fills as many as the buffer holds with {100 + i, 200 + i}.
  void answerRuns(std::uint32_t count, std::uint32_t type = 0) {
    kernel.on(IOC_GET_VDIFF, [=](std::byte* buffer, std::size_t length) {
      test::answer(buffer, 32, type);
      test::answer(buffer, 36, count);
      for (std::uint32_t i = 0; i < count && 40 + (i + 1) * sizeof(_run) <= length; ++i) {
        test::answer(buffer, 40 + i * sizeof(_run), _run{100 + i, 200 + i});
      }
      return 0;
    });
  }
};

TEST_F(GetVtrackBitmap, takes_type_count_and_runs_over) {
  answerRuns(2, 0x80000003);
  _run runs[3] = {kUntouched, kUntouched, kUntouched};
  SectorBitmap bitmap(volume, 3, runs);
  EXPECT_EQ(driver().GetVtrackBitmap(bitmap), 0U);
  EXPECT_EQ(bitmap.getUpdateType(), 0x80000003U);
  EXPECT_EQ(bitmap.getNumOfRuns(), 2U);
  EXPECT_TRUE(same(runs[0], {100, 200}) && same(runs[1], {101, 201}) && same(runs[2], kUntouched));
  EXPECT_EQ(lines(), (std::vector<LogLine>{debug("Number of Vtrack runs obtained: 2.\n"),
                                           debug("Vdiff Bitmap returned successfully.\n")}));
}

TEST_F(GetVtrackBitmap, no_runs_set_the_count_to_0_and_copy_nothing) {
  answerRuns(0);
  _run run = kUntouched;
  SectorBitmap bitmap(volume, 1, &run);
  EXPECT_EQ(driver().GetVtrackBitmap(bitmap), 0U);
  EXPECT_EQ(bitmap.getNumOfRuns(), 0U);
  EXPECT_TRUE(same(run, kUntouched));
  EXPECT_EQ(lines(), (std::vector<LogLine>{debug("Number of Vtrack runs obtained: 0.\n"),
                                           debug("Vdiff Bitmap returned successfully.\n")}));
}

TEST_F(GetVtrackBitmap, as_many_runs_as_there_is_room_for_are_all_taken_over) {
  answerRuns(1024);
  std::vector<_run> runs(1025, kUntouched);
  SectorBitmap bitmap(volume, 1024, runs.data());
  EXPECT_EQ(driver().GetVtrackBitmap(bitmap), 0U);
  EXPECT_EQ(bitmap.getNumOfRuns(), 1024U);
  EXPECT_TRUE(same(runs[1023], {1123, 1223}) && same(runs[1024], kUntouched));
}

TEST_F(GetVtrackBitmap, a_driver_that_answers_more_runs_than_the_array_holds_never_gets_past_it) {
  for (const std::uint32_t count : {3U, 1024U, std::numeric_limits<std::uint32_t>::max()}) {
    log.clear();
    answerRuns(count);
    _run runs[3] = {kUntouched, kUntouched, kUntouched};
    SectorBitmap bitmap(volume, 2, runs);
    EXPECT_EQ(driver().GetVtrackBitmap(bitmap), 0U);
    EXPECT_EQ(bitmap.getNumOfRuns(), 2U) << "what a caller may read";
    EXPECT_TRUE(same(runs[0], {100, 200}) && same(runs[1], {101, 201}) && same(runs[2], kUntouched));
    EXPECT_TRUE(log.has(LOG_DEBUG, "Number of Vtrack runs obtained: " + std::to_string(count) + ".\n"));
  }
}

TEST_F(GetVtrackBitmap, a_driver_that_answers_runs_to_a_record_without_room_fills_nothing) {
  answerRuns(5);
  SectorBitmap bitmap(volume, 0, nullptr);
  EXPECT_EQ(driver().GetVtrackBitmap(bitmap), 0U);
  EXPECT_EQ(bitmap.getNumOfRuns(), 0U);
}

class UpdateUsedSectorBitmap : public test::TrackingTest {};

TEST_F(UpdateUsedSectorBitmap, leaves_the_record_whatever_the_driver_writes) {
  kernel.on(IOC_UPDATE_BITMAP, [](std::byte* buffer, std::size_t length) {
    std::memset(buffer + 24, 0x11, length - 24);
    return 0;
  });
  _run run{1, 2};
  SectorBitmap bitmap(kType, volume, 1, &run);
  EXPECT_EQ(driver().UpdateUsedSectorBitmap(bitmap), 0U);
  EXPECT_EQ(bitmap.getNumOfRuns(), 1U);
  EXPECT_EQ(bitmap.getUpdateType(), kType);
  EXPECT_TRUE(same(run, {1, 2}));
  EXPECT_EQ(lines(), std::vector<LogLine>{debug("Used Sector Bitmap updated successfully.\n")});
}

}  // namespace
