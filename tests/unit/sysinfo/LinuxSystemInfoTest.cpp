// SPDX-License-Identifier: Apache-2.0
#include "sysinfo/LinuxSystemInfo.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <syslog.h>

#include <cerrno>
#include <type_traits>

#include "DevTree.h"
#include "Interposed.h"
#include "LogCapture.h"
#include "World.h"

using mirelsnapsdk_linuxcomputer::LinuxSystemInfo;

TEST(LinuxSystemInfo, starts_with_empty_lists_and_maps) {
  const LinuxSystemInfo info;
  EXPECT_TRUE(info.mountEntries.empty());
  EXPECT_TRUE(info.volumeAliasMap.empty());
  EXPECT_TRUE(info.volumeAliases.empty());
  EXPECT_TRUE(info.memInfo.empty());
}

TEST(LinuxSystemInfo, names_the_node_of_the_root_file_systems_device) {
  struct stat root;
  ASSERT_EQ(stat("/", &root), 0);
  test::DevTree dev;
  dev.block("/dev/theRootDisk", major(root.st_dev), minor(root.st_dev));
  const LinuxSystemInfo info;
  EXPECT_EQ(info.rootDevice, root.st_dev);
  EXPECT_EQ(info.bootDeviceName, "/dev/theRootDisk");
}

TEST(LinuxSystemInfo, names_a_root_device_without_a_node_by_its_number) {
  test::Interposed calls;
  calls.onStat = [](const std::string& path, struct stat* result) -> test::Answer {
    if (path != "/") return std::nullopt;
    result->st_dev = makedev(8, 1);
    return 0;
  };
  const LinuxSystemInfo info;
  EXPECT_EQ(info.rootDevice, 0x801u);
  EXPECT_EQ(info.bootDeviceName, "0x0801");
}

TEST(LinuxSystemInfo, logs_a_root_that_cannot_be_examined_and_knows_no_boot_device) {
  test::Interposed calls;
  calls.onStat = [](const std::string& path, struct stat*) -> test::Answer {
    if (path != "/") return std::nullopt;
    return EIO;
  };
  test::LogCapture log;
  const LinuxSystemInfo info;
  EXPECT_THAT(log.texts(LOG_ERR), testing::ElementsAre("Cannot stat root '/', errno: 5.\n"));
  EXPECT_EQ(log.lines().size(), 1u) << log.dump();
  EXPECT_EQ(info.rootDevice, 0u);
  EXPECT_EQ(info.bootDeviceName, "");
}

TEST(LinuxSystemInfo, initializes_the_aliases_and_then_the_memory_state) {
  test::DevTree dev;
  dev.directory("/dev/disk/by-uuid");
  dev.block("/dev/sda1", 8, 1);
  dev.link("/dev/disk/by-uuid/X", "../../sda1");
  const test::ProcFile meminfo("meminfo", "MemFree: 7 kB\n");
  LinuxSystemInfo info;
  EXPECT_EQ(info.Initialize(), 0);
  EXPECT_EQ(info.volumeAliases["/dev/disk/by-uuid/X"], "/dev/sda1");
  EXPECT_EQ(info.GetSpecificSystemMemoryDetail("MemFree"), 7u);
}

TEST(LinuxSystemInfo, answers_the_memory_states_failure_with_the_aliases_read) {
  test::DevTree dev;
  dev.directory("/dev/disk/by-uuid");
  dev.block("/dev/sda1", 8, 1);
  dev.link("/dev/disk/by-uuid/X", "../../sda1");
  const test::ProcFile missing("meminfo");
  LinuxSystemInfo info;
  EXPECT_EQ(info.Initialize(), 5);
  EXPECT_EQ(info.volumeAliases["/dev/disk/by-uuid/X"], "/dev/sda1");
}

TEST(LinuxSystemInfo, is_copied_and_assigned_member_by_member) {
  LinuxSystemInfo info;
  info.mountEntries.resize(2);
  info.mountEntries[1].fsname = "/dev/sda1";
  info.volumeAliasMap["/dev/sda1"] = {"/dev/disk/a", "/dev/disk/b"};
  info.volumeAliases["/dev/disk/a"] = "/dev/sda1";
  info.rootDevice = 0x801;
  info.bootDeviceName = "/dev/sda1";
  info.memInfo["MemFree"] = 7;
  const auto isTheSame = [&info](const LinuxSystemInfo& other) {
    return other.mountEntries.size() == 2 && other.mountEntries[1].fsname == "/dev/sda1" &&
           other.volumeAliasMap == info.volumeAliasMap && other.volumeAliases == info.volumeAliases &&
           other.rootDevice == info.rootDevice && other.bootDeviceName == info.bootDeviceName &&
           other.memInfo == info.memInfo;
  };
  const LinuxSystemInfo copy(info);
  EXPECT_TRUE(isTheSame(copy));
  LinuxSystemInfo assigned;
  assigned = info;
  EXPECT_TRUE(isTheSame(assigned));
}
