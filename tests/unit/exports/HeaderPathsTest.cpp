// SPDX-License-Identifier: Apache-2.0
//
// Tests that live outside of this tree include these headers by their paths from the root and call the operations that
// they give: a header that moves, or an operation that leaves its header, breaks them.
#include <gtest/gtest.h>

#include <list>
#include <string>
#include <type_traits>

#include "src/driver/LinuxSnapLib.h"
#include "src/driver/LinuxSnapLibUtil.h"
#include "src/driver/VolumeRecords.h"
#include "src/engine/GuardedSnapshotSetParamsArray.h"
#include "src/engine/MirelSnapshotEngine.h"
#include "src/engine/MountVolumeParams.h"
#include "src/engine/SnapshotSetParams.h"
#include "src/engine/SnapshotVolumeParams.h"
#include "src/reloc/LinuxSnapshotreloc.h"
#include "src/sysinfo/LinuxSystemInfo.h"
#include "src/sysinfo/MountEntry.h"

namespace {

static_assert(std::is_class_v<SnapDriverInterface> && std::is_class_v<SnapDriverInterfaceUtility>);
static_assert(std::is_class_v<SnapVolumeInformation> && std::is_class_v<_ioctlCmd>);
static_assert(std::is_class_v<MirelSnapSnapshotCoordinator::LinuxGuardedSnapshotSetParamsArray> &&
              std::is_class_v<MirelSnapSnapshotCoordinator::MirelMountVolumeParams> &&
              std::is_class_v<MirelSnapSnapshotCoordinator::MirelSnapshotEngine> &&
              std::is_class_v<MirelSnapSnapshotCoordinator::MirelSnapshotSetParams> &&
              std::is_class_v<MirelSnapSnapshotCoordinator::MirelSnapshotVolumeParams>);
static_assert(std::is_class_v<LinuxSnapshotreloc> && std::is_class_v<mirelsnapsdk_linuxcomputer::LinuxSystemInfo> &&
              std::is_class_v<mirelsnapsdk_linuxcomputer::MountEntry>);

static_assert(std::is_invocable_r_v<int, decltype(openControlDevice)>);
static_assert(
    std::is_invocable_r_v<int, decltype(getAllRelocFileInVol), std::string, std::string, std::list<std::string>&>);

TEST(HeaderPaths, give_the_operations_that_belong_to_no_class) {
  EXPECT_EQ(findExe("mirelsnap-no-such-program"), "");
  EXPECT_EQ(getDeviceNumbers(nullptr, nullptr), 3U);
  EXPECT_FALSE(inPartitionRelocFile("/mirelsnap-no-such-file", "/dev/mirelsnap-no-such-device"));
  EXPECT_EQ(WStringToString(StringToWString("/dev/vol")), "/dev/vol");
}

}  // namespace
