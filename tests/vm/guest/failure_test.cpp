// SPDX-License-Identifier: Apache-2.0
//
// What goes wrong breaks the snapshot, and never the volume.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <fstream>
#include <thread>

#include "Driver.h"
#include "Volumes.h"

namespace guest {
namespace {

constexpr std::uint64_t kMiB = 1 << 20;
constexpr unsigned int kTableFails = 1;
constexpr unsigned int kMemoryFails = 2;

// A parameter of the module, until the end of a test.
class Parameter {
 public:
  Parameter(const std::string& name, const std::string& value) : mFile("/sys/module/mirelsnap/parameters/" + name) {
    std::ifstream(mFile) >> mBefore;
    std::ofstream(mFile) << value;
  }
  ~Parameter() { std::ofstream(mFile) << mBefore; }
  Parameter(const Parameter&) = delete;
  Parameter& operator=(const Parameter&) = delete;

 private:
  std::string mFile;
  std::string mBefore;
};

struct Injected : Parameter {
  explicit Injected(unsigned int what) : Parameter("inject", std::to_string(what)) {}
};

std::string stateOfFirst() {
  const auto lines = snapshotLines();
  return lines.empty() ? "none" : wordOf(lines[0], "state");
}

void waitForState(const std::string& state) {
  while (stateOfFirst() != state) usleep(1000);
}

// A disk over /dev/vdc whose requests can be made to fail.
class Failing {
 public:
  Failing() { run("dmsetup --noudevsync --noudevrules create failing --table '" + linear() + "'; dmsetup mknodes"); }
  ~Failing() { run("dmsetup --noudevsync --noudevrules remove failing"); }
  void fail(const std::string& table) const {
    run("dmsetup suspend --nolockfs failing; dmsetup load failing --table '" + table + "'; dmsetup resume failing");
  }
  static std::string sectors() { return std::to_string(sectorsOf("/dev/vdc")); }
  static std::string linear() { return "0 " + sectors() + " linear /dev/vdc 0"; }
  static std::string error() { return "0 " + sectors() + " error"; }
  // Writes fail, reads do not.
  static std::string errorWrites() { return "0 " + sectors() + " flakey /dev/vdc 0 0 3600 1 error_writes"; }
};

TEST(Failure, of_the_relocation_files_device_breaks_the_snapshot_only) {
  fill("/dev/vda", 1);
  Failing failing;
  Mounted store = ext4("/dev/mapper/failing", "/mnt/c");
  const Discarded discarded({"/dev/vda"});
  ASSERT_EQ(snap({snapOf("/dev/vda", store.makeFile("reloc", 200 * kMiB), "/dev/mapper/failing")}), (Result{0, 0}));
  failing.fail(Failing::errorWrites());
  Writers writers("/dev/vda", {0, sectorsOf("/dev/vda")}, 8);
  waitForState("broken:io");
  writers.waitFor(writers.writes() + 200);
  EXPECT_EQ(writers.stop(), 0);
  const int file = open(snapshotOf("/dev/vda").c_str(), O_RDONLY | O_CLOEXEC);
  char sector[512];
  EXPECT_EQ(pread(file, sector, sizeof sector, 0), -1);
  EXPECT_EQ(errno, EIO);
  close(file);
  EXPECT_EQ(discard({"/dev/vda"}), (Result{0, 0}));
  failing.fail(Failing::linear());
}

TEST(Failure, of_reading_the_old_content_breaks_the_snapshot_only) {
  Failing failing;
  fill("/dev/mapper/failing", 1);
  Mounted store = ext4("/dev/vdb", "/mnt/b");
  const Discarded discarded({"/dev/mapper/failing"});
  ASSERT_EQ(snap({snapOf("/dev/mapper/failing", store.makeFile("reloc", 200 * kMiB), "/dev/vdb")}), (Result{0, 0}));
  // Reads of the first half fail, writes there too: what fails is the volume's own.
  const std::uint64_t half = sectorsOf("/dev/vdc") / 2;
  failing.fail("0 " + std::to_string(half) + " error\n" + std::to_string(half) + " " + std::to_string(half) +
               " linear /dev/vdc " + std::to_string(half));
  {
    Writers fine("/dev/mapper/failing", {half, half}, 2);
    fine.waitFor(20);
    EXPECT_EQ(fine.stop(), 0);
  }
  EXPECT_EQ(stateOfFirst(), "snapped");
  const int file = open("/dev/mapper/failing", O_WRONLY | O_DIRECT | O_CLOEXEC);
  alignas(4096) static char block[4096];
  EXPECT_EQ(pwrite(file, block, sizeof block, 0), -1);
  EXPECT_EQ(errno, EIO);
  close(file);
  EXPECT_EQ(stateOfFirst(), "broken:io");
  Writers after("/dev/mapper/failing", {half, half}, 2);
  after.waitFor(100);
  EXPECT_EQ(after.stop(), 0);
  EXPECT_EQ(discard({"/dev/mapper/failing"}), (Result{0, 0}));
}

TEST(Failure, no_memory_for_the_table_breaks_the_snapshot_only) {
  fill("/dev/vda", 1);
  Mounted store = ext4("/dev/vdb", "/mnt/b");
  const Discarded discarded({"/dev/vda"});
  ASSERT_EQ(snap({snapOf("/dev/vda", store.makeFile("reloc", 200 * kMiB), "/dev/vdb")}), (Result{0, 0}));
  const Injected injected(kTableFails);
  Writers writers("/dev/vda", {0, sectorsOf("/dev/vda")}, 4);
  waitForState("broken:memory");
  writers.waitFor(writers.writes() + 100);
  EXPECT_EQ(writers.stop(), 0);
  EXPECT_EQ(discard({"/dev/vda"}), (Result{0, 0}));
}

TEST(Failure, no_memory_for_a_read_of_old_content_only_delays_the_write) {
  fill("/dev/vda", 1);
  Mounted store = ext4("/dev/vdb", "/mnt/b");
  const Discarded discarded({"/dev/vda"});
  ASSERT_EQ(snap({snapOf("/dev/vda", store.makeFile("reloc", 200 * kMiB), "/dev/vdb")}), (Result{0, 0}));
  const Injected injected(kMemoryFails);
  Writers writers("/dev/vda", {0, 190 * kMiB / 512}, 4);
  writers.waitFor(1000);
  EXPECT_EQ(writers.stop(), 0);
  EXPECT_EQ(stateOfFirst(), "snapped");
  EXPECT_EQ(wrongSectors(snapshotOf("/dev/vda"), 1), 0u);
  EXPECT_EQ(discard({"/dev/vda"}), (Result{0, 0}));
}

TEST(Failure, a_volume_that_does_not_stand_still_in_time_lets_the_others_go_and_the_set_fails) {
  constexpr std::chrono::milliseconds kLimit{300};
  const Parameter limit("freeze_limit_ms", std::to_string(kLimit.count()));
  Mounted other = ext4("/dev/vda", "/mnt/a");
  Mounted store = ext4("/dev/vdb", "/mnt/b");
  Failing failing;
  Mounted slow = ext4("/dev/mapper/failing", "/mnt/c");
  const Discarded discarded({"/dev/vda", "/dev/mapper/failing"});
  const SnapVolume ofOther = snapOf("/dev/vda", store.makeFile("other", 8 * kMiB), "/dev/vdb");
  const SnapVolume ofSlow = snapOf("/dev/mapper/failing", store.makeFile("slow", 8 * kMiB), "/dev/vdb");
  run("sync");
  std::ofstream(slow.path("file")) << "what the freeze has to write";
  ASSERT_TRUE(run("dmsetup suspend --nolockfs failing"));

  std::atomic<bool> ended{false};
  Result result{};
  std::thread snapping([&] {
    result = snap({ofSlow, ofOther});
    ended = true;
  });
  // Somebody who writes to the other volume stands still, and goes on while the command still waits.
  const int file = open(other.path("file").c_str(), O_WRONLY | O_CREAT | O_DSYNC | O_CLOEXEC, 0600);
  for (bool stood = false; !stood && !ended;) {
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(pwrite(file, "x", 1, 0), 1);
    stood = std::chrono::steady_clock::now() - start > kLimit / 2;
  }
  close(file);
  EXPECT_FALSE(ended);
  EXPECT_TRUE(run("dmsetup resume failing"));
  snapping.join();
  EXPECT_EQ(result, (Result{ETIMEDOUT, 0}));
  EXPECT_EQ(count(IOC_GET_NUM_OF_SNAPPED_VOLUMES), 0u);
  EXPECT_EQ(unmap(ofOther), (Result{0, 0}));
  EXPECT_EQ(unmap(ofSlow), (Result{0, 0}));
}

// A loop device's file is frozen after the file system on the loop device, whatever order they are named in.
TEST(Failure, a_set_of_a_loop_device_and_the_volume_that_holds_its_file_is_frozen_inside_out) {
  Mounted outer = ext4("/dev/vda", "/mnt/a");
  Mounted store = ext4("/dev/vdb", "/mnt/b");
  ASSERT_TRUE(run("losetup /dev/loop0 " + outer.makeFile("image", 64 * kMiB)));
  {
    Mounted inner = ext4("/dev/loop0", "/mnt/inner");
    const Discarded discarded({"/dev/vda", "/dev/loop0"});
    const SnapVolume ofOuter = snapOf("/dev/vda", store.makeFile("outer", 64 * kMiB), "/dev/vdb");
    const SnapVolume ofInner = snapOf("/dev/loop0", store.makeFile("inner", 64 * kMiB), "/dev/vdb");
    std::ofstream(inner.path("file")) << "text";
    EXPECT_EQ(snap({ofOuter, ofInner}), (Result{0, 0}));
    EXPECT_EQ(discard({"/dev/vda", "/dev/loop0"}), (Result{0, 0}));
    std::ofstream(inner.path("file")) << "more";
    EXPECT_EQ(snap({ofInner, ofOuter}), (Result{0, 0}));
    EXPECT_EQ(discard({"/dev/vda", "/dev/loop0"}), (Result{0, 0}));
    EXPECT_EQ(freeze({"/dev/loop0", "/dev/vda"}), (Result{0, 0}));
    EXPECT_EQ(thaw({"/dev/loop0", "/dev/vda"}), (Result{0, 0}));
  }
  EXPECT_TRUE(run("losetup -d /dev/loop0"));
}

TEST(Failure, a_volume_that_is_gone_is_cleaned_up) {
  Mounted store = ext4("/dev/vdb", "/mnt/b");
  std::uint32_t before = count(IOC_GET_NUM_OF_SNAPPED_VOLUMES);
  EXPECT_EQ(before, 0u);
  const std::string image = store.makeFile("image", 16 * kMiB);
  ASSERT_TRUE(run("losetup /dev/loop1 " + image));
  SnapVolume asked = snapOf("/dev/loop1", store.makeFile("reloc", 8 * kMiB), "/dev/vdb");
  ASSERT_EQ(map(asked), (Result{0, 0}));
  Command clean(IOC_VERIFY_AND_CLEAN_VOLUMES, 0, 28);
  EXPECT_EQ(clean.issue(), 0);
  EXPECT_EQ(count(IOC_GET_NUM_OF_RELOC_FILE_MAPPING), 1u);
  ASSERT_TRUE(run("losetup -d /dev/loop1"));
  EXPECT_EQ(clean.issue(), 0);
  EXPECT_EQ(count(IOC_GET_NUM_OF_RELOC_FILE_MAPPING), 0u);
}

}  // namespace
}  // namespace guest
