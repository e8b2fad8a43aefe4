// SPDX-License-Identifier: Apache-2.0
//
// The machine is reset while a snapshot lives; its disks are looked at after the next boot.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <memory>
#include <thread>

#include "Driver.h"
#include "Volumes.h"

namespace guest {
namespace {

constexpr std::uint64_t kMiB = 1 << 20;

// Never returns: the file systems are as they were at some moment under writers.
TEST(Reset, of_the_machine_while_a_snapshot_lives) {
  Mounted volume = ext4("/dev/vda", "/mnt/a");
  const std::string reloc = volume.makeFile("reloc", 128 * kMiB);
  std::ofstream(volume.path("file")) << "written before";
  run("sync");
  ASSERT_EQ(snap({snapOf("/dev/vda", reloc, "/dev/vda")}), (Result{0, 0}));
  std::vector<std::thread> writers;
  for (const std::string name : {"one", "two", "three"}) {
    writers.emplace_back([&volume, name] {
      while (true) {
        run("dd if=/dev/urandom of=" + volume.path(name) + " bs=16k count=200 conv=fsync >/dev/null 2>&1; cp " +
            volume.path(name) + " " + volume.path(name) + ".copy; rm -f " + volume.path(name));
      }
    });
  }
  while (snapshotLines().empty() || std::stoul(wordOf(snapshotLines()[0], "kept")) < 3000) usleep(1000);
  std::ofstream("/proc/sysrq-trigger") << 'b' << std::flush;
  pause();
}

TEST(Reset, leaves_the_volume_whole) {
  mkdir("/mnt/a", 0755);
  ASSERT_EQ(mount("/dev/vda", "/mnt/a", "ext4", 0, ""), 0);  // its journal is replayed
  std::string text;
  std::getline(std::ifstream("/mnt/a/file") >> std::ws, text);
  EXPECT_EQ(text, "written before");
  EXPECT_EQ(unlink("/mnt/a/reloc"), 0);
  ASSERT_EQ(umount("/mnt/a"), 0);
  EXPECT_TRUE(run("e2fsck -fn /dev/vda"));
}

}  // namespace
}  // namespace guest
