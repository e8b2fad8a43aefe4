// SPDX-License-Identifier: Apache-2.0
#include "base/Resolve.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>

#include "World.h"

namespace fs = std::filesystem;

namespace {

constexpr int kDirectory = O_PATH | O_DIRECTORY;

// /folder/inner/file, and links to the folder and to the file.
class Resolving : public testing::Test {
 protected:
  void SetUp() override {
    fs::create_directories(mTree / "folder/inner");
    test::writeFile(mTree / "folder/inner/file", "content");
    fs::create_directory_symlink(mTree / "folder", mTree / "link");
    fs::create_symlink("file", mTree / "folder/inner/toFile");
  }
  std::string at(const std::string& name) const { return mTree / name; }
  UniqueFd root() const { return UniqueFd(open(mTree.path().c_str(), kDirectory | O_CLOEXEC)); }
  static ino_t inodeOf(const UniqueFd& file) {
    struct stat status {};
    EXPECT_EQ(fstat(file.get(), &status), 0);
    return status.st_ino;
  }
  static ino_t inodeOf(const std::string& path) {
    struct stat status {};
    EXPECT_EQ(stat(path.c_str(), &status), 0);
    return status.st_ino;
  }

  test::TempDir mTree;
};

}  // namespace

TEST_F(Resolving, opens_what_no_link_leads_to_and_closes_it_on_exec) {
  const UniqueFd file = openWithoutLinks(at("folder/inner/file").c_str(), O_RDONLY);
  ASSERT_TRUE(file);
  EXPECT_EQ(inodeOf(file), inodeOf(at("folder/inner/file")));
  EXPECT_EQ(fcntl(file.get(), F_GETFD), FD_CLOEXEC);
}

TEST_F(Resolving, refuses_a_link_on_the_way_with_ELOOP) {
  EXPECT_FALSE(openWithoutLinks(at("link/inner/file").c_str(), O_RDONLY));
  EXPECT_EQ(errno, ELOOP);
}

TEST_F(Resolving, refuses_a_link_at_the_end_with_ELOOP) {
  EXPECT_FALSE(openWithoutLinks(at("folder/inner/toFile").c_str(), O_RDONLY));
  EXPECT_EQ(errno, ELOOP);
}

TEST_F(Resolving, refuses_a_relative_path_where_an_absolute_one_is_meant) {
  EXPECT_FALSE(openWithoutLinks("folder", kDirectory));
  EXPECT_EQ(errno, EINVAL);
}

TEST_F(Resolving, opens_below_a_directory_whatever_slashes_the_path_begins_with) {
  const UniqueFd folder = openBeneath(root().get(), "//folder/inner", kDirectory);
  ASSERT_TRUE(folder);
  EXPECT_EQ(inodeOf(folder), inodeOf(at("folder/inner")));
}

TEST_F(Resolving, opens_the_directory_itself_for_an_empty_path) {
  const UniqueFd itself = openBeneath(root().get(), "/", kDirectory);
  ASSERT_TRUE(itself);
  EXPECT_EQ(inodeOf(itself), inodeOf(mTree.path()));
}

TEST_F(Resolving, refuses_a_link_below_a_directory_with_ELOOP) {
  EXPECT_FALSE(openBeneath(root().get(), "link/inner", kDirectory));
  EXPECT_EQ(errno, ELOOP);
}

TEST_F(Resolving, never_leads_up_from_a_directory) {
  EXPECT_FALSE(openBeneath(root().get(), "folder/../..", kDirectory));
  EXPECT_EQ(errno, EXDEV);
}

TEST_F(Resolving, gives_a_path_to_what_a_descriptor_has_open) {
  const UniqueFd folder = openBeneath(root().get(), "folder", kDirectory);
  fs::rename(at("folder"), at("moved"));
  EXPECT_EQ(inodeOf(DescriptorPath(folder.get()).text()), inodeOf(at("moved")));
}
