// SPDX-License-Identifier: Apache-2.0
//
// Sizes and kind of a mounted file system.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/magic.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>

#include "Interposed.h"
#include "LogCapture.h"
#include "LoopVolume.h"
#include "World.h"
#include "sysinfo/LinuxSystemInfo.h"

using mirelsnapsdk_linuxcomputer::LinuxSystemInfo;
using testing::ElementsAre;

namespace {

struct Sizes {
  std::uint64_t availKB = 1;
  std::uint64_t usedKB = 2;
  std::uint32_t blockSize = 3;
  std::uint64_t fsType = 4;
};

unsigned int ask(const std::string& mountPoint, Sizes& sizes) {
  return LinuxSystemInfo().GetMountSizeDetails(mountPoint, &sizes.availKB, &sizes.usedKB, &sizes.blockSize,
                                               &sizes.fsType);
}

// Makes statfs of /mnt/fake answer these.
void answer(test::Interposed& calls, std::uint64_t blocks, std::uint64_t free, long blockSize) {
  calls.onStatfs = [=](const std::string& path, struct statfs* result) -> test::Answer {
    if (path != "/mnt/fake") return std::nullopt;
    *result = {};
    result->f_blocks = blocks;
    result->f_bfree = free;
    result->f_bavail = 1;
    result->f_bsize = blockSize;
    result->f_frsize = 1;
    result->f_type = 0x1234;
    return 0;
  };
}

}  // namespace

TEST(GetMountSizeDetails, counts_the_superusers_reserve_as_free) {
  const test::Volume volume("ext4", 64 << 20, {"-b", "1024", "-m", "20"});
  test::writeFile(volume.folder() + "/a", std::string(100000, 'x'));
  sync();
  struct statfs kernel;
  ASSERT_EQ(statfs(volume.folder().c_str(), &kernel), 0);
  ASSERT_NE(kernel.f_bfree, kernel.f_bavail);
  Sizes sizes;
  EXPECT_EQ(ask(volume.folder(), sizes), 0u);
  EXPECT_EQ(sizes.availKB, kernel.f_bfree);
  EXPECT_EQ(sizes.usedKB, kernel.f_blocks - kernel.f_bfree);
  EXPECT_EQ(sizes.blockSize, 1024u);
  EXPECT_EQ(sizes.fsType, static_cast<std::uint64_t>(EXT4_SUPER_MAGIC));
}

TEST(GetMountSizeDetails, of_xfs_is_in_its_blocks_of_4_KiB) {
  const test::Volume volume("xfs", 300 << 20);
  struct statfs kernel;
  ASSERT_EQ(statfs(volume.folder().c_str(), &kernel), 0);
  Sizes sizes;
  EXPECT_EQ(ask(volume.folder(), sizes), 0u);
  EXPECT_EQ(sizes.availKB, kernel.f_bfree * 4);
  EXPECT_EQ(sizes.usedKB, (kernel.f_blocks - kernel.f_bfree) * 4);
  EXPECT_EQ(sizes.blockSize, 4096u);
  EXPECT_EQ(sizes.fsType, static_cast<std::uint64_t>(XFS_SUPER_MAGIC));
}

TEST(GetMountSizeDetails, of_blocks_of_512_bytes_is_correct) {
  test::Interposed calls;
  answer(calls, 1001, 501, 512);
  Sizes sizes;
  EXPECT_EQ(ask("/mnt/fake", sizes), 0u);
  EXPECT_EQ(sizes.availKB, 250u);  // 250.5
  EXPECT_EQ(sizes.usedKB, 250u);   // 500.5 in all
  EXPECT_EQ(sizes.blockSize, 512u);
  EXPECT_EQ(sizes.fsType, 0x1234u);
}

TEST(GetMountSizeDetails, counts_as_used_what_whole_KB_in_all_and_free_leave) {
  test::Interposed calls;
  answer(calls, 1000, 501, 512);
  Sizes sizes;
  EXPECT_EQ(ask("/mnt/fake", sizes), 0u);
  EXPECT_EQ(sizes.availKB, 250u);  // 250.5
  EXPECT_EQ(sizes.usedKB, 250u);   // not the 249.5 that the blocks in use have
}

TEST(GetMountSizeDetails, calculates_in_64_bits) {
  test::Interposed calls;
  answer(calls, std::uint64_t{1} << 40, std::uint64_t{1} << 39, 65536);
  Sizes sizes;
  EXPECT_EQ(ask("/mnt/fake", sizes), 0u);
  EXPECT_EQ(sizes.availKB, std::uint64_t{1} << 45);
  EXPECT_EQ(sizes.usedKB, std::uint64_t{1} << 45);
}

TEST(GetMountSizeDetails, gives_the_block_size_in_32_bits_and_logs_it_signed) {
  test::Interposed calls;
  answer(calls, 3, 1, 0x180000000);
  test::LogCapture log;
  Sizes sizes;
  EXPECT_EQ(ask("/mnt/fake", sizes), 0u);
  EXPECT_EQ(sizes.blockSize, 0x80000000u);
  EXPECT_EQ(sizes.availKB, 0x600000u) << "the sizes are calculated with all of it";
  EXPECT_EQ(sizes.usedKB, 0xC00000u);
  EXPECT_TRUE(log.has(LOG_DEBUG, "BlockSize: -2147483648.\n")) << log.dump();
}

TEST(GetMountSizeDetails, logs_its_figures_as_detail) {
  test::Interposed calls;
  answer(calls, 1000, 300, 4096);
  test::LogCapture log;
  Sizes sizes;
  EXPECT_EQ(ask("/mnt/fake", sizes), 0u);
  EXPECT_THAT(log.texts(LOG_DEBUG), ElementsAre("statbuf.f_blocks: 1000, statbuf.f_bfree: 300.\n", "BlockSize: 4096.\n",
                                                "TotalSize: 4000, AvailSize: 1200, usedsize: 2800.\n"));
  EXPECT_EQ(log.lines().size(), 3u) << log.dump();
}

TEST(GetMountSizeDetails, logs_a_path_that_cannot_be_examined_and_touches_nothing) {
  test::LogCapture log;
  Sizes sizes;
  EXPECT_EQ(ask("/mnt/none", sizes), 16u);
  EXPECT_THAT(log.texts(LOG_ERR), ElementsAre("Unable to stat the mountpoint: /mnt/none, errno: 2.\n"));
  EXPECT_EQ(log.lines().size(), 1u) << log.dump();
  EXPECT_EQ(sizes.availKB, 1u);
  EXPECT_EQ(sizes.usedKB, 2u);
  EXPECT_EQ(sizes.blockSize, 3u);
  EXPECT_EQ(sizes.fsType, 4u);
}

TEST(GetMountFSType, is_the_file_systems_magic_number) {
  const test::Volume volume("ext4", 16 << 20);
  LinuxSystemInfo info;
  test::LogCapture log;
  std::uint64_t type = 0;
  EXPECT_EQ(info.GetMountFSType(volume.folder(), &type), 0u);
  EXPECT_EQ(type, static_cast<std::uint64_t>(EXT4_SUPER_MAGIC));
  EXPECT_EQ(info.GetMountFSType("/mnt", &type), 0u);
  EXPECT_EQ(type, static_cast<std::uint64_t>(TMPFS_MAGIC));
  EXPECT_TRUE(log.lines().empty()) << log.dump();
}

TEST(GetMountFSType, logs_a_path_that_cannot_be_examined_and_touches_nothing) {
  LinuxSystemInfo info;
  test::LogCapture log;
  std::uint64_t type = 7;
  EXPECT_EQ(info.GetMountFSType("/mnt/none", &type), 16u);
  EXPECT_EQ(type, 7u);
  EXPECT_THAT(log.texts(LOG_ERR), ElementsAre("Unable to stat the mountpoint: /mnt/none, errno: 2.\n"));
}

TEST(IsValidMountPoint, is_0_for_a_directory_and_for_a_link_to_one) {
  const test::TempDir dir;
  std::filesystem::create_symlink(dir.path(), dir / "link");
  LinuxSystemInfo info;
  std::string path = dir.path();
  EXPECT_EQ(info.IsValidMountPoint(path, ""), 0u);
  path = dir / "link";
  EXPECT_EQ(info.IsValidMountPoint(path, ""), 0u);
  EXPECT_EQ(path, dir / "link");
}

TEST(IsValidMountPoint, is_16_without_a_word_for_anything_else) {
  const test::TempDir dir;
  test::writeFile(dir / "file", "");
  const test::LoopDevice loop(1 << 20);
  LinuxSystemInfo info;
  test::LogCapture log;
  for (std::string path : {dir / "file", dir / "none", loop.path(), std::string()}) {
    EXPECT_EQ(info.IsValidMountPoint(path, dir.path()), 16u) << path;
  }
  EXPECT_TRUE(log.lines().empty()) << log.dump();
}

TEST(IsValidMountPoint, does_not_look_at_its_second_argument) {
  LinuxSystemInfo info;
  std::string path = "/mnt";
  EXPECT_EQ(info.IsValidMountPoint(path, "/mnt/none"), 0u);
  EXPECT_EQ(info.IsValidMountPoint(path, "/dev/null"), 0u);
}
