// SPDX-License-Identifier: Apache-2.0
//
// Construction, and what is found out about one volume or mount point.
#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <climits>

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
  EXPECT_EQ(flags & ~O_CLOEXEC, O_WRONLY | O_CREAT);
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
