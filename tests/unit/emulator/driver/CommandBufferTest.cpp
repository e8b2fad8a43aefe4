// SPDX-License-Identifier: Apache-2.0
//
// Texts in fields, and the walk over a snap's volumes.
#include "emulator/driver/CommandBuffer.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "WireCommand.h"

namespace {

using emulator::CommandBuffer;
using emulator::SnapEntries;

test::WireSnapVolume volume(std::uint32_t minorNum, std::vector<_run> runs) {
  test::WireSnapVolume wire;
  wire.device = {7, minorNum};
  wire.runs = std::move(runs);
  return wire;
}

TEST(CommandBuffer, walks_a_snaps_volumes_by_their_own_run_counts) {
  test::WireCommand command = test::snapCommand({volume(1, {{1, 2}, {3, 4}}), volume(2, {})});
  const CommandBuffer buffer(command.bytes());
  SnapEntries entries(buffer);
  const auto first = entries.next();
  ASSERT_TRUE(first);
  EXPECT_EQ(first->fixed.volumeMinor, 1u);
  EXPECT_EQ(buffer.get<_run>(first->runsAt + sizeof(_run)).startBlock, 3u);
  const auto second = entries.next();
  ASSERT_TRUE(second);
  EXPECT_EQ(second->fixed.volumeMinor, 2u);
  EXPECT_FALSE(entries.next());
  EXPECT_EQ(entries.position() + kDriverTrailerSize, buffer.size());
}

TEST(CommandBuffer, ends_the_walk_where_an_entry_claims_more_runs_than_follow) {
  test::WireCommand command = test::snapCommand({volume(1, {{1, 2}})});
  auto entry = command.get<SnapVolumeEntry>(sizeof(_ioctlCmd));
  for (const std::uint32_t runs : {2u, 0xFFFFFFFFu}) {
    entry.numRuns = runs;
    command.put(sizeof(_ioctlCmd), entry);
    const CommandBuffer buffer(command.bytes());
    EXPECT_FALSE(SnapEntries(buffer).next()) << runs;
  }
}

TEST(CommandBuffer, texts_end_at_their_nul_or_with_their_field) {
  char field[4] = {'a', 'b', '\0', 'c'};
  EXPECT_EQ(emulator::textOf(field), "ab");
  std::memcpy(field, "abcd", 4);
  EXPECT_EQ(emulator::textOf(field), "abcd");
  emulator::putText(field, "x");
  EXPECT_EQ(std::memcmp(field, "x\0\0\0", 4), 0);
  emulator::putText(field, "abcdef");
  EXPECT_EQ(std::memcmp(field, "abc\0", 4), 0);
}

}  // namespace
