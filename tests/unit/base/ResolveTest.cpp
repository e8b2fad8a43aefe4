// SPDX-License-Identifier: Apache-2.0
#include "base/Resolve.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>

#include "LoopVolume.h"
#include "OldKernel.h"
#include "World.h"

namespace fs = std::filesystem;

namespace {

constexpr int kDirectory = O_PATH | O_DIRECTORY;

// By openat2, and where it answers this errno.
struct Kernel {
  const char* name;
  int openat2Fails;
};

void PrintTo(const Kernel& kernel, std::ostream* out) { *out << kernel.name; }

// /folder/inner/file, and links to the folder and to the file.
class Resolving : public testing::TestWithParam<Kernel> {
 protected:
  ~Resolving() override {
    EXPECT_EQ(test::WithoutOpenat2::refused() != 0, GetParam().openat2Fails != 0 && mAsksTheKernel);
  }

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

  // That a link was met by a path that asks for a directory: which errno says so is the kernel's choice.
  static void expectLink() {
    EXPECT_TRUE(errno == ELOOP || (GetParam().openat2Fails != 0 && errno == ENOTDIR)) << errno;
  }

  test::TempDir mTree;
  bool mAsksTheKernel = true;

 private:
  const test::WithoutOpenat2 mKernel{GetParam().openat2Fails};
};

INSTANTIATE_TEST_SUITE_P(On, Resolving,
                         testing::Values(Kernel{"a_kernel_with_openat2", 0}, Kernel{"a_kernel_without_it", ENOSYS},
                                         Kernel{"a_filter_that_refuses_it", EPERM}),
                         [](const testing::TestParamInfo<Kernel>& kernel) { return kernel.param.name; });

}  // namespace

TEST_P(Resolving, opens_what_no_link_leads_to_and_closes_it_on_exec) {
  const UniqueFd file = openWithoutLinks(at("folder/inner/file").c_str(), O_RDONLY);
  ASSERT_TRUE(file);
  EXPECT_EQ(inodeOf(file), inodeOf(at("folder/inner/file")));
  EXPECT_EQ(fcntl(file.get(), F_GETFD), FD_CLOEXEC);
}

TEST_P(Resolving, refuses_a_link_on_the_way) {
  EXPECT_FALSE(openWithoutLinks(at("link/inner/file").c_str(), O_RDONLY));
  expectLink();
}

TEST_P(Resolving, refuses_a_link_at_the_end_with_ELOOP) {
  EXPECT_FALSE(openWithoutLinks(at("folder/inner/toFile").c_str(), O_RDONLY));
  EXPECT_EQ(errno, ELOOP);
}

TEST_P(Resolving, refuses_a_relative_path_where_an_absolute_one_is_meant) {
  mAsksTheKernel = false;
  EXPECT_FALSE(openWithoutLinks("folder", kDirectory));
  EXPECT_EQ(errno, EINVAL);
}

TEST_P(Resolving, opens_below_a_directory_whatever_slashes_the_path_begins_with) {
  const UniqueFd folder = openBeneath(root().get(), "//folder/inner", kDirectory);
  ASSERT_TRUE(folder);
  EXPECT_EQ(inodeOf(folder), inodeOf(at("folder/inner")));
}

TEST_P(Resolving, opens_the_directory_itself_for_an_empty_path) {
  const UniqueFd itself = openBeneath(root().get(), "/", kDirectory);
  ASSERT_TRUE(itself);
  EXPECT_EQ(inodeOf(itself), inodeOf(mTree.path()));
}

TEST_P(Resolving, refuses_a_link_at_the_end_where_only_its_path_is_asked_for) {
  EXPECT_FALSE(openWithoutLinks(at("folder/inner/toFile").c_str(), O_PATH));
  EXPECT_EQ(errno, ELOOP);
  EXPECT_FALSE(openWithoutLinks(at("link").c_str(), kDirectory));
  expectLink();
}

TEST_P(Resolving, refuses_a_link_below_a_directory) {
  EXPECT_FALSE(openBeneath(root().get(), "link/inner", kDirectory));
  expectLink();
}

TEST_P(Resolving, refuses_a_link_that_leads_nowhere_and_makes_nothing) {
  fs::create_symlink(at("nothing"), mTree / "dangling");
  EXPECT_FALSE(openWithoutLinks(at("dangling").c_str(), O_WRONLY));
  EXPECT_EQ(errno, ELOOP);
  EXPECT_FALSE(fs::exists(at("nothing")));
}

TEST_P(Resolving, opens_the_top_of_all) {
  const UniqueFd top = openWithoutLinks("/", kDirectory);
  ASSERT_TRUE(top);
  EXPECT_EQ(inodeOf(top), inodeOf("/"));
  EXPECT_EQ(inodeOf(openWithoutLinks("//", kDirectory)), inodeOf("/"));
}

TEST_P(Resolving, tells_what_is_missing_with_ENOENT_and_a_name_that_is_too_long_with_ENAMETOOLONG) {
  EXPECT_FALSE(openWithoutLinks(at("folder/missing/file").c_str(), O_RDONLY));
  EXPECT_EQ(errno, ENOENT);
  EXPECT_FALSE(openWithoutLinks(at(std::string(256, 'x')).c_str(), O_RDONLY));
  EXPECT_EQ(errno, ENAMETOOLONG);
}

TEST_P(Resolving, enters_a_file_system_that_is_mounted_on_the_way) {
  const test::Mounted mounted("inner", at("folder/inner"), "tmpfs");
  test::writeFile(at("folder/inner/onIt"), "");
  EXPECT_TRUE(openWithoutLinks(at("folder/inner/onIt").c_str(), O_RDONLY));
  EXPECT_TRUE(openBeneath(root().get(), "folder/inner/onIt", O_RDONLY));
}

// ---- one entry

TEST_P(Resolving, opens_an_entry_of_a_directory_and_closes_it_on_exec) {
  const UniqueFd folder = openEntry(root().get(), "folder", O_RDONLY | O_DIRECTORY);
  ASSERT_TRUE(folder);
  EXPECT_EQ(inodeOf(folder), inodeOf(at("folder")));
  EXPECT_EQ(fcntl(folder.get(), F_GETFD), FD_CLOEXEC);
}

TEST_P(Resolving, refuses_a_link_as_an_entry) {
  EXPECT_FALSE(openEntry(root().get(), "link", O_RDONLY | O_DIRECTORY));
  expectLink();
}

TEST_P(Resolving, refuses_an_entry_on_which_something_is_mounted_with_EXDEV) {
  const test::Mounted mounted("inner", at("folder"), "tmpfs");
  EXPECT_FALSE(openEntry(root().get(), "folder", O_RDONLY | O_DIRECTORY));
  EXPECT_EQ(errno, EXDEV);
}

TEST_P(Resolving, has_no_entry_that_leads_up) {
  EXPECT_FALSE(openEntry(root().get(), "..", O_RDONLY | O_DIRECTORY));
  EXPECT_EQ(errno, EXDEV);
}

TEST_P(Resolving, tells_a_missing_entry_with_ENOENT_and_a_file_for_a_directory_with_ENOTDIR) {
  EXPECT_FALSE(openEntry(root().get(), "missing", O_RDONLY | O_DIRECTORY));
  EXPECT_EQ(errno, ENOENT);
  EXPECT_FALSE(openEntry(openBeneath(root().get(), "folder/inner", kDirectory).get(), "file", O_RDONLY | O_DIRECTORY));
  EXPECT_EQ(errno, ENOTDIR);
}

TEST_P(Resolving, never_leads_up_from_a_directory) {
  mAsksTheKernel = false;
  EXPECT_FALSE(openBeneath(root().get(), "folder/../..", kDirectory));
  EXPECT_EQ(errno, EXDEV);
}

TEST_P(Resolving, gives_a_path_to_what_a_descriptor_has_open) {
  const UniqueFd folder = openBeneath(root().get(), "folder", kDirectory);
  fs::rename(at("folder"), at("moved"));
  EXPECT_EQ(inodeOf(DescriptorPath(folder.get()).text()), inodeOf(at("moved")));
}
