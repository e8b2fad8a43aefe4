// SPDX-License-Identifier: Apache-2.0
//
// Listing a directory, and removing an empty one.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>

#include "DevTree.h"
#include "Interposed.h"
#include "LogCapture.h"
#include "LoopVolume.h"
#include "World.h"
#include "sysinfo/LinuxSystemInfo.h"

using mirelsnapsdk_linuxcomputer::LinuxSystemInfo;
using testing::ElementsAre;
namespace fs = std::filesystem;

TEST(GetFilesInDirectory, lists_entries_of_every_kind_by_their_full_path) {
  const test::TempDir dir;
  test::writeFile(dir / "file", "");
  test::writeFile(dir / ".hidden", "");
  fs::create_directory(dir / "sub");
  test::writeFile(dir / "sub/inner", "");
  fs::create_symlink("nowhere", dir / "link");
  LinuxSystemInfo info;
  std::list<std::string> found;
  EXPECT_EQ(info.GetFilesInDirectory(dir.path(), found), 0);
  EXPECT_THAT(found, testing::UnorderedElementsAre(dir / "file", dir / ".hidden", dir / "sub", dir / "link"));
}

TEST(GetFilesInDirectory, keeps_the_directorys_own_order) {
  const test::Volume volume("ext4", 16 << 20);  // orders names by their hash
  std::vector<std::string> expected;
  for (int i = 0; i < 30; ++i) test::writeFile(volume.folder() + "/f" + std::to_string(i), "");
  for (const std::string& name : test::namesInOrder(volume.folder())) expected.push_back(volume.folder() + "/" + name);
  LinuxSystemInfo info;
  std::list<std::string> found;
  EXPECT_EQ(info.GetFilesInDirectory(volume.folder(), found), 0);
  EXPECT_EQ(std::vector<std::string>(found.begin(), found.end()), expected);
  EXPECT_FALSE(std::is_sorted(expected.begin(), expected.end()));
}

TEST(GetFilesInDirectory, appends_to_what_the_list_holds) {
  const test::TempDir dir;
  test::writeFile(dir / "a", "");
  LinuxSystemInfo info;
  std::list<std::string> found = {"before"};
  EXPECT_EQ(info.GetFilesInDirectory(dir.path(), found), 0);
  EXPECT_THAT(found, ElementsAre("before", dir / "a"));
}

TEST(GetFilesInDirectory, puts_its_separator_behind_one_that_is_there) {
  const test::TempDir dir;
  test::writeFile(dir / "a", "");
  LinuxSystemInfo info;
  std::list<std::string> found;
  EXPECT_EQ(info.GetFilesInDirectory(dir.path() + "/", found), 0);
  EXPECT_THAT(found, ElementsAre(dir.path() + "//a"));
  EXPECT_EQ(FILE_PATH_SEPERATOR, "/");
}

TEST(GetFilesInDirectory, logs_the_bare_name_of_each_entry) {
  const test::TempDir dir;
  test::writeFile(dir / "a", "");
  LinuxSystemInfo info;
  test::LogCapture log;
  std::list<std::string> found;
  EXPECT_EQ(info.GetFilesInDirectory(dir.path(), found), 0);
  EXPECT_THAT(log.texts(LOG_DEBUG), ElementsAre("Filename found: a.\n"));
  EXPECT_EQ(log.lines().size(), 1u) << log.dump();
}

TEST(GetFilesInDirectory, answers_why_the_directory_cannot_be_opened) {
  const test::TempDir dir;
  test::writeFile(dir / "file", "");
  LinuxSystemInfo info;
  test::LogCapture log;
  std::list<std::string> found = {"before"};
  EXPECT_EQ(info.GetFilesInDirectory(dir / "none", found), ENOENT);
  EXPECT_EQ(info.GetFilesInDirectory(dir / "file", found), ENOTDIR);
  EXPECT_THAT(found, ElementsAre("before"));
  EXPECT_THAT(log.texts(LOG_DEBUG), ElementsAre("Error 2 opening dir: " + (dir / "none") + ".\n",
                                                "Error 20 opening dir: " + (dir / "file") + ".\n"));
  EXPECT_EQ(log.lines().size(), 2u) << log.dump();
}

TEST(GetFilesInDirectory, answers_why_whatever_logging_leaves_in_errno) {
  LinuxSystemInfo info;
  test::Interposed calls;
  int logged = 0;
  calls.afterSyslog = [&logged] {
    ++logged;
    errno = EBADF;
  };
  std::list<std::string> found;
  EXPECT_EQ(info.GetFilesInDirectory("/mnt/none", found), ENOENT);
  EXPECT_EQ(logged, 1);
}

TEST(DeleteDirectoryIfEmpty, removes_an_empty_directory) {
  const test::TempDir dir;
  fs::create_directory(dir / "sub");
  LinuxSystemInfo info;
  EXPECT_EQ(info.DeleteDirectoryIfEmpty(dir / "sub"), 0u);
  EXPECT_FALSE(fs::exists(dir / "sub"));
}

TEST(DeleteDirectoryIfEmpty, keeps_a_directory_that_holds_only_an_empty_one) {
  const test::TempDir dir;
  fs::create_directories(dir / "sub/inner");
  LinuxSystemInfo info;
  EXPECT_EQ(info.DeleteDirectoryIfEmpty(dir / "sub"), 0u);
  EXPECT_TRUE(fs::exists(dir / "sub/inner"));
}

TEST(DeleteDirectoryIfEmpty, ignores_that_an_empty_directory_cannot_be_removed) {
  const test::TempDir dir;
  fs::create_directory(dir / "mounted");
  const test::Mounted mounted("tests", dir / "mounted", "tmpfs");
  LinuxSystemInfo info;
  test::LogCapture log;
  EXPECT_EQ(info.DeleteDirectoryIfEmpty(dir / "mounted"), 0u);
  EXPECT_TRUE(fs::exists(dir / "mounted"));
  EXPECT_TRUE(log.lines().empty()) << log.dump();
}

TEST(DeleteDirectoryIfEmpty, logs_a_directory_that_cannot_be_read_and_answers_3) {
  const test::TempDir dir;
  test::writeFile(dir / "file", "");
  LinuxSystemInfo info;
  test::LogCapture log;
  EXPECT_EQ(info.DeleteDirectoryIfEmpty(dir / "file"), 3u);
  EXPECT_THAT(log.texts(LOG_ERR), ElementsAre("Unable to read directory: " + (dir / "file") + ".\n"));
  EXPECT_THAT(log.texts(LOG_DEBUG), ElementsAre("Error 20 opening dir: " + (dir / "file") + ".\n"));
  EXPECT_TRUE(fs::exists(dir / "file"));
  EXPECT_EQ(info.DeleteDirectoryIfEmpty(dir / "none"), 3u);
}
