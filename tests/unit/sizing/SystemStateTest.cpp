// SPDX-License-Identifier: Apache-2.0
//
// The machine's memory state as the driver interface asks for it, and what asking leaves behind.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <syslog.h>

#include <cstring>
#include <stdexcept>

#include "LogCapture.h"
#include "World.h"
#include "driver/LinuxSnapLibUtil.h"
#include "interpose/Allocations.h"
#include "interpose/OpenedFiles.h"

using mirelsnapsdk_linuxcomputer::_sysMemStateInfo;
using mirelsnapsdk_linuxcomputer::LinuxSystemInfo;

namespace {

constexpr char kMemInfo[] =
    "MemTotal:       16000000 kB\n"
    "MemFree:         1000000 kB\n"
    "Cached:          2000000 kB\n"
    "AnonPages:        400000 kB\n";

unsigned int systemState(_sysMemStateInfo* state) { return SnapDriverInterfaceUtility().getSystemState(state); }

_sysMemStateInfo untouched() {
  _sysMemStateInfo state;
  std::memset(&state, 0x5A, sizeof state);
  return state;
}

bool isUntouched(const _sysMemStateInfo& state) {
  const _sysMemStateInfo fresh = untouched();
  return std::memcmp(&state, &fresh, sizeof state) == 0;
}

}  // namespace

TEST(GetSystemState, copies_the_figures_of_meminfo_and_0_for_those_that_are_not_there) {
  const test::ProcFile meminfo("meminfo", kMemInfo);
  _sysMemStateInfo state = untouched();
  EXPECT_EQ(systemState(&state), 0u);
  EXPECT_EQ(state.MemTotal, 16000000u);
  EXPECT_EQ(state.MemFree, 1000000u);
  EXPECT_EQ(state.HighFree, 0u);
  EXPECT_EQ(state.LowFree, 0u);
  EXPECT_EQ(state.Cached, 2000000u);
  EXPECT_EQ(state.AnonPages, 400000u);
}

TEST(GetSystemState, of_this_machine_knows_free_memory) {
  _sysMemStateInfo state{};
  EXPECT_EQ(systemState(&state), 0u);
  EXPECT_GT(state.MemTotal, state.MemFree);
  EXPECT_GT(state.MemFree, 0u);
}

TEST(GetSystemState, logs_nothing_when_it_succeeds) {
  const test::ProcFile meminfo("meminfo", kMemInfo);
  test::LogCapture log;
  _sysMemStateInfo state;
  EXPECT_EQ(systemState(&state), 0u);
  EXPECT_TRUE(log.lines().empty()) << log.dump();
}

TEST(GetSystemState, leaves_one_system_information_object_allocated_on_every_success) {
  const test::ProcFile meminfo("meminfo", kMemInfo);
  _sysMemStateInfo state;
  // The object and six tree nodes: the four lines and the two keys that were asked for in vain.
  constexpr auto object = static_cast<std::ptrdiff_t>(sizeof(LinuxSystemInfo) + 6 * sizeof(std::string));
  for (int call = 0; call < 3; ++call) {
    const std::ptrdiff_t before = test::heldBytes();
    ASSERT_EQ(systemState(&state), 0u);
    const std::ptrdiff_t left = test::heldBytes() - before;
    EXPECT_GE(left, object) << "call " << call;
    EXPECT_LT(left, 2 * object) << "call " << call;
  }
}

TEST(GetSystemState, without_meminfo_logs_two_lines_answers_3_and_leaves_nothing) {
  const test::ProcFile missing("meminfo");
  test::LogCapture log;
  _sysMemStateInfo state = untouched();
  const std::ptrdiff_t before = test::heldBytes();
  EXPECT_EQ(systemState(&state), 3u);
  EXPECT_EQ(test::heldBytes(), before);
  EXPECT_TRUE(isUntouched(state));
  EXPECT_THAT(log.texts(LOG_ERR), testing::ElementsAre("Unable to open the /proc/meminfo file, errno : 2.\n",
                                                       "Unable to Initialize System Memory State Info\n"));
  EXPECT_EQ(log.lines().size(), 2u) << log.dump();
}

TEST(GetSystemState, for_a_null_record_logs_two_lines_answers_3_and_leaves_nothing) {
  const test::ProcFile meminfo("meminfo", kMemInfo);
  test::LogCapture log;
  const std::ptrdiff_t before = test::heldBytes();
  EXPECT_EQ(systemState(nullptr), 3u);
  EXPECT_EQ(test::heldBytes(), before);
  EXPECT_THAT(log.texts(LOG_ERR),
              testing::ElementsAre("Improper argument passed.\n", "Unable to Initialize System Memory State Info\n"));
}

TEST(GetSystemState, lets_the_out_of_range_of_a_digitless_line_leave_and_keeps_no_object) {
  const test::ProcFile meminfo("meminfo", "MemFree: 1 kB\nnothing here\n");
  test::OpenedFiles opened;
  _sysMemStateInfo state = untouched();
  const std::ptrdiff_t before = test::heldBytes();
  EXPECT_THROW(systemState(&state), std::out_of_range);
  EXPECT_EQ(test::heldBytes(), before);
  EXPECT_TRUE(isUntouched(state));
  ASSERT_EQ(opened.all().size(), 1u);
  ASSERT_NE(opened.all()[0].stream, nullptr);
  std::fclose(opened.all()[0].stream);  // it is left open: see the memory state's own tests
}

TEST(GetSystemState, keeps_nothing_when_an_allocation_fails) {
  const test::ProcFile meminfo("meminfo", kMemInfo);
  _sysMemStateInfo state;
  const std::ptrdiff_t before = test::heldBytes();
  const std::size_t allocations =
      test::failEveryAllocation([&] { static_cast<void>(systemState(&state)); },
                                [&](std::size_t n) { EXPECT_EQ(test::heldBytes(), before) << "allocation " << n; });
  EXPECT_GT(allocations, 6u);
}
