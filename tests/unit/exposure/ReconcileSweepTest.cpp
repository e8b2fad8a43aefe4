// SPDX-License-Identifier: Apache-2.0
//
// What is left mounted under an exposure's directory goes, deepest first.
#include "OwnWorld.h"
#include "engine/ReconcileSweep.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <vector>

#include "EngineLog.h"
#include "Locale.h"
#include "LoopVolume.h"
#include "World.h"
#include "base/Handle.h"
#include "interpose/Allocations.h"

using namespace MirelSnapSnapshotCoordinator;

namespace {

using Lines = std::vector<std::wstring>;

std::vector<unsigned int> depths(const PosCntQueue& queue) {
  std::vector<unsigned int> all;
  for (const PosCnt& entry : queue) all.push_back(entry.count);
  return all;
}

std::vector<unsigned int> positions(const PosCntQueue& queue) {
  std::vector<unsigned int> all;
  for (const PosCnt& entry : queue) all.push_back(entry.position);
  return all;
}

PosCntQueue queueOf(std::initializer_list<unsigned int> depthsInOrder) {
  PosCntQueue queue;
  for (const unsigned int depth : depthsInOrder) queue.push_back({100, depth});
  return queue;
}

void mountTmpfs(const std::string& folder) {
  std::filesystem::create_directories(folder);
  ASSERT_EQ(mount("tests", folder.c_str(), "tmpfs", 0, nullptr), 0) << folder;
}

bool exists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }

std::wstring w(const std::string& text) { return {text.begin(), text.end()}; }

std::wstring unmounted(unsigned int n, const std::string& folder) {
  return L"DismountAndDeleteDirectory: " + std::to_wstring(n) + L"  : Successfully un-mounted '" + w(folder) + L"'";
}

std::wstring deleted(unsigned int n, const std::string& folder) {
  return L"DismountAndDeleteDirectory: " + std::to_wstring(n) + L"  : Successfully deleted '" + w(folder) + L"'";
}

}  // namespace

TEST(InsertIntoQueue, an_empty_queue_takes_the_entry) {
  PosCntQueue queue;
  InsertIntoQueue(queue, 7, 3);
  EXPECT_EQ(positions(queue), (std::vector<unsigned int>{7}));
  EXPECT_EQ(depths(queue), (std::vector<unsigned int>{3}));
}

TEST(InsertIntoQueue, a_depth_not_below_the_first_goes_to_the_front) {
  PosCntQueue queue = queueOf({5, 4});
  InsertIntoQueue(queue, 1, 5);
  InsertIntoQueue(queue, 2, 9);
  EXPECT_EQ(positions(queue), (std::vector<unsigned int>{2, 1, 100, 100}));
  EXPECT_EQ(depths(queue), (std::vector<unsigned int>{9, 5, 5, 4}));
}

TEST(InsertIntoQueue, a_depth_not_above_the_last_goes_to_the_end) {
  PosCntQueue queue = queueOf({5, 4});
  InsertIntoQueue(queue, 1, 4);
  InsertIntoQueue(queue, 2, 1);
  EXPECT_EQ(positions(queue), (std::vector<unsigned int>{100, 100, 1, 2}));
  EXPECT_EQ(depths(queue), (std::vector<unsigned int>{5, 4, 4, 1}));
}

TEST(InsertIntoQueue, the_ends_are_taken_without_a_message) {
  test::EngineLog log;
  PosCntQueue queue;
  for (const unsigned int depth : {3u, 4u, 2u}) InsertIntoQueue(queue, 0, depth);
  EXPECT_EQ(log.lines(), Lines{});
}

TEST(InsertIntoQueue, an_equal_depth_in_the_middle_is_preceded) {
  test::EngineLog log;
  PosCntQueue queue = queueOf({9, 6, 6, 6, 2});
  InsertIntoQueue(queue, 8, 6);
  EXPECT_EQ(positions(queue), (std::vector<unsigned int>{100, 100, 8, 100, 100, 100}));
  EXPECT_EQ(log.lines(), Lines{L"InsertIntoQueue: Inserting {8, 6} at 2"});
}

TEST(InsertIntoQueue, a_new_depth_in_the_middle_finds_its_place) {
  test::EngineLog log;
  PosCntQueue queue = queueOf({10, 8, 2});
  InsertIntoQueue(queue, 8, 5);
  EXPECT_EQ(depths(queue), (std::vector<unsigned int>{10, 8, 5, 2}));
  EXPECT_EQ(log.lines(), Lines{L"InsertIntoQueue: Inserting {8, 5} at 2"});
}

TEST(InsertIntoQueue, the_message_shows_the_last_middle_though_the_entry_went_behind_it) {
  test::EngineLog log;
  PosCntQueue queue = queueOf({10, 9, 4, 3, 2});
  InsertIntoQueue(queue, 8, 5);
  EXPECT_EQ(positions(queue), (std::vector<unsigned int>{100, 100, 8, 100, 100, 100}));
  EXPECT_EQ(log.lines(), Lines{L"InsertIntoQueue: Inserting {8, 5} at 1"});
}

TEST(InsertIntoQueue, any_order_of_arrival_ends_deepest_first) {
  std::vector<unsigned int> arrival = {1, 2, 3, 3, 4, 5};
  do {
    PosCntQueue queue;
    for (unsigned int i = 0; i < arrival.size(); ++i) InsertIntoQueue(queue, i, arrival[i]);
    EXPECT_EQ(depths(queue), (std::vector<unsigned int>{5, 4, 3, 3, 2, 1}));
  } while (std::next_permutation(arrival.begin(), arrival.end()));
}

TEST(InsertIntoQueue, undecodable_text_counts_as_the_deepest) {
  PosCntQueue queue = queueOf({9, 1});
  InsertIntoQueue(queue, 1, static_cast<unsigned int>(-1));
  InsertIntoQueue(queue, 2, static_cast<unsigned int>(-1));
  EXPECT_EQ(positions(queue), (std::vector<unsigned int>{2, 1, 100, 100}));
}

TEST(DismountAndDeleteDirectory, a_missing_name_is_only_a_warning) {
  test::EngineLog log;
  DismountAndDeleteDirectory(nullptr, 4);
  EXPECT_EQ(log.lines(), Lines{L"DismountAndDeleteDirectory: WARNING: Null directory name supplied!"});
}

TEST(DismountAndDeleteDirectory, a_mounted_folder_is_unmounted_and_removed) {
  const test::TempDir dir;
  mountTmpfs(dir / "a");
  test::EngineLog log;
  DismountAndDeleteDirectory((dir / "a").c_str(), 12);
  EXPECT_FALSE(exists(dir / "a"));
  EXPECT_EQ(log.lines(), (Lines{L"DismountAndDeleteDirectory: 12 : Successfully un-mounted '" + w(dir / "a") + L"'",
                                L"DismountAndDeleteDirectory: 12 : Successfully deleted '" + w(dir / "a") + L"'"}));
}

TEST(DismountAndDeleteDirectory, a_folder_that_is_not_mounted_is_kept) {
  const test::TempDir dir;
  std::filesystem::create_directory(dir / "a");
  test::EngineLog log;
  DismountAndDeleteDirectory((dir / "a").c_str(), 0);
  EXPECT_TRUE(exists(dir / "a"));
  EXPECT_EQ(log.lines(), Lines{L"DismountAndDeleteDirectory: 0  : Failed to un-mount '" + w(dir / "a") +
                               L"', Error: 22, {Invalid argument}"});
}

TEST(DismountAndDeleteDirectory, a_directory_with_files_under_the_mount_stays_and_is_told) {
  const test::TempDir dir;
  std::filesystem::create_directory(dir / "a");
  test::writeFile(dir / "a/file", "x");
  mountTmpfs(dir / "a");
  test::EngineLog log;
  DismountAndDeleteDirectory((dir / "a").c_str(), 1000);
  EXPECT_TRUE(exists(dir / "a/file"));
  EXPECT_EQ(log.lines(), (Lines{L"DismountAndDeleteDirectory: 1000: Successfully un-mounted '" + w(dir / "a") + L"'",
                                L"DismountAndDeleteDirectory: 1000: Failed to remove directory '" + w(dir / "a") +
                                    L"', Error: 39, {Directory not empty}"}));
}

TEST(DismountAndDeleteDirectory, a_link_in_the_place_of_a_folder_above_leads_to_no_other_mount) {
  const test::TempDir dir;
  mountTmpfs(dir / "victim/a");
  std::filesystem::create_directory_symlink(dir / "victim", dir / "swapped");
  test::EngineLog log;
  DismountAndDeleteDirectory((dir / "swapped/a").c_str(), 0);
  EXPECT_EQ(log.lines(), Lines{L"DismountAndDeleteDirectory: 0  : Failed to un-mount '" + w(dir / "swapped/a") +
                               L"', Error: 40, {Too many levels of symbolic links}"});
  EXPECT_EQ(test::unmount(dir / "victim/a"), 0) << "it was still mounted";
}

TEST(DismountAndDeleteDirectory, a_link_in_the_place_of_the_folder_leads_to_no_other_mount) {
  const test::TempDir dir;
  mountTmpfs(dir / "victim");
  std::filesystem::create_directory_symlink(dir / "victim", dir / "swapped");
  DismountAndDeleteDirectory((dir / "swapped").c_str(), 0);
  EXPECT_EQ(test::unmount(dir / "victim"), 0) << "it was still mounted";
}

TEST(DismountAndDeleteAllUnder, a_missing_base_is_an_invalid_argument) {
  EXPECT_EQ(DismountAndDeleteAllUnder(nullptr), EINVAL);
}

TEST(DismountAndDeleteAllUnder, a_base_that_cannot_be_examined_gives_the_reason) {
  EXPECT_EQ(DismountAndDeleteAllUnder("/mnt/nowhere"), ENOENT);
  EXPECT_EQ(DismountAndDeleteAllUnder("/dev/null/below"), ENOTDIR);
}

TEST(DismountAndDeleteAllUnder, a_base_that_is_no_directory_is_an_invalid_argument) {
  EXPECT_EQ(DismountAndDeleteAllUnder("/dev/null"), EINVAL);
}

TEST(DismountAndDeleteAllUnder, the_deepest_of_three_goes_first_and_each_directory_after_its_mount) {
  const test::TempDir dir;  // /mnt/t-PID-XXXXXX
  mountTmpfs(dir / "a");
  mountTmpfs(dir / "a/b");
  mountTmpfs(dir / "a/b/c");
  test::EngineLog log;
  EXPECT_EQ(DismountAndDeleteAllUnder(dir.path().c_str()), 0);
  EXPECT_EQ(log.lines(), (Lines{unmounted(0, dir / "a/b/c"), deleted(0, dir / "a/b/c"), unmounted(1, dir / "a/b"),
                                deleted(1, dir / "a/b"), unmounted(2, dir / "a"), deleted(2, dir / "a")}));
  EXPECT_FALSE(exists(dir / "a"));
  EXPECT_TRUE(exists(dir.path()));
}

TEST(DismountAndDeleteAllUnder, of_two_folders_at_one_depth_the_one_mounted_later_goes_first) {
  const test::TempDir dir;
  mountTmpfs(dir / "b");
  mountTmpfs(dir / "a");
  test::EngineLog log;
  EXPECT_EQ(DismountAndDeleteAllUnder(dir.path().c_str()), 0);
  EXPECT_EQ(log.lines(),
            (Lines{unmounted(0, dir / "a"), deleted(0, dir / "a"), unmounted(1, dir / "b"), deleted(1, dir / "b")}));
}

TEST(DismountAndDeleteAllUnder, a_base_that_is_a_mount_itself_goes_last) {
  const test::TempDir dir;
  mountTmpfs(dir / "base");
  mountTmpfs(dir / "base/a");
  EXPECT_EQ(DismountAndDeleteAllUnder((dir / "base").c_str()), 0);
  EXPECT_FALSE(exists(dir / "base"));
}

TEST(DismountAndDeleteAllUnder, a_neighbour_whose_name_begins_alike_is_not_touched) {
  const test::TempDir dir;
  mountTmpfs(dir / "snapsX");
  mountTmpfs(dir / "snaps/a");
  EXPECT_EQ(DismountAndDeleteAllUnder((dir / "snaps").c_str()), 0);
  EXPECT_FALSE(exists(dir / "snaps/a"));
  EXPECT_TRUE(exists(dir / "snapsX"));
  EXPECT_EQ(test::unmount(dir / "snapsX"), 0);
}

TEST(DismountAndDeleteAllUnder, a_trailing_slash_is_compared_as_it_stands_and_nothing_lies_under_it) {
  const test::TempDir dir;
  mountTmpfs(dir / "snaps/a");
  EXPECT_EQ(DismountAndDeleteAllUnder((dir / "snaps/").c_str()), 0);
  EXPECT_EQ(test::unmount(dir / "snaps/a"), 0);
}

TEST(DismountAndDeleteAllUnder, a_busy_mount_stays_with_its_parents_and_the_others_go) {
  const test::TempDir dir;
  mountTmpfs(dir / "a");
  mountTmpfs(dir / "a/busy");
  mountTmpfs(dir / "b");
  UniqueFd user(open((dir / "a/busy").c_str(), O_RDONLY | O_CLOEXEC));
  test::EngineLog log;
  EXPECT_EQ(DismountAndDeleteAllUnder(dir.path().c_str()), 0);
  EXPECT_TRUE(log.has(L"DismountAndDeleteDirectory: 0  : Failed to un-mount '" + w(dir / "a/busy") +
                      L"', Error: 16, {Device or resource busy}"));
  EXPECT_TRUE(exists(dir / "a/busy"));
  EXPECT_FALSE(exists(dir / "b"));
  user.reset();
  EXPECT_EQ(DismountAndDeleteAllUnder(dir.path().c_str()), 0);
  EXPECT_FALSE(exists(dir / "a"));
}

TEST(DismountAndDeleteAllUnder, two_mounts_on_one_folder_are_both_unmounted) {
  const test::TempDir dir;
  mountTmpfs(dir / "a");
  mountTmpfs(dir / "a");
  EXPECT_EQ(DismountAndDeleteAllUnder(dir.path().c_str()), 0);
  EXPECT_FALSE(exists(dir / "a"));
}

TEST(DismountAndDeleteAllUnder, a_real_file_system_mounted_inside_another_goes_too) {
  const test::TempDir dir;
  const test::LoopDevice outer(16 << 20);
  const test::LoopDevice inner(16 << 20);
  outer.mkfs("ext4");
  inner.mkfs("ext4");
  std::filesystem::create_directory(dir / "outer");
  ASSERT_EQ(mount(outer.path().c_str(), (dir / "outer").c_str(), "ext4", 0, nullptr), 0);
  std::filesystem::create_directory(dir / "outer/inner");
  ASSERT_EQ(mount(inner.path().c_str(), (dir / "outer/inner").c_str(), "ext4", 0, nullptr), 0);
  EXPECT_EQ(DismountAndDeleteAllUnder(dir.path().c_str()), 0);
  EXPECT_FALSE(exists(dir / "outer"));
}

TEST(DismountAndDeleteAllUnder, folders_that_the_locale_cannot_read_are_swept_first) {
  const test::Locale utf8(test::kUtf8);
  const test::TempDir dir;
  mountTmpfs(dir / "a");
  mountTmpfs(dir / "a/b");
  mountTmpfs(dir / "\xff");
  test::EngineLog log;
  EXPECT_EQ(DismountAndDeleteAllUnder(dir.path().c_str()), 0);
  ASSERT_EQ(log.lines().size(), 6u);
  EXPECT_EQ(log.lines()[0], L"DismountAndDeleteDirectory: 0  : Successfully un-mounted '" + w(dir.path()) + L"/\\xFF'");
  EXPECT_EQ(log.lines()[2], unmounted(1, dir / "a/b"));
  EXPECT_FALSE(exists(dir / "\xff"));
}

TEST(DismountAndDeleteAllUnder, the_root_is_left_alone_and_stays_writable) {
  const test::TempDir dir;
  const std::string root = dir / "root";
  mountTmpfs(root);
  std::filesystem::create_directory(root + "/proc");
  ASSERT_EQ(mount("proc", (root + "/proc").c_str(), "proc", 0, nullptr), 0);
  const pid_t child = fork();
  if (child == 0) {
    const bool swept = chroot(root.c_str()) == 0 && chdir("/") == 0 && DismountAndDeleteAllUnder("/") == 0;
    _exit(swept && mkdir("/still-writable", 0700) == 0 ? 0 : 1);
  }
  int status = -1;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
  EXPECT_EQ(test::unmount(root + "/proc"), 0);
  EXPECT_EQ(test::unmount(root), 0);
}

TEST(DismountAndDeleteAllUnder, a_shortage_of_memory_is_answered_with_nothing_touched_or_only_shortens_a_message) {
  const test::TempDir dir;
  const std::string folder = dir / "a";
  const std::string parent = dir.path();
  bool someFailed = false;
  for (std::size_t n = 0;; ++n) {
    if (!exists(folder)) mountTmpfs(folder);
    int result;
    bool failed;
    {
      const test::FailingAllocation noMemory(n);
      result = DismountAndDeleteAllUnder(parent.c_str());
      failed = noMemory.failed();
    }
    EXPECT_EQ(exists(folder), result == ENOMEM) << n;
    EXPECT_TRUE(result == 0 || result == ENOMEM) << result;
    someFailed |= result == ENOMEM;
    if (!failed) break;
  }
  EXPECT_TRUE(someFailed);
}
