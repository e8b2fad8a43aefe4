// SPDX-License-Identifier: Apache-2.0
//
// How large the driver's tables get.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <syslog.h>

#include <limits>

#include "LogCapture.h"
#include "driver/LinuxSnapLibUtil.h"

using mirelsnapsdk_linuxcomputer::_sysMemStateInfo;

namespace {

unsigned int hashSize(unsigned int count) { return SnapDriverInterfaceUtility().calculateHashSize(count); }

std::uint64_t maxRelocBlocks(const _sysMemStateInfo& state) {
  return SnapDriverInterfaceUtility().calculateMaxRelocBlocks(state);
}

_sysMemStateInfo memory(std::uint64_t free, std::uint64_t cached, std::uint64_t anonymous) {
  _sysMemStateInfo state{};
  state.MemFree = free;
  state.Cached = cached;
  state.AnonPages = anonymous;
  return state;
}

}  // namespace

TEST(CalculateMaxRelocBlocks, takes_half_of_free_and_cached_and_a_quarter_of_anonymous_memory) {
  EXPECT_EQ(maxRelocBlocks(memory(1000000, 2000000, 400000)), 136531968u);
}

TEST(CalculateMaxRelocBlocks, logs_its_figures_as_progress) {
  test::LogCapture log;
  maxRelocBlocks(memory(1000000, 2000000, 400000));
  const std::vector<test::LogLine> lines = log.lines();
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[0].priority, LOG_INFO);
  EXPECT_EQ(lines[0].text, "freeRam  : 1000000Kreserved Mem in KB : 1600000KreservedMemPages : 400000\n");
  EXPECT_EQ(lines[1].priority, LOG_INFO);
  EXPECT_EQ(lines[1].text, "maxAllowableRelocEntriesInMem :136531968\n");
}

TEST(CalculateMaxRelocBlocks, of_no_memory_is_0) { EXPECT_EQ(maxRelocBlocks(memory(0, 0, 0)), 0u); }

TEST(CalculateMaxRelocBlocks, divides_each_term_for_itself) {
  test::LogCapture log;
  maxRelocBlocks(memory(3, 3, 7));
  EXPECT_TRUE(log.has(LOG_INFO, "freeRam  : 3Kreserved Mem in KB : 3KreservedMemPages : 0\n")) << log.dump();
}

TEST(CalculateMaxRelocBlocks, truncates_to_whole_dozens_of_pages_before_it_multiplies) {
  EXPECT_EQ(maxRelocBlocks(memory(2 * 4 * 11, 0, 0)), 0u);
  EXPECT_EQ(maxRelocBlocks(memory(2 * 4 * 12, 0, 0)), 4096u);
  EXPECT_EQ(maxRelocBlocks(memory(2 * 4 * 23, 0, 0)), 4096u);
  EXPECT_EQ(maxRelocBlocks(memory(2 * 4 * 24, 0, 0)), 8192u);
}

TEST(CalculateMaxRelocBlocks, does_not_look_at_the_other_figures) {
  _sysMemStateInfo state = memory(1000000, 2000000, 400000);
  state.MemTotal = state.HighFree = state.LowFree = 123456789;
  EXPECT_EQ(maxRelocBlocks(state), 136531968u);
}

TEST(CalculateMaxRelocBlocks, calculates_in_64_bits) {
  EXPECT_EQ(maxRelocBlocks(memory(std::uint64_t{1} << 40, 0, 0)), ((std::uint64_t{1} << 37) / 12) * 4096);
  // The sum, 2^64 + 2^62 - 3, and the product wrap as unsigned numbers do.
  const std::uint64_t most = std::numeric_limits<std::uint64_t>::max();
  test::LogCapture log;
  EXPECT_EQ(maxRelocBlocks(memory(most, most, most)), 6148914691236515840ull);
  EXPECT_THAT(log.texts(LOG_INFO),
              testing::ElementsAre("freeRam  : 18446744073709551615Kreserved Mem in KB : 4611686018427387901K"
                                   "reservedMemPages : 1152921504606846975\n",
                                   "maxAllowableRelocEntriesInMem :6148914691236515840\n"))
      << log.dump();
}

TEST(CalculateHashSize, of_fewer_than_50_entries_is_2) {
  EXPECT_EQ(hashSize(0), 2u);
  EXPECT_EQ(hashSize(1), 2u);
  EXPECT_EQ(hashSize(49), 2u);
}

TEST(CalculateHashSize, of_50_to_99_entries_is_1) {
  EXPECT_EQ(hashSize(50), 1u);
  EXPECT_EQ(hashSize(99), 1u);
}

TEST(CalculateHashSize, of_100_to_149_entries_is_2) {
  EXPECT_EQ(hashSize(100), 2u);
  EXPECT_EQ(hashSize(149), 2u);
}

TEST(CalculateHashSize, takes_every_odd_number_below_16) {
  for (unsigned int size = 3; size < 16; size += 2) EXPECT_EQ(hashSize(50 * size), size);
}

TEST(CalculateHashSize, goes_on_from_an_even_number) {
  EXPECT_EQ(hashSize(200), 5u);
  EXPECT_EQ(hashSize(800), 17u);
  EXPECT_EQ(hashSize(1000), 23u);
}

TEST(CalculateHashSize, refuses_multiples_of_3_from_16_up) {
  EXPECT_EQ(hashSize(50 * 21), 23u);
  EXPECT_EQ(hashSize(50 * 27), 29u);
}

TEST(CalculateHashSize, refuses_multiples_of_a_divisor_below_the_square_root) {
  EXPECT_EQ(hashSize(50 * 55), 59u);  // 5 x 11; 57 = 3 x 19
  EXPECT_EQ(hashSize(50 * 65), 67u);  // 5 x 13
  EXPECT_EQ(hashSize(50 * 91), 97u);  // 7 x 13; 93 = 3 x 31, 95 = 5 x 19
}

TEST(CalculateHashSize, takes_squares_of_primes_and_what_only_the_truncated_root_divides) {
  EXPECT_EQ(hashSize(1250), 25u);
  EXPECT_EQ(hashSize(2450), 49u);
  EXPECT_EQ(hashSize(50 * 121), 121u);
  EXPECT_EQ(hashSize(50 * 169), 169u);
  EXPECT_EQ(hashSize(50 * 35), 35u);    // 5 x 7
  EXPECT_EQ(hashSize(50 * 143), 143u);  // 11 x 13
}

TEST(CalculateHashSize, knows_the_truncated_root_of_a_large_number_exactly) {
  EXPECT_EQ(hashSize(852019150), 17040383u);  // 4127 x 4129, which a root rounded up to 4128 would refuse
}

TEST(CalculateHashSize, of_many_entries_is_near_a_fiftieth) {
  EXPECT_EQ(hashSize(150), 3u);
  EXPECT_EQ(hashSize(450), 9u);
  EXPECT_EQ(hashSize(5000), 101u);
  EXPECT_EQ(hashSize(100000), 2003u);
  EXPECT_EQ(hashSize(1000000), 20011u);
  EXPECT_EQ(hashSize(std::numeric_limits<unsigned int>::max()), 85899347u);
}
