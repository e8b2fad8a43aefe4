// SPDX-License-Identifier: Apache-2.0
#include "base/DirectoryEntry.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include <cerrno>
#include <climits>
#include <filesystem>

#include "LoopVolume.h"
#include "World.h"

namespace fs = std::filesystem;

namespace {

// /folder, and a link to it.
class Entry : public testing::Test {
 protected:
  Entry() {
    fs::create_directory(mTree / "folder");
    fs::create_directory_symlink(mTree / "folder", mTree / "link");
  }
  DirectoryEntry at(const std::string& name) const { return DirectoryEntry((mTree / name).c_str()); }

  test::TempDir mTree;
};

}  // namespace

TEST_F(Entry, is_made_and_removed_by_its_name_whatever_slashes_follow) {
  EXPECT_EQ(at("folder/new//").makeDirectory(0700), 0);
  EXPECT_TRUE(fs::is_directory(mTree / "folder/new"));
  EXPECT_EQ(at("folder/new").makeDirectory(0700), EEXIST);
  EXPECT_EQ(at("folder/new").removeDirectory(), 0);
  EXPECT_EQ(at("folder/new").removeDirectory(), ENOENT);
}

TEST_F(Entry, is_located_below_a_directory) {
  const UniqueFd root(open(mTree.path().c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  EXPECT_EQ(DirectoryEntry(root.get(), "folder/new").makeDirectory(0700), 0);
  EXPECT_EQ(DirectoryEntry(root.get(), "/folder/new").removeDirectory(), 0);
  EXPECT_EQ(DirectoryEntry(root.get(), "../new").makeDirectory(0700), EXDEV);
  EXPECT_EQ(DirectoryEntry(root.get(), "/").removeDirectory(), EINVAL);
}

TEST_F(Entry, is_not_reached_through_a_link) {
  EXPECT_EQ(at("link/new").makeDirectory(0700), ELOOP);
  EXPECT_EQ(at("link/new").unmount(), ELOOP);
}

TEST_F(Entry, that_is_a_link_is_neither_removed_nor_unmounted) {
  const test::Mounted mounted("tests", mTree / "folder", "tmpfs");
  EXPECT_EQ(at("link").removeDirectory(), ENOTDIR);
  EXPECT_EQ(at("link").unmount(), EINVAL);
  EXPECT_EQ(at("folder").unmount(), 0);
}

TEST_F(Entry, is_not_kept_busy_by_being_located) {
  const test::Mounted mounted("tests", mTree / "folder", "tmpfs");
  const DirectoryEntry entry = at("folder");
  EXPECT_EQ(entry.unmount(), 0);
  EXPECT_EQ(entry.removeDirectory(), 0);
}

TEST_F(Entry, without_a_name_or_with_one_that_no_directory_holds_is_an_error) {
  EXPECT_EQ(DirectoryEntry("/").unmount(), EINVAL);
  EXPECT_EQ(DirectoryEntry("relative").makeDirectory(0700), EINVAL);
  EXPECT_EQ(at("folder/..").removeDirectory(), EINVAL);
  EXPECT_EQ(at(std::string(NAME_MAX + 1, 'x')).makeDirectory(0700), ENAMETOOLONG);
}
