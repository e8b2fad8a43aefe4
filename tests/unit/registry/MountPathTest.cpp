// SPDX-License-Identifier: Apache-2.0
#include "engine/MountPath.h"

#include <gtest/gtest.h>

#include "Builders.h"
#include "Locale.h"
#include "interpose/FailingMalloc.h"

using MirelSnapSnapshotCoordinator::FolderDepth;
using MirelSnapSnapshotCoordinator::IsLocalMountPoint;

namespace {

std::string joined(const char* base, const char* mountPoint) {
  const UnixUtils::NarrowText path = MirelSnapSnapshotCoordinator::JoinMountPath(base, mountPoint);
  return path == nullptr ? "<null>" : path.get();
}

}  // namespace

TEST(JoinMountPath, puts_the_mount_point_under_the_base) {
  EXPECT_EQ(joined("/mnt/snaps", "/home"), "/mnt/snaps/home");
  EXPECT_EQ(joined("/mnt/snaps", "/home/user/data"), "/mnt/snaps/home/user/data");
  EXPECT_EQ(joined("/", "/home"), "/home");
}

TEST(JoinMountPath, a_base_that_ends_in_a_slash_makes_no_double_slash) {
  EXPECT_EQ(joined("/mnt/snaps/", "/home"), "/mnt/snaps/home");
}

TEST(JoinMountPath, the_root_gives_the_base_without_one_trailing_slash) {
  EXPECT_EQ(joined("/mnt/snaps", "/"), "/mnt/snaps");
  EXPECT_EQ(joined("/mnt/snaps/", "/"), "/mnt/snaps");
  EXPECT_EQ(joined("/mnt/snaps//", "/"), "/mnt/snaps/");
  EXPECT_EQ(joined("/", "/"), "");
}

TEST(JoinMountPath, removes_one_trailing_slash) {
  EXPECT_EQ(joined("/mnt/snaps", "/home/"), "/mnt/snaps/home");
  EXPECT_EQ(joined("/mnt/snaps/", "/home//"), "/mnt/snaps/home/");
}

TEST(JoinMountPath, is_null_unless_both_are_absolute) {
  EXPECT_EQ(joined("mnt", "/home"), "<null>");
  EXPECT_EQ(joined("/mnt", "home"), "<null>");
  EXPECT_EQ(joined("", "/home"), "<null>");
  EXPECT_EQ(joined("/mnt", ""), "<null>");
  EXPECT_EQ(joined(nullptr, "/home"), "<null>");
  EXPECT_EQ(joined("/mnt", nullptr), "<null>");
}

TEST(JoinMountPath, is_null_when_memory_is_short) {
  const test::FailingMalloc failing;
  EXPECT_EQ(MirelSnapSnapshotCoordinator::JoinMountPath("/mnt", "/home"), nullptr);
}

TEST(FolderDepth, counts_the_slashes) {
  EXPECT_EQ(FolderDepth(""), 0);
  EXPECT_EQ(FolderDepth("/"), 1);
  EXPECT_EQ(FolderDepth("/mnt/snaps/home"), 3);
  EXPECT_EQ(FolderDepth("/mnt//snaps/"), 4);
}

TEST(FolderDepth, reads_multibyte_text) {
  const test::Locale utf8(test::kUtf8);
  EXPECT_EQ(FolderDepth("/mnt/caf\xC3\xA9/\xE2\x82\xAC"), 3);
}

TEST(FolderDepth, is_minus_1_for_undecodable_text) {
  for (const char* name : {test::kPlain, test::kUtf8}) {
    const test::Locale locale(name);
    EXPECT_EQ(FolderDepth("/mnt/caf\xE9/x"), -1) << name;
  }
  const test::Locale utf8(test::kUtf8);
  EXPECT_EQ(FolderDepth("/mnt/\xE2\x82"), -1);
}

TEST(IsLocalMountPoint, takes_a_mount_point_as_the_mount_table_spells_it_and_nothing_else) {
  const test::TempDir dir;
  const test::Mounted mounted("a", test::directory(dir / "data"), "tmpfs");
  test::directory(dir / "data/sub");
  std::filesystem::create_directory_symlink(dir / "data", dir / "link");
  EXPECT_TRUE(IsLocalMountPoint((dir / "data").c_str()));
  EXPECT_TRUE(IsLocalMountPoint("/"));
  EXPECT_FALSE(IsLocalMountPoint((dir / "data/").c_str()));
  EXPECT_FALSE(IsLocalMountPoint((dir / "data/sub").c_str()));
  EXPECT_FALSE(IsLocalMountPoint((dir / "link").c_str()));
  EXPECT_FALSE(IsLocalMountPoint((dir / "missing").c_str()));
  EXPECT_FALSE(IsLocalMountPoint(""));
  EXPECT_FALSE(IsLocalMountPoint(nullptr));
}

TEST(IsLocalMountPoint, is_false_when_the_mount_table_cannot_be_read) {
  const test::ProcFile missing("self");
  EXPECT_FALSE(IsLocalMountPoint("/"));
}
