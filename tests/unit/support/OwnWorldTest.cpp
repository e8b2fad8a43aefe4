// SPDX-License-Identifier: Apache-2.0
//
// The guard of all that tests remove and unmount. What it has to refuse is laid in a root of its own, so that nothing
// of the machine is within its reach should it not refuse.
#include "OwnWorld.h"

#include <fcntl.h>
#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <string>

#include "OwnRoot.h"
#include "World.h"

namespace fs = std::filesystem;

namespace {

// EXPECT_NONFATAL_FAILURE takes no local variable: what the guard did last.
bool removed;
int unmounted;
int failure;

// "/mnt" is the world of the guard, a file system in memory; "/machine" and all else is not.
class Guard : public testing::Test {
 protected:
  Guard() {
    world = &mWorld;
    mWorld.addRoot("/mnt");
    fs::create_directories("/machine/a/b");
    test::writeFile("/machine/a/b/file", "the machine's");
    fs::create_directories("/mnt/test/a");
    test::writeFile("/mnt/test/a/file", "the test's");
  }
  ~Guard() override {
    EXPECT_EQ(test::readFile("/machine/a/b/file"), "the machine's");
    world = nullptr;
  }

  static void remove(const std::string& path) { removed = world->removeTree(path); }
  static void unmount(const std::string& folder, int flags = 0) {
    unmounted = world->unmount(folder, flags);
    failure = errno;
  }
  static void hide(const std::string& folder) {
    unmounted = world->hideMachines(folder);
    failure = errno;
  }
  static void expectKept() { EXPECT_EQ(test::readFile("/mnt/test/a/file"), "the test's"); }
  static void mountOn(const std::string& folder) {
    fs::create_directories(folder);
    ASSERT_EQ(mount("mount", folder.c_str(), "tmpfs", 0, nullptr), 0);
  }
  static void bind(const std::string& source, const std::string& target) {
    ASSERT_EQ(mount(source.c_str(), target.c_str(), nullptr, MS_BIND, nullptr), 0);
  }
  static bool isMountPoint(const std::string& folder) {
    struct statx status {};
    EXPECT_EQ(statx(AT_FDCWD, folder.c_str(), AT_SYMLINK_NOFOLLOW, STATX_TYPE, &status), 0);
    return (status.stx_attributes & STATX_ATTR_MOUNT_ROOT) != 0;
  }

  static test::OwnWorld* world;

 private:
  test::OwnRoot mRoot;
  test::OwnWorld mWorld;
};
test::OwnWorld* Guard::world;

#define EXPECT_REMOVAL_REFUSED(path, cause)                                                             \
  do {                                                                                                  \
    removed = true;                                                                                     \
    EXPECT_NONFATAL_FAILURE(remove(path), std::string("refused to remove ") + (path) + ": " + (cause)); \
    EXPECT_FALSE(removed);                                                                              \
  } while (false)

#define EXPECT_UNMOUNT_REFUSED(folder, cause)                                                                 \
  do {                                                                                                        \
    EXPECT_NONFATAL_FAILURE(unmount(folder), std::string("refused to unmount ") + (folder) + ": " + (cause)); \
    EXPECT_EQ(unmounted, -1);                                                                                 \
    EXPECT_EQ(failure, EPERM);                                                                                \
  } while (false)

constexpr char kOutside[] = "it lies outside of the test's world";
constexpr char kNotPlain[] = "the path is not absolute and plain";

// --- What it does.

TEST_F(Guard, removes_a_directory_of_the_world_with_all_that_it_holds) {
  fs::create_symlink("/machine", "/mnt/test/a/link");
  fs::create_directories("/mnt/test/a/deep/deeper");
  remove("/mnt/test");
  EXPECT_TRUE(removed);
  EXPECT_FALSE(fs::exists("/mnt/test"));
}

TEST_F(Guard, removes_a_file_and_a_link_itself) {
  fs::create_symlink("/mnt/test/a", "/mnt/test/link");
  remove("/mnt/test/link");
  EXPECT_TRUE(removed);
  EXPECT_FALSE(fs::is_symlink("/mnt/test/link"));
  expectKept();
  remove("//mnt/test//a/file");
  EXPECT_TRUE(removed);
  EXPECT_FALSE(fs::exists("/mnt/test/a/file"));
}

TEST_F(Guard, takes_what_is_missing_for_removed) {
  for (const char* path : {"/mnt/none", "/mnt/none/below", "/mnt/test/a/file/below"}) {
    removed = false;
    remove(path);
    EXPECT_TRUE(removed) << path;
  }
}

TEST_F(Guard, removes_on_a_file_system_that_a_test_made) {
  mountOn("/mnt/volume");
  world->addFileSystem("/mnt/volume");
  fs::create_directories("/mnt/volume/a/b");
  remove("/mnt/volume/a");
  EXPECT_TRUE(removed);
  EXPECT_TRUE(fs::is_empty("/mnt/volume"));
}

TEST_F(Guard, tells_what_it_cannot_remove) {
  ASSERT_EQ(mount(nullptr, "/mnt", nullptr, MS_REMOUNT | MS_RDONLY, nullptr), 0);
  EXPECT_NONFATAL_FAILURE(remove("/mnt/test"), "cannot remove /mnt/test: Read-only file system");
  EXPECT_FALSE(removed);
}

TEST_F(Guard, unmounts_in_the_world_whatever_is_mounted_there) {
  bind("/machine", "/mnt/test/a");
  unmount("/mnt/test/a");
  EXPECT_EQ(unmounted, 0);
  expectKept();
}

TEST_F(Guard, unmounts_with_all_below_when_asked_to) {
  mountOn("/mnt/test/a");
  mountOn("/mnt/test/a/b");
  unmount("/mnt/test/a");
  EXPECT_EQ(unmounted, -1);
  EXPECT_EQ(failure, EBUSY);
  unmount("/mnt/test/a", MNT_DETACH);
  EXPECT_EQ(unmounted, 0);
  expectKept();
}

TEST_F(Guard, unmounts_elsewhere_what_a_test_mounted_there) {
  mountOn("/machine/a");
  world->addMount("/machine/a");
  mountOn("/machine/a");
  EXPECT_UNMOUNT_REFUSED("/machine/a", kOutside);  // which lies on top
  ASSERT_EQ(umount2("/machine/a", UMOUNT_NOFOLLOW), 0);
  unmount("/machine/a");
  EXPECT_EQ(unmounted, 0);
  EXPECT_FALSE(isMountPoint("/machine/a"));
}

TEST_F(Guard, answers_as_the_kernel_does_where_nothing_is_mounted) {
  unmount("/mnt/test/a");
  EXPECT_EQ(unmounted, -1);
  EXPECT_EQ(failure, EINVAL);
  for (const char* path : {"/mnt/none", "/mnt/none/below"}) {
    unmount(path);
    EXPECT_EQ(unmounted, -1);
    EXPECT_EQ(failure, ENOENT);
  }
}

TEST_F(Guard, hides_a_mount_of_the_machines_with_all_below) {
  mountOn("/machine/disk");
  mountOn("/machine/disk/below");
  hide("/machine/disk");
  EXPECT_EQ(unmounted, 0);
  EXPECT_FALSE(isMountPoint("/machine/disk"));
}

// --- What it refuses to remove.

TEST_F(Guard, refuses_to_remove_what_lies_outside_of_the_world) {
  for (const char* path : {"/machine", "/machine/a/b/file", "/mntx", "/proc/self/fd", "/none"}) {
    EXPECT_REMOVAL_REFUSED(path, kOutside);
  }
}

TEST_F(Guard, refuses_to_remove_the_root_an_ancestor_of_the_world_and_the_world_itself) {
  EXPECT_NONFATAL_FAILURE(remove("//mnt/"), std::string("refused to remove /mnt: ") + kOutside);
  for (const char* path : {"/", "/mnt"}) EXPECT_REMOVAL_REFUSED(path, kOutside);
  expectKept();
}

TEST_F(Guard, refuses_to_remove_by_a_path_that_is_not_absolute_and_plain) {
  ASSERT_EQ(chdir("/mnt"), 0);
  for (const char* path : {"", ".", "test", "mnt/test", "/mnt/..", "/mnt/../machine", "/mnt/./test", "/mnt/test/."}) {
    EXPECT_REMOVAL_REFUSED(path, kNotPlain);
  }
  expectKept();
}

TEST_F(Guard, refuses_to_remove_behind_a_link) {
  fs::create_symlink("/machine", "/mnt/out");
  fs::create_symlink("test", "/mnt/in");
  EXPECT_REMOVAL_REFUSED("/mnt/out/a", "a link leads there");
  EXPECT_REMOVAL_REFUSED("/mnt/in/a", "a link leads there");
  expectKept();
}

TEST_F(Guard, refuses_to_remove_when_another_directory_stands_where_the_world_was_laid) {
  bind("/machine", "/mnt");
  EXPECT_REMOVAL_REFUSED("/mnt/a", "/mnt is not the directory that the test's world laid");
  ASSERT_EQ(umount2("/mnt", UMOUNT_NOFOLLOW), 0);
  bind("/mnt/test", "/mnt");  // of the same file system
  EXPECT_REMOVAL_REFUSED("/mnt/a", "/mnt is not the directory that the test's world laid");
  ASSERT_EQ(umount2("/mnt", UMOUNT_NOFOLLOW), 0);
  expectKept();
}

TEST_F(Guard, refuses_to_remove_on_a_file_system_that_is_not_the_tests) {
  bind("/machine", "/mnt/test/a");
  EXPECT_REMOVAL_REFUSED("/mnt/test/a/a", "its file system is not the test's");
  EXPECT_REMOVAL_REFUSED("/mnt/test/a/a/b/file", "its file system is not the test's");
}

TEST_F(Guard, refuses_to_remove_what_something_is_mounted_on_or_in) {
  fs::create_directories("/mnt/test/z/inner");
  test::writeFile("/mnt/test/z/inner/file", "x");
  test::writeFile("/mnt/other", "");
  for (const char* bound : {"/machine", "/mnt/test/a"}) {  // another file system, and the same one
    bind(bound, "/mnt/test/z/inner");
    EXPECT_REMOVAL_REFUSED("/mnt/test", "something is mounted on /mnt/test/z/inner");
    EXPECT_REMOVAL_REFUSED("/mnt/test/z/inner", "something is mounted on /mnt/test/z/inner");
    ASSERT_EQ(umount2("/mnt/test/z/inner", UMOUNT_NOFOLLOW), 0);
    expectKept();
  }
  bind("/mnt/other", "/mnt/test/z/inner/file");
  EXPECT_REMOVAL_REFUSED("/mnt/test", "something is mounted on /mnt/test/z/inner/file");
  expectKept();
}

TEST_F(Guard, refuses_everything_before_a_world_is_laid) {
  test::OwnWorld none;
  world = &none;
  EXPECT_REMOVAL_REFUSED("/mnt/test", kOutside);
  bind("/machine", "/mnt/test");
  EXPECT_UNMOUNT_REFUSED("/mnt/test", kOutside);
  EXPECT_NONFATAL_FAILURE(hide("/mnt/test"), "refused to hide /mnt/test: this mount namespace is not the test's");
  EXPECT_EQ(unmounted, -1);
  EXPECT_TRUE(isMountPoint("/mnt/test"));
}

// --- What it refuses to unmount.

TEST_F(Guard, refuses_to_unmount_what_is_mounted_outside_of_the_world) {
  mountOn("/machine/disk");
  for (const char* folder : {"/machine/disk", "/", "/mnt", "/proc"}) {
    EXPECT_UNMOUNT_REFUSED(folder, kOutside);
    EXPECT_TRUE(isMountPoint(folder)) << folder;
  }
}

TEST_F(Guard, refuses_to_unmount_by_a_path_that_is_not_absolute_and_plain) {
  mountOn("/machine/disk");
  ASSERT_EQ(chdir("/machine"), 0);
  for (const char* folder : {"", "disk", "/mnt/../machine/disk"}) EXPECT_UNMOUNT_REFUSED(folder, kNotPlain);
  EXPECT_TRUE(isMountPoint("/machine/disk"));
}

TEST_F(Guard, never_unmounts_behind_a_link) {
  mountOn("/machine/disk");
  fs::create_symlink("/machine", "/mnt/out");
  EXPECT_UNMOUNT_REFUSED("/mnt/out/disk", "a link leads there");
  fs::create_symlink("/machine/disk", "/mnt/disk");
  unmount("/mnt/disk");
  EXPECT_EQ(unmounted, -1);
  EXPECT_EQ(failure, EINVAL);
  EXPECT_TRUE(isMountPoint("/machine/disk"));
}

TEST_F(Guard, refuses_to_unmount_and_to_hide_in_another_root) {
  mountOn("/mnt/test/a");
  test::OwnRoot other;  // it has a /mnt of its own
  mountOn("/mnt/test/a");
  EXPECT_UNMOUNT_REFUSED("/mnt/test/a", "/mnt is not the directory that the test's world laid");
  EXPECT_NONFATAL_FAILURE(hide("/mnt/test/a"), "refused to hide /mnt/test/a: this mount namespace is not the test's");
  EXPECT_EQ(unmounted, -1);
  EXPECT_TRUE(isMountPoint("/mnt/test/a"));
}

}  // namespace
