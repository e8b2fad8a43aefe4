// SPDX-License-Identifier: Apache-2.0
//
// The tests' own tools do what the tests lean on.
#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <syslog.h>

#include <fcntl.h>
#include <unistd.h>

#include <filesystem>
#include <optional>

#include "LogCapture.h"
#include "LoopVolume.h"
#include "OwnWorld.h"
#include "ScriptedDriver.h"
#include "World.h"
#include "base/Handle.h"

TEST(LogCapture, keeps_priority_identity_and_text_letter_for_letter) {
  test::LogCapture log;
  openlog("SOMEBODY", LOG_PID, LOG_USER);
  for (int i = 0; i < 50; ++i) syslog(LOG_DEBUG, "line %d.\n", i);
  syslog(LOG_ERR, "no line end");
  ASSERT_EQ(log.lines().size(), 51u);
  EXPECT_EQ(log.lines()[49].text, "line 49.\n");
  EXPECT_EQ(log.lines()[50].text, "no line end");
  EXPECT_EQ(log.lines()[50].priority, LOG_ERR);
  EXPECT_EQ(log.lines()[50].facility, LOG_USER);
  EXPECT_EQ(log.lines()[50].ident, "SOMEBODY[" + std::to_string(getpid()) + "]");
  log.clear();
  EXPECT_TRUE(log.lines().empty());
}

TEST(Volume, is_a_real_mounted_file_system) {
  const test::Volume ext4("ext4", 16 << 20, {"-b", "1024"});
  const test::Volume xfs("xfs", 300 << 20);
  test::writeFile(ext4.folder() + "/a", "x");
  EXPECT_EQ(test::readFile(ext4.folder() + "/a"), "x");
  EXPECT_NE(ext4.device(), xfs.device());
}

// Asked with access alone, which changes nothing where the test would fail.
TEST(World, lets_nothing_of_the_machine_be_written_neither_directly_nor_through_a_bind_mount) {
  const test::TempDir dir;
  const test::Mounted bound("/usr", dir.path(), "", MS_BIND);
  for (const std::string& path : {std::string("/"), std::string("/usr"), dir.path(), dir / "lib"}) {
    EXPECT_EQ(access(path.c_str(), W_OK), -1) << path;
    EXPECT_EQ(errno, EROFS) << path;
  }
}

TEST(TempDir, is_removed_with_all_that_it_holds) {
  std::string path;
  {
    const test::TempDir dir;
    path = dir.path();
    std::filesystem::create_directories(dir / "a/b");
    test::writeFile(dir / "a/b/file", "x");
  }
  EXPECT_FALSE(std::filesystem::exists(path));
}

// EXPECT_NONFATAL_FAILURE takes no local variable.
std::optional<test::TempDir> mountedIn;

TEST(TempDir, never_removes_through_a_mount_that_a_test_left_in_it) {
  const test::TempDir live;
  test::writeFile(live / "file", "live");
  for (const char* where : {"", "/below"}) {
    mountedIn.emplace();
    const std::string path = mountedIn->path();
    const std::string bound = path + where;
    std::filesystem::create_directories(bound);
    ASSERT_EQ(mount(live.path().c_str(), bound.c_str(), nullptr, MS_BIND, nullptr), 0);
    EXPECT_NONFATAL_FAILURE(mountedIn.reset(), "something is mounted on " + bound);
    EXPECT_EQ(test::readFile(live / "file"), "live") << bound;
    ASSERT_EQ(test::unmount(bound), 0);
    test::removeTree(path);
  }
}

TEST(ProcFile, lies_over_the_kernels_file_and_goes_away_again) {
  {
    const test::ProcFile meminfo("meminfo", "MemFree: 7 kB\n");
    EXPECT_EQ(test::readFile("/proc/meminfo"), "MemFree: 7 kB\n");
    const test::ProcFile missing("mounts");
    EXPECT_NE(access("/proc/mounts", F_OK), 0);
  }
  EXPECT_NE(test::readFile("/proc/meminfo").find("MemTotal"), std::string::npos);
  EXPECT_EQ(access("/proc/mounts", F_OK), 0);
}

TEST(ScriptedDriver, answers_driver_requests_and_leaves_others_to_the_kernel) {
  test::ScriptedDriver driver;
  const UniqueFd null(open("/dev/null", O_RDONLY));
  _ioctlCmd command{};
  command.length = sizeof command;
  EXPECT_EQ(ioctl(null.get(), IOC_CHECK_VOLUME_SNAPPED, &command), 0);
  EXPECT_EQ(command.driverStatus, -4);
  driver.fail(IOC_SNAP, EBUSY, -2);
  EXPECT_EQ(ioctl(null.get(), IOC_SNAP, &command), -1);
  EXPECT_EQ(errno, EBUSY);
  EXPECT_EQ(command.driverStatus, -2);
  int size = 0;
  EXPECT_EQ(ioctl(null.get(), FIONREAD, &size), -1);
  EXPECT_EQ(errno, ENOTTY);
  EXPECT_EQ(driver.calls().size(), 2u);
}
