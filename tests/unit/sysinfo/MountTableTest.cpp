// SPDX-License-Identifier: Apache-2.0
//
// Which block devices are mounted where.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <future>
#include <iostream>

#include "DevTree.h"
#include "Interposed.h"
#include "LogCapture.h"
#include "LoopVolume.h"
#include "World.h"
#include "base/Handle.h"
#include "sysinfo/LinuxSystemInfo.h"

using mirelsnapsdk_linuxcomputer::LinuxSystemInfo;
using mirelsnapsdk_linuxcomputer::MountEntry;
using mirelsnapsdk_linuxcomputer::MountEntryDeviceLess;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;
using testing::UnorderedElementsAre;

namespace {

std::vector<std::string> devices(const std::vector<MountEntry>& entries) {
  std::vector<std::string> names;
  for (const MountEntry& entry : entries) names.push_back(entry.fsname);
  return names;
}

// The directories of those entries that have this device, in the table's order.
std::vector<std::string> directoriesOf(const std::vector<MountEntry>& entries, const std::string& device) {
  std::vector<std::string> directories;
  for (const MountEntry& entry : entries) {
    if (entry.fsname == device) directories.push_back(entry.dir);
  }
  return directories;
}

// One line of the table.
std::string line(const std::string& device, const std::string& dir) { return device + " " + dir + " ext4 rw 0 0\n"; }

}  // namespace

TEST(MountEntry, is_empty_by_default) {
  const MountEntry entry;
  EXPECT_EQ(entry.fsname + entry.dir + entry.type + entry.opts, "");
  EXPECT_EQ(entry.freq, 0);
  EXPECT_EQ(entry.passno, 0);
}

TEST(MountEntry, copies_a_record_of_the_mount_table) {
  char device[] = "/dev/sda1", dir[] = "/data", type[] = "ext4", options[] = "rw,noatime";
  mntent record{};
  record.mnt_fsname = device;
  record.mnt_dir = dir;
  record.mnt_type = type;
  record.mnt_opts = options;
  record.mnt_freq = -3;
  record.mnt_passno = 7;
  const MountEntry entry(record);
  device[0] = dir[0] = type[0] = options[0] = '!';
  EXPECT_EQ(entry.fsname, "/dev/sda1");
  EXPECT_EQ(entry.dir, "/data");
  EXPECT_EQ(entry.type, "ext4");
  EXPECT_EQ(entry.opts, "rw,noatime");
  EXPECT_EQ(entry.freq, -3);
  EXPECT_EQ(entry.passno, 7);
}

TEST(MountEntryDeviceLess, compares_device_names_as_unsigned_bytes_the_shorter_first) {
  const auto less = [](const std::string& first, const std::string& second) {
    MountEntry a, b;
    a.fsname = first;
    b.fsname = second;
    a.dir = "/z";  // counts for nothing
    b.dir = "/a";
    return MountEntryDeviceLess()(a, b);
  };
  EXPECT_TRUE(less("/dev/sda1", "/dev/sda2"));
  EXPECT_FALSE(less("/dev/sda2", "/dev/sda1"));
  EXPECT_FALSE(less("/dev/sda1", "/dev/sda1"));
  EXPECT_TRUE(less("/dev/sda", "/dev/sda1"));
  EXPECT_TRUE(less("/dev/sda10", "/dev/sda2"));
  EXPECT_TRUE(less("/dev/z", "/dev/\xc3\xa9"));
}

TEST(GetProcMounts, logs_a_table_that_cannot_be_opened_and_is_empty) {
  const test::ProcFile missing("mounts");
  LinuxSystemInfo info;
  test::LogCapture log;
  EXPECT_THAT(info.GetProcMounts(), IsEmpty());
  EXPECT_THAT(log.texts(LOG_ERR), ElementsAre("GetProcMounts Could not open /proc/mounts : 2.\n"));
  EXPECT_EQ(log.lines().size(), 1u) << log.dump();
}

TEST(GetProcMounts, of_an_empty_table_is_empty) {
  const test::ProcFile mounts("mounts", "");
  EXPECT_THAT(LinuxSystemInfo().GetProcMounts(), IsEmpty());
}

TEST(GetProcMounts, copies_every_field_and_decodes_escapes) {
  const test::ProcFile mounts("mounts", "/dev/sda\\0401 /my\\040data\\134x\\011y xfs rw,noatime 5 6\n");
  const std::vector<MountEntry> entries = LinuxSystemInfo().GetProcMounts();
  ASSERT_EQ(entries.size(), 1u);
  EXPECT_EQ(entries[0].fsname, "/dev/sda 1");
  EXPECT_EQ(entries[0].dir, "/my data\\x\ty");
  EXPECT_EQ(entries[0].type, "xfs");
  EXPECT_EQ(entries[0].opts, "rw,noatime");
  EXPECT_EQ(entries[0].freq, 5);
  EXPECT_EQ(entries[0].passno, 6);
}

TEST(GetProcMounts, lists_only_what_lies_under_dev) {
  const test::ProcFile mounts("mounts",
                              "proc /proc proc rw 0 0\ntmpfs /run tmpfs rw 0 0\nhost:/path /net nfs rw 0 0\n"
                              "/devices/x /y ext4 rw 0 0\n/dev /z ext4 rw 0 0\ndev/sdb /w ext4 rw 0 0\n" +
                                  line("/dev/", "/odd") + line("/dev/sda1", "/"));
  EXPECT_THAT(devices(LinuxSystemInfo().GetProcMounts()), ElementsAre("/dev/", "/dev/sda1"));
}

TEST(GetProcMounts, skips_floppies_and_cdroms_by_prefix_and_keeps_sr0) {
  const test::ProcFile mounts("mounts", line("/dev/fd0", "/a") + line("/dev/fd", "/b") + line("/dev/fdisk", "/c") +
                                            line("/dev/cdrom", "/d") + line("/dev/cdrom1", "/e") +
                                            line("/dev/sr0", "/f") + line("/dev/cdro", "/g") + line("/dev/f", "/h"));
  EXPECT_THAT(devices(LinuxSystemInfo().GetProcMounts()), ElementsAre("/dev/cdro", "/dev/f", "/dev/sr0"));
}

TEST(GetProcMounts, sorts_any_number_of_entries_by_device) {
  std::string table;
  for (int i = 0; i < 500; ++i) table += line("/dev/d" + std::to_string(i * 7919 % 500), "/m" + std::to_string(i));
  const test::ProcFile mounts("mounts", table);
  const std::vector<std::string> names = devices(LinuxSystemInfo().GetProcMounts());
  EXPECT_EQ(names.size(), 500u);
  EXPECT_TRUE(std::is_sorted(names.begin(), names.end()));
  EXPECT_EQ(names[1], "/dev/d1");
  EXPECT_EQ(names[2], "/dev/d10");
}

TEST(GetProcMounts, keeps_the_order_of_the_table_among_many_mounts_of_one_device) {
  std::string table;
  std::vector<std::string> directories;
  for (int i = 0; i < 40; ++i) {
    directories.push_back("/m" + std::to_string(i));
    table += line("/dev/d", directories.back());
  }
  const test::ProcFile mounts("mounts", table);
  std::vector<std::string> found;
  for (const MountEntry& entry : LinuxSystemInfo().GetProcMounts()) found.push_back(entry.dir);
  EXPECT_EQ(found, directories);
}

TEST(GetProcMounts, replaces_an_alias_by_the_real_device) {
  test::DevTree dev;
  dev.block("/dev/sda1", 8, 1);
  dev.directory("/dev/disk/by-label");
  dev.link("/dev/disk/by-label/data", "../../sda1");
  const test::ProcFile mounts("mounts", line("/dev/disk/by-label/data", "/data"));
  LinuxSystemInfo info;
  EXPECT_THAT(devices(info.GetProcMounts()), ElementsAre("/dev/disk/by-label/data")) << "no aliases are read yet";
  info.LinkVolumeDeviceAliases();
  EXPECT_THAT(devices(info.GetProcMounts()), ElementsAre("/dev/sda1"));
}

TEST(GetProcMounts, keeps_each_device_that_it_looks_up_among_the_aliases) {
  const test::ProcFile mounts(
      "mounts", line("/dev/sda1", "/") + line("/dev/sdb", "/b") + line("/dev/fd0", "/f") + line("tmpfs", "/run"));
  LinuxSystemInfo info;
  info.GetProcMounts();
  EXPECT_THAT(info.volumeAliases, UnorderedElementsAre(Pair("/dev/sda1", ""), Pair("/dev/sdb", "")));
  EXPECT_THAT(info.volumeAliasMap, IsEmpty());
}

TEST(GetProcMounts, names_the_boot_device_for_dev_root) {
  struct stat root;
  ASSERT_EQ(stat("/", &root), 0);
  test::DevTree dev;
  dev.block("/dev/theRootDisk", major(root.st_dev), minor(root.st_dev));
  const test::ProcFile mounts("mounts", line("/dev/root", "/") + line("/dev/root1", "/b"));
  LinuxSystemInfo info;
  const std::vector<MountEntry> entries = info.GetProcMounts();
  EXPECT_THAT(devices(entries), ElementsAre("/dev/root1", "/dev/theRootDisk"));
  EXPECT_EQ(entries[1].dir, "/");
}

TEST(GetProcMounts, lets_the_boot_device_win_over_an_alias_of_dev_root) {
  const test::ProcFile mounts("mounts", line("/dev/root", "/"));
  LinuxSystemInfo info;
  info.bootDeviceName = "/dev/boot";
  info.volumeAliases["/dev/root"] = "/dev/alias";
  EXPECT_THAT(devices(info.GetProcMounts()), ElementsAre("/dev/boot"));
}

TEST(GetProcMounts, leaves_alone_an_alias_that_leads_to_dev_root) {
  const test::ProcFile mounts("mounts", line("/dev/disk/x", "/"));
  LinuxSystemInfo info;
  info.bootDeviceName = "/dev/boot";
  info.volumeAliases["/dev/disk/x"] = "/dev/root";
  EXPECT_THAT(devices(info.GetProcMounts()), ElementsAre("/dev/root")) << "the name as read is not /dev/root";
}

TEST(GetProcMounts, gives_dev_root_no_name_when_the_boot_device_is_unknown) {
  test::Interposed calls;
  calls.onStat = [](const std::string& path, struct stat*) -> test::Answer {
    if (path != "/") return std::nullopt;
    return EIO;
  };
  const test::ProcFile mounts("mounts", line("/dev/root", "/"));
  EXPECT_THAT(devices(LinuxSystemInfo().GetProcMounts()), ElementsAre(""));
}

TEST(GetProcMounts, lists_a_device_mounted_twice_as_two_neighbours) {
  const test::Volume first("ext4", 16 << 20);
  const test::Volume second("ext4", 16 << 20);
  const test::TempDir again;
  const test::Mounted bound(first.folder(), again.path(), "", MS_BIND);
  const std::vector<MountEntry> entries = LinuxSystemInfo().GetProcMounts();
  EXPECT_THAT(directoriesOf(entries, first.device()), UnorderedElementsAre(first.folder(), again.path()));
  const std::vector<std::string> names = devices(entries);
  const auto found = std::find(names.begin(), names.end(), first.device());
  ASSERT_LT(found + 1, names.end());
  EXPECT_EQ(*(found + 1), first.device());
}

TEST(GetProcMounts, reads_the_table_afresh) {
  LinuxSystemInfo info;
  std::string device;
  {
    const test::Volume volume("ext4", 16 << 20);
    device = volume.device();
    const std::vector<std::string> mounted = directoriesOf(info.GetProcMounts(), device);
    EXPECT_THAT(mounted, ElementsAre(volume.folder()));
  }
  EXPECT_THAT(directoriesOf(info.GetProcMounts(), device), IsEmpty());
  EXPECT_THAT(info.mountEntries, IsEmpty());
}

TEST(GetProcMounts, finds_a_mount_under_the_longest_path_all_of_it_escaped) {
  const test::Volume volume("ext4", 16 << 20);
  const test::TempDir dir;
  std::string deep = dir.path();
  while (deep.size() < 3800) deep += "/" + std::string(200, ' ');  // in the table, each blank takes four bytes
  std::filesystem::create_directories(deep);
  const test::Mounted bound(volume.folder(), deep, "", MS_BIND);
  EXPECT_THAT(directoriesOf(LinuxSystemInfo().GetProcMounts(), volume.device()),
              UnorderedElementsAre(volume.folder(), deep));
}

TEST(GetProcMounts, loses_no_line_behind_one_with_endless_options) {
  const test::ProcFile mounts("mounts",
                              "/dev/sda1 /a ext4 " + std::string(200000, 'o') + " 0 0\n" + line("/dev/sdb1", "/b"));
  const std::vector<MountEntry> entries = LinuxSystemInfo().GetProcMounts();
  EXPECT_THAT(devices(entries), ElementsAre("/dev/sda1", "/dev/sdb1"));
  EXPECT_EQ(entries[0].dir, "/a");
  EXPECT_EQ(entries[1].dir, "/b");
}

TEST(GetProcMounts, survives_lines_that_are_cut_short) {
  const test::ProcFile mounts("mounts", "\n# comment\n/dev/sda1\n/dev/sdb1 /b\n/dev/sdc1 /c ext4");
  const std::vector<MountEntry> entries = LinuxSystemInfo().GetProcMounts();
  EXPECT_THAT(devices(entries), ElementsAre("/dev/sda1", "/dev/sdb1", "/dev/sdc1"));
  EXPECT_EQ(entries[0].dir, "");
  EXPECT_EQ(entries[1].dir, "/b");
  EXPECT_EQ(entries[2].type, "ext4");
}

TEST(GetProcMounts, of_two_threads_do_not_disturb_each_other) {
  std::string table;
  for (int i = 0; i < 200; ++i) {
    const std::string number = std::to_string(1000 + i);
    table += line("/dev/d" + number, "/m" + number);
  }
  const test::ProcFile mounts("mounts", table);
  const auto read = [] {
    LinuxSystemInfo info;
    for (int round = 0; round < 50; ++round) {
      const std::vector<MountEntry> entries = info.GetProcMounts();
      if (entries.size() != 200) return false;
      for (const MountEntry& entry : entries) {
        if (entry.fsname.substr(6) != entry.dir.substr(2)) return false;
      }
    }
    return true;
  };
  std::future<bool> other = std::async(std::launch::async, read);
  EXPECT_TRUE(read());
  EXPECT_TRUE(other.get());
}

TEST(GetMountPoints, are_all_directories_of_the_device_in_table_order) {
  const test::Volume volume("ext4", 16 << 20);
  const test::Volume other("ext4", 16 << 20);
  const test::TempDir again;
  const test::Mounted bound(volume.folder(), again.path(), "", MS_BIND);
  LinuxSystemInfo info;
  const std::vector<std::string> expected = directoriesOf(info.GetProcMounts(), volume.device());
  ASSERT_EQ(expected.size(), 2u);
  test::LogCapture log;
  EXPECT_EQ(info.GetMountPoints(volume.device()), expected);
  const std::string text =
      "User selected VolumeName: " + volume.device() + " System discovered: " + volume.device() + ".\n";
  EXPECT_THAT(log.texts(LOG_DEBUG), ElementsAre(text, text));
  EXPECT_EQ(log.lines().size(), 2u) << log.dump();
}

TEST(GetMountPoints, asks_for_exactly_the_device) {
  const test::ProcFile mounts("mounts", line("/dev/sda1", "/a") + line("/dev/sda10", "/b"));
  LinuxSystemInfo info;
  test::LogCapture log;
  EXPECT_THAT(info.GetMountPoints("/dev/sda"), IsEmpty());
  EXPECT_THAT(info.GetMountPoints("/dev/sda1"), ElementsAre("/a"));
  EXPECT_THAT(info.GetMountPoints(""), IsEmpty());
  EXPECT_EQ(log.lines().size(), 1u) << log.dump();
}

TEST(GetMountPoints, finds_a_mount_by_alias_under_its_real_device) {
  const test::ProcFile mounts("mounts", line("/dev/disk/by-label/data", "/data"));
  LinuxSystemInfo info;
  info.volumeAliases["/dev/disk/by-label/data"] = "/dev/sda1";
  EXPECT_THAT(info.GetMountPoints("/dev/sda1"), ElementsAre("/data"));
  EXPECT_THAT(info.GetMountPoints("/dev/disk/by-label/data"), IsEmpty());
}

TEST(GetMountPoints, of_an_unreadable_table_are_none) {
  const test::ProcFile missing("mounts");
  LinuxSystemInfo info;
  info.volumeAliasMap["/dev/sda1"] = {"/dev/x"};
  EXPECT_THAT(info.GetMountPoints("/dev/sda1"), IsEmpty());
  EXPECT_THAT(info.GetAllMountPoints(), IsEmpty());
  EXPECT_EQ(info.GetVolumeFromMountPoint("/"), "");
  EXPECT_EQ(info.GetVolumeFromDir("/"), "");
}

TEST(GetAllVolumes, are_the_devices_that_have_an_alias_in_order) {
  LinuxSystemInfo info;
  EXPECT_THAT(info.GetAllVolumes(), IsEmpty());
  info.volumeAliasMap["/dev/sdb"] = {"/dev/x"};
  info.volumeAliasMap["/dev/sda"] = {};
  info.volumeAliases["/dev/sdc"] = "";
  EXPECT_THAT(info.GetAllVolumes(), ElementsAre("/dev/sda", "/dev/sdb"));
}

TEST(GetAllMountPoints, are_the_first_of_each_device_sorted_and_single) {
  const test::ProcFile mounts("mounts", line("/dev/sda1", "/z") + line("/dev/sdb1", "/m") + line("/dev/sdc1", "/z") +
                                            line("/dev/sdd1", "/unlisted"));
  LinuxSystemInfo info;
  for (const char* device : {"/dev/sda1", "/dev/sdb1", "/dev/sdc1", "/dev/unmounted"}) info.volumeAliasMap[device] = {};
  test::LogCapture log;
  EXPECT_THAT(info.GetAllMountPoints(), ElementsAre("/m", "/z"));
  EXPECT_THAT(log.texts(LOG_DEBUG), ElementsAre("User selected VolumeName: /dev/sda1 System discovered: /dev/sda1.\n",
                                                "Mountpoint for /dev/sda1 volume is: /z.\n",
                                                "User selected VolumeName: /dev/sdb1 System discovered: /dev/sdb1.\n",
                                                "Mountpoint for /dev/sdb1 volume is: /m.\n",
                                                "User selected VolumeName: /dev/sdc1 System discovered: /dev/sdc1.\n",
                                                "Mountpoint for /dev/sdc1 volume is: /z.\n"));
  EXPECT_EQ(log.lines().size(), 6u) << log.dump();
}

TEST(GetAllMountPoints, name_a_device_mounted_twice_once) {
  const test::Volume volume("ext4", 16 << 20);
  const test::TempDir again;
  const test::Mounted bound(volume.folder(), again.path(), "", MS_BIND);
  LinuxSystemInfo info;
  info.volumeAliasMap[volume.device()] = {"/dev/x"};
  const std::vector<std::string> both = info.GetMountPoints(volume.device());
  ASSERT_EQ(both.size(), 2u);
  EXPECT_THAT(info.GetAllMountPoints(), ElementsAre(both.front()));
}

TEST(GetVolumeFromMountPoint, is_the_device_mounted_exactly_there) {
  const test::ProcFile mounts("mounts", line("/dev/sdc1", "/c") + line("/dev/sda1", "/") + line("/dev/sdb1", "/data"));
  LinuxSystemInfo info;
  test::LogCapture log;
  EXPECT_EQ(info.GetVolumeFromMountPoint("/data"), "/dev/sdb1");
  EXPECT_THAT(log.texts(LOG_DEBUG),
              ElementsAre("i->dir: /.\n", "i->dir: /data.\n", "MountPoint: /data, volumeName: /dev/sdb1.\n"));
  EXPECT_EQ(log.lines().size(), 3u) << log.dump();
}

TEST(GetVolumeFromMountPoint, is_empty_when_nothing_is_mounted_there) {
  const test::ProcFile mounts("mounts", line("/dev/sda1", "/") + line("/dev/sdb1", "/data"));
  LinuxSystemInfo info;
  test::LogCapture log;
  EXPECT_EQ(info.GetVolumeFromMountPoint("/data/"), "");
  EXPECT_EQ(info.GetVolumeFromMountPoint("/data/x"), "");
  EXPECT_EQ(log.texts(LOG_DEBUG).size(), 4u) << log.dump();
}

TEST(GetVolumeFromDir, of_a_mount_directory_is_its_device_at_once) {
  const test::ProcFile mounts("mounts", line("/dev/sda1", "/data") + line("/dev/sdb1", "/"));
  LinuxSystemInfo info;
  test::LogCapture log;
  EXPECT_EQ(info.GetVolumeFromDir("/data"), "/dev/sda1");
  EXPECT_THAT(log.texts(LOG_ERR), ElementsAre("MountName: /data, VolumeName: /dev/sda1.\n"));
  EXPECT_EQ(log.lines().size(), 1u) << log.dump();
}

TEST(GetVolumeFromDir, takes_the_longest_mount_directory_and_logs_each_better_one) {
  const test::ProcFile mounts("mounts", line("/dev/sda1", "/") + line("/dev/sdb1", "/data") +
                                            line("/dev/sdc1", "/data/deep") + line("/dev/sdd1", "/other") +
                                            line("/dev/sde1", "/data/x"));
  LinuxSystemInfo info;
  test::LogCapture log;
  EXPECT_EQ(info.GetVolumeFromDir("/data/deep/dir"), "/dev/sdc1");
  const std::vector<test::LogLine> lines = log.lines();
  ASSERT_EQ(lines.size(), 6u) << log.dump();
  for (std::size_t i = 0; i < lines.size(); ++i) {
    const std::string device = "/dev/sd" + std::string(1, static_cast<char>('a' + i / 2)) + "1";
    EXPECT_EQ(lines[i].text, "DirName: /data/deep/dir, VolumeName: " + device + ".\n");
    EXPECT_EQ(lines[i].priority, i % 2 == 0 ? LOG_DEBUG : LOG_ERR);
  }
}

TEST(GetVolumeFromDir, logs_a_shorter_match_as_detail_only) {
  const test::ProcFile mounts("mounts", line("/dev/sda1", "/data") + line("/dev/sdb1", "/"));
  LinuxSystemInfo info;
  test::LogCapture log;
  EXPECT_EQ(info.GetVolumeFromDir("/data/x"), "/dev/sda1");
  EXPECT_THAT(log.texts(LOG_DEBUG),
              ElementsAre("DirName: /data/x, VolumeName: /dev/sda1.\n", "DirName: /data/x, VolumeName: /dev/sdb1.\n"));
  EXPECT_THAT(log.texts(LOG_ERR), ElementsAre("DirName: /data/x, VolumeName: /dev/sda1.\n"));
}

TEST(GetVolumeFromDir, matches_a_mount_directory_anywhere_inside) {
  const test::ProcFile mounts("mounts", line("/dev/sda1", "/") + line("/dev/sdb1", "/data"));
  LinuxSystemInfo info;
  EXPECT_EQ(info.GetVolumeFromDir("/data2/x"), "/dev/sdb1");
  EXPECT_EQ(info.GetVolumeFromDir("/backup/data/x"), "/dev/sdb1");
  EXPECT_EQ(info.GetVolumeFromDir("/dat"), "/dev/sda1");
}

TEST(GetVolumeFromDir, keeps_the_smaller_device_name_of_two_that_match_alike) {
  const test::ProcFile mounts("mounts", line("/dev/sdb1", "/aa") + line("/dev/sda1", "/bb"));
  LinuxSystemInfo info;
  EXPECT_EQ(info.GetVolumeFromDir("/aa/bb"), "/dev/sda1");
}

TEST(GetVolumeFromDir, keeps_a_nearer_mount_whose_device_has_no_name) {
  const test::ProcFile mounts("mounts", line("/dev/root", "/data") + line("/dev/sdb1", "/"));
  LinuxSystemInfo info;
  info.bootDeviceName = "";
  EXPECT_EQ(info.GetVolumeFromDir("/data/x"), "");
}

TEST(GetVolumeFromDir, is_empty_when_nothing_matches) {
  const test::ProcFile mounts("mounts", line("/dev/sda1", "/data"));
  LinuxSystemInfo info;
  test::LogCapture log;
  EXPECT_EQ(info.GetVolumeFromDir("/other"), "");
  EXPECT_EQ(info.GetVolumeFromDir("relative"), "");
  EXPECT_TRUE(log.lines().empty()) << log.dump();
}

TEST(PrintMounts, writes_the_table_its_sizes_and_the_aliases_to_standard_output) {
  const test::Volume volume("ext4", 16 << 20, {"-b", "4096"});
  struct statfs sizes;
  ASSERT_EQ(statfs(volume.folder().c_str(), &sizes), 0);
  ASSERT_EQ(sizes.f_bsize, 4096);
  const test::ProcFile mounts("mounts", line(volume.device(), volume.folder()) + line("/dev/zz", "/mnt/none"));
  LinuxSystemInfo info;
  info.volumeAliasMap["/dev/a"] = {"/dev/disk/x", "/dev/disk/y"};
  info.volumeAliases["/dev/disk/x"] = "/dev/a";
  testing::internal::CaptureStdout();
  info.printMounts();
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            " Mount points in the system are: \n"
            "mount device name: " +
                volume.device() + " Mount point name: " + volume.folder() +
                "\n"
                "Mount details: \n"
                "BlockSize of volume: 4096\n"
                "TotalSizeOfVolume (in K): " +
                std::to_string(sizes.f_blocks * 4) +
                "\n"
                "AvailSizeKofVolume (in K): " +
                std::to_string(sizes.f_bfree * 4) +
                "\n"
                "UsedSizeKofVolume (in K): " +
                std::to_string((sizes.f_blocks - sizes.f_bfree) * 4) +
                "\n"
                "mount device name: /dev/zz Mount point name: /mnt/none\n"
                "Mount details: \n"
                "Volume Aliases of the system are: \n"
                "Key: /dev/disk/x  Value: /dev/a\n"
                "Key: " +
                volume.device() +
                "  Value: \n"
                "Key: /dev/zz  Value: \n"
                "VolumeAliasMap of the system are: \n"
                "Key is: /dev/a\n"
                "     Value vector is: \n"
                "\t\t/dev/disk/x\n"
                "\t\t/dev/disk/y\n");
}

TEST(PrintMounts, writes_zeros_for_blocks_under_1024_bytes) {
  const test::ProcFile mounts("mounts", line("/dev/sda1", "/mnt/fake"));
  test::Interposed calls;
  calls.onStatfs = [](const std::string&, struct statfs* result) -> test::Answer {
    *result = {};
    result->f_blocks = 1000;
    result->f_bfree = 300;
    result->f_bsize = 512;
    return 0;
  };
  LinuxSystemInfo info;
  testing::internal::CaptureStdout();
  info.printMounts();
  EXPECT_THAT(testing::internal::GetCapturedStdout(),
              testing::HasSubstr("BlockSize of volume: 512\nTotalSizeOfVolume (in K): 0\n"
                                 "AvailSizeKofVolume (in K): 0\nUsedSizeKofVolume (in K): 0\n"));
}

TEST(PrintMounts, truncates_blocks_to_whole_KB) {
  const test::ProcFile mounts("mounts", line("/dev/sda1", "/mnt/fake"));
  test::Interposed calls;
  calls.onStatfs = [](const std::string&, struct statfs* result) -> test::Answer {
    *result = {};
    result->f_blocks = std::uint64_t{1} << 40;
    result->f_bfree = 1;
    result->f_bsize = 2048 + 512;
    return 0;
  };
  LinuxSystemInfo info;
  testing::internal::CaptureStdout();
  info.printMounts();
  EXPECT_THAT(testing::internal::GetCapturedStdout(),
              testing::HasSubstr("BlockSize of volume: 2560\nTotalSizeOfVolume (in K): 2199023255552\n"
                                 "AvailSizeKofVolume (in K): 2\nUsedSizeKofVolume (in K): 2199023255550\n"));
}

TEST(PrintMounts, reaches_standard_output_at_once) {
  const test::ProcFile mounts("mounts", "");
  const test::TempDir dir;
  LinuxSystemInfo info;
  std::cout.flush();
  std::fflush(stdout);
  const UniqueFd saved(dup(STDOUT_FILENO));
  const UniqueFd file(open((dir / "out").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
  dup2(file.get(), STDOUT_FILENO);
  info.printMounts();
  const std::string written = test::readFile(dir / "out");
  std::fflush(stdout);
  dup2(saved.get(), STDOUT_FILENO);
  EXPECT_EQ(written,
            " Mount points in the system are: \n"
            "Volume Aliases of the system are: \n"
            "VolumeAliasMap of the system are: \n");
}
