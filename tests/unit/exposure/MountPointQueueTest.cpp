// SPDX-License-Identifier: Apache-2.0
//
// The order in which the mounts of an exposure are made.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "Locale.h"
#include "ScriptedDriver.h"
#include "engine/MirelSnapshotEngine.h"
#include "interpose/Allocations.h"
#include "interpose/FailingCopies.h"

using namespace MirelSnapSnapshotCoordinator;

namespace {

using Queue = MirelSnapshotEngine::MountPointInfoWithFolderDepthQueue;
constexpr int kNotAdded = 0x7FFFFFFD;

class MountPointQueue : public testing::Test {
 protected:
  int insert(const std::string& target, int volumeIndex = 0) {
    return engine.InsertIntoInternalShallowFirstSortedQueue(target.c_str(), "/dev/snap7_1", "ext4", volumeIndex, 0);
  }
  std::vector<int> depths() const {
    std::vector<int> all;
    for (const auto& entry : engine.mMountPointQueue) all.push_back(entry.depth);
    return all;
  }
  std::vector<std::string> targets() const {
    std::vector<std::string> all;
    for (const auto& entry : engine.mMountPointQueue) all.emplace_back(entry.target);
    return all;
  }

  test::ScriptedDriver driver;
  MirelSnapshotEngine engine;
};

std::string folderAt(int depth) {
  std::string path;
  for (int i = 0; i < depth; ++i) path += "/d";
  return path;
}

}  // namespace

TEST_F(MountPointQueue, an_entry_holds_copies_of_its_texts_and_both_indexes) {
  std::string target = "/mnt/a", device = "/dev/snap8_1", type = "xfs";
  EXPECT_EQ(engine.InsertIntoInternalShallowFirstSortedQueue(target.c_str(), device.c_str(), type.c_str(), 4, 2), 0);
  target[1] = device[1] = type[0] = '?';
  ASSERT_EQ(engine.mMountPointQueue.size(), 1u);
  const auto& entry = engine.mMountPointQueue.front();
  EXPECT_EQ(entry.depth, 2);
  EXPECT_EQ(entry.volumeIndex, 4u);
  EXPECT_EQ(entry.mountPointIndex, 2u);
  EXPECT_STREQ(entry.target, "/mnt/a");
  EXPECT_STREQ(entry.device, "/dev/snap8_1");
  EXPECT_STREQ(entry.fsType, "xfs");
}

TEST_F(MountPointQueue, a_missing_text_adds_nothing_and_passes_unnoticed) {
  EXPECT_EQ(engine.InsertIntoInternalShallowFirstSortedQueue(nullptr, "d", "t", 0, 0), kNotAdded);
  EXPECT_EQ(engine.InsertIntoInternalShallowFirstSortedQueue("/t", nullptr, "t", 0, 0), kNotAdded);
  EXPECT_EQ(engine.InsertIntoInternalShallowFirstSortedQueue("/t", "d", nullptr, 0, 0), kNotAdded);
  EXPECT_TRUE(engine.mMountPointQueue.empty());
}

TEST_F(MountPointQueue, a_target_without_a_slash_adds_nothing_and_passes_unnoticed) {
  EXPECT_EQ(insert("relative"), kNotAdded);
  EXPECT_EQ(insert(""), kNotAdded);
  EXPECT_TRUE(engine.mMountPointQueue.empty());
}

TEST_F(MountPointQueue, an_undecodable_target_adds_nothing_and_passes_unnoticed) {
  const test::Locale utf8(test::kUtf8);
  EXPECT_EQ(insert("/mnt/\xff"), kNotAdded);
  EXPECT_TRUE(engine.mMountPointQueue.empty());
}

TEST_F(MountPointQueue, a_depth_not_above_the_first_goes_to_the_front) {
  EXPECT_EQ(insert("/a/b"), 0);
  EXPECT_EQ(insert("/c/d"), 0);
  EXPECT_EQ(insert("/e"), 0);
  EXPECT_EQ(targets(), (std::vector<std::string>{"/e", "/c/d", "/a/b"}));
}

TEST_F(MountPointQueue, a_depth_not_below_the_last_goes_to_the_end) {
  EXPECT_EQ(insert("/a"), 0);
  EXPECT_EQ(insert("/a/b"), 1);
  EXPECT_EQ(insert("/c/d"), 2);
  EXPECT_EQ(targets(), (std::vector<std::string>{"/a", "/a/b", "/c/d"}));
}

TEST_F(MountPointQueue, the_equal_depth_that_the_search_meets_first_is_preceded) {
  for (const int depth : {1, 3, 3, 3, 5}) insert(folderAt(depth), 100);
  EXPECT_EQ(insert(folderAt(3), 7), 2);  // the middle of five, though an equal one stands before it
  EXPECT_EQ(engine.mMountPointQueue[2].volumeIndex, 7u);
  EXPECT_EQ(engine.mMountPointQueue[3].volumeIndex, 100u);
  EXPECT_EQ(depths(), (std::vector<int>{1, 3, 3, 3, 3, 5}));
}

TEST_F(MountPointQueue, a_depth_between_two_goes_to_the_upper_end_of_the_search) {
  for (const int depth : {1, 2, 6, 7, 8}) insert(folderAt(depth));
  EXPECT_EQ(insert(folderAt(4)), 2);  // middles 2 and 1
  EXPECT_EQ(insert(folderAt(5)), 3);  // middles 3, 1 and 2
  EXPECT_EQ(depths(), (std::vector<int>{1, 2, 4, 5, 6, 7, 8}));
}

TEST_F(MountPointQueue, a_depth_between_the_two_of_a_pair_goes_between_them) {
  for (const int depth : {1, 6}) insert(folderAt(depth));
  EXPECT_EQ(insert(folderAt(4)), 1);
  EXPECT_EQ(depths(), (std::vector<int>{1, 4, 6}));
}

TEST_F(MountPointQueue, any_order_of_arrival_ends_shallowest_first) {
  std::vector<int> arrival = {1, 2, 2, 3, 4, 6};
  do {
    engine.mMountPointQueue.clear();
    for (const int depth : arrival) insert(folderAt(depth));
    EXPECT_EQ(depths(), (std::vector<int>{1, 2, 2, 3, 4, 6}));
  } while (std::next_permutation(arrival.begin(), arrival.end()));
}

TEST_F(MountPointQueue, a_shortage_of_memory_for_a_text_is_negative_and_adds_nothing) {
  for (int allowed = 0; allowed < 3; ++allowed) {
    const test::FailingCopies noMemory(test::CopyCall::kStrdup, allowed);
    EXPECT_LT(insert("/mnt/a"), 0);
  }
  EXPECT_TRUE(engine.mMountPointQueue.empty());
}

TEST_F(MountPointQueue, a_shortage_of_memory_for_the_entry_is_negative_and_adds_nothing) {
  std::size_t inserted = 0;
  for (;;) {
    const std::string target = "/mnt/a";
    const test::FailingAllocation noMemory(0);
    const int position = engine.InsertIntoInternalShallowFirstSortedQueue(target.c_str(), "/dev/snap7_1", "ext4", 0, 0);
    EXPECT_EQ(position < 0, noMemory.failed());
    if (position < 0) break;
    ASSERT_LT(++inserted, 1000u);
  }
  EXPECT_EQ(engine.mMountPointQueue.size(), inserted);
  EXPECT_GE(insert("/mnt/a"), 0);
}

TEST_F(MountPointQueue, copies_of_an_entry_share_its_texts) {
  insert("/mnt/a");
  const MirelSnapshotEngine::MountPointInfoWithFolderDepth copy = engine.mMountPointQueue.front();
  EXPECT_EQ(copy.target, engine.mMountPointQueue.front().target);
  EXPECT_EQ(copy.device, engine.mMountPointQueue.front().device);
  EXPECT_EQ(copy.fsType, engine.mMountPointQueue.front().fsType);
}

TEST_F(MountPointQueue, cleaning_an_entry_up_frees_its_texts_and_unsets_depth_and_volume) {
  ASSERT_EQ(engine.InsertIntoInternalShallowFirstSortedQueue("/mnt/a", "/dev/snap7_1", "ext4", 3, 5), 0);
  auto& entry = engine.mMountPointQueue.front();
  entry.cleanup();
  EXPECT_EQ(entry.depth, -1);
  EXPECT_EQ(entry.volumeIndex, 0xFFFFFFFFu);
  EXPECT_EQ(entry.mountPointIndex, 5u);  // as it was
  EXPECT_EQ(entry.target, nullptr);
  EXPECT_EQ(entry.device, nullptr);
  EXPECT_EQ(entry.fsType, nullptr);
}

TEST_F(MountPointQueue, clearing_empties_it) {
  insert("/mnt/a");
  insert("/mnt/b");
  engine.mMountPointQueue.clear();
  EXPECT_TRUE(engine.mMountPointQueue.empty());
}
