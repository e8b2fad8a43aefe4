// SPDX-License-Identifier: Apache-2.0
#include "engine/Deadline.h"

#include <gtest/gtest.h>

#include <climits>

using MirelSnapSnapshotCoordinator::AddMilliseconds;

namespace {

void expectDeadline(std::timespec now, unsigned int timeoutMs, std::time_t seconds, long nanoseconds) {
  AddMilliseconds(now, timeoutMs);
  EXPECT_EQ(now.tv_sec, seconds);
  EXPECT_EQ(now.tv_nsec, nanoseconds);
}

}  // namespace

TEST(AddMilliseconds, adds_whole_seconds_and_the_rest_as_nanoseconds) {
  expectDeadline({100, 5}, 0, 100, 5);
  expectDeadline({100, 5}, 1, 100, 1'000'005);
  expectDeadline({100, 5}, 999, 100, 999'000'005);
  expectDeadline({100, 5}, 1000, 101, 5);
  expectDeadline({100, 5}, 12'345, 112, 345'000'005);
}

TEST(AddMilliseconds, carries_more_than_a_second_of_nanoseconds) {
  expectDeadline({100, 999'999'999}, 1, 101, 999'999);
  expectDeadline({100, 500'000'001}, 500, 101, 1);
  expectDeadline({100, 999'999'999}, 1999, 102, 998'999'999);
}

TEST(AddMilliseconds, leaves_exactly_a_second_of_nanoseconds_uncarried) {
  expectDeadline({100, 500'000'000}, 500, 100, 1'000'000'000);
  expectDeadline({100, 1'000'000}, 2999, 102, 1'000'000'000);
}

TEST(AddMilliseconds, takes_the_longest_timeout) { expectDeadline({100, 0}, UINT_MAX, 100 + 4'294'967, 295'000'000); }
