// SPDX-License-Identifier: Apache-2.0
#include "OwnWorld.h"
#include "driver/ControlDevice.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <syslog.h>

#include <cerrno>
#include <filesystem>
#include <memory>
#include <set>

#include "DriverFixture.h"
#include "Interposed.h"
#include "LogCapture.h"
#include "LoopVolume.h"
#include "World.h"
#include "driver/DriverProtocol.h"
#include "interpose/OpenedFiles.h"

namespace {

namespace fs = std::filesystem;
using test::debug;
using test::error;
using test::FakeSystem;
using test::LogCapture;
using test::LogLine;
using test::Mounted;
using test::Node;
using test::ProcFile;

// The program directories, laid over with empty ones.
class EmptyProgramFolders {
 public:
  EmptyProgramFolders() {
    std::set<fs::path> real;
    for (const char* folder : {"/sbin", "/usr/sbin", "/usr/local/sbin", "/bin", "/usr/bin", "/usr/local/bin"}) {
      real.insert(fs::canonical(folder));
    }
    for (const fs::path& folder : real) mMounts.push_back(std::make_unique<Mounted>("tests", folder, "tmpfs"));
  }

 private:
  std::vector<std::unique_ptr<Mounted>> mMounts;
};

// A modprobe of the test's own; the rest of its folder is hidden.
class FakeModprobe {
 public:
  explicit FakeModprobe(const std::string& script) : mFolder("tests", fs::canonical("/sbin"), "tmpfs") {
    test::writeFile("/sbin/modprobe", "#!/bin/sh\n" + script);
    fs::permissions("/sbin/modprobe", fs::perms::owner_all);
  }

 private:
  Mounted mFolder;
};

// The process can open one descriptor more, the one given, until lift().
class LastDescriptor {
 public:
  LastDescriptor() {
    getrlimit(RLIMIT_NOFILE, &mBefore);
    mNumber = open("/dev/null", O_RDONLY | O_CLOEXEC);
    close(mNumber);
    const rlimit narrow{static_cast<rlim_t>(mNumber) + 1, mBefore.rlim_max};
    setrlimit(RLIMIT_NOFILE, &narrow);
  }
  ~LastDescriptor() { lift(); }
  void lift() { setrlimit(RLIMIT_NOFILE, &mBefore); }
  int number() const { return mNumber; }

 private:
  rlimit mBefore{};
  int mNumber;
};

// Removes the control node, whatever made it.
class ControlDevice : public testing::Test {
 protected:
  ~ControlDevice() override { test::removeTree(kControlNode); }
  static struct stat node() {
    struct stat status {};
    EXPECT_EQ(lstat(kControlNode, &status), 0);
    return status;
  }
  static void expectNode(unsigned int majorNum, unsigned int minorNum) {
    const struct stat status = node();
    EXPECT_EQ(status.st_mode, static_cast<mode_t>(S_IFCHR)) << "a character device without permission bits";
    EXPECT_EQ(major(status.st_rdev), majorNum);
    EXPECT_EQ(minor(status.st_rdev), minorNum);
  }
};

void expectDescriptorOf(const UniqueFd& device, unsigned int majorNum, unsigned int minorNum) {
  ASSERT_TRUE(device.valid());
  struct stat status {};
  ASSERT_EQ(fstat(device.get(), &status), 0);
  EXPECT_EQ(status.st_rdev, makedev(majorNum, minorNum));
  EXPECT_EQ(fcntl(device.get(), F_GETFL) & O_ACCMODE, O_RDONLY);
  EXPECT_EQ(fcntl(device.get(), F_GETFD), FD_CLOEXEC) << "a program that the agent starts must not inherit it";
}

TEST(FindExe, asks_the_six_folders_in_order_and_answers_empty_when_none_has_it) {
  const test::StatRecorder recorder;
  EXPECT_EQ(findExe("mirelsnap-no-such-program"), "");
  EXPECT_EQ(recorder.paths(), (std::vector<std::string>{
                                  "/sbin/mirelsnap-no-such-program", "/usr/sbin/mirelsnap-no-such-program",
                                  "/usr/local/sbin/mirelsnap-no-such-program", "/bin/mirelsnap-no-such-program",
                                  "/usr/bin/mirelsnap-no-such-program", "/usr/local/bin/mirelsnap-no-such-program"}));
}

TEST(FindExe, the_first_folder_that_has_it_wins) {
  const EmptyProgramFolders folders;
  for (const char* folder : {"/sbin/", "/usr/local/sbin/", "/bin/", "/usr/local/bin/"}) {
    test::writeFile(std::string(folder) + "tool", "");
  }
  for (const char* path : {"/sbin/tool", "/usr/local/sbin/tool", "/bin/tool", "/usr/local/bin/tool"}) {
    EXPECT_EQ(findExe("tool"), path);
    fs::remove(path);
  }
  EXPECT_EQ(findExe("tool"), "");
}

TEST(FindExe, a_name_need_only_exist_to_be_found) {
  const EmptyProgramFolders folders;
  fs::create_directory("/sbin/folder");
  EXPECT_EQ(findExe("folder"), "/sbin/folder");
}

TEST_F(ControlDevice, without_modprobe_nothing_is_opened_even_with_the_driver_loaded) {
  const EmptyProgramFolders folders;
  const ProcFile numbers("mirelsnap/dev", "1 3\n");
  LogCapture log;
  EXPECT_EQ(openControlDevice(), -1);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(log.lines(), std::vector<LogLine>{error("modprobe utility not found\n")});
  EXPECT_FALSE(fs::exists(kControlNode));
}

TEST_F(ControlDevice, a_node_with_the_right_numbers_is_kept_and_opened) {
  const ProcFile numbers("mirelsnap/dev", "1 3\n");
  const Node existing(kControlNode, S_IFCHR, 1, 3);
  const ino_t before = node().st_ino;
  LogCapture log;
  const UniqueFd device(openControlDevice());
  expectDescriptorOf(device, 1, 3);
  EXPECT_EQ(node().st_ino, before);
  EXPECT_EQ(node().st_mode & 07777U, 0600U) << "neither made again nor changed";
  EXPECT_EQ(log.lines(), std::vector<LogLine>{debug("major-minor remained same.\n")});
}

TEST_F(ControlDevice, a_link_to_a_node_with_the_right_numbers_is_kept) {
  const ProcFile numbers("mirelsnap/dev", "1 3\n");
  fs::create_symlink("/dev/null", kControlNode);
  const UniqueFd device(openControlDevice());
  expectDescriptorOf(device, 1, 3);
  EXPECT_TRUE(fs::is_symlink(kControlNode));
}

TEST_F(ControlDevice, a_node_with_other_numbers_is_made_again_without_permission_bits) {
  const ProcFile numbers("mirelsnap/dev", "1 3\n");
  for (const auto& [majorNum, minorNum] : {std::pair{1U, 5U}, std::pair{10U, 3U}}) {
    const Node existing("/dev/mirelsnapctl-old", S_IFCHR, majorNum, minorNum);
    fs::rename(existing.path(), kControlNode);
    LogCapture log;
    const UniqueFd device(openControlDevice());
    expectDescriptorOf(device, 1, 3);
    expectNode(1, 3);
    EXPECT_TRUE(log.lines().empty()) << log.dump();
    fs::remove(kControlNode);
  }
}

TEST_F(ControlDevice, a_node_with_the_right_minor_and_another_major_is_made_again) {
  const test::LoopDevice other(1 << 20);  // opens, and has any minor
  const ProcFile numbers("mirelsnap/dev", "1 " + std::to_string(other.minor()) + "\n");
  const Node existing("/dev/mirelsnapctl-old", S_IFBLK, other.major(), other.minor());
  fs::rename(existing.path(), kControlNode);
  const UniqueFd device(openControlDevice());
  expectNode(1, other.minor());
}

TEST_F(ControlDevice, a_missing_node_is_made_quietly) {
  const ProcFile numbers("mirelsnap/dev", "  1\n\t3 trailing text\n");
  LogCapture log;
  const UniqueFd device(openControlDevice());
  expectDescriptorOf(device, 1, 3);
  expectNode(1, 3);
  EXPECT_TRUE(log.lines().empty()) << log.dump();
}

TEST_F(ControlDevice, what_cannot_be_opened_in_the_nodes_place_is_replaced) {
  const ProcFile numbers("mirelsnap/dev", "1 3\n");
  ASSERT_EQ(mknod(kControlNode, S_IFSOCK | 0600, 0), 0);  // opening a socket fails with ENXIO
  LogCapture log;
  const UniqueFd device(openControlDevice());
  expectDescriptorOf(device, 1, 3);
  expectNode(1, 3);
  EXPECT_TRUE(log.lines().empty()) << log.dump();
}

TEST_F(ControlDevice, a_node_that_can_neither_be_opened_nor_removed_fails_with_both_messages) {
  const ProcFile numbers("mirelsnap/dev", "1 3\n");
  test::writeFile(kControlNode, "");
  const test::TempDir dir;
  ASSERT_EQ(mknod((dir / "socket").c_str(), S_IFSOCK | 0600, 0), 0);
  LogCapture log;
  {
    ASSERT_EQ(mount((dir / "socket").c_str(), kControlNode, nullptr, MS_BIND, nullptr), 0);
    EXPECT_EQ(openControlDevice(), -1);
    EXPECT_EQ(errno, EEXIST);
    ASSERT_EQ(test::unmount(kControlNode), 0);
  }
  EXPECT_EQ(log.lines(), (std::vector<LogLine>{error("unlink failed, errno:16\n"),
                                               error("Failure in creating control device. errno: 17\n")}));
}

TEST_F(ControlDevice, mknod_failing_after_a_missing_node_gives_minus_1) {
  const ProcFile numbers("mirelsnap/dev", "1 3\n");
  fs::create_symlink("/dev/nowhere", kControlNode);  // opens as missing, and stands in the way of mknod
  LogCapture log;
  EXPECT_EQ(openControlDevice(), -1);
  EXPECT_EQ(errno, EEXIST);
  EXPECT_EQ(log.lines(), std::vector<LogLine>{error("Failure in creating control device. errno: 17\n")});
  EXPECT_TRUE(fs::is_symlink(kControlNode)) << "a missing node is not unlinked";
}

TEST_F(ControlDevice, the_cause_stays_in_errno_where_nobody_takes_the_log) {
  ASSERT_FALSE(fs::exists("/dev/log"));
  closelog();
  {
    const ProcFile numbers("mirelsnap/dev", "1 3\n");
    fs::create_symlink("/dev/nowhere", kControlNode);
    EXPECT_EQ(openControlDevice(), -1);
    EXPECT_EQ(errno, EEXIST);
  }
  const ProcFile malformed("mirelsnap/dev", "none\n");
  EXPECT_EQ(openControlDevice(), -1);
  EXPECT_EQ(errno, ENODEV);
}

TEST_F(ControlDevice, the_numbers_are_read_from_a_file_that_no_started_program_inherits) {
  const ProcFile numbers("mirelsnap/dev", "1 3\n");
  const test::OpenedFiles files;
  const UniqueFd device(openControlDevice());
  ASSERT_EQ(files.all().size(), 1U);
  EXPECT_EQ(files.all()[0].path, "/proc/mirelsnap/dev");
  EXPECT_EQ(files.all()[0].mode, "re");
}

TEST_F(ControlDevice, mknod_failing_after_a_node_with_wrong_numbers_gives_the_number_of_the_closed_descriptor) {
  const ProcFile numbers("mirelsnap/dev", "1 3\n");
  fs::create_directory(kControlNode);  // opens, has other numbers, cannot be unlinked
  LogCapture log;
  const int next = open("/dev/null", O_RDONLY | O_CLOEXEC);
  close(next);
  const UniqueFd stale(openControlDevice());
  EXPECT_EQ(stale.get(), next);
  EXPECT_EQ(ioctl(stale.get(), IOC_GET_DRIVER_VERSION, nullptr), -1);
  EXPECT_EQ(errno, EBADF);
  EXPECT_EQ(log.lines(), (std::vector<LogLine>{error("unlink failed, errno:21\n"),
                                               error("Failure in creating control device. errno: 17\n")}));
}

TEST_F(ControlDevice, a_stale_number_is_given_to_nobody_else_until_its_caller_closes_it) {
  const ProcFile numbers("mirelsnap/dev", "1 3\n");
  fs::create_directory(kControlNode);
  LogCapture log;  // the messages open the system log's socket while the number is stale
  UniqueFd stale(openControlDevice());
  EXPECT_EQ(fs::read_symlink("/proc/self/fd/" + std::to_string(stale.get())), "/");
  EXPECT_EQ(fcntl(stale.get(), F_GETFL) & O_PATH, O_PATH);
  EXPECT_EQ(fcntl(stale.get(), F_GETFD), FD_CLOEXEC);
  stale.reset();
  log.clear();
  syslog(LOG_ERR, "the log's socket is still its own");
  EXPECT_EQ(log.lines(), std::vector<LogLine>{error("the log's socket is still its own")});
}

TEST_F(ControlDevice, a_number_that_could_not_be_kept_is_closed_once_and_then_left_to_who_got_it) {
  const ProcFile numbers("mirelsnap/dev", "1 3\n");
  const Node existing("/dev/mirelsnapctl-old", S_IFCHR, 1, 5);
  fs::rename(existing.path(), kControlNode);
  LastDescriptor last;
  UniqueFd others;
  const test::BeforeMknod anotherThread([&] {
    others.reset(open("/dev/zero", O_RDONLY | O_CLOEXEC));
    last.lift();
  });
  const UniqueFd device(openControlDevice());
  EXPECT_EQ(others.get(), last.number());
  expectDescriptorOf(others, 1, 5);
  expectDescriptorOf(device, 1, 3);
}

TEST_F(ControlDevice, a_number_that_could_not_be_kept_is_not_given_to_the_caller) {
  const ProcFile numbers("mirelsnap/dev", "1 3\n");
  fs::create_directory(kControlNode);
  const LastDescriptor last;
  EXPECT_EQ(openControlDevice(), -1);
  EXPECT_EQ(errno, EEXIST);
}

TEST_F(ControlDevice, a_new_node_that_does_not_open_gives_minus_1) {
  const ProcFile numbers("mirelsnap/dev", "4095 77\n");
  LogCapture log;
  EXPECT_EQ(openControlDevice(), -1);
  EXPECT_EQ(errno, ENXIO);
  expectNode(4095, 77);
  EXPECT_TRUE(log.lines().empty()) << log.dump();
}

TEST_F(ControlDevice, a_driver_that_loads_on_request_is_opened) {
  const ProcFile loadedLater("mirelsnap/dev");
  const test::TempDir dir;
  const FakeModprobe modprobe("echo \"$0 $# $*\" > " + (dir / "arguments") +
                              "\nmkdir -p /proc/mirelsnap\necho 1 3 > /proc/mirelsnap/dev\necho noise >&2\nexit 1\n");
  LogCapture log;
  const UniqueFd device(openControlDevice());
  expectDescriptorOf(device, 1, 3);
  EXPECT_EQ(test::readFile(dir / "arguments"), "/sbin/modprobe 1 mirelsnap\n");
  EXPECT_EQ(log.lines(), std::vector<LogLine>{error("Driver is not loaded. Loading mirelsnap.\n")});
}

TEST_F(ControlDevice, a_driver_that_does_not_load_is_missing) {
  const ProcFile missing("mirelsnap/dev");
  const FakeModprobe modprobe("exit 0\n");
  LogCapture log;
  EXPECT_EQ(openControlDevice(), -1);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(log.lines(), (std::vector<LogLine>{error("Driver is not loaded. Loading mirelsnap.\n"),
                                               error("Missing mirelsnap driver.\n")}));
  EXPECT_FALSE(fs::exists(kControlNode));
}

TEST_F(ControlDevice, the_load_command_names_modprobe_and_the_module) {
  const ProcFile missing("mirelsnap/dev");
  const Mounted noOptions("tests", "/etc/modprobe.d", "tmpfs");
  const FakeSystem shell(0, 0);
  EXPECT_EQ(openControlDevice(), -1);
  EXPECT_EQ(shell.commands(), std::vector<std::string>{"/sbin/modprobe mirelsnap 2> /dev/null"});
}

TEST_F(ControlDevice, the_load_command_allows_unsupported_modules_where_the_system_names_them) {
  const ProcFile missing("mirelsnap/dev");
  const Mounted options("tests", "/etc/modprobe.d", "tmpfs");
  test::writeFile("/etc/modprobe.d/unsupported-modules", "");
  const FakeSystem shell(0, 0);
  EXPECT_EQ(openControlDevice(), -1);
  EXPECT_EQ(shell.commands(),
            std::vector<std::string>{"/sbin/modprobe mirelsnap --allow-unsupported-modules 2> /dev/null"});
}

TEST_F(ControlDevice, a_shell_that_does_not_run_is_logged_with_its_errno_and_the_driver_looked_for_again) {
  const ProcFile missing("mirelsnap/dev");
  const FakeSystem shell(-1, EAGAIN);
  const test::OpenedFiles files;
  LogCapture log;
  EXPECT_EQ(openControlDevice(), -1);
  EXPECT_EQ(log.lines(), (std::vector<LogLine>{error("Driver is not loaded. Loading mirelsnap.\n"),
                                               error("Failed to run system command. err: 11\n"),
                                               error("Missing mirelsnap driver.\n")}));
  ASSERT_EQ(files.all().size(), 2U);
  EXPECT_EQ(files.all()[1].path, "/proc/mirelsnap/dev");
}

TEST_F(ControlDevice, a_loaded_driver_is_not_loaded_again) {
  const ProcFile numbers("mirelsnap/dev", "1 3\n");
  const FakeSystem shell(0, 0);
  const UniqueFd device(openControlDevice());
  EXPECT_TRUE(device.valid());
  EXPECT_TRUE(shell.commands().empty());
}

TEST_F(ControlDevice, a_file_without_two_numbers_is_a_missing_driver_and_makes_no_node) {
  for (const char* content : {"", "\n", "1", "1\n", "1 x\n", "major minor\n", "1,3\n", "- 3"}) {
    const ProcFile numbers("mirelsnap/dev", content);
    LogCapture log;
    EXPECT_EQ(openControlDevice(), -1) << content;
    EXPECT_EQ(errno, ENODEV) << content;
    EXPECT_EQ(log.lines(), std::vector<LogLine>{error("Missing mirelsnap driver.\n")}) << content;
    EXPECT_FALSE(fs::exists(kControlNode)) << content;
  }
}

TEST_F(ControlDevice, openDriver_logs_the_nodes_path_and_the_cause) {
  const ProcFile missing("mirelsnap/dev");
  const FakeSystem shell(0, 0);
  LogCapture log;
  EXPECT_FALSE(openDriver().valid());
  EXPECT_EQ(log.lines(), (std::vector<LogLine>{error("Driver is not loaded. Loading mirelsnap.\n"),
                                               error("Missing mirelsnap driver.\n"),
                                               error("Failed to open device: /dev/mirelsnapctl, errno: 2.\n")}));
}

}  // namespace
