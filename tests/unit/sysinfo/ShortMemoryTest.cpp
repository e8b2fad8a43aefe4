// SPDX-License-Identifier: Apache-2.0
//
// Whichever allocation fails, nothing stays open or allocated. Descriptors are what the leak check behind every test
// sees.
#include <gtest/gtest.h>
#include <sys/sysmacros.h>

#include "DevTree.h"
#include "World.h"
#include "interpose/Allocations.h"
#include "sysinfo/LinuxSystemInfo.h"

using mirelsnapsdk_linuxcomputer::LinuxSystemInfo;

namespace {

// `work` gets a fresh object each time; its own memory is given back with it.
template <class Work>
void expectNothingStays(Work work) {
  const std::ptrdiff_t before = test::heldBytes();
  const std::size_t allocations = test::failEveryAllocation(
      [&] {
        LinuxSystemInfo info;
        work(info);
      },
      [&](std::size_t n) { EXPECT_EQ(test::heldBytes(), before) << "allocation " << n; });
  EXPECT_GE(allocations, 3u);
}

// Long enough that no string fits into itself.
const std::string kLong(40, 'n');

}  // namespace

TEST(ShortMemory, leaves_nothing_of_the_mount_table) {
  const test::ProcFile mounts("mounts",
                              "/dev/" + kLong + " /" + kLong + " ext4 rw 0 0\n/dev/b" + kLong + " / xfs rw 0 0\n");
  expectNothingStays([](LinuxSystemInfo& info) { info.GetProcMounts(); });
  expectNothingStays([](LinuxSystemInfo& info) { info.GetMountPoints("/dev/" + kLong); });
  expectNothingStays([](LinuxSystemInfo& info) { info.GetVolumeFromDir("/" + kLong + "/x"); });
}

TEST(ShortMemory, leaves_nothing_of_the_aliases) {
  test::DevTree dev;
  dev.block("/dev/sda1", 8, 1);
  dev.block("/dev/root", 8, 1);
  dev.directory("/dev/disk/" + kLong);
  dev.link("/dev/disk/" + kLong + "/X", "../../sda1");
  expectNothingStays([](LinuxSystemInfo& info) { info.LinkVolumeDeviceAliases(); });
}

TEST(ShortMemory, leaves_nothing_of_the_search_for_a_device) {
  test::DevTree dev;
  dev.directory("/dev/" + kLong);
  dev.block("/dev/" + kLong + "/node", 240, 17);
  expectNothingStays([](LinuxSystemInfo&) {
    std::string path = "/dev";
    static_cast<void>(mirelsnapsdk_linuxcomputer::FindDevRecursive(path, makedev(240, 17)));
    static_cast<void>(mirelsnapsdk_linuxcomputer::FindDev(makedev(240, 17)));
  });
}

TEST(ShortMemory, is_felt_by_the_search_for_a_device_before_it_starts) {
  // The room for the longest path is asked for at once.
  const test::FailingAllocation failing(0, 4097 + 1);
  EXPECT_THROW(mirelsnapsdk_linuxcomputer::FindDev(makedev(240, 17)), std::bad_alloc);
}

TEST(ShortMemory, leaves_nothing_of_the_memory_state) {
  const test::ProcFile meminfo("meminfo", "A" + kLong + ": 1 kB\nMemFree: 2 kB\n");
  expectNothingStays([](LinuxSystemInfo& info) { info.InitializeSystemMemoryState(); });
}

TEST(ShortMemory, leaves_nothing_of_a_listed_directory) {
  const test::TempDir dir;
  test::writeFile(dir / kLong, "");
  expectNothingStays([&](LinuxSystemInfo& info) {
    std::list<std::string> found;
    info.GetFilesInDirectory(dir.path(), found);
  });
  EXPECT_EQ(test::readFile(dir / kLong), "");
}
