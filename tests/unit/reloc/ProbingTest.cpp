// SPDX-License-Identifier: Apache-2.0
//
// Construction, and what is found out about one volume or mount point.
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <cerrno>
#include <climits>
#include <ostream>

#include "RelocTest.h"

namespace test {
namespace {

using Construction = RelocTest;
using IsMountPointWritable = RelocTest;
using CheckIfVolumeIsMounted = RelocTest;
using GetVolumeDetails = RelocTest;
using GetMountDetails = RelocTest;

// --- Construction.

TEST_F(Construction, with_options_keeps_them_and_leaves_the_rest_empty) {
  const ProcFile meminfo("meminfo", "MemFree: 7 kB\n");
  LinuxSnapshotreloc reloc("/dev/a", 4096, 123, "/somewhere", 456);
  EXPECT_EQ(reloc.mSnappedDeviceName, "/dev/a");
  EXPECT_EQ(reloc.mBlockSize, 4096u);
  EXPECT_EQ(reloc.mRelocNumBlks, 123u);
  EXPECT_EQ(reloc.mRelocMountName, "/somewhere");
  EXPECT_EQ(reloc.mRelocEntriesInMemory, 456u);
  EXPECT_EQ(reloc.mNumBlocksOfVolume, 0u);
  EXPECT_EQ(reloc.mRelocFileName + reloc.mRelocDirName + reloc.mRelocDeviceName + reloc.mVolMountPoint, "");
  EXPECT_FALSE(reloc.mIsMounted);
  EXPECT_EQ(reloc.mTotalSizeKOfVolume, 0u);
  EXPECT_EQ(reloc.mAvailSizeKOfVolume, 0u);
  EXPECT_EQ(reloc.mUsedSizeKofVolume, 0u);
  EXPECT_EQ(reloc.mFSType, 0u);
  EXPECT_EQ(reloc.GetSpecificSystemMemoryDetail("MemFree"), 7u) << "the system information is initialised";
}

TEST_F(Construction, without_options_keeps_the_volumes_size_and_leaves_the_rest_empty) {
  const ProcFile meminfo("meminfo", "MemFree: 7 kB\n");
  const unsigned long blocks = 1UL << 40;
  LinuxSnapshotreloc reloc("/dev/a", 512, blocks, ULONG_MAX);
  EXPECT_EQ(reloc.mSnappedDeviceName, "/dev/a");
  EXPECT_EQ(reloc.mBlockSize, 512u);
  EXPECT_EQ(reloc.mNumBlocksOfVolume, blocks);
  EXPECT_EQ(reloc.mRelocEntriesInMemory, ULONG_MAX);
  EXPECT_EQ(reloc.mRelocNumBlks, 0u);
  EXPECT_EQ(reloc.mRelocMountName, "");
  EXPECT_EQ(reloc.mRelocFileName + reloc.mRelocDirName + reloc.mRelocDeviceName + reloc.mVolMountPoint, "");
  EXPECT_FALSE(reloc.mIsMounted);
  EXPECT_EQ(reloc.mTotalSizeKOfVolume, 0u);
  EXPECT_EQ(reloc.mAvailSizeKOfVolume, 0u);
  EXPECT_EQ(reloc.mUsedSizeKofVolume, 0u);
  EXPECT_EQ(reloc.mFSType, 0u);
  EXPECT_EQ(reloc.GetSpecificSystemMemoryDetail("MemFree"), 7u) << "the system information is initialised";
}

TEST_F(Construction, knows_the_aliases_so_that_a_mounted_alias_counts_as_its_device) {
  const std::string device = machine.device("real");
  const Alias alias("alias", device);
  const std::string folder = machine.mount(alias.path(), {100, 100});
  LinuxSnapshotreloc reloc(device, 4096, 1000UL, 1000UL);
  reloc.GetVolumeDetails(device);
  EXPECT_TRUE(reloc.mIsMounted);
  EXPECT_EQ(reloc.mVolMountPoint, folder);
}

TEST_F(Construction, gives_its_results_as_copies) {
  LinuxSnapshotreloc reloc("/dev/a", 4096, 9, "", 10);
  reloc.mRelocDeviceName = "/dev/b";
  reloc.mRelocFileName = "/f";
  EXPECT_EQ(reloc.GetRelocNumBlks(), 9u);
  EXPECT_EQ(reloc.GetSnappedDeviceName(), "/dev/a");
  EXPECT_EQ(reloc.GetRelocDeviceName(), "/dev/b");
  EXPECT_EQ(reloc.GetRelocFileName(), "/f");
  EXPECT_EQ(reloc.GetRelocFileLocation(), ".verrelocarea");
  EXPECT_EQ(RELOC_FILE_LOCATION, ".verrelocarea");
  EXPECT_EQ(FILE_PATH_SEPERATOR, "/");
}

// --- IsMountPointWritable.

TEST_F(IsMountPointWritable, makes_a_probe_file_and_removes_it_without_a_word) {
  const TempDir folder;
  std::string path;
  int flags = 0;
  mode_t mode = 0;
  LinuxSnapshotreloc reloc("/dev/a", 4096, 1000UL, 1000UL);
  log.clear();
  hooks.open = [&](const char* opened, int how, mode_t bits) {
    path = opened;
    flags = how;
    mode = bits;
    return 0;
  };
  EXPECT_TRUE(reloc.IsMountPointWritable(folder.path()));
  EXPECT_EQ(path, folder / "qorTESTfile.KQTA");
  EXPECT_EQ(flags & ~O_LARGEFILE, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
  EXPECT_EQ(mode, 0644u);
  EXPECT_NE(access(path.c_str(), F_OK), 0);
  EXPECT_EQ(messages(), Lines());
}

TEST_F(IsMountPointWritable, is_false_on_a_read_only_file_system_without_a_word) {
  const std::string folder = machine.mount(machine.device("a"), {100, 100});
  machine.makeReadOnly(folder);
  LinuxSnapshotreloc reloc("/dev/a", 4096, 1000UL, 1000UL);
  log.clear();
  EXPECT_FALSE(reloc.IsMountPointWritable(folder));
  EXPECT_EQ(messages(), Lines());
}

TEST_F(IsMountPointWritable, probes_the_root_with_two_slashes) {
  LinuxSnapshotreloc reloc("/dev/a", 4096, 1000UL, 1000UL);
  std::string path;
  hooks.open = [&](const char* opened, int, mode_t) {
    path = opened;
    return EROFS;
  };
  EXPECT_FALSE(reloc.IsMountPointWritable("/"));
  EXPECT_EQ(path, "//qorTESTfile.KQTA");
}

// What stands under the probe's name, and what a probe says of it.
class PlantedProbe : public RelocTest {
 protected:
  PlantedProbe() : path(folder / "qorTESTfile.KQTA"), reloc("/dev/a", 4096, 1000UL, 1000UL) {}

  // Not writable, by one line, and what is there stays.
  void expectRefused(const std::string& why) {
    struct stat before {};
    struct stat after {};
    ASSERT_EQ(lstat(path.c_str(), &before), 0);
    log.clear();
    EXPECT_FALSE(reloc.IsMountPointWritable(folder.path()));
    EXPECT_EQ(messages(), (Lines{"[3] " + path + " is not used: it " + why + ".\n"}));
    ASSERT_EQ(lstat(path.c_str(), &after), 0);
    EXPECT_EQ(after.st_ino, before.st_ino);
  }

  const TempDir folder;
  const std::string path;
  LinuxSnapshotreloc reloc;
};

TEST_F(PlantedProbe, that_is_a_link_is_refused_and_its_target_neither_made_nor_written) {
  std::filesystem::create_symlink(folder / "missing", path);
  expectRefused("is a symbolic link");
  EXPECT_FALSE(std::filesystem::exists(folder / "missing"));
  writeFile(folder / "missing", "content");
  expectRefused("is a symbolic link");
  EXPECT_EQ(readFile(folder / "missing"), "content");
}

TEST_F(PlantedProbe, that_is_a_second_name_of_a_file_is_refused) {
  writeFile(folder / "file", "");
  std::filesystem::create_hard_link(folder / "file", path);
  expectRefused("has 2 links");
}

TEST_F(PlantedProbe, that_is_a_FIFO_is_refused_without_waiting_for_a_reader) {
  ASSERT_EQ(mkfifo(path.c_str(), 0666), 0);
  expectRefused("is a FIFO");
}

TEST_F(PlantedProbe, that_is_a_device_a_socket_or_a_directory_is_refused) {
  ASSERT_EQ(mknod(path.c_str(), S_IFCHR | 0666, makedev(1, 3)), 0);
  expectRefused("is a character device");
  std::filesystem::remove(path);
  ASSERT_EQ(mknod(path.c_str(), S_IFSOCK | 0666, 0), 0);
  expectRefused("is a socket");
  std::filesystem::remove(path);
  std::filesystem::create_directory(path);
  expectRefused("is a directory");
}

TEST_F(PlantedProbe, of_a_user_is_refused) {
  writeFile(path, "");
  ASSERT_EQ(chown(path.c_str(), 1000, 0), 0);
  expectRefused("belongs to user 1000, not root");
}

TEST_F(PlantedProbe, that_holds_something_is_refused) {
  writeFile(path, "x");
  expectRefused("is not empty");
}

TEST_F(PlantedProbe, that_a_dead_process_left_is_removed_and_the_folder_is_writable) {
  writeFile(path, "");
  log.clear();
  EXPECT_TRUE(reloc.IsMountPointWritable(folder.path()));
  EXPECT_EQ(messages(), Lines());
  EXPECT_FALSE(std::filesystem::exists(path));
}

// Two processes that probe one folder: this one's probe meets the other's each time.
TEST_F(PlantedProbe, of_other_processes_is_met_a_few_times_and_then_the_folder_counts_as_not_writable) {
  int tries = 0;
  hooks.open = [&](const char* opened, int flags, mode_t) {
    if (path != opened || (flags & O_CREAT) == 0) return 0;
    ++tries;
    hooks.open = {};
    return EEXIST;
  };
  EXPECT_TRUE(reloc.IsMountPointWritable(folder.path()));
  EXPECT_EQ(tries, 1);
  hooks.open = [&](const char* opened, int flags, mode_t) {
    if (path != opened || (flags & O_CREAT) == 0) return 0;
    ++tries;
    return EEXIST;
  };
  EXPECT_FALSE(reloc.IsMountPointWritable(folder.path()));
  EXPECT_EQ(tries, 9);
}

TEST_F(IsMountPointWritable, is_false_behind_a_link_whose_target_is_not_touched) {
  const TempDir folder;
  std::filesystem::create_directory(folder / "target");
  std::filesystem::create_directory_symlink(folder / "target", folder / "link");
  LinuxSnapshotreloc reloc("/dev/a", 4096, 1000UL, 1000UL);
  EXPECT_FALSE(reloc.IsMountPointWritable(folder / "link"));
  EXPECT_TRUE(reloc.IsMountPointWritable(folder / "target"));
}

// The file would go into that directory.
TEST_F(IsMountPointWritable, is_false_where_the_directory_for_the_file_is_a_users_or_a_link) {
  const TempDir folder;
  const std::string area = folder / ".verrelocarea";
  LinuxSnapshotreloc reloc("/dev/a", 4096, 1000UL, 1000UL);
  std::filesystem::create_directory(area);
  EXPECT_TRUE(reloc.IsMountPointWritable(folder.path()));
  ASSERT_EQ(chown(area.c_str(), 1000, 1000), 0);
  log.clear();
  EXPECT_FALSE(reloc.IsMountPointWritable(folder.path()));
  EXPECT_EQ(messages(), (Lines{"[3] " + area + " is not used: it belongs to user 1000, not root.\n"}));
  std::filesystem::remove(area);
  std::filesystem::create_directory_symlink("/etc", area);
  log.clear();
  EXPECT_FALSE(reloc.IsMountPointWritable(folder.path()));
  EXPECT_EQ(messages(), (Lines{"[3] " + area + " is not used: it is a symbolic link.\n"}));
}

// --- CheckIfVolumeIsMounted.

TEST_F(CheckIfVolumeIsMounted, without_a_mount_point_is_not_mounted) {
  LinuxSnapshotreloc reloc("/dev/a", 4096, 1000UL, 1000UL);
  reloc.mIsMounted = true;
  reloc.mVolMountPoint = "/before";
  log.clear();
  reloc.CheckIfVolumeIsMounted("/dev/a");
  EXPECT_FALSE(reloc.mIsMounted);
  EXPECT_EQ(reloc.mVolMountPoint, "/before") << "only a found mount point is touched";
  EXPECT_EQ(messages(), (Lines{"[7] VolumeName to be checked: /dev/a.\n"}));
}

TEST_F(CheckIfVolumeIsMounted, takes_the_first_mount_point_when_it_is_a_folder) {
  const std::string device = machine.device("a");
  const std::string folder = machine.mount(device, {100, 100});
  LinuxSnapshotreloc reloc(device, 4096, 1000UL, 1000UL);
  log.clear();
  reloc.CheckIfVolumeIsMounted(device);
  EXPECT_TRUE(reloc.mIsMounted);
  EXPECT_EQ(reloc.mVolMountPoint, folder);
  EXPECT_EQ(messages(), (Lines{"[7] VolumeName to be checked: " + device + ".\n",
                               "[7] Volume " + device + " is mounted on : " + folder + ".\n"}));
}

TEST_F(CheckIfVolumeIsMounted, takes_the_first_of_two_mount_points_of_the_volume_that_it_is_asked_for) {
  const std::string device = machine.device("a");
  machine.mount(device, {100, 100});
  machine.mount(device, {100, 100});
  LinuxSnapshotreloc reloc("/dev/other", 4096, 1000UL, 1000UL);
  const std::vector<std::string> mountPoints = reloc.GetMountPoints(device);
  ASSERT_EQ(mountPoints.size(), 2u);
  reloc.CheckIfVolumeIsMounted(device);
  EXPECT_TRUE(reloc.mIsMounted);
  EXPECT_EQ(reloc.mVolMountPoint, mountPoints.front());
}

TEST_F(CheckIfVolumeIsMounted, is_not_mounted_on_what_is_no_folder) {
  const std::string device = machine.device("a");
  const TempDir folder;
  writeFile(folder / "file", "");
  machine.list(device, folder / "file");
  LinuxSnapshotreloc reloc(device, 4096, 1000UL, 1000UL);
  log.clear();
  reloc.CheckIfVolumeIsMounted(device);
  EXPECT_FALSE(reloc.mIsMounted);
  EXPECT_EQ(reloc.mVolMountPoint, "");
  EXPECT_EQ(messages(), (Lines{"[7] VolumeName to be checked: " + device + ".\n",
                               "[7] Volume " + device + " is mounted on : " + (folder / "file") + ".\n"}));
}

// --- GetVolumeDetails and GetMountDetails.

TEST_F(GetVolumeDetails, reads_the_sizes_of_a_mounted_volume_and_keeps_its_block_size) {
  const std::string device = machine.device("a");
  machine.mount(device, {700, 300, kExt});
  LinuxSnapshotreloc reloc("/dev/other", 4096, 1000UL, 1000UL);
  EXPECT_EQ(reloc.GetVolumeDetails(device), 0u);
  EXPECT_TRUE(reloc.mIsMounted);
  EXPECT_EQ(reloc.mAvailSizeKOfVolume, 700u);
  EXPECT_EQ(reloc.mUsedSizeKofVolume, 300u);
  EXPECT_EQ(reloc.mTotalSizeKOfVolume, 0u);
  EXPECT_EQ(reloc.mFSType, 0xEF53u);
  EXPECT_EQ(reloc.mBlockSize, 4096u) << "the file system's 1024 is dropped";
}

TEST_F(GetVolumeDetails, answers_0_also_for_a_volume_that_is_not_mounted) {
  LinuxSnapshotreloc reloc("/dev/a", 4096, 1000UL, 1000UL);
  EXPECT_EQ(reloc.GetVolumeDetails("/dev/a"), 0u);
  EXPECT_FALSE(reloc.mIsMounted);
  EXPECT_EQ(reloc.mAvailSizeKOfVolume, 0u);
}

TEST_F(GetVolumeDetails, answers_0_and_not_mounted_when_the_sizes_cannot_be_read) {
  const std::string device = machine.device("a");
  const std::string folder = machine.mount(device, {700, 300});
  machine.hideSizes(folder);
  LinuxSnapshotreloc reloc(device, 4096, 1000UL, 1000UL);
  EXPECT_EQ(reloc.GetVolumeDetails(device), 0u);
  EXPECT_FALSE(reloc.mIsMounted);
  EXPECT_EQ(reloc.mVolMountPoint, folder) << "a valid mount point stays";
  EXPECT_EQ(reloc.mFSType, 0u);
}

TEST_F(GetMountDetails, fills_the_outputs_and_the_kind_of_file_system) {
  const std::string folder = machine.mount(machine.device("a"), {700, 300, kFat});
  LinuxSnapshotreloc reloc("/dev/other", 4096, 1000UL, 1000UL);
  reloc.mIsMounted = true;
  std::uint64_t availKB = 0;
  std::uint64_t usedKB = 0;
  std::uint32_t blockSize = 0;
  reloc.GetMountDetails(folder, &availKB, &usedKB, &blockSize);
  EXPECT_EQ(availKB, 700u);
  EXPECT_EQ(usedKB, 300u);
  EXPECT_EQ(blockSize, 1024u);
  EXPECT_EQ(reloc.mFSType, 0x4D44u);
  EXPECT_TRUE(reloc.mIsMounted);
}

TEST_F(GetMountDetails, leaves_the_outputs_and_clears_mounted_when_the_sizes_cannot_be_read) {
  LinuxSnapshotreloc reloc("/dev/other", 4096, 1000UL, 1000UL);
  reloc.mIsMounted = true;
  reloc.mFSType = 77;
  std::uint64_t availKB = 1;
  std::uint64_t usedKB = 2;
  std::uint32_t blockSize = 3;
  reloc.GetMountDetails("/no/such/folder", &availKB, &usedKB, &blockSize);
  EXPECT_EQ(availKB, 1u);
  EXPECT_EQ(usedKB, 2u);
  EXPECT_EQ(blockSize, 3u);
  EXPECT_EQ(reloc.mFSType, 77u);
  EXPECT_FALSE(reloc.mIsMounted);
}

// --- PredictSizeOfFile.

struct Prediction {
  std::uint64_t availKB;
  std::uint64_t usedKB;
  std::uint64_t sizeKB;
};

void PrintTo(const Prediction& prediction, std::ostream* out) {
  *out << prediction.availKB << " KiB free, " << prediction.usedKB << " KiB used";
}

class PredictSizeOfFile : public RelocTest, public testing::WithParamInterface<Prediction> {};

TEST_P(PredictSizeOfFile, is_a_tenth_of_the_free_space_or_of_the_smaller_of_free_and_used) {
  const Prediction& expected = GetParam();
  LinuxSnapshotreloc reloc("/dev/a", 1024, 1000UL, ULONG_MAX);
  reloc.mAvailSizeKOfVolume = expected.availKB;
  reloc.mUsedSizeKofVolume = expected.usedKB;
  EXPECT_EQ(reloc.PredictSizeOfFile(), expected.sizeKB);
}

INSTANTIATE_TEST_SUITE_P(Volumes, PredictSizeOfFile,
                         testing::Values(Prediction{gib(10), 524287, 524288},  // little used: 512 MiB at most
                                         Prediction{gib(10), 524288, 52428},   // a tenth of the used
                                         Prediction{5242889, 0, 524288},       // the last that is a tenth of the free
                                         Prediction{5242890, 0, 524288},       // the first that is limited
                                         Prediction{5242879, 0, 524287},       //
                                         Prediction{100000, gib(100), 10000},  // the free is the smaller
                                         Prediction{gib(100), gib(50), 5242880},  // no limit when much is used
                                         Prediction{9, 524287, 0}, Prediction{0, 0, 0}));

TEST_F(RelocTest, the_prediction_is_bounded_by_the_drivers_memory_and_logged_in_three_lines) {
  LinuxSnapshotreloc reloc("/dev/a", 512, 1000UL, 50UL);
  reloc.mAvailSizeKOfVolume = 10007;
  reloc.mUsedSizeKofVolume = 33;
  log.clear();
  EXPECT_EQ(reloc.PredictSizeOfFile(), 50u);
  EXPECT_EQ(messages(), (Lines{"[7] AvSize: 10007, UsedSize: 33, threshHold: 2000.\n", "[7] threshold size: 2000.\n",
                               "[6] threshold size: 50mRelocEntriesInMemory : 50.\n"}));
}

TEST_F(RelocTest, the_prediction_for_a_volume_without_a_block_size_is_0) {
  LinuxSnapshotreloc reloc("/dev/a", 0, 1000UL, 50UL);
  reloc.mAvailSizeKOfVolume = 10000;
  EXPECT_EQ(reloc.PredictSizeOfFile(), 0u);
}

}  // namespace
}  // namespace test
