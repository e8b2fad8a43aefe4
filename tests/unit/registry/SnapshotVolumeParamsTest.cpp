// SPDX-License-Identifier: Apache-2.0
#include "engine/SnapshotVolumeParams.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <climits>

#include "Builders.h"
#include "KernelTable.h"
#include "Locale.h"
#include "Threading.h"
#include "interpose/Allocations.h"
#include "interpose/FailingMalloc.h"

using test::guid;
using test::HeldVolume;
using test::MirelSnapshotVolumeParams;
using test::wide;
using WaitKind = MirelSnapshotVolumeParams::WaitKind;

namespace {

HeldVolume create(const std::wstring& volume, const std::wstring& mountPoint, const _SSGUIDPLAIN& id = guid(1)) {
  return HeldVolume(MirelSnapshotVolumeParams::CreateSnapshotVolumeParameters(id, volume.c_str(), mountPoint.c_str()));
}

HeldVolume create(const test::Volume& volume) { return create(volume.wdevice(), volume.wfolder()); }

std::string numberText(const test::Volume& volume) { return "7:" + std::to_string(volume.loop().minor()); }

}  // namespace

TEST(CreateSnapshotVolumeParameters, takes_identity_from_the_caller_and_the_rest_from_the_mount_table) {
  const test::Volume device("ext4", (16 << 20) + 512, {"-b", "4096"});
  const HeldVolume volume = create(device);
  ASSERT_NE(volume, nullptr);
  EXPECT_TRUE(UnixInterfaces::IsEqualGUID(volume->GetSnapshotGUID(), guid(1)));
  EXPECT_EQ(volume->GetOriginalVolumeName(), device.wdevice());
  EXPECT_EQ(volume->GetMountFileSystem(), L"ext4");
  EXPECT_EQ(volume->GetDeviceSize(), (16u << 20) + 512);
  EXPECT_EQ(volume->GetDeviceBlockSize(), 4096u);
  EXPECT_EQ(volume->GetNumDeviceBlocks(), 4096u);  // the last 512 bytes make no block
  EXPECT_EQ(volume->GetDeviceNumber(), makedev(7, device.loop().minor()));
  ASSERT_EQ(volume->GetMountPointCount(), 1u);
  EXPECT_EQ(volume->GetOriginalMountPoint(0), device.wfolder());
}

TEST(CreateSnapshotVolumeParameters, leaves_options_and_results_empty) {
  const test::SmallVolume device;
  const HeldVolume volume = create(device);
  ASSERT_NE(volume, nullptr);
  EXPECT_TRUE(volume->GetSnapVolumeName().empty());
  EXPECT_TRUE(volume->GetRelocationFileMountName().empty());
  EXPECT_EQ(volume->GetRelocationFileName(), nullptr);
  EXPECT_EQ(volume->GetRelocationFileSizeInBlocks(), 0u);
  EXPECT_EQ(volume->GetCreationTime(), 0);
  EXPECT_EQ(volume->GetSnapVolumeMountPoint(0), std::wstring());
}

TEST(CreateSnapshotVolumeParameters,
     stores_the_mount_tables_spelling_of_the_mount_point_and_the_callers_of_the_volume) {
  const test::SmallVolume device;
  const test::TempDir dir;
  std::filesystem::create_symlink(device.folder(), dir / "link");
  std::filesystem::create_symlink(device.device(), dir / "device");
  const HeldVolume volume = create(wide(dir / "device"), wide(dir / "link/"));
  ASSERT_NE(volume, nullptr);
  EXPECT_EQ(volume->GetOriginalVolumeName(), wide(dir / "device"));
  EXPECT_EQ(volume->GetOriginalMountPoint(0), device.wfolder());
}

TEST(CreateSnapshotVolumeParameters, a_directory_below_stands_for_its_mount_point) {
  const test::SmallVolume device;
  test::directory(device.folder() + "/sub/deep");
  const HeldVolume volume = create(device.wdevice(), device.wfolder() + L"/sub/deep");
  ASSERT_NE(volume, nullptr);
  EXPECT_EQ(volume->GetOriginalMountPoint(0), device.wfolder());
}

TEST(CreateSnapshotVolumeParameters, takes_the_device_from_the_mount_point_not_from_the_name) {
  const test::SmallVolume device;
  const HeldVolume volume = create(L"/dev/other", device.wfolder());
  ASSERT_NE(volume, nullptr);
  EXPECT_EQ(volume->GetOriginalVolumeName(), L"/dev/other");
  EXPECT_EQ(volume->GetDeviceNumber(), device.number());
}

TEST(CreateSnapshotVolumeParameters, knows_an_xfs_volume) {
  const test::Volume device("xfs", 300 << 20);
  const HeldVolume volume = create(device);
  ASSERT_NE(volume, nullptr);
  EXPECT_EQ(volume->GetMountFileSystem(), L"xfs");
  EXPECT_EQ(volume->GetDeviceBlockSize(), 4096u);
  EXPECT_EQ(volume->GetNumDeviceBlocks(), 76800u);
}

TEST(CreateSnapshotVolumeParameters, is_null_for_null_arguments_and_for_the_zero_identifier) {
  const test::SmallVolume device;
  const std::wstring name = device.wdevice();
  const std::wstring folder = device.wfolder();
  const auto made = &MirelSnapshotVolumeParams::CreateSnapshotVolumeParameters;
  EXPECT_EQ(made(guid(1), nullptr, folder.c_str()), nullptr);
  EXPECT_EQ(made(guid(1), name.c_str(), nullptr), nullptr);
  EXPECT_EQ(made(_SSGUIDPLAIN{}, name.c_str(), folder.c_str()), nullptr);
}

TEST(CreateSnapshotVolumeParameters, is_null_where_nothing_is_found_to_be_mounted) {
  const test::SmallVolume device;
  EXPECT_EQ(create(device.wdevice(), L"/mnt/missing"), nullptr);
  EXPECT_EQ(create(device.wdevice(), L""), nullptr);
  const test::ProcFile missing("self");
  EXPECT_EQ(create(device), nullptr);
}

TEST(CreateSnapshotVolumeParameters, is_null_on_a_file_system_without_a_block_device) {
  const test::SmallVolume device;
  EXPECT_EQ(create(device.wdevice(), L"/mnt"), nullptr);
}

TEST(CreateSnapshotVolumeParameters, is_null_when_the_devices_size_cannot_be_had) {
  const test::LoopDevice loop(4 << 20);
  loop.mkfs("ext4", {"-b", "1024"});
  const test::TempDir dir;
  const test::Mounted mounted(loop.path(), test::directory(dir / "a"), "ext4");
  ASSERT_NE(create(loop.wpath(), wide(mounted.folder())), nullptr);
  std::filesystem::rename(loop.path(), "/dev/hidden");
  EXPECT_EQ(create(loop.wpath(), wide(mounted.folder())), nullptr);
  std::filesystem::rename("/dev/hidden", loop.path());
}

TEST(CreateSnapshotVolumeParameters, is_null_when_the_block_size_cannot_be_had) {
  const test::SmallVolume device;
  const test::TempDir dir;
  // What cannot be opened cannot be asked for its block size.
  const test::Node folder(dir / "a", S_IFSOCK, 0, 0);
  const test::KernelTable table(
      test::tableLine(test::kNobody, numberText(device), folder.path(), "ext4", device.device()));
  EXPECT_EQ(create(device.wdevice(), wide(folder.path())), nullptr);
}

TEST(CreateSnapshotVolumeParameters, is_null_when_a_name_of_the_mount_table_cannot_be_widened) {
  const test::Locale plain(test::kPlain);
  const test::LoopDevice loop(4 << 20);
  loop.mkfs("ext4", {"-b", "1024"});
  const test::TempDir dir;
  const test::Mounted mounted(loop.path(), test::directory(dir / "caf\xE9"), "ext4");
  std::filesystem::create_symlink(dir / "caf\xE9", dir / "link");
  EXPECT_EQ(create(loop.wpath(), wide(dir / "link")), nullptr);
}

TEST(CreateSnapshotVolumeParameters, is_null_when_the_file_systems_type_cannot_be_widened) {
  const test::Locale plain(test::kPlain);
  const test::SmallVolume device;
  for (const bool widens : {true, false}) {
    const test::KernelTable table(test::tableLine(test::kNobody, numberText(device), device.folder(),
                                                  widens ? "ext4" : "ext\xE9", device.device()));
    EXPECT_EQ(create(device) != nullptr, widens);
  }
}

TEST(CreateSnapshotVolumeParameters, is_null_when_the_mutex_or_the_condition_cannot_be_made) {
  const test::SmallVolume device;
  const std::ptrdiff_t before = test::heldBytes();
  {
    const test::FailingMutexInit failing;
    EXPECT_EQ(create(device), nullptr);
  }
  {
    const test::FailingConditionInit failing;
    EXPECT_EQ(create(device), nullptr);
  }
  EXPECT_EQ(test::heldBytes(), before);
}

TEST(CreateSnapshotVolumeParameters, is_null_and_leaves_nothing_when_memory_is_short) {
  const test::SmallVolume device;
  const std::wstring name = device.wdevice();
  const std::wstring folder = device.wfolder();
  const std::ptrdiff_t before = test::heldBytes();
  // It never throws: each failure is a null result, and the run ends with the first volume that is made.
  std::size_t allocations = 0;
  for (HeldVolume volume; volume == nullptr; ++allocations) {
    const test::FailingAllocation failing(allocations);
    volume.reset(MirelSnapshotVolumeParams::CreateSnapshotVolumeParameters(guid(1), name.c_str(), folder.c_str()));
    if (volume == nullptr) {
      EXPECT_TRUE(failing.failed());
      EXPECT_EQ(test::heldBytes(), before);
    }
    ASSERT_LT(allocations, 1000u);
  }
  EXPECT_GT(allocations, 5u);
  EXPECT_EQ(test::heldBytes(), before);
}

TEST(MirelSnapshotVolumeParams, lives_until_its_last_reference_is_dropped) {
  const test::SmallVolume device;
  MirelSnapshotVolumeParams* volume = create(device).release();
  ASSERT_NE(volume, nullptr);
  volume->Get();
  volume->Get();
  EXPECT_FALSE(volume->Done());
  EXPECT_FALSE(volume->Done());
  EXPECT_EQ(volume->GetOriginalVolumeName(), device.wdevice());
  EXPECT_TRUE(volume->Done());
}

TEST(MirelSnapshotVolumeParams, takes_the_snapshots_name_and_the_relocation_files) {
  const test::SmallVolume device;
  const HeldVolume volume = create(device);
  volume->GetSnapVolumeName() = L"/dev/snap8_1";
  EXPECT_EQ(volume->GetSnapVolumeName(), L"/dev/snap8_1");
  volume->SetRelocationFileName(L"/mnt/.verrelocarea/sda1");
  ASSERT_NE(volume->GetRelocationFileName(), nullptr);
  EXPECT_EQ(volume->GetRelocationFileName(), std::wstring(L"/mnt/.verrelocarea/sda1"));
  volume->SetRelocationFileName(L"");
  EXPECT_EQ(volume->GetRelocationFileName(), nullptr);
  volume->SetRelocationFileName(L"x");
  volume->SetRelocationFileName(nullptr);
  EXPECT_EQ(volume->GetRelocationFileName(), nullptr);
}

TEST(MirelSnapshotVolumeParams, keeps_its_mount_points_in_the_order_added) {
  const test::SmallVolume device;
  const HeldVolume volume = create(device);
  EXPECT_EQ(volume->AddMountPoint(L"/second"), 2u);
  EXPECT_EQ(volume->AddMountPoint(L"/third"), 3u);
  EXPECT_EQ(volume->AddMountPoint(nullptr), 0u);
  ASSERT_EQ(volume->GetMountPointCount(), 3u);
  EXPECT_EQ(volume->GetOriginalMountPoint(0), device.wfolder());
  EXPECT_EQ(volume->GetOriginalMountPoint(1), std::wstring(L"/second"));
  EXPECT_EQ(volume->GetOriginalMountPoint(2), std::wstring(L"/third"));
  EXPECT_EQ(volume->GetOriginalMountPoint(3), nullptr);
}

TEST(MirelSnapshotVolumeParams, records_where_each_mount_point_is_exposed) {
  const test::SmallVolume device;
  const HeldVolume volume = create(device);
  volume->AddMountPoint(L"/second");
  EXPECT_TRUE(volume->SetSnapVolumeMountPoint(1, L"/snaps/second"));
  EXPECT_EQ(volume->GetSnapVolumeMountPoint(0), std::wstring());
  EXPECT_EQ(volume->GetSnapVolumeMountPoint(1), std::wstring(L"/snaps/second"));
  EXPECT_EQ(volume->GetSnapVolumeMountPoint(2), nullptr);
  EXPECT_FALSE(volume->SetSnapVolumeMountPoint(2, L"/x"));
  EXPECT_FALSE(volume->SetSnapVolumeMountPoint(0xFFFFFFFF, L"/x"));
  EXPECT_FALSE(volume->SetSnapVolumeMountPoint(1, nullptr));
  EXPECT_EQ(volume->GetSnapVolumeMountPoint(1), std::wstring(L"/snaps/second"));
}

TEST(MirelSnapshotVolumeParams, changes_nothing_when_memory_is_short) {
  const test::SmallVolume device;
  const HeldVolume volume = create(device);
  volume->SetSnapVolumeMountPoint(0, L"/before");
  volume->SetRelocationFileName(L"/before");
  const std::wstring longer(100, L'x');
  const std::ptrdiff_t before = test::heldBytes();
  for (std::size_t n = 0; n < 3; ++n) {
    const test::FailingAllocation failing(n);
    EXPECT_THROW(volume->AddMountPoint(longer.c_str()), std::bad_alloc) << n;
  }
  {
    const test::FailingAllocation failing(0);
    EXPECT_THROW(volume->SetSnapVolumeMountPoint(0, longer.c_str()), std::bad_alloc);
  }
  {
    const test::FailingAllocation failing(0);
    EXPECT_THROW(volume->SetRelocationFileName(longer.c_str()), std::bad_alloc);
  }
  EXPECT_EQ(test::heldBytes(), before);
  EXPECT_EQ(volume->GetMountPointCount(), 1u);
  EXPECT_EQ(volume->GetSnapVolumeMountPoint(0), std::wstring(L"/before"));
  EXPECT_EQ(volume->GetRelocationFileName(), std::wstring(L"/before"));
}

TEST(SetRelocationFileMountName, takes_exactly_a_mount_point) {
  const test::SmallVolume device;
  const HeldVolume volume = create(device);
  EXPECT_TRUE(volume->SetRelocationFileMountName(device.wfolder().c_str()));
  EXPECT_EQ(volume->GetRelocationFileMountName(), device.wfolder());
  // Any mount of the machine's own will do here, also one without a device.
  EXPECT_TRUE(volume->SetRelocationFileMountName(L"/mnt"));
  EXPECT_EQ(volume->GetRelocationFileMountName(), L"/mnt");
}

TEST(SetRelocationFileMountName, refuses_everything_else_and_keeps_what_it_has) {
  const test::Locale plain(test::kPlain);
  const test::SmallVolume device;
  const test::TempDir dir;
  test::directory(device.folder() + "/sub");
  std::filesystem::create_symlink(device.folder(), dir / "link");
  const HeldVolume volume = create(device);
  ASSERT_TRUE(volume->SetRelocationFileMountName(L"/mnt"));
  EXPECT_FALSE(volume->SetRelocationFileMountName(nullptr));
  EXPECT_FALSE(volume->SetRelocationFileMountName(L""));
  EXPECT_FALSE(volume->SetRelocationFileMountName((device.wfolder() + L"/sub").c_str()));
  EXPECT_FALSE(volume->SetRelocationFileMountName((device.wfolder() + L"/").c_str()));
  EXPECT_FALSE(volume->SetRelocationFileMountName(wide(dir / "link").c_str()));
  EXPECT_FALSE(volume->SetRelocationFileMountName(L"/mnt/missing"));
  EXPECT_FALSE(volume->SetRelocationFileMountName(L"/mnt/caf\u00E9"));
  const std::wstring folder = device.wfolder();
  {
    const test::FailingMalloc failing;
    EXPECT_FALSE(volume->SetRelocationFileMountName(folder.c_str()));
  }
  EXPECT_EQ(volume->GetRelocationFileMountName(), L"/mnt");
}

TEST(SetRelocationFileSizeInBlocks, stores_every_value) {
  const test::SmallVolume device;
  const HeldVolume volume = create(device);
  for (const unsigned int blocks : {1u, UINT_MAX, 0u}) {
    EXPECT_TRUE(volume->SetRelocationFileSizeInBlocks(blocks));
    EXPECT_EQ(volume->GetRelocationFileSizeInBlocks(), blocks);
  }
}

TEST(WaitForVolumeToUnSnap, runs_out_of_time_since_nothing_signals_it) {
  const test::SmallVolume device;
  const HeldVolume volume = create(device);
  const MirelSnapshotVolumeParams::WaitResult result = volume->WaitForVolumeToUnSnap(0);
  EXPECT_EQ(result.kind, WaitKind::TimedOut);
  EXPECT_EQ(static_cast<int>(result.kind), 1);
  EXPECT_EQ(result.error, ETIMEDOUT);
}

TEST(WaitForVolumeToUnSnap, waits_once_until_the_clock_and_the_timeout_together) {
  const test::SmallVolume device;
  const HeldVolume volume = create(device);
  const test::FixedClock clock(1000, 999'999'999);
  const test::ScriptedWait wait(0);
  const MirelSnapshotVolumeParams::WaitResult result = volume->WaitForVolumeToUnSnap(2001);
  EXPECT_EQ(static_cast<int>(result.kind), 0);
  EXPECT_EQ(result.kind, WaitKind::Signalled);
  EXPECT_EQ(result.error, 0);
  EXPECT_EQ(wait.deadline().tv_sec, 1003);
  EXPECT_EQ(wait.deadline().tv_nsec, 999'999);
}

TEST(WaitForVolumeToUnSnap, fails_with_the_clocks_error) {
  const test::SmallVolume device;
  const HeldVolume volume = create(device);
  const test::FixedClock clock(EPERM);
  const MirelSnapshotVolumeParams::WaitResult result = volume->WaitForVolumeToUnSnap(1);
  EXPECT_EQ(static_cast<int>(result.kind), -1);
  EXPECT_EQ(result.kind, WaitKind::Failed);
  EXPECT_EQ(result.error, EPERM);
}

TEST(WaitForVolumeToUnSnap, a_deadline_on_exactly_a_second_of_nanoseconds_fails_in_the_wait) {
  const test::SmallVolume device;
  const HeldVolume volume = create(device);
  const test::FixedClock clock(1000, 999'000'000);
  const MirelSnapshotVolumeParams::WaitResult result = volume->WaitForVolumeToUnSnap(1);
  EXPECT_EQ(result.kind, WaitKind::Failed);
  EXPECT_EQ(result.error, EINVAL);
}

TEST(WaitForVolumeToUnSnap, holds_the_volumes_mutex_and_gives_it_back) {
  const test::SmallVolume device;
  const HeldVolume volume = create(device);
  const test::FixedClock clock(EPERM);
  for (int i = 0; i < 3; ++i) {
    const unsigned int before = test::locksTaken();
    EXPECT_EQ(volume->WaitForVolumeToUnSnap(1).error, EPERM);
    EXPECT_EQ(test::locksTaken(), before + 1);
  }
}
