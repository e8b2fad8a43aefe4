// SPDX-License-Identifier: Apache-2.0
//
// The many names of a block device.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "DevTree.h"
#include "Interposed.h"
#include "LogCapture.h"
#include "LoopVolume.h"
#include "World.h"
#include "sysinfo/LinuxSystemInfo.h"

using mirelsnapsdk_linuxcomputer::LinuxSystemInfo;
using testing::ElementsAre;
using testing::Pair;
using testing::UnorderedElementsAre;

namespace {

// With one disk and the directory for its names.
class Aliases : public testing::Test {
 protected:
  Aliases() {
    dev.block("/dev/sda1", 8, 1);
    dev.directory("/dev/disk/by-uuid");
  }

  test::DevTree dev;
  LinuxSystemInfo info;
};

}  // namespace

TEST_F(Aliases, lead_from_a_relative_link_to_the_node) {
  dev.link("/dev/disk/by-uuid/X", "../../sda1");
  info.LinkVolumeDeviceAliases();
  EXPECT_THAT(info.volumeAliases, ElementsAre(Pair("/dev/disk/by-uuid/X", "/dev/sda1")));
  EXPECT_THAT(info.volumeAliasMap, ElementsAre(Pair("/dev/sda1", ElementsAre("/dev/disk/by-uuid/X"))));
}

TEST_F(Aliases, lead_from_an_absolute_link_to_the_node) {
  dev.link("/dev/disk/by-uuid/X", "/dev/sda1");
  info.LinkVolumeDeviceAliases();
  EXPECT_THAT(info.volumeAliases, ElementsAre(Pair("/dev/disk/by-uuid/X", "/dev/sda1")));
}

TEST_F(Aliases, lead_through_a_chain_of_links_to_the_node_at_its_end) {
  dev.link("/dev/disk/by-uuid/last", "../../sda1");
  dev.link("/dev/disk/by-uuid/first", "last");
  info.LinkVolumeDeviceAliases();
  EXPECT_EQ(info.volumeAliases["/dev/disk/by-uuid/first"], "/dev/sda1");
}

TEST_F(Aliases, are_listed_with_their_device_in_discovery_order) {
  dev.directory("/dev/disk/by-label");
  dev.link("/dev/disk/by-uuid/X", "../../sda1");
  dev.link("/dev/disk/by-label/Y", "../../sda1");
  dev.link("/dev/disk/Z", "../sda1");
  std::vector<std::string> expected;
  for (const std::string& name : test::namesInOrder("/dev/disk")) {
    expected.push_back("/dev/disk/" + name);
    if (name != "Z") expected.back() += "/" + test::namesInOrder(expected.back()).front();
  }
  info.LinkVolumeDeviceAliases();
  EXPECT_EQ(info.volumeAliasMap["/dev/sda1"], expected);
  EXPECT_EQ(info.volumeAliases.size(), 3u);
}

TEST_F(Aliases, are_not_made_of_nodes_and_files_under_dev_disk) {
  dev.block("/dev/disk/by-uuid/node", 8, 2);
  dev.file("/dev/disk/by-uuid/file");
  info.LinkVolumeDeviceAliases();
  EXPECT_TRUE(info.volumeAliases.empty());
  EXPECT_TRUE(info.volumeAliasMap.empty());
}

TEST_F(Aliases, follow_no_link_into_a_directory) {
  dev.directory("/dev/elsewhere");
  dev.link("/dev/elsewhere/inner", "../sda1");
  dev.link("/dev/disk/by-uuid/out", "../../elsewhere");
  dev.link("/dev/disk/by-uuid/up", "..");
  info.LinkVolumeDeviceAliases();
  EXPECT_THAT(info.volumeAliases,
              ElementsAre(Pair("/dev/disk/by-uuid/out", "/dev/elsewhere"), Pair("/dev/disk/by-uuid/up", "/dev/disk")));
}

TEST_F(Aliases, of_a_dangling_link_lead_to_the_partly_resolved_path) {
  dev.link("/dev/disk/by-uuid/gone", "../../sdz9");
  dev.link("/dev/disk/by-uuid/goneBelow", "../../nowhere/sdz9");
  info.LinkVolumeDeviceAliases();
  EXPECT_EQ(info.volumeAliases["/dev/disk/by-uuid/gone"], "/dev/sdz9");
  EXPECT_THAT(info.volumeAliasMap["/dev/sdz9"], ElementsAre("/dev/disk/by-uuid/gone"));
  EXPECT_EQ(info.volumeAliases["/dev/disk/by-uuid/goneBelow"], "/dev/nowhere");
  EXPECT_THAT(info.volumeAliasMap["/dev/nowhere"], ElementsAre("/dev/disk/by-uuid/goneBelow"));
}

TEST_F(Aliases, skip_a_link_that_resolves_with_another_error) {
  dev.link("/dev/disk/by-uuid/loop", "loop");                         // ELOOP
  dev.link("/dev/disk/by-uuid/throughNode", "../../sda1/partition");  // ENOTDIR
  dev.link("/dev/disk/by-uuid/longName", std::string(256, 'n'));      // ENAMETOOLONG
  dev.link("/dev/disk/by-uuid/X", "../../sda1");
  info.LinkVolumeDeviceAliases();
  EXPECT_THAT(info.volumeAliases, ElementsAre(Pair("/dev/disk/by-uuid/X", "/dev/sda1")));
  EXPECT_THAT(info.volumeAliasMap, ElementsAre(Pair("/dev/sda1", ElementsAre("/dev/disk/by-uuid/X"))));
}

TEST_F(Aliases, skip_a_link_that_may_not_be_followed_though_part_of_it_is_resolved) {
  dev.link("/dev/disk/by-uuid/X", "../../sda1");
  test::Interposed calls;
  calls.onRealpath = [](const std::string&, char* resolved) -> test::Answer {
    std::strcpy(resolved, "/dev");
    return EACCES;
  };
  info.LinkVolumeDeviceAliases();
  EXPECT_TRUE(info.volumeAliases.empty());
  EXPECT_TRUE(info.volumeAliasMap.empty());
}

TEST_F(Aliases, take_a_link_text_of_4095_bytes_and_skip_what_cannot_be_read) {
  dev.link("/dev/disk/by-uuid/longest", "x");
  dev.link("/dev/disk/by-uuid/longer", "x");
  dev.link("/dev/disk/by-uuid/unreadable", "x");
  test::Interposed calls;
  calls.onReadlink = [](const std::string& path, char* buffer, std::size_t size) -> std::optional<ssize_t> {
    if (path == "/dev/disk/by-uuid/unreadable") {
      errno = EIO;
      return -1;
    }
    const std::size_t length = std::min<std::size_t>(size, path == "/dev/disk/by-uuid/longer" ? 4096 : 4095);
    std::memset(buffer, '/', length);
    std::memcpy(buffer + length - 8, "dev/sda1", 8);
    return static_cast<ssize_t>(length);
  };
  info.LinkVolumeDeviceAliases();
  EXPECT_THAT(info.volumeAliases, ElementsAre(Pair("/dev/disk/by-uuid/longest", "/dev/sda1")));
}

TEST_F(Aliases, of_a_relative_link_in_an_unknown_directory_lead_to_nothing) {
  dev.link("/dev/disk/by-uuid/X", "../../sda1");
  info.LinkVolumeDeviceAliases("/dev/disk/by-uuid/X", "");
  EXPECT_THAT(info.volumeAliases, ElementsAre(Pair("/dev/disk/by-uuid/X", "")));
  EXPECT_THAT(info.volumeAliasMap, ElementsAre(Pair("", ElementsAre("/dev/disk/by-uuid/X"))));
}

TEST_F(Aliases, resolve_a_relative_link_from_the_directory_that_they_are_told) {
  dev.link("/dev/disk/by-uuid/X", "sda1");
  info.LinkVolumeDeviceAliases("/dev/disk/by-uuid/X", "/dev");
  EXPECT_THAT(info.volumeAliases, ElementsAre(Pair("/dev/disk/by-uuid/X", "/dev/sda1")));
}

TEST_F(Aliases, resolve_a_relative_link_in_the_place_of_dev_disk_from_dev) {
  const test::Node disk("/dev/sdb1", S_IFBLK, 8, 17);
  ASSERT_EQ(rmdir("/dev/disk/by-uuid") + rmdir("/dev/disk"), 0);
  ASSERT_EQ(symlink("sdb1", "/dev/disk"), 0);
  info.LinkVolumeDeviceAliases();
  EXPECT_THAT(info.volumeAliases, ElementsAre(Pair("/dev/disk", "/dev/sdb1")));
  unlink("/dev/disk");
}

TEST_F(Aliases, are_registered_from_dev_disk_before_dev_root) {
  dev.block("/dev/root", 8, 1);
  dev.link("/dev/disk/by-uuid/X", "../../sda1");
  info.LinkVolumeDeviceAliases();
  EXPECT_THAT(info.volumeAliasMap["/dev/sda1"], ElementsAre("/dev/disk/by-uuid/X", "/dev/root"));
}

TEST_F(Aliases, reached_twice_are_listed_twice_and_lead_where_they_led_last) {
  dev.block("/dev/sdb1", 8, 17);
  dev.link("/dev/disk/by-uuid/X", "../../sda1");
  info.LinkVolumeDeviceAliases("/dev/disk", "/dev");
  info.LinkVolumeDeviceAliases("/dev/disk", "/dev");
  EXPECT_THAT(info.volumeAliasMap["/dev/sda1"], ElementsAre("/dev/disk/by-uuid/X", "/dev/disk/by-uuid/X"));
  unlink("/dev/disk/by-uuid/X");
  ASSERT_EQ(symlink("../../sdb1", "/dev/disk/by-uuid/X"), 0);
  info.LinkVolumeDeviceAliases("/dev/disk", "/dev");
  EXPECT_THAT(info.volumeAliases, ElementsAre(Pair("/dev/disk/by-uuid/X", "/dev/sdb1")));
  EXPECT_EQ(info.volumeAliasMap["/dev/sda1"].size(), 2u);
}

TEST_F(Aliases, are_rebuilt_from_nothing) {
  dev.link("/dev/disk/by-uuid/X", "../../sda1");
  info.volumeAliases["/dev/old"] = "/dev/sdq";
  info.volumeAliasMap["/dev/sdq"] = {"/dev/old"};
  info.LinkVolumeDeviceAliases();
  info.LinkVolumeDeviceAliases();
  EXPECT_THAT(info.volumeAliases, ElementsAre(Pair("/dev/disk/by-uuid/X", "/dev/sda1")));
  EXPECT_THAT(info.volumeAliasMap, ElementsAre(Pair("/dev/sda1", ElementsAre("/dev/disk/by-uuid/X"))));
}

TEST_F(Aliases, leave_errno_0_behind_a_directory) {
  dev.link("/dev/disk/by-uuid/loop", "loop");
  errno = EBADF;
  info.LinkVolumeDeviceAliases("/dev/disk", "/dev");
  EXPECT_EQ(errno, 0);
}

TEST_F(Aliases, are_read_and_resolved_with_errno_0) {
  dev.link("/dev/disk/by-uuid/loop", "loop");
  dev.link("/dev/disk/by-uuid/X", "../../sda1");
  std::vector<int> found;
  test::Interposed calls;
  calls.onReaddir = [&found] { found.push_back(errno); };
  calls.onReadlink = [](const std::string&, char*, std::size_t) -> std::optional<ssize_t> {
    errno = EBADF;  // nothing forbids it
    return std::nullopt;
  };
  calls.onRealpath = [&found](const std::string&, char*) -> test::Answer {
    found.push_back(errno);
    return std::nullopt;
  };
  errno = EBADF;
  info.LinkVolumeDeviceAliases("/dev/disk/by-uuid", "/dev/disk");
  EXPECT_EQ(found, std::vector<int>(2 + 5, 0)) << "two links; two entries, \".\", \"..\" and the end";
}

TEST_F(Aliases, of_a_missing_directory_or_one_that_cannot_be_opened_are_none) {
  dev.link("/dev/disk/by-uuid/X", "../../sda1");
  test::LogCapture log;
  info.LinkVolumeDeviceAliases("/dev/nowhere", "/dev");
  rlimit saved;
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &saved), 0);
  const rlimit none = {0, saved.rlim_max};
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
  info.LinkVolumeDeviceAliases("/dev/disk", "/dev");
  info.InitVolumeDeviceAlias("/dev/sda1", "/dev/disk");
  setrlimit(RLIMIT_NOFILE, &saved);
  EXPECT_TRUE(info.volumeAliases.empty());
  EXPECT_TRUE(log.lines().empty()) << log.dump();
}

TEST_F(Aliases, lie_within_the_path_limit) {
  const test::Mounted tree("tests", "/dev/disk", "tmpfs");
  const std::string directory = test::makeDeepDirectory("/dev/disk", 4090);
  ASSERT_EQ(symlink("/dev/sda1", (directory + "/1234").c_str()), 0);
  std::vector<std::size_t> asked;
  test::makeBlockAt(directory, "123456", 8, 1);
  test::makeBlockAt(directory, "1234567", 8, 1);
  test::makeBlockAt(test::makeDeepDirectory(directory, 6000), "node", 8, 1);
  test::Interposed calls;
  calls.onLstat = [&asked](const std::string& path, struct stat*) -> test::Answer {
    asked.push_back(path.size());
    return std::nullopt;
  };
  info.LinkVolumeDeviceAliases();
  EXPECT_THAT(info.volumeAliases, ElementsAre(Pair(directory + "/1234", "/dev/sda1")));
  EXPECT_EQ(*std::max_element(asked.begin(), asked.end()), 4097u);
  asked.clear();
  info.InitVolumeDeviceAlias("/dev/sda1", "/dev/disk");
  EXPECT_EQ(info.volumeAliases.size(), 1u);  // what lies within the limit is a link, what lies beyond is not looked at
  EXPECT_EQ(*std::max_element(asked.begin(), asked.end()), 4097u);
}

TEST_F(Aliases, of_a_dev_root_that_is_not_there_are_none) {
  info.LinkVolumeDeviceAliases();
  EXPECT_EQ(info.volumeAliases.count("/dev/root"), 0u);
}

TEST_F(Aliases, of_dev_root_are_itself_and_every_node_with_its_number) {
  dev.directory("/dev/mapper");
  dev.block("/dev/root", 8, 1);
  dev.block("/dev/mapper/same", 8, 1);
  dev.block("/dev/sdb1", 8, 17);
  info.LinkVolumeDeviceAliases();
  EXPECT_THAT(info.volumeAliasMap, UnorderedElementsAre(Pair("/dev/sda1", ElementsAre("/dev/root")),
                                                        Pair("/dev/root", ElementsAre("/dev/root")),
                                                        Pair("/dev/mapper/same", ElementsAre("/dev/root"))));
  std::string last;
  for (const std::string& name : test::namesInOrder("/dev")) {
    if (name == "sda1" || name == "root") last = "/dev/" + name;
    if (name == "mapper") last = "/dev/mapper/same";
  }
  EXPECT_THAT(info.volumeAliases, ElementsAre(Pair("/dev/root", last)));
}

TEST_F(Aliases, of_dev_root_include_a_character_device_with_its_number) {
  dev.block("/dev/root", 240, 17);
  dev.character("/dev/tape", 240, 17);
  info.LinkVolumeDeviceAliases();
  EXPECT_THAT(info.volumeAliasMap["/dev/tape"], ElementsAre("/dev/root"));
  EXPECT_EQ(mirelsnapsdk_linuxcomputer::FindDev(makedev(240, 17)), "0xf011");  // never found as a block device
}

TEST_F(Aliases, of_a_dev_root_that_is_a_link_are_dev_itself) {
  dev.link("/dev/root", "sda1");
  info.LinkVolumeDeviceAliases();
  EXPECT_THAT(info.volumeAliases, ElementsAre(Pair("/dev/root", "/dev")));
  EXPECT_THAT(info.volumeAliasMap, ElementsAre(Pair("/dev", ElementsAre("/dev/root"))));
}

TEST_F(Aliases, of_a_number_pass_over_other_nodes_and_missing_ones) {
  info.InitVolumeDeviceAlias("/dev/none", "/dev/sda1");
  info.InitVolumeDeviceAlias("/dev/sda1", "/dev/none");
  dev.block("/dev/sdb1", 8, 17);
  info.InitVolumeDeviceAlias("/dev/sda1", "/dev/sdb1");
  EXPECT_TRUE(info.volumeAliases.empty());
  EXPECT_TRUE(info.volumeAliasMap.empty());
}

TEST_F(Aliases, of_a_number_leave_errno_0_behind_a_directory) {
  errno = EBADF;
  info.InitVolumeDeviceAlias("/dev/sda1", "/dev/disk");
  EXPECT_EQ(errno, 0);
}
