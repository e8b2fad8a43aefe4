// SPDX-License-Identifier: Apache-2.0
#include "driver/TrackingGuid.h"

#include <gtest/gtest.h>
#include <syslog.h>
#include <unistd.h>

#include <iostream>
#include <set>

#include "Interposed.h"
#include "LogCapture.h"

namespace {

using test::FakeRand;
using test::FakeTimeOfDay;
using test::LogCapture;

// The generator's state lives as long as the process, so the suite's first acts are recorded here, whichever test runs.
class TrackingGuid : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    const FakeTimeOfDay clock({1700000000, 123456});
    const FakeRand random({20000, 0, 1, 254, 255, 256, 509});
    guidInit();
    firstGuid = generateTrackingGuid();
  }

  // A microsecond that no test has seen, each later than the one before.
  static timeval freshTick() {
    static time_t second = 1800000000;
    return {++second, 0};
  }
  static unsigned int clockSequence(const std::string& guid) {
    return static_cast<unsigned int>(std::stoul(guid.substr(19, 4), nullptr, 16)) & 0x3FFFU;
  }
  static unsigned int following(unsigned int sequence) { return sequence == 16383 ? 1 : sequence + 1; }

  static std::string firstGuid;
};
std::string TrackingGuid::firstGuid;

// 1700000000 s, 123456 us: 1700000000 * 10000000 + 123456 + 116444736000000000 + 10006441 = 0x01DA1747C70791E9. The
// seed gives the clock sequence 20000 % 16383 + 1 = 0x0E22, which grows by one in the seed's own tick.
TEST_F(TrackingGuid, the_first_identifier_is_made_of_the_seed_bit_for_bit) {
  EXPECT_EQ(firstGuid, "c70791e9-1747-11da-8e23-0001fe0001fe");
}

TEST_F(TrackingGuid, only_the_first_seed_counts) {
  const FakeTimeOfDay clock(freshTick());
  const unsigned int before = clockSequence(generateTrackingGuid());
  {
    const FakeRand random({4711});
    guidInit();
    EXPECT_EQ(std::rand(), 4711) << "a later seed draws nothing";
  }
  EXPECT_EQ(clockSequence(generateTrackingGuid()), following(before)) << "and forgets no tick";
}

TEST_F(TrackingGuid, two_of_one_microsecond_differ_in_the_clock_sequence) {
  const FakeTimeOfDay clock(freshTick());
  const FakeRand random({});  // all nodes alike
  const std::string first = generateTrackingGuid(), second = generateTrackingGuid();
  EXPECT_EQ(first.substr(0, 19), second.substr(0, 19));
  EXPECT_EQ(first.substr(23), second.substr(23));
  EXPECT_EQ(clockSequence(second), following(clockSequence(first)));
}

TEST_F(TrackingGuid, a_later_microsecond_keeps_the_clock_sequence) {
  FakeTimeOfDay clock(freshTick());
  const std::string first = generateTrackingGuid();
  timeval later = freshTick();
  later.tv_usec = 1;
  clock.set(later);
  const std::string second = generateTrackingGuid();
  EXPECT_EQ(clockSequence(second), clockSequence(first));
  EXPECT_NE(second.substr(0, 18), first.substr(0, 18));
}

TEST_F(TrackingGuid, microseconds_count_as_single_ticks) {
  timeval time = freshTick();
  FakeTimeOfDay clock(time);
  const unsigned long first = std::stoul(generateTrackingGuid().substr(0, 8), nullptr, 16);
  time.tv_usec = 3;
  clock.set(time);
  const unsigned long second = std::stoul(generateTrackingGuid().substr(0, 8), nullptr, 16);
  EXPECT_EQ((second - first) & 0xFFFFFFFF, 3U);
}

TEST_F(TrackingGuid, a_clock_that_goes_back_is_the_same_tick_with_the_earlier_time_in_the_text) {
  const timeval now = freshTick();
  FakeTimeOfDay clock(now);
  const std::string first = generateTrackingGuid();
  clock.set({1700000000, 123456});
  const std::string second = generateTrackingGuid();
  EXPECT_EQ(second.substr(0, 18), "c70791e9-1747-11da");
  EXPECT_EQ(clockSequence(second), following(clockSequence(first)));
  clock.set(now);
  EXPECT_EQ(clockSequence(generateTrackingGuid()), following(clockSequence(second)));
}

// In a process of its own: no later time could be a fresh tick. 250000000000 s are 0x244F7A9FF8512FA9 in all.
TEST_F(TrackingGuid, the_highest_four_bits_of_the_time_are_not_in_the_text) {
  const FakeTimeOfDay clock({250000000000, 0});
  EXPECT_EXIT(
      {
        std::cerr << generateTrackingGuid();
        _exit(0);
      },
      testing::ExitedWithCode(0), "^f8512fa9-7a9f-144f-");
}

TEST_F(TrackingGuid, a_tick_has_16384_and_then_null_with_assert_3041_until_the_next_tick) {
  FakeTimeOfDay clock(freshTick());
  LogCapture log;
  unsigned int expected = clockSequence(generateTrackingGuid());
  std::set<unsigned int> sequences;
  for (int made = 1; made < 16384; ++made) {
    expected = following(expected);
    const std::string guid = generateTrackingGuid();
    ASSERT_EQ(clockSequence(guid), expected) << made;
    sequences.insert(expected);
  }
  EXPECT_EQ(sequences.size(), 16383U);
  EXPECT_EQ(*sequences.begin(), 1U);
  EXPECT_EQ(*sequences.rbegin(), 16383U);
  EXPECT_TRUE(log.lines().empty()) << log.dump();

  EXPECT_EQ(generateTrackingGuid(), "{null}");
  EXPECT_EQ(generateTrackingGuid(), "{null}");
  EXPECT_EQ(log.texts(LOG_ERR), std::vector<std::string>(2, "assert at 3041 in LinuxSnapLib.cpp failed.\n"));

  clock.set(freshTick());
  EXPECT_EQ(clockSequence(generateTrackingGuid()), expected);
}

TEST_F(TrackingGuid, is_36_lower_case_characters_grouped_8_4_4_4_12) {
  for (int i = 0; i < 1000; ++i) {
    const std::string guid = generateTrackingGuid();
    ASSERT_EQ(guid.size(), 36U);
    for (std::size_t at = 0; at < guid.size(); ++at) {
      const std::string allowed = at == 8 || at == 13 || at == 18 || at == 23 ? "-" : "0123456789abcdef";
      ASSERT_NE(allowed.find(guid[at]), std::string::npos) << guid;
    }
    EXPECT_EQ(guid[14], '1');
  }
}

}  // namespace
