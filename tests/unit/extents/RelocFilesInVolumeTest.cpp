// SPDX-License-Identifier: Apache-2.0
//
// The relocation files that lie on a volume: those of snapshots that the driver holds, then the request's own.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <syslog.h>

#include <cerrno>

#include "Files.h"
#include "LogCapture.h"
#include "LoopVolume.h"
#include "ScriptedDriver.h"
#include "World.h"
#include "driver/LinuxSnapLib.h"
#include "interpose/Allocations.h"

using testing::ElementsAre;

namespace {

// The driver holds snapshots with these relocation files.
void holdSnapshots(test::ScriptedDriver& driver, const std::vector<std::string>& relocFiles) {
  driver.on(IOC_GET_NUM_OF_SNAPPED_VOLUMES, [n = relocFiles.size()](std::byte* buffer, std::size_t) {
    reinterpret_cast<_ioctlCmd*>(buffer)->requestValue = static_cast<std::uint32_t>(n);
    return 0;
  });
  driver.on(IOC_GET_SNAPPED_VOL_DETAILS, [relocFiles](std::byte* buffer, std::size_t) {
    for (std::size_t i = 0; i < relocFiles.size(); ++i) {
      auto* entry = reinterpret_cast<SnappedVolumeEntry*>(buffer + sizeof(_ioctlCmd)) + i;
      relocFiles[i].copy(entry->relocFileName, kDriverPathSize - 1);
    }
    return 0;
  });
}

class RelocFilesInVolume : public testing::Test {
 protected:
  RelocFilesInVolume() : volume("ext4", 16 << 20), other("ext4", 16 << 20) {
    for (const char* name : {"own", "first", "second"}) test::writeOut(on(volume, name), 4096);
    test::writeOut(on(other, "elsewhere"), 4096);
    SnapDriverInterface::Instance();
    log.openMask();
  }
  ~RelocFilesInVolume() override { SnapDriverInterface::releaseInstance(); }

  static std::string on(const test::Volume& where, const std::string& name) { return where.folder() + "/" + name; }

  test::LogCapture log;
  test::ScriptedDriver driver;
  test::Volume volume;
  test::Volume other;
  std::list<std::string> files;
};

}  // namespace

TEST_F(RelocFilesInVolume, files_of_snapped_volumes_come_in_the_drivers_order_and_the_requests_own_last) {
  holdSnapshots(driver, {on(volume, "second"), on(other, "elsewhere"), on(volume, "first"), on(volume, "vanished")});
  EXPECT_EQ(getAllRelocFileInVol(volume.device(), on(volume, "own"), files), 0);
  EXPECT_THAT(files, ElementsAre(on(volume, "second"), on(volume, "first"), on(volume, "own")));
  // The contract: both texts are logged as errors.
  EXPECT_THAT(log.texts(LOG_ERR),
              ElementsAre("Reloc File " + on(volume, "second") + " is in Volume: " + volume.device() + "\n",
                          "Reloc File " + on(volume, "first") + " is in Volume: " + volume.device() + "\n",
                          "Reloc file " + on(volume, "own") + " is in Volume: " + volume.device() + "\n"));
}

TEST_F(RelocFilesInVolume, a_file_on_another_file_system_is_not_found) {
  EXPECT_EQ(getAllRelocFileInVol(volume.device(), on(other, "elsewhere"), files), 0);
  EXPECT_TRUE(files.empty());
  EXPECT_THAT(log.texts(LOG_ERR), ElementsAre());
}

// Its blocks are the inner device's: as runs of the outer volume they would leave blocks of that one unpreserved.
TEST_F(RelocFilesInVolume, a_file_on_a_volume_mounted_inside_is_found_on_that_one_only) {
  const std::string inside = on(volume, "inside");
  ASSERT_EQ(mkdir(inside.c_str(), 0755), 0);
  const test::LoopDevice inner(16 << 20);
  inner.mkfs("ext4");
  const test::Mounted mounted(inner.path(), inside, "ext4");
  test::writeOut(inside + "/nested", 4096);
  holdSnapshots(driver, {inside + "/nested"});
  EXPECT_EQ(getAllRelocFileInVol(volume.device(), inside + "/nested", files), 0);
  EXPECT_TRUE(files.empty());
  EXPECT_EQ(getAllRelocFileInVol(inner.path(), inside + "/nested", files), 0);
  EXPECT_THAT(files, ElementsAre(inside + "/nested", inside + "/nested"));
}

// Of two mounts on one folder the later one is seen.
TEST_F(RelocFilesInVolume, a_file_on_a_volume_mounted_over_another_is_found_on_the_upper_one_only) {
  const test::LoopDevice upper(16 << 20);
  upper.mkfs("ext4");
  const test::Mounted mounted(upper.path(), volume.folder(), "ext4");
  test::writeOut(on(volume, "own"), 4096);
  EXPECT_EQ(getAllRelocFileInVol(volume.device(), on(volume, "own"), files), 0);
  EXPECT_TRUE(files.empty());
  EXPECT_EQ(getAllRelocFileInVol(upper.path(), on(volume, "own"), files), 0);
  EXPECT_THAT(files, ElementsAre(on(volume, "own")));
}

TEST_F(RelocFilesInVolume, a_file_on_a_mount_without_a_device_inside_the_volume_is_not_found) {
  const std::string inside = on(volume, "inside");
  ASSERT_EQ(mkdir(inside.c_str(), 0755), 0);
  const test::Mounted mounted("none", inside, "tmpfs");
  test::writeFile(inside + "/file", "");
  EXPECT_EQ(getAllRelocFileInVol(volume.device(), inside + "/file", files), 0);
  EXPECT_TRUE(files.empty());
}

// Without an initial file system in memory the kernel mounts the root as a device that has no node.
TEST_F(RelocFilesInVolume, a_file_on_a_root_that_the_kernel_calls_dev_root_is_found) {
  struct stat root {};
  ASSERT_EQ(stat("/", &root), 0);
  const test::Node boot("/dev/boot", S_IFBLK, major(root.st_dev), minor(root.st_dev));
  const test::ProcFile mounts("mounts",
                              "/dev/root / ext4 rw 0 0\n" + volume.device() + " " + volume.folder() + " ext4 rw 0 0\n");
  EXPECT_EQ(getAllRelocFileInVol(boot.path(), "/etc/passwd", files), 0);
  EXPECT_THAT(files, ElementsAre("/etc/passwd"));
  files.clear();
  EXPECT_EQ(getAllRelocFileInVol(boot.path(), on(volume, "own"), files), 0);
  EXPECT_EQ(getAllRelocFileInVol(volume.device(), "/etc/passwd", files), 0);
  EXPECT_TRUE(files.empty());
}

TEST_F(RelocFilesInVolume, a_file_name_beyond_ascii_is_found_byte_for_byte) {
  const std::string file = on(volume, "r\xC3\xA9loc\xFF");
  test::writeOut(file, 4096);
  holdSnapshots(driver, {file});
  EXPECT_EQ(getAllRelocFileInVol(volume.device(), on(other, "elsewhere"), files), 0);
  EXPECT_THAT(files, ElementsAre(file));
}

TEST_F(RelocFilesInVolume, what_the_list_held_stays) {
  files = {"before"};
  EXPECT_EQ(getAllRelocFileInVol(volume.device(), on(volume, "own"), files), 0);
  EXPECT_THAT(files, ElementsAre("before", on(volume, "own")));
}

TEST_F(RelocFilesInVolume, a_volume_that_is_not_mounted_has_none_and_the_driver_is_not_asked) {
  const test::LoopDevice unmounted(1 << 20);
  EXPECT_EQ(getAllRelocFileInVol(unmounted.path(), on(volume, "own"), files), 0);
  EXPECT_TRUE(files.empty());
  EXPECT_THAT(log.texts(LOG_ERR), ElementsAre("Snap Vol is not mounted.\n"));
  EXPECT_TRUE(driver.calls().empty());
}

TEST_F(RelocFilesInVolume, a_driver_that_does_not_answer_gives_3) {
  driver.fail(IOC_GET_NUM_OF_SNAPPED_VOLUMES, EIO);
  EXPECT_EQ(getAllRelocFileInVol(volume.device(), on(volume, "own"), files), 3);
  EXPECT_TRUE(files.empty());
  EXPECT_TRUE(log.has(LOG_ERR, "Unable to obtain snapped vol details\n")) << log.dump();
}

TEST_F(RelocFilesInVolume, a_name_that_the_driver_left_without_an_end_stays_in_its_field) {
  driver.on(IOC_GET_NUM_OF_SNAPPED_VOLUMES, [](std::byte* buffer, std::size_t) {
    reinterpret_cast<_ioctlCmd*>(buffer)->requestValue = 1;
    return 0;
  });
  driver.on(IOC_GET_SNAPPED_VOL_DETAILS, [](std::byte* buffer, std::size_t length) {
    std::memset(buffer + sizeof(_ioctlCmd), 'x', length - sizeof(_ioctlCmd));
    return 0;
  });
  EXPECT_EQ(getAllRelocFileInVol(volume.device(), on(volume, "own"), files), 0);
  EXPECT_THAT(files, ElementsAre(on(volume, "own")));
}

TEST_F(RelocFilesInVolume, the_reference_on_the_singleton_is_given_back) {
  ASSERT_EQ(SnapDriverInterface::mReferenceCount, 1u);
  getAllRelocFileInVol(volume.device(), on(volume, "own"), files);
  EXPECT_EQ(SnapDriverInterface::mReferenceCount, 1u);
  driver.fail(IOC_GET_NUM_OF_SNAPPED_VOLUMES, EIO);
  getAllRelocFileInVol(volume.device(), on(volume, "own"), files);
  EXPECT_EQ(SnapDriverInterface::mReferenceCount, 1u);
}

TEST_F(RelocFilesInVolume, a_missing_singleton_is_made_for_the_call) {
  SnapDriverInterface::releaseInstance();
  ASSERT_EQ(SnapDriverInterface::mInstance, nullptr);
  EXPECT_EQ(getAllRelocFileInVol(volume.device(), on(volume, "own"), files), 0);
  EXPECT_THAT(files, ElementsAre(on(volume, "own")));
  EXPECT_EQ(SnapDriverInterface::mInstance, nullptr);
  EXPECT_EQ(SnapDriverInterface::mReferenceCount, 0u);
  SnapDriverInterface::Instance();
}

TEST_F(RelocFilesInVolume, a_singleton_that_memory_is_short_for_gives_3) {
  SnapDriverInterface::releaseInstance();
  {
    const test::FailingAllocation shortage(0, sizeof(SnapDriverInterface));
    EXPECT_EQ(getAllRelocFileInVol(volume.device(), on(volume, "own"), files), 3);
    EXPECT_TRUE(shortage.failed());
  }
  EXPECT_THAT(log.texts(LOG_ERR), ElementsAre("Error allocating memory.\n"));
  EXPECT_EQ(SnapDriverInterface::mReferenceCount, 0u);
  SnapDriverInterface::Instance();
}
