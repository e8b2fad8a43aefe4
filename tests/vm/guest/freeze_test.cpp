// SPDX-License-Identifier: Apache-2.0
//
// Freezing and thawing on command.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <memory>
#include <thread>

#include "Driver.h"
#include "Volumes.h"

namespace guest {
namespace {

// A thread that writes a file; it stands still while the file system does.
class Writer {
 public:
  explicit Writer(const std::string& path)
      : mThread([this, path] {
          const int file = open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
          while (!mStop && pwrite(file, "x", 1, 0) == 1) ++mWrites;
          close(file);
        }) {}
  ~Writer() {
    mStop = true;
    mThread.join();
  }
  std::uint64_t writes() const { return mWrites; }
  void waitForMore() const {
    const std::uint64_t before = mWrites;
    while (mWrites < before + 2) std::this_thread::yield();
  }

 private:
  std::atomic<bool> mStop{false};
  std::atomic<std::uint64_t> mWrites{0};
  std::thread mThread;
};

TEST(Freeze, holds_writers_until_the_thaw) {
  Mounted volume = ext4("/dev/vda", "/mnt/a");
  Writer writer(volume.path("file"));
  writer.waitForMore();
  ASSERT_EQ(freeze({"/dev/vda"}), (Result{0, 0}));
  EXPECT_EQ(check(IOC_CHECK_VOLUME_FROZEN, "/dev/vda"), (Result{0, -6}));
  const std::uint64_t before = writer.writes();
  // A second freeze takes a while, and changes nothing.
  EXPECT_EQ(freeze({"/dev/vda"}), (Result{EBUSY, -6}));
  EXPECT_LE(writer.writes(), before + 1);  // the one that was on its way
  ASSERT_EQ(thaw({"/dev/vda"}), (Result{0, 0}));
  writer.waitForMore();
  EXPECT_EQ(check(IOC_CHECK_VOLUME_FROZEN, "/dev/vda"), (Result{0, -7}));
  EXPECT_EQ(thaw({"/dev/vda"}), (Result{EINVAL, -7}));
}

TEST(Freeze, of_a_set_with_a_frozen_one_freezes_none) {
  Mounted a = ext4("/dev/vda", "/mnt/a");
  Mounted b = ext4("/dev/vdb", "/mnt/b");
  ASSERT_EQ(freeze({"/dev/vdb"}), (Result{0, 0}));
  EXPECT_EQ(freeze({"/dev/vda", "/dev/vdb"}), (Result{EBUSY, -6}));
  EXPECT_EQ(check(IOC_CHECK_VOLUME_FROZEN, "/dev/vda"), (Result{0, -7}));
  EXPECT_EQ(thaw({"/dev/vda", "/dev/vdb"}), (Result{EINVAL, -7}));
  EXPECT_EQ(thaw({"/dev/vdb"}), (Result{0, 0}));
}

TEST(Freeze, that_is_refused_leaves_what_was_frozen_before) {
  Mounted volume = ext4("/dev/vda", "/mnt/a");
  ASSERT_EQ(freeze({"/dev/vda"}), (Result{0, 0}));
  const Number number = numberOf("/dev/vda");
  Command command(IOC_FREEZE, 2, 51);
  command.putRecord(0, VolumeListEntry{4242, 1, 0});
  command.putRecord(1, VolumeListEntry{number.major, number.minor, 0});
  EXPECT_EQ(command.issue(), ENXIO);
  EXPECT_EQ(check(IOC_CHECK_VOLUME_FROZEN, "/dev/vda"), (Result{0, -6}));
  EXPECT_EQ(thaw({"/dev/vda"}), (Result{0, 0}));
}

TEST(Freeze, of_vfat_holds_it_too) {
  Mounted volume("/dev/vda", "/mnt/a", "vfat", "mkfs.vfat");
  ASSERT_EQ(freeze({"/dev/vda"}), (Result{0, 0}));
  ASSERT_EQ(thaw({"/dev/vda"}), (Result{0, 0}));
  Writer(volume.path("file")).waitForMore();
}

TEST(Freeze, keeps_the_module_from_being_unloaded) {
  Mounted volume = ext4("/dev/vda", "/mnt/a");
  ASSERT_EQ(freeze({"/dev/vda"}), (Result{0, 0}));
  EXPECT_EQ(unloadModule(), EAGAIN);
  EXPECT_EQ(thaw({"/dev/vda"}), (Result{0, 0}));
}

TEST(Freeze, of_a_volume_without_a_file_system_is_undone_by_a_thaw) {
  ASSERT_EQ(freeze({"/dev/vdc", "/dev/vdd"}), (Result{0, 0}));
  EXPECT_EQ(check(IOC_CHECK_VOLUME_FROZEN, "/dev/vdd"), (Result{0, -6}));
  ASSERT_EQ(thaw({"/dev/vdd", "/dev/vdc"}), (Result{0, 0}));
}

}  // namespace
}  // namespace guest
