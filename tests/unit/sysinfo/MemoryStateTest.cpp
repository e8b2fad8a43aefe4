// SPDX-License-Identifier: Apache-2.0
//
// The machine's memory, from /proc/meminfo.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <syslog.h>

#include <limits>
#include <stdexcept>

#include "LogCapture.h"
#include "World.h"
#include "interpose/OpenedFiles.h"
#include "sysinfo/LinuxSystemInfo.h"

using mirelsnapsdk_linuxcomputer::_sysMemStateInfo;
using mirelsnapsdk_linuxcomputer::LinuxSystemInfo;
using testing::ElementsAre;
using testing::Pair;
using testing::UnorderedElementsAre;

namespace {

// What a file of this content leaves in memInfo.
std::map<std::string, std::uint64_t> read(const std::string& content) {
  const test::ProcFile meminfo("meminfo", content);
  LinuxSystemInfo info;
  EXPECT_EQ(info.InitializeSystemMemoryState(), 0);
  return info.memInfo;
}

constexpr auto kLongMax = static_cast<std::uint64_t>(std::numeric_limits<long>::max());

}  // namespace

TEST(MemoryState, keeps_every_line_as_key_and_value) {
  EXPECT_THAT(read("MemTotal:       16000000 kB\nMemFree:  123456 kB\nHugePages_Total:       0\n"),
              UnorderedElementsAre(Pair("MemTotal", 16000000u), Pair("MemFree", 123456u), Pair("HugePages_Total", 0u)));
}

TEST(MemoryState, reads_the_kernels_own_file) {
  LinuxSystemInfo info;
  EXPECT_EQ(info.InitializeSystemMemoryState(), 0);
  EXPECT_GT(info.GetSpecificSystemMemoryDetail("MemTotal"), 100000u);
  EXPECT_GT(info.memInfo.size(), 20u);
}

TEST(MemoryState, opens_the_file_as_text_and_closes_it) {
  test::OpenedFiles opened;
  LinuxSystemInfo info;
  EXPECT_EQ(info.InitializeSystemMemoryState(), 0);
  ASSERT_EQ(opened.all().size(), 1u);
  EXPECT_EQ(opened.all()[0].path, "/proc/meminfo");
  EXPECT_EQ(opened.all()[0].mode, "rte");
  // That it is closed is what the leak check behind every test sees.
}

TEST(MemoryState, without_the_file_logs_its_path_and_answers_5) {
  const test::ProcFile missing("meminfo");
  test::LogCapture log;
  LinuxSystemInfo info;
  EXPECT_EQ(info.InitializeSystemMemoryState(), 5);
  EXPECT_THAT(log.texts(LOG_ERR), ElementsAre("Unable to open the /proc/meminfo file, errno : 2.\n"));
  EXPECT_EQ(log.lines().size(), 1u) << log.dump();
  EXPECT_TRUE(info.memInfo.empty());
}

TEST(MemoryState, of_an_empty_file_is_empty) { EXPECT_TRUE(read("").empty()); }

TEST(MemoryState, takes_the_value_from_a_digit_in_the_key) {
  EXPECT_THAT(read("DirectMap4k:      131072 kB\n"), ElementsAre(Pair("DirectMap4k", 4u)));
  EXPECT_THAT(read("7: 8\n"), ElementsAre(Pair("7", 7u)));
}

TEST(MemoryState, ends_the_key_at_the_first_colon) {
  EXPECT_THAT(read("Node:Mem: 5 kB\n"), ElementsAre(Pair("Node", 5u)));
}

TEST(MemoryState, takes_a_line_without_a_colon_for_its_own_key_line_end_included) {
  EXPECT_THAT(read("apples 12\n"), ElementsAre(Pair("apples 12\n", 12u)));
  EXPECT_THAT(read("apples 12"), ElementsAre(Pair("apples 12", 12u)));
}

TEST(MemoryState, stops_the_number_at_the_first_other_character) {
  EXPECT_THAT(read("A: 12 of 34\nB: 12,345\nC: -5\n"),
              UnorderedElementsAre(Pair("A", 12u), Pair("B", 12u), Pair("C", 5u)));
}

TEST(MemoryState, reads_every_number_as_a_decimal_one) {
  EXPECT_THAT(read("A: 010 kB\nB: 0x1F1 kB\n"), UnorderedElementsAre(Pair("A", 10u), Pair("B", 0u)));
}

TEST(MemoryState, holds_the_largest_number_for_one_beyond_it) {
  EXPECT_THAT(read("A: 9223372036854775807 kB\nB: 99999999999999999999 kB\n"),
              UnorderedElementsAre(Pair("A", kLongMax), Pair("B", kLongMax)));
}

TEST(MemoryState, replaces_an_earlier_value_of_the_same_key) {
  EXPECT_THAT(read("A: 1\nA: 2\n"), ElementsAre(Pair("A", 2u)));
}

TEST(MemoryState, takes_a_line_of_127_characters_whole_and_a_longer_one_in_pieces) {
  const std::string whole = "K: 5" + std::string(122, ' ') + "\n";
  ASSERT_EQ(whole.size(), 127u);
  EXPECT_THAT(read(whole), ElementsAre(Pair("K", 5u)));
  EXPECT_THAT(read("K: 5" + std::string(123, ' ') + "L: 6\n"), UnorderedElementsAre(Pair("K", 5u), Pair("L", 6u)));
}

TEST(MemoryState, refreshes_every_value_in_place) {
  LinuxSystemInfo info;
  {
    const test::ProcFile meminfo("meminfo", "MemFree: 1 kB\nCached: 2 kB\nGone: 3 kB\n");
    ASSERT_EQ(info.InitializeSystemMemoryState(), 0);
  }
  const test::ProcFile meminfo("meminfo", "MemFree: 10 kB\nCached: 20 kB\n");
  ASSERT_EQ(info.InitializeSystemMemoryState(), 0);
  EXPECT_THAT(info.memInfo, UnorderedElementsAre(Pair("MemFree", 10u), Pair("Cached", 20u), Pair("Gone", 3u)));
}

TEST(MemoryState, of_a_line_without_a_digit_is_out_of_range_and_leaves_the_file_open) {
  const test::ProcFile meminfo("meminfo", "MemFree: 1 kB\nnothing: here\nCached: 2 kB\n");
  test::OpenedFiles opened;
  LinuxSystemInfo info;
  try {
    info.InitializeSystemMemoryState();
    FAIL() << "nothing was thrown";
  } catch (const std::out_of_range& error) {
    EXPECT_THAT(error.what(), testing::StartsWith("basic_string::substr"));
  }
  EXPECT_THAT(info.memInfo, ElementsAre(Pair("MemFree", 1u)));
  ASSERT_EQ(opened.all().size(), 1u);
  ASSERT_NE(opened.all()[0].stream, nullptr);
  EXPECT_GE(fcntl(fileno(opened.all()[0].stream), F_GETFD), 0) << "the file was closed";
  std::fclose(opened.all()[0].stream);
}

TEST(MemoryState, of_an_empty_line_is_out_of_range) {
  const test::ProcFile meminfo("meminfo", "\n");
  test::OpenedFiles opened;
  LinuxSystemInfo info;
  EXPECT_THROW(info.InitializeSystemMemoryState(), std::out_of_range);
  std::fclose(opened.all().at(0).stream);
}

TEST(SpecificSystemMemoryState, copies_the_six_figures) {
  LinuxSystemInfo info;
  info.memInfo = {{"MemTotal", 1}, {"MemFree", 2}, {"HighFree", 3}, {"LowFree", 4}, {"Cached", 5}, {"AnonPages", 6}};
  _sysMemStateInfo state{};
  EXPECT_EQ(info.GetSpecificSystemMemoryState(&state), 0u);
  EXPECT_EQ(state.MemTotal, 1u);
  EXPECT_EQ(state.MemFree, 2u);
  EXPECT_EQ(state.HighFree, 3u);
  EXPECT_EQ(state.LowFree, 4u);
  EXPECT_EQ(state.Cached, 5u);
  EXPECT_EQ(state.AnonPages, 6u);
}

TEST(SpecificSystemMemoryState, has_its_figures_in_the_drivers_order) {
  static_assert(sizeof(_sysMemStateInfo) == 48);
  static_assert(offsetof(_sysMemStateInfo, MemTotal) == 0);
  static_assert(offsetof(_sysMemStateInfo, MemFree) == 8);
  static_assert(offsetof(_sysMemStateInfo, HighFree) == 16);
  static_assert(offsetof(_sysMemStateInfo, LowFree) == 24);
  static_assert(offsetof(_sysMemStateInfo, Cached) == 32);
  static_assert(offsetof(_sysMemStateInfo, AnonPages) == 40);
}

TEST(SpecificSystemMemoryState, adds_a_missing_figure_with_0_and_says_nothing) {
  const test::ProcFile meminfo("meminfo", "MemTotal: 1 kB\nMemFree: 2 kB\nCached: 5 kB\nAnonPages: 6 kB\n");
  LinuxSystemInfo info;
  ASSERT_EQ(info.InitializeSystemMemoryState(), 0);
  test::LogCapture log;
  _sysMemStateInfo state;
  state.HighFree = state.LowFree = 99;
  EXPECT_EQ(info.GetSpecificSystemMemoryState(&state), 0u);
  EXPECT_EQ(state.HighFree, 0u);
  EXPECT_EQ(state.LowFree, 0u);
  EXPECT_EQ(state.AnonPages, 6u);
  EXPECT_EQ(info.memInfo.size(), 6u);
  EXPECT_EQ(info.memInfo.count("HighFree"), 1u);
  EXPECT_TRUE(log.lines().empty()) << log.dump();
}

TEST(SpecificSystemMemoryState, adds_all_six_figures_when_nothing_was_read) {
  LinuxSystemInfo info;
  _sysMemStateInfo state{1, 2, 3, 4, 5, 6};
  EXPECT_EQ(info.GetSpecificSystemMemoryState(&state), 0u);
  EXPECT_EQ(state.MemTotal + state.MemFree + state.HighFree + state.LowFree + state.Cached + state.AnonPages, 0u);
  EXPECT_THAT(info.memInfo, UnorderedElementsAre(Pair("MemTotal", 0u), Pair("MemFree", 0u), Pair("HighFree", 0u),
                                                 Pair("LowFree", 0u), Pair("Cached", 0u), Pair("AnonPages", 0u)));
}

TEST(SpecificSystemMemoryState, for_a_null_record_is_logged_and_3) {
  test::LogCapture log;
  LinuxSystemInfo info;
  EXPECT_EQ(info.GetSpecificSystemMemoryState(nullptr), 3u);
  EXPECT_THAT(log.texts(LOG_ERR), ElementsAre("Improper argument passed.\n"));
  EXPECT_TRUE(info.memInfo.empty());
}

TEST(SpecificSystemMemoryDetail, is_the_value_of_exactly_that_key) {
  LinuxSystemInfo info;
  info.memInfo = {{"MemFree", 2}};
  EXPECT_EQ(info.GetSpecificSystemMemoryDetail("MemFree"), 2u);
  EXPECT_EQ(info.GetSpecificSystemMemoryDetail("memfree"), 0u);
  EXPECT_EQ(info.GetSpecificSystemMemoryDetail("MemFre"), 0u);
  EXPECT_EQ(info.GetSpecificSystemMemoryDetail(""), 0u);
  EXPECT_EQ(info.memInfo.size(), 1u) << "a key that is asked for is not added";
}
