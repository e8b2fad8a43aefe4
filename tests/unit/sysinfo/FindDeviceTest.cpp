// SPDX-License-Identifier: Apache-2.0
//
// From a device number to a node.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <syslog.h>

#include <algorithm>

#include "DevTree.h"
#include "Interposed.h"
#include "LogCapture.h"
#include "LoopVolume.h"
#include "World.h"
#include "sysinfo/LinuxSystemInfo.h"

using mirelsnapsdk_linuxcomputer::FindDev;
using mirelsnapsdk_linuxcomputer::FindDevRecursive;

namespace {

// A number that no node of the private /dev has.
constexpr unsigned int kMajor = 240;
constexpr unsigned int kMinor = 17;
const unsigned long kDevice = makedev(kMajor, kMinor);

// Whether `first` comes before `second` in the directory's own order.
bool comesFirst(const std::string& directory, const std::string& first, const std::string& second) {
  const std::vector<std::string> names = test::namesInOrder(directory);
  return std::find(names.begin(), names.end(), first) < std::find(names.begin(), names.end(), second);
}

}  // namespace

TEST(FindDev, of_number_0_is_the_boot_device_in_words) { EXPECT_EQ(FindDev(0), "Boot device"); }

TEST(FindDev, finds_a_block_device_in_dev) {
  test::DevTree dev;
  dev.block("/dev/xyz", kMajor, kMinor);
  EXPECT_EQ(FindDev(kDevice), "/dev/xyz");
}

TEST(FindDev, finds_a_real_volume_by_the_number_of_its_mount) {
  const test::Volume volume("ext4", 16 << 20);
  struct stat root;
  ASSERT_EQ(stat(volume.folder().c_str(), &root), 0);
  EXPECT_EQ(FindDev(root.st_dev), volume.device());
}

TEST(FindDev, finds_a_block_device_in_a_directory_below) {
  test::DevTree dev;
  dev.directory("/dev/a/b/c");
  dev.block("/dev/a/b/c/xyz", kMajor, kMinor);
  EXPECT_EQ(FindDev(kDevice), "/dev/a/b/c/xyz");
}

TEST(FindDev, gives_a_name_that_reserves_no_room_for_the_longest_path) {
  test::DevTree dev;
  dev.block("/dev/xyz", kMajor, kMinor);
  EXPECT_LT(FindDev(kDevice).capacity(), 100u);
}

TEST(FindDev, writes_the_low_32_bits_of_a_number_without_a_node_in_hexadecimal) {
  EXPECT_EQ(FindDev(0x801), "0x0801");
  EXPECT_EQ(FindDev(1), "0x0001");
  EXPECT_EQ(FindDev(0x12345678), "0x12345678");
  EXPECT_EQ(FindDev(0x1200000801), "0x0801");
}

TEST(FindDev, takes_the_first_node_in_the_directorys_own_order) {
  test::DevTree dev;
  dev.block("/dev/xyz1", kMajor, kMinor);
  dev.block("/dev/xyz2", kMajor, kMinor);
  EXPECT_EQ(FindDev(kDevice), comesFirst("/dev", "xyz1", "xyz2") ? "/dev/xyz1" : "/dev/xyz2");
}

TEST(FindDev, goes_down_into_a_directory_before_it_looks_at_what_follows) {
  test::DevTree dev;
  dev.directory("/dev/before/deep");
  dev.block("/dev/between", kMajor, kMinor);
  dev.directory("/dev/after/deep");
  dev.block("/dev/before/deep/node", kMajor, kMinor);
  dev.block("/dev/after/deep/node", kMajor, kMinor);
  // One of the two directories stands before the node, whichever way the file system orders its entries.
  const std::string first = comesFirst("/dev", "before", "between") ? "before" : "after";
  ASSERT_TRUE(comesFirst("/dev", first, "between"));
  EXPECT_EQ(FindDev(kDevice), "/dev/" + first + "/deep/node");
}

TEST(FindDev, passes_over_character_devices_links_and_files) {
  test::DevTree dev;
  dev.directory("/dev/elsewhere");
  dev.character("/dev/xyz", kMajor, kMinor);
  dev.file("/dev/file");
  const test::Node outside("/mnt/xyz", S_IFBLK, kMajor, kMinor);
  dev.link("/dev/elsewhere/link", outside.path());
  EXPECT_EQ(FindDev(kDevice), "0xf011");
}

TEST(FindDev, follows_no_link_to_a_directory) {
  test::DevTree dev;
  dev.directory("/dev/loops");
  dev.link("/dev/loops/up", "..");
  const test::TempDir outside;
  const test::Node node(outside / "xyz", S_IFBLK, kMajor, kMinor);
  dev.link("/dev/loops/out", outside.path());
  EXPECT_EQ(FindDev(kDevice), "0xf011");
}

TEST(FindDev, never_takes_a_name_that_begins_with_dev_root) {
  test::DevTree dev;
  dev.block("/dev/root", kMajor, kMinor);
  dev.block("/dev/rootdisk", kMajor, kMinor);
  dev.directory("/dev/root.d");
  dev.block("/dev/root.d/xyz", kMajor, kMinor);
  EXPECT_EQ(FindDev(kDevice), "0xf011");
  dev.directory("/dev/deep");
  dev.block("/dev/deep/root", kMajor, kMinor);
  EXPECT_EQ(FindDev(kDevice), "/dev/deep/root");
}

TEST(FindDev, logs_nothing_when_all_directories_open) {
  test::LogCapture log;
  EXPECT_EQ(FindDev(kDevice), "0xf011");
  EXPECT_TRUE(log.lines().empty()) << log.dump();
}

TEST(FindDevRecursive, leaves_the_nodes_path_when_it_finds_one) {
  test::TempDir tree;
  const test::Node node(tree / "xyz", S_IFBLK, kMajor, kMinor);
  std::string path = tree.path();
  EXPECT_TRUE(FindDevRecursive(path, kDevice));
  EXPECT_EQ(path, tree / "xyz");
}

TEST(FindDevRecursive, restores_the_path_when_it_finds_none) {
  test::DevTree tree;
  tree.directory("/dev/tree/a/b");
  tree.file("/dev/tree/a/file");
  std::string path = "/dev/tree";
  EXPECT_FALSE(FindDevRecursive(path, kDevice));
  EXPECT_EQ(path, "/dev/tree");
}

TEST(FindDevRecursive, logs_a_directory_that_cannot_be_opened) {
  test::LogCapture log;
  std::string path = "/mnt/none";
  EXPECT_FALSE(FindDevRecursive(path, kDevice));
  EXPECT_EQ(path, "/mnt/none");
  EXPECT_THAT(log.texts(LOG_ERR),
              testing::ElementsAre("FindDevRecursive opendir failed on : /mnt/none, and errno: 2.\n"));
}

TEST(FindDevRecursive, logs_a_file_that_is_no_directory) {
  const test::TempDir tree;
  test::writeFile(tree / "file", "");
  test::LogCapture log;
  std::string path = tree / "file";
  EXPECT_FALSE(FindDevRecursive(path, kDevice));
  EXPECT_TRUE(log.has(LOG_ERR, "FindDevRecursive opendir failed on : " + path + ", and errno: 20.\n")) << log.dump();
}

TEST(FindDevRecursive, goes_on_behind_a_directory_that_cannot_be_opened) {
  test::DevTree tree;
  tree.directory("/dev/tree/a");
  tree.directory("/dev/tree/b");
  tree.block("/dev/tree/node", 241, 0);
  test::LogCapture log;
  openlog("TEST", LOG_NDELAY, LOG_USER);  // connected while a descriptor is to be had
  const int lowestFree = dup(0);
  close(lowestFree);
  rlimit saved;
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &saved), 0);
  const rlimit one = {static_cast<rlim_t>(lowestFree) + 1, saved.rlim_max};
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &one), 0);  // room for the directory at the top, none for those in it
  std::string path = "/dev/tree";
  const bool found = FindDevRecursive(path, makedev(241, 1));
  setrlimit(RLIMIT_NOFILE, &saved);
  EXPECT_FALSE(found);
  EXPECT_EQ(path, "/dev/tree");
  EXPECT_THAT(log.texts(LOG_ERR),
              testing::UnorderedElementsAre("FindDevRecursive opendir failed on : /dev/tree/a, and errno: 24.\n",
                                            "FindDevRecursive opendir failed on : /dev/tree/b, and errno: 24.\n"));
}

TEST(FindDevRecursive, skips_an_entry_that_vanishes_meanwhile) {
  test::DevTree tree;
  tree.directory("/dev/tree");
  tree.block("/dev/tree/a", kMajor, kMinor);
  tree.block("/dev/tree/b", kMajor, kMinor);
  test::Interposed calls;
  calls.onLstat = [](const std::string& path, struct stat*) -> test::Answer {
    if (path == "/dev/tree/a") return ENOENT;
    return std::nullopt;
  };
  std::string path = "/dev/tree";
  EXPECT_TRUE(FindDevRecursive(path, kDevice));
  EXPECT_EQ(path, "/dev/tree/b");
}

TEST(FindDevRecursive, finds_a_node_at_the_longest_path_that_the_kernel_takes) {
  test::DevTree dev;
  dev.directory("/dev/deep");
  const test::Mounted tree("tests", "/dev/deep", "tmpfs");
  const std::string directory = test::makeDeepDirectory("/dev/deep", 4090);
  test::makeBlockAt(directory, "node", kMajor, kMinor);
  EXPECT_EQ(FindDev(kDevice), directory + "/node");
  EXPECT_EQ((directory + "/node").size(), 4095u);
}

TEST(FindDevRecursive, skips_what_lies_too_deep_without_a_word) {
  test::DevTree dev;
  dev.directory("/dev/deep");
  const test::Mounted tree("tests", "/dev/deep", "tmpfs");
  const std::string directory = test::makeDeepDirectory("/dev/deep", 6000);
  test::makeBlockAt(directory, "node", kMajor, kMinor);
  test::LogCapture log;
  EXPECT_EQ(FindDev(kDevice), "0xf011");
  EXPECT_TRUE(log.lines().empty()) << log.dump();
}

TEST(FindDevRecursive, looks_at_no_entry_beyond_4096_bytes_of_directory_and_name) {
  test::DevTree dev;
  dev.directory("/dev/deep");
  const test::Mounted tree("tests", "/dev/deep", "tmpfs");
  const std::string directory = test::makeDeepDirectory("/dev/deep", 4090);
  test::makeBlockAt(directory, "123456", kMajor, kMinor);
  test::makeBlockAt(directory, "1234567", kMajor, kMinor);
  std::vector<std::size_t> asked;
  test::Interposed calls;
  calls.onLstat = [&asked](const std::string& path, struct stat*) -> test::Answer {
    asked.push_back(path.size());
    return std::nullopt;
  };
  EXPECT_EQ(FindDev(kDevice), "0xf011");
  EXPECT_EQ(*std::max_element(asked.begin(), asked.end()), 4097u);
}
