// SPDX-License-Identifier: Apache-2.0
#include "OwnWorld.h"
#include "qxtools/MountPointCollection.h"

#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <filesystem>
#include <optional>

#include "KernelTable.h"
#include "Locale.h"
#include "LoopVolume.h"
#include "World.h"
#include "interpose/Allocations.h"

namespace fs = std::filesystem;
using test::KernelTable;
using test::kNobody;
using test::tableLine;
using UnixUtils::SystemMountPointCollection;

namespace {

struct Drop {
  template <class T>
  void operator()(T* object) const {
    object->Done();
  }
};
using Collection = std::unique_ptr<SystemMountPointCollection, Drop>;
using Entry = std::unique_ptr<SystemMountPointCollection::MountPointInformation, Drop>;

Collection localMounts() { return Collection(SystemMountPointCollection::GetLocalSystemMountPointCollection()); }

Entry mountOf(const std::string& path) {
  const Collection mounts = localMounts();
  return Entry(mounts->FindMountPointFromPath(path.c_str()));
}

// The folder of the mount that holds `path`.
std::string folderOf(const std::string& path) {
  const Entry entry = mountOf(path);
  return entry == nullptr ? "<none>" : entry->GetMountFolder();
}

std::string typeOf(const std::string& path) {
  const Entry entry = mountOf(path);
  return entry == nullptr ? "<none>" : entry->GetMountFileSystem();
}

std::string directory(const std::string& path) {
  fs::create_directories(path);
  return path;
}

}  // namespace

TEST(FindMountPointFromPath, answers_the_deepest_mount_that_contains_the_path) {
  const test::TempDir dir;
  const test::Mounted outer("outer", directory(dir / "outer"), "tmpfs");
  const test::Mounted inner("inner", directory(dir / "outer/a/inner"), "tmpfs");
  directory(dir / "outer/a/inner/deep/er");
  EXPECT_EQ(folderOf(dir / "outer"), dir / "outer");
  EXPECT_EQ(folderOf(dir / "outer/a"), dir / "outer");
  EXPECT_EQ(folderOf(dir / "outer/a/inner"), dir / "outer/a/inner");
  EXPECT_EQ(folderOf(dir / "outer/a/inner/deep/er"), dir / "outer/a/inner");
  EXPECT_EQ(folderOf(dir.path()), test::kScratch);
  EXPECT_EQ(folderOf("/"), "/");
}

TEST(FindMountPointFromPath, a_folder_whose_name_only_begins_alike_contains_nothing) {
  const test::TempDir dir;
  const test::Mounted mounted("a", directory(dir / "data"), "tmpfs");
  directory(dir / "data2");
  EXPECT_EQ(folderOf(dir / "data2"), test::kScratch);
}

TEST(FindMountPointFromPath, resolves_links_dots_and_trailing_slashes_first) {
  const test::TempDir dir;
  const test::Mounted mounted("a", directory(dir / "data"), "tmpfs");
  directory(dir / "data/sub");
  fs::create_directory_symlink(dir / "data/sub", dir / "link");
  fs::create_directory_symlink(dir / "..", dir / "data/out");
  EXPECT_EQ(folderOf(dir / "link"), dir / "data");
  EXPECT_EQ(folderOf(dir / "data/out"), test::kScratch);
  EXPECT_EQ(folderOf(dir / "data/sub/../../data///"), dir / "data");
}

TEST(FindMountPointFromPath, takes_wide_paths_in_the_processs_locale) {
  const test::Locale utf8(test::kUtf8);
  const test::TempDir dir;
  const test::Mounted mounted("a", directory(dir / "caf\xC3\xA9"), "tmpfs");
  const std::wstring wide = std::wstring(dir.path().begin(), dir.path().end()) + L"/caf\u00E9";
  const Collection mounts = localMounts();
  const Entry entry(mounts->FindMountPointFromPath(wide.c_str()));
  ASSERT_NE(entry, nullptr);
  EXPECT_EQ(entry->GetMountFolder(), mounted.folder());
}

TEST(FindMountPointFromPath, finds_nothing_for_null_empty_unresolvable_and_undecodable_paths) {
  const test::Locale plain(test::kPlain);
  const Collection mounts = localMounts();
  ASSERT_NE(mounts, nullptr);
  EXPECT_EQ(mounts->FindMountPointFromPath(static_cast<const char*>(nullptr)), nullptr);
  EXPECT_EQ(mounts->FindMountPointFromPath(static_cast<const wchar_t*>(nullptr)), nullptr);
  EXPECT_EQ(mounts->FindMountPointFromPath(""), nullptr);
  EXPECT_EQ(mounts->FindMountPointFromPath(L""), nullptr);
  EXPECT_EQ(mounts->FindMountPointFromPath("/mnt/nowhere"), nullptr);
  EXPECT_EQ(mounts->FindMountPointFromPath(L"/mnt/caf\u00E9"), nullptr);
}

TEST(FindMountPointFromPath, lets_the_last_mount_on_a_folder_win) {
  const test::TempDir dir;
  directory(dir / "data");
  const test::Mounted first("first", dir / "data", "tmpfs");
  const test::Mounted last("last", dir / "data", "ramfs");
  EXPECT_EQ(typeOf(dir / "data"), "ramfs");
  EXPECT_STREQ(mountOf(dir / "data")->GetMountSource(), "last");
}

TEST(FindMountPointFromPath, a_mount_that_another_hides_contains_nothing) {
  const test::TempDir dir;
  const test::Mounted hidden("hidden", directory(dir / "a/b"), "tmpfs");
  const test::Mounted cover("cover", dir / "a", "ramfs");
  directory(dir / "a/b/c");
  EXPECT_EQ(folderOf(dir / "a/b/c"), dir / "a");
}

TEST(FindMountPointFromPath, a_mount_that_was_moved_over_a_later_one_wins) {
  const test::TempDir dir;
  directory(dir / "late");
  ASSERT_EQ(mount("early", directory(dir / "early").c_str(), "ramfs", 0, nullptr), 0);
  const test::Mounted late("late", dir / "late", "tmpfs");
  ASSERT_EQ(mount((dir / "early").c_str(), (dir / "late").c_str(), nullptr, MS_MOVE, nullptr), 0);
  EXPECT_EQ(typeOf(dir / "late"), "ramfs");
  test::unmount(dir / "late");
}

TEST(FindMountPointFromPath, goes_by_names_where_the_kernel_does_not_tell_the_mount) {
  const test::TempDir dir;
  directory(dir / "data/sub/deep");
  directory(dir / "data2");
  const KernelTable table(tableLine(kNobody, "8:1", "/", "ext4", "/dev/sda1") +
                          tableLine(kNobody + 1, "8:3", dir / "data/sub", "ext4", "/dev/sda3") +
                          tableLine(kNobody + 2, "8:2", dir / "data", "xfs", "/dev/sda2") +
                          tableLine(kNobody + 3, "8:4", dir / "data/sub", "ext2", "/dev/sda4"));
  EXPECT_EQ(folderOf(dir / "data"), dir / "data");
  EXPECT_EQ(typeOf(dir / "data"), "xfs");
  EXPECT_EQ(typeOf(dir / "data/sub/deep"), "ext2");
  EXPECT_EQ(folderOf(dir / "data2"), "/");
}

TEST(SystemMountPointCollection, decodes_escapes) {
  const test::TempDir dir;
  const std::string name = "a b\tc\\d\ne#f";
  const test::Mounted mounted("the source", directory(dir / name), "tmpfs");
  const Entry entry = mountOf(dir / name);
  ASSERT_NE(entry, nullptr);
  EXPECT_EQ(entry->GetMountFolder(), dir / name);
  EXPECT_STREQ(entry->GetMountFileSystem(), "tmpfs");
  EXPECT_STREQ(entry->GetMountSource(), "the source");
}

TEST(SystemMountPointCollection, lists_every_mount_but_those_of_network_file_systems_in_the_kernels_order) {
  const KernelTable table(tableLine(kNobody, "8:1", "/", "ext4", "/dev/sda1") +
                          tableLine(kNobody + 1, "0:40", "/net/1", "nfs4", "server:/export") +
                          tableLine(kNobody + 2, "0:41", "/net/2", "cifs", "//server/share") +
                          tableLine(kNobody + 3, "0:5", "/dev", "devtmpfs", "udev") +
                          tableLine(kNobody + 4, "0:42", "/net/3", "fuse.sshfs", "server:/") +
                          tableLine(kNobody + 5, "0:43", "/net/4", "ceph", "1.2.3.4:/") +
                          tableLine(kNobody + 6, "0:44", "/net/5", "nfs", "server:/old") +
                          tableLine(kNobody + 7, "0:45", "/net/6", "9p", "host") +
                          tableLine(kNobody + 8, "0:46", "/net/7", "fuse.glusterfs", "server:volume") +
                          tableLine(kNobody + 9, "0:47", "/net/8", "lustre", "server:/volume") +
                          tableLine(kNobody + 10, "0:48", "/run", "tmpfs", "tmpfs") +
                          tableLine(kNobody + 11, "8:1", "/mnt", "ext4", "/dev/sda1"));
  const Collection mounts = localMounts();
  ASSERT_NE(mounts, nullptr);
  std::vector<std::string> folders;
  for (std::size_t i = 0; i < mounts->GetCount(); ++i) folders.push_back(Entry(mounts->GetAt(i))->GetMountFolder());
  EXPECT_EQ(folders, (std::vector<std::string>{"/", "/dev", "/run", "/mnt"}));
  EXPECT_EQ(mounts->GetAt(4), nullptr);
}

TEST(SystemMountPointCollection, a_path_on_a_network_mount_lies_on_no_local_one) {
  const test::TempDir dir;
  directory(dir / "net/sub");
  const KernelTable table(tableLine(kNobody, "8:1", "/", "ext4", "/dev/sda1") +
                          tableLine(kNobody + 1, "0:40", dir / "net", "nfs4", "server:/export"));
  EXPECT_EQ(folderOf(dir / "net/sub"), "<none>");
  EXPECT_EQ(folderOf(dir.path()), "/");
}

TEST(SystemMountPointCollection, is_null_when_the_table_cannot_be_read) {
  const test::ProcFile missing("self");
  EXPECT_EQ(localMounts(), nullptr);
}

TEST(SystemMountPointCollection, knows_the_mounts_of_one_moment) {
  const test::TempDir dir;
  directory(dir / "data/sub");
  const Collection before = localMounts();
  std::optional<test::Mounted> mounted(std::in_place, "a", dir / "data", "tmpfs");
  const Collection during = localMounts();
  EXPECT_EQ(during->GetCount(), before->GetCount() + 1);
  EXPECT_STREQ(Entry(before->FindMountPointFromPath((dir / "data").c_str()))->GetMountFolder(), test::kScratch);
  mounted.reset();
  const Collection after = localMounts();
  EXPECT_EQ(after->GetCount(), before->GetCount());
}

TEST(SystemMountPointCollection, lives_as_long_as_somebody_holds_a_reference) {
  SystemMountPointCollection* mounts = SystemMountPointCollection::GetLocalSystemMountPointCollection();
  ASSERT_NE(mounts, nullptr);
  mounts->Get();
  EXPECT_FALSE(mounts->Done());
  EXPECT_GT(mounts->GetCount(), 0u);
  EXPECT_TRUE(mounts->Done());
}

TEST(MountPointInformation, outlives_its_collection) {
  Collection mounts = localMounts();
  SystemMountPointCollection::MountPointInformation* entry = mounts->FindMountPointFromPath(test::kScratch);
  ASSERT_NE(entry, nullptr);
  mounts.reset();
  EXPECT_STREQ(entry->GetMountFolder(), test::kScratch);
  entry->Get();
  EXPECT_FALSE(entry->Done());
  EXPECT_TRUE(entry->Done());
}

TEST(MountPointInformation, knows_an_ext4_volumes_number_and_sizes) {
  for (const unsigned int blockSize : {1024u, 4096u}) {
    const test::Volume volume("ext4", (16 << 20) + 512, {"-b", std::to_string(blockSize)});
    const Entry entry = mountOf(volume.folder());
    ASSERT_NE(entry, nullptr);
    EXPECT_EQ(entry->GetMountFolder(), volume.folder());
    EXPECT_STREQ(entry->GetMountFileSystem(), "ext4");
    EXPECT_EQ(entry->GetMountSource(), volume.device());
    EXPECT_EQ(entry->GetDeviceNumber(), makedev(7, volume.loop().minor()));
    EXPECT_EQ(entry->GetBlockSize(), blockSize);
    EXPECT_EQ(entry->GetDeviceSize(), (16u << 20) + 512);
  }
}

TEST(MountPointInformation, knows_an_xfs_volumes_file_system_blocks_not_its_devices) {
  const test::Volume volume("xfs", 300 << 20);
  const Entry entry = mountOf(volume.folder());
  ASSERT_NE(entry, nullptr);
  EXPECT_EQ(entry->GetDeviceNumber(), makedev(7, volume.loop().minor()));
  EXPECT_EQ(entry->GetBlockSize(), 4096u);
  EXPECT_EQ(entry->GetDeviceSize(), 300u << 20);
}

TEST(MountPointInformation, has_zeros_without_a_block_device) {
  const test::LoopDevice loop(1 << 20);
  const test::TempDir dir;
  // A source that happens to be the name of a device makes no device of it.
  const test::Mounted mounted(loop.path(), directory(dir / "a"), "tmpfs");
  for (const std::string& path : {std::string(test::kScratch), dir / "a", std::string("/proc/sys")}) {
    const Entry entry = mountOf(path);
    ASSERT_NE(entry, nullptr);
    EXPECT_EQ(entry->GetDeviceNumber(), 0u) << path;
    EXPECT_EQ(entry->GetBlockSize(), 0u) << path;
    EXPECT_EQ(entry->GetDeviceSize(), 0u) << path;
  }
}

TEST(MountPointInformation, a_file_system_with_a_number_of_its_own_lies_on_its_source) {
  const test::Volume volume("ext4", 16 << 20, {"-b", "1024"});
  const KernelTable table(tableLine(kNobody, "0:77", volume.folder(), "btrfs", volume.device()));
  const Entry entry = mountOf(volume.folder());
  ASSERT_NE(entry, nullptr);
  EXPECT_EQ(entry->GetDeviceNumber(), makedev(7, volume.loop().minor()));
  EXPECT_EQ(entry->GetBlockSize(), 1024u);
  EXPECT_EQ(entry->GetDeviceSize(), 16u << 20);
}

TEST(MountPointInformation, a_source_that_is_no_block_device_gives_zeros) {
  const test::TempDir dir;
  directory(dir / "a");
  for (const std::string& source : {std::string("pool/data"), dir / "missing", std::string("/dev/null")}) {
    const KernelTable table(tableLine(kNobody, "0:77", dir / "a", "zfs", source));
    const Entry entry = mountOf(dir / "a");
    ASSERT_NE(entry, nullptr);
    EXPECT_EQ(entry->GetDeviceNumber(), 0u) << source;
    EXPECT_EQ(entry->GetBlockSize(), 0u) << source;
    EXPECT_EQ(entry->GetDeviceSize(), 0u) << source;
  }
}

TEST(MountPointInformation, follows_a_source_that_is_a_link_to_the_device) {
  const test::LoopDevice loop(16 << 20);
  loop.mkfs("ext4", {"-b", "1024"});
  const test::TempDir dir;
  fs::create_symlink(loop.path(), dir / "by-uuid");
  const test::Mounted mounted(dir / "by-uuid", directory(dir / "a"), "ext4");
  const Entry entry = mountOf(mounted.folder());
  ASSERT_NE(entry, nullptr);
  EXPECT_EQ(entry->GetMountSource(), dir / "by-uuid");
  EXPECT_EQ(entry->GetDeviceNumber(), makedev(7, loop.minor()));
  EXPECT_EQ(entry->GetDeviceSize(), 16u << 20);
}

TEST(MountPointInformation, finds_the_device_when_its_source_leads_nowhere_or_elsewhere) {
  const test::LoopDevice loop(16 << 20);
  const test::LoopDevice other(32 << 20);
  loop.mkfs("ext4", {"-b", "1024"});
  const test::TempDir dir;
  fs::create_symlink(loop.path(), dir / "source");
  const test::Mounted mounted(dir / "source", directory(dir / "a"), "ext4");
  fs::remove(dir / "source");
  EXPECT_EQ(mountOf(mounted.folder())->GetDeviceSize(), 16u << 20);
  fs::create_symlink(other.path(), dir / "source");
  EXPECT_EQ(mountOf(mounted.folder())->GetDeviceNumber(), makedev(7, loop.minor()));
  EXPECT_EQ(mountOf(mounted.folder())->GetDeviceSize(), 16u << 20);
}

TEST(MountPointInformation, finds_the_device_by_its_number_in_dev_block) {
  const test::LoopDevice loop(16 << 20);
  loop.mkfs("ext4", {"-b", "1024"});
  const test::TempDir dir;
  const test::Node node(dir / "node", S_IFBLK, 7, loop.minor());
  const test::Mounted mounted(node.path(), directory(dir / "a"), "ext4");
  fs::rename(loop.path(), "/dev/hidden");
  fs::rename(node.path(), dir / "renamed");
  EXPECT_EQ(mountOf(mounted.folder())->GetDeviceSize(), 0u);
  directory("/dev/block");
  fs::create_symlink(dir / "renamed", "/dev/block/7:" + std::to_string(loop.minor()));
  EXPECT_EQ(mountOf(mounted.folder())->GetDeviceSize(), 16u << 20);
  test::removeTree("/dev/block");
  fs::rename("/dev/hidden", loop.path());
  fs::rename(dir / "renamed", node.path());
}

TEST(MountPointInformation, finds_the_device_by_its_name_in_sysfs_whose_marks_stand_for_slashes) {
  const test::LoopDevice loop(16 << 20);
  const test::TempDir dir;
  const std::string number = "7:" + std::to_string(loop.minor());
  const test::Mounted sysfs("sysfs", "/sys/dev/block", "tmpfs");
  fs::create_symlink("../../devices/odd!controller!disk", "/sys/dev/block/" + number);
  directory("/dev/odd/controller");
  fs::rename(loop.path(), "/dev/odd/controller/disk");
  {
    const KernelTable table(tableLine(kNobody, number, dir.path(), "ext4", "/dev/gone"));
    EXPECT_EQ(mountOf(dir.path())->GetDeviceSize(), 16u << 20);
  }
  fs::rename("/dev/odd/controller/disk", loop.path());
  test::removeTree("/dev/odd");
}

TEST(MountPointInformation, reads_the_device_only_when_asked_for) {
  const test::TempDir dir;
  std::optional<test::Volume> volume(std::in_place, "ext4", 16 << 20);
  const Entry entry = mountOf(volume->folder());
  ASSERT_NE(entry, nullptr);
  volume.reset();
  EXPECT_EQ(entry->GetBlockSize(), 0u);
  EXPECT_EQ(entry->GetDeviceSize(), 0u);
}

TEST(MountPointInformation, a_file_that_is_mounted_on_a_file_has_its_file_systems_blocks) {
  const test::Volume volume("ext4", 16 << 20, {"-b", "1024"});
  test::writeFile(volume.folder() + "/file", "");
  const test::TempDir dir;
  test::writeFile(dir / "target", "");
  const test::Mounted bound(volume.folder() + "/file", dir / "target", "", MS_BIND);
  const Entry entry = mountOf(dir / "target");
  ASSERT_NE(entry, nullptr);
  EXPECT_EQ(entry->GetMountFolder(), dir / "target");
  EXPECT_EQ(entry->GetBlockSize(), 1024u);
}

TEST(SystemMountPointCollection, is_null_and_leaves_nothing_when_memory_is_short) {
  const KernelTable table(tableLine(kNobody, "8:1", "/", "ext4", "/dev/a/long/path/to/sda1") +
                          tableLine(kNobody + 1, "8:2", "/mnt/a/long/path/to/a/folder", "ext4", "/dev/sda2") +
                          tableLine(kNobody + 2, "8:3", "/mnt/another/long/path", "xfs", "/dev/sda3"));
  const std::ptrdiff_t before = test::heldBytes();
  const std::size_t allocations = test::failEveryAllocation(
      [] {
        const Collection mounts = localMounts();
        if (mounts == nullptr) throw std::bad_alloc();
      },
      [&](std::size_t n) { EXPECT_EQ(test::heldBytes(), before) << "allocation " << n; });
  EXPECT_GT(allocations, 5u);
  EXPECT_EQ(test::heldBytes(), before);
}

TEST(MountPointInformation, has_no_size_to_tell_when_memory_is_short) {
  const test::Volume volume("ext4", 16 << 20);
  const Entry entry = mountOf(volume.folder());
  const std::ptrdiff_t before = test::heldBytes();
  std::uint64_t size = 1;
  {
    const test::FailingAllocation failing(0);
    size = entry->GetDeviceSize();
  }
  EXPECT_EQ(size, 0u);
  EXPECT_EQ(test::heldBytes(), before);
  EXPECT_EQ(entry->GetDeviceSize(), 16u << 20);
}
