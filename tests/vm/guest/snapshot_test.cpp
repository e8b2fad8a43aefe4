// SPDX-License-Identifier: Apache-2.0
//
// Snapshots: what they hold while their volumes are written to.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <optional>

#include "Driver.h"
#include "Frozen.h"
#include "Volumes.h"

namespace guest {
namespace {

constexpr std::uint64_t kMiB = 1 << 20;

Range whole(const std::string& device) { return {0, sectorsOf(device)}; }

std::string stateOf(const std::string& device) {
  for (const std::string& line : snapshotLines()) {
    if (wordOf(line, "name") == device) return wordOf(line, "state");
  }
  return "none";
}

// A disk without a file system, filled; its relocation file lies on another.
class RawVolume : public testing::Test {
 protected:
  void SetUp() override { fill(kDevice, 1); }
  void TearDown() override {
    if (check(IOC_CHECK_VOLUME_SNAPPED, kDevice).status == -2) discard({kDevice});
  }
  SnapVolume volume(std::uint64_t relocBytes, bool written = false) {
    const std::string file = mStore.makeFile("reloc", relocBytes, written);
    return snapOf(kDevice, file, mStore.device());
  }

  static constexpr char kDevice[] = "/dev/vda";
  Mounted mStore = ext4("/dev/vdb", "/mnt/b");
};

TEST_F(RawVolume, appears_as_a_read_only_disk_of_the_same_size) {
  ASSERT_EQ(snap({volume(16 * kMiB)}), (Result{0, 0}));
  const std::string device = snapshotOf(kDevice);
  EXPECT_EQ(sectorsOf(device), sectorsOf(kDevice));
  const int file = open(device.c_str(), O_WRONLY | O_CLOEXEC);
  EXPECT_EQ(pwrite(file, "x", 1, 0), -1);
  EXPECT_TRUE(errno == EPERM || errno == EBADF) << errno;
  close(file);
  EXPECT_EQ(check(IOC_CHECK_VOLUME_SNAPPED, kDevice), (Result{0, -2}));
  EXPECT_EQ(wrongSectors(device, 1), 0u);
  EXPECT_EQ(discard({kDevice}), (Result{0, 0}));
  EXPECT_NE(access(device.c_str(), F_OK), 0);
  EXPECT_EQ(check(IOC_CHECK_VOLUME_SNAPPED, kDevice), (Result{0, -4}));
  EXPECT_EQ(count(IOC_GET_NUM_OF_RELOC_FILE_MAPPING), 0u);
}

TEST_F(RawVolume, is_listed_as_the_command_said) {
  SnapVolume asked = volume(16 * kMiB);
  ASSERT_EQ(snap({asked}), (Result{0, 0}));
  const auto listed = listSnapped(3);
  ASSERT_EQ(listed.size(), 1u);
  EXPECT_EQ(listed[0].numBlocks, asked.entry.numBlocks);
  EXPECT_EQ(listed[0].blockSize, 4096u);
  EXPECT_EQ(listed[0].relocFileSize, 4096u);
  EXPECT_EQ(listed[0].majorNum, numberOf(kDevice).major);
  EXPECT_EQ(listed[0].minorNum, numberOf(kDevice).minor);
  EXPECT_EQ(listed[0].appPid, getpid());
  EXPECT_EQ(listed[0].deviceState, 1u);
  EXPECT_STREQ(listed[0].snappedVolumeName, kDevice);
  EXPECT_STREQ(listed[0].relocFileName, "/mnt/b/reloc");
  ASSERT_EQ(snapshotLines().size(), 1u);
  EXPECT_EQ(wordOf(snapshotLines()[0], "state"), "snapped");
  EXPECT_EQ(wordOf(snapshotLines()[0], "owner"), std::to_string(getpid()));
  EXPECT_EQ(wordOf(snapshotLines()[0], "kept"), "0");
  EXPECT_EQ(wordOf(snapshotLines()[0], "of"), "4096");
}

TEST_F(RawVolume, keeps_what_a_single_write_changes) {
  ASSERT_EQ(snap({volume(16 * kMiB)}), (Result{0, 0}));
  Writers writers(kDevice, {80, 8}, 1, true);
  writers.waitFor(3);
  EXPECT_EQ(writers.stop(), 0);
  EXPECT_GT(wrongSectors(kDevice, 1), 0u);
  EXPECT_EQ(wrongSectors(snapshotOf(kDevice), 1), 0u);
}

TEST_F(RawVolume, holds_still_under_eight_writers_and_two_readers) {
  ASSERT_EQ(snap({volume(208 * kMiB)}), (Result{0, 0}));
  const Range written{0, 200 * kMiB / 512};
  Writers writers(kDevice, written, 8);
  Readers readers(snapshotOf(kDevice), 1, whole(kDevice), 2);
  writers.waitFor(4000);
  EXPECT_EQ(wrongSectors(snapshotOf(kDevice), 1), 0u);
  EXPECT_EQ(readers.stop(), 0u);
  EXPECT_GT(readers.reads(), 10u);
  EXPECT_EQ(writers.stop(), 0);
  EXPECT_EQ(stateOf(kDevice), "snapped");
  EXPECT_EQ(wrongSectors(snapshotOf(kDevice), 1), 0u);
}

TEST_F(RawVolume, holds_still_under_small_writes_while_it_is_read) {
  ASSERT_EQ(snap({volume(208 * kMiB, true)}), (Result{0, 0}));
  Writers writers(kDevice, {0, 200 * kMiB / 512}, 8, true);
  Readers readers(snapshotOf(kDevice), 1, {0, 200 * kMiB / 512}, 2);
  writers.waitFor(8000);
  EXPECT_EQ(readers.stop(), 0u);
  EXPECT_EQ(writers.stop(), 0);
  EXPECT_EQ(wrongSectors(snapshotOf(kDevice), 1), 0u);
}

// A device over the volume, or one that is a volume: dmsetup's table says what it is.
class Mapper {
 public:
  explicit Mapper(const std::string& table) {
    run("dmsetup --noudevsync --noudevrules create upper --table '" + table + "'; dmsetup mknodes");
  }
  ~Mapper() { run("dmsetup --noudevsync --noudevrules remove upper"); }
  static constexpr char kDevice[] = "/dev/mapper/upper";
  static void reload(const std::string& table) {
    run("dmsetup suspend upper; dmsetup load upper --table '" + table + "'; dmsetup resume upper");
  }
  static std::string linear(const std::string& device, std::uint64_t sectors) {
    return "0 " + std::to_string(sectors) + " linear " + device + " 0";
  }
};

// Bios come from inside another driver then.
TEST_F(RawVolume, holds_still_when_it_is_written_through_a_device_above) {
  const Mapper upper(Mapper::linear(kDevice, sectorsOf(kDevice)));
  ASSERT_EQ(snap({volume(208 * kMiB)}), (Result{0, 0}));
  Writers writers(Mapper::kDevice, {0, 200 * kMiB / 512}, 4);
  writers.waitFor(600);
  EXPECT_EQ(writers.stop(), 0);
  EXPECT_EQ(wrongSectors(snapshotOf(kDevice), 1), 0u);
}

TEST_F(RawVolume, that_grows_keeps_what_it_had_and_is_not_kept_behind) {
  const std::uint64_t before = 64 * kMiB / 512;
  const Mapper grows(Mapper::linear("/dev/vdc", before));
  fill(Mapper::kDevice, 1);
  const Discarded discarded({Mapper::kDevice});
  mStore.makeFile("reloc", 80 * kMiB);
  ASSERT_EQ(snap({snapOf(Mapper::kDevice, mStore.path("reloc"), mStore.device())}), (Result{0, 0}));
  Mapper::reload(Mapper::linear("/dev/vdc", 2 * before));
  ASSERT_EQ(sectorsOf(Mapper::kDevice), 2 * before);
  Writers writers(Mapper::kDevice, {0, 2 * before}, 3);  // one of them across the old end
  writers.waitFor(300);
  EXPECT_EQ(writers.stop(), 0);
  EXPECT_EQ(sectorsOf(snapshotOf(Mapper::kDevice)), before);
  EXPECT_EQ(wrongSectors(snapshotOf(Mapper::kDevice), 1), 0u);
  EXPECT_EQ(discard({Mapper::kDevice}), (Result{0, 0}));
}

TEST_F(RawVolume, is_broken_when_its_relocation_file_is_full_and_the_volume_goes_on) {
  ASSERT_EQ(snap({volume(1 * kMiB)}), (Result{0, 0}));
  Writers writers(kDevice, whole(kDevice), 8);
  writers.waitFor(2000);
  EXPECT_EQ(writers.stop(), 0);
  EXPECT_EQ(stateOf(kDevice), "broken:full");
  while (wordOf(snapshotLines()[0], "memory") != "0") usleep(1000);  // it is freed
  EXPECT_EQ(listSnapped(1)[0].deviceState, 2u);
  const int file = open(snapshotOf(kDevice).c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_GE(file, 0);
  char sector[512];
  EXPECT_EQ(pread(file, sector, sizeof sector, 100 * kMiB), -1);
  EXPECT_EQ(errno, EIO);
  close(file);
  EXPECT_EQ(discard({kDevice}), (Result{0, 0}));
}

TEST_F(RawVolume, guards_its_relocation_file) {
  SnapVolume asked = volume(16 * kMiB);
  const std::string file = asked.entry.relocFileName;
  ASSERT_EQ(snap({asked}), (Result{0, 0}));
  EXPECT_EQ(truncate(file.c_str(), 4096), -1);
  EXPECT_EQ(errno, ETXTBSY);
  EXPECT_EQ(unlink(file.c_str()), -1);
  EXPECT_EQ(errno, EPERM);
  EXPECT_EQ(rename(file.c_str(), "/mnt/b/other"), -1);
  EXPECT_EQ(discard({kDevice}), (Result{0, 0}));
  EXPECT_EQ(unlink(file.c_str()), 0);
}

TEST_F(RawVolume, cannot_be_snapped_twice) {
  SnapVolume asked = volume(16 * kMiB);
  ASSERT_EQ(snap({asked}), (Result{0, 0}));
  EXPECT_EQ(snap({asked}), (Result{EBUSY, -2}));
  mStore.makeFile("other", 4 * kMiB);
  EXPECT_EQ(snap({snapOf("/dev/vdc", "/mnt/b/other", "/dev/vdb"), asked}), (Result{EBUSY, -3}));
  EXPECT_EQ(count(IOC_GET_NUM_OF_SNAPPED_VOLUMES), 1u);
  EXPECT_EQ(unmap(snapOf("/dev/vdc", "/mnt/b/other", "/dev/vdb")), (Result{0, 0}));
}

TEST_F(RawVolume, of_another_size_is_refused) {
  SnapVolume asked = volume(16 * kMiB);
  ++asked.entry.numBlocks;
  EXPECT_EQ(snap({asked}), (Result{ESTALE, -8}));
  EXPECT_EQ(unmap(asked), (Result{0, 0}));
}

TEST_F(RawVolume, without_a_mapping_is_refused) {
  Command command = snapCommand({volume(16 * kMiB)});
  EXPECT_EQ(command.issue(), EINVAL);
  EXPECT_EQ(access(snapshotOf(kDevice).c_str(), F_OK), -1);
}

TEST_F(RawVolume, with_a_relocation_file_that_is_not_there_or_too_small_or_elsewhere_is_refused) {
  SnapVolume asked = volume(16 * kMiB);
  SnapVolume small = asked;
  ++small.entry.relocFileSize;
  EXPECT_EQ(snap({small}), (Result{EINVAL, 0}));
  SnapVolume elsewhere = asked;
  elsewhere.entry.relocVolumeMinor = numberOf("/dev/vdc").minor;
  EXPECT_EQ(snap({elsewhere}), (Result{EINVAL, 0}));
  ASSERT_EQ(unlink(asked.entry.relocFileName), 0);
  EXPECT_EQ(snap({asked}), (Result{ENOENT, 0}));
  EXPECT_EQ(unmap(asked), (Result{0, 0}));
}

TEST_F(RawVolume, with_a_relocation_file_that_is_not_roots_alone_is_refused) {
  SnapVolume asked = volume(16 * kMiB);
  const std::string file = asked.entry.relocFileName;
  const Result refused{EPERM, 0};
  for (const mode_t mode : {0640, 0620, 0604, 0602}) {
    ASSERT_EQ(chmod(file.c_str(), mode), 0);
    EXPECT_EQ(snap({asked}), refused);
  }
  ASSERT_EQ(chmod(file.c_str(), 0600), 0);
  ASSERT_EQ(chown(file.c_str(), 1000, 0), 0);
  EXPECT_EQ(snap({asked}), refused);
  ASSERT_EQ(chown(file.c_str(), 0, 0), 0);
  ASSERT_EQ(link(file.c_str(), (file + "-second").c_str()), 0);
  EXPECT_EQ(snap({asked}), refused);
  ASSERT_EQ(unlink((file + "-second").c_str()), 0);
  ASSERT_EQ(rename(file.c_str(), (file + "-moved").c_str()), 0);
  ASSERT_EQ(symlink((file + "-moved").c_str(), file.c_str()), 0);
  EXPECT_EQ(snap({asked}), (Result{ELOOP, 0}));
  ASSERT_EQ(rename((file + "-moved").c_str(), file.c_str()), 0);
  EXPECT_EQ(snap({asked}), (Result{0, 0}));
}

TEST_F(RawVolume, that_is_discarded_while_it_is_open_gives_nothing_more_and_can_be_snapped_again) {
  SnapVolume asked = volume(16 * kMiB);
  ASSERT_EQ(snap({asked}), (Result{0, 0}));
  const int file = open(snapshotOf(kDevice).c_str(), O_RDONLY | O_DIRECT | O_CLOEXEC);
  ASSERT_GE(file, 0);
  EXPECT_EQ(discard({kDevice}), (Result{0, 0}));
  alignas(4096) static char block[4096];
  EXPECT_LE(pread(file, block, sizeof block, 0), 0);  // the disk that is gone has no sectors
  EXPECT_EQ(unloadModule(), EAGAIN);
  ASSERT_EQ(snap({asked}), (Result{0, 0}));
  EXPECT_EQ(wrongSectors(snapshotOf(kDevice), 1), 0u);
  close(file);
}

TEST_F(RawVolume, keeps_the_module_from_being_unloaded) {
  ASSERT_EQ(snap({volume(16 * kMiB)}), (Result{0, 0}));
  EXPECT_EQ(unloadModule(), EAGAIN);
}

TEST_F(RawVolume, is_snapped_and_discarded_again_and_again_under_writers) {
  SnapVolume asked = volume(64 * kMiB);
  Writers writers(kDevice, whole(kDevice), 4);
  for (int round = 0; round < 20; ++round) {
    ASSERT_EQ(snap({asked}), (Result{0, 0}));
    writers.waitFor(writers.writes() + 20);
    ASSERT_EQ(discard({kDevice}), (Result{0, 0}));
  }
  EXPECT_EQ(writers.stop(), 0);
}

// ---- with a file system, and the relocation file on the volume itself

void churn(const Mounted& volume, int rounds) {
  for (int i = 0; i < rounds; ++i) {
    run("dd if=/dev/zero of=" + volume.path("churn" + std::to_string(i % 3)) +
        " bs=64k count=40 conv=fsync >/dev/null 2>&1");
    run("cp " + volume.path("old") + " " + volume.path("copy") + "; rm -f " + volume.path("churn1") + "; sync");
    run("dd if=/dev/urandom of=" + volume.path("old") + " bs=4k count=64 seek=" + std::to_string(i * 64) +
        " conv=notrunc,fsync >/dev/null 2>&1");
  }
}

void snapOnItself(const std::string& type, const std::string& make, const std::string& options,
                  std::uint32_t blockSize = 4096, bool written = true) {
  Mounted volume("/dev/vda", "/mnt/a", type, make, options);
  const Discarded discarded({"/dev/vda"});
  volume.makeFile("old", 8 * kMiB, true);
  volume.makeFile("reloc", 200 * kMiB, written);  // more than what remains
  run("sync");
  SnapVolume asked = snapOf("/dev/vda", volume.path("reloc"), "/dev/vda", blockSize);
  const Frozen frozen = snapFrozen(asked, "/dev/vda");
  ASSERT_EQ(frozen.result, (Result{0, 0}));
  churn(volume, 12);
  EXPECT_EQ(stateOf("/dev/vda"), "snapped");
  EXPECT_EQ(differences(sums(snapshotOf("/dev/vda")), frozen.sums, rangesOf(asked)), 0u);
  EXPECT_GT(differences(sums("/dev/vda"), frozen.sums), 0u);
  EXPECT_EQ(discard({"/dev/vda"}), (Result{0, 0}));
}

TEST(FileSystem, ext4_with_its_relocation_file_on_itself) {
  snapOnItself("ext4", "mkfs.ext4 -q -F -b 4096 -E lazy_itable_init=0", "discard");
}

TEST(FileSystem, ext4_with_its_relocation_file_on_itself_allocated_but_not_written) {
  snapOnItself("ext4", "mkfs.ext4 -q -F -b 4096 -E lazy_itable_init=0", "", 4096, false);
}

TEST(FileSystem, ext4_with_small_blocks_and_its_relocation_file_on_itself) {
  snapOnItself("ext4", "mkfs.ext4 -q -F -b 1024 -E lazy_itable_init=0", "", 1024);
}

TEST(FileSystem, xfs_with_its_relocation_file_on_itself_allocated_but_not_written) {
  snapOnItself("xfs", "mkfs.xfs -q -f", "nouuid", 4096, false);
}

TEST(FileSystem, vfat_with_its_relocation_file_on_itself) { snapOnItself("vfat", "mkfs.vfat", "umask=077", 512); }

TEST(FileSystem, the_snapshot_of_ext4_is_clean_and_holds_the_old_files) {
  Mounted volume = ext4("/dev/vda", "/mnt/a");
  Mounted store = ext4("/dev/vdb", "/mnt/b");
  const Discarded discarded({"/dev/vda"});
  std::ofstream(volume.path("file")) << "before";
  ASSERT_EQ(snap({snapOf("/dev/vda", store.makeFile("reloc", 32 * kMiB), "/dev/vdb")}), (Result{0, 0}));
  std::ofstream(volume.path("file")) << "after";
  run("sync");
  mkdir("/mnt/snap", 0755);
  ASSERT_EQ(mount(snapshotOf("/dev/vda").c_str(), "/mnt/snap", "ext4", MS_RDONLY, "noload"), 0);
  std::string text;
  std::ifstream("/mnt/snap/file") >> text;
  EXPECT_EQ(text, "before");
  EXPECT_EQ(umount("/mnt/snap"), 0);
  EXPECT_EQ(discard({"/dev/vda"}), (Result{0, 0}));
}

TEST(FileSystem, on_a_snapshot_that_is_discarded_gives_EIO_until_it_is_unmounted) {
  Mounted volume = ext4("/dev/vda", "/mnt/a");
  Mounted store = ext4("/dev/vdb", "/mnt/b");
  const Discarded discarded({"/dev/vda"});
  volume.makeFile("old", 8 * kMiB, true);
  ASSERT_EQ(snap({snapOf("/dev/vda", store.makeFile("reloc", 32 * kMiB), "/dev/vdb")}), (Result{0, 0}));
  mkdir("/mnt/snap", 0755);
  ASSERT_EQ(mount(snapshotOf("/dev/vda").c_str(), "/mnt/snap", "ext4", MS_RDONLY, "noload"), 0);
  const int file = open("/mnt/snap/old", O_RDONLY | O_CLOEXEC);
  ASSERT_GE(file, 0);
  EXPECT_EQ(discard({"/dev/vda"}), (Result{0, 0}));
  char byte = 0;
  EXPECT_EQ(pread(file, &byte, 1, kMiB), -1);
  EXPECT_EQ(errno, EIO);
  close(file);
  EXPECT_EQ(umount("/mnt/snap"), 0);
}

TEST(FileSystem, a_snapped_volume_can_be_unmounted_and_made_anew) {
  Mounted store = ext4("/dev/vdb", "/mnt/b");
  const Discarded discarded({"/dev/vda"});
  std::vector<std::uint64_t> before;
  {
    Mounted volume = ext4("/dev/vda", "/mnt/a");
    volume.makeFile("old", 8 * kMiB, true);
    const Frozen frozen = snapFrozen(snapOf("/dev/vda", store.makeFile("reloc", 128 * kMiB), "/dev/vdb"), "/dev/vda");
    ASSERT_EQ(frozen.result, (Result{0, 0}));
    before = frozen.sums;
  }
  ASSERT_TRUE(run("mkfs.xfs -q -f /dev/vda"));
  EXPECT_EQ(differences(sums(snapshotOf("/dev/vda")), before), 0u);
  EXPECT_EQ(discard({"/dev/vda"}), (Result{0, 0}));
}

}  // namespace
}  // namespace guest
