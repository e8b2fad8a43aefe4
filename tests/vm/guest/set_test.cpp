// SPDX-License-Identifier: Apache-2.0
//
// Several volumes in one command, and snapshots beside each other.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <fstream>
#include <memory>
#include <thread>

#include "Driver.h"
#include "Volumes.h"

namespace guest {
namespace {

constexpr std::uint64_t kMiB = 1 << 20;
const std::vector<std::string> kDisks = {"/dev/vda", "/dev/vdb", "/dev/vdc", "/dev/vdd"};

// What a thread writes to each of several files in turn: the same number, counting up.
class Counter {
 public:
  explicit Counter(std::vector<std::string> paths) : mThread([this, paths = std::move(paths)] { run(paths); }) {}
  ~Counter() {
    mStop = true;
    mThread.join();
  }
  void waitFor(std::uint64_t number) const {
    while (mNumber < number) std::this_thread::yield();
  }
  std::uint64_t number() const { return mNumber; }

 private:
  void run(const std::vector<std::string>& paths) {
    std::vector<int> files;
    for (const std::string& path : paths) {
      files.push_back(open(path.c_str(), O_RDWR | O_CREAT | O_DSYNC | O_CLOEXEC, 0600));
    }
    for (std::uint64_t number = 1; !mStop; ++number) {
      for (const int file : files) {
        if (pwrite(file, &number, sizeof number, 0) != sizeof number) return;
      }
      mNumber = number;
    }
    for (const int file : files) close(file);
  }
  std::atomic<bool> mStop{false};
  std::atomic<std::uint64_t> mNumber{0};
  std::thread mThread;
};

std::uint64_t numberIn(const std::string& path) {
  std::uint64_t number = 0;
  std::ifstream(path, std::ios::binary).read(reinterpret_cast<char*>(&number), sizeof number);
  return number;
}

TEST(Set, of_two_file_systems_is_of_one_instant) {
  Mounted a = ext4("/dev/vda", "/mnt/a");
  Mounted b = ext4("/dev/vdb", "/mnt/b");
  Mounted store = ext4("/dev/vdc", "/mnt/c");
  const Discarded discarded(kDisks);
  const SnapVolume ofA = snapOf("/dev/vda", store.makeFile("a", 64 * kMiB), "/dev/vdc");
  const SnapVolume ofB = snapOf("/dev/vdb", store.makeFile("b", 64 * kMiB), "/dev/vdc");
  Counter counter({a.path("number"), b.path("number")});
  for (int round = 0; round < 5; ++round) {
    counter.waitFor(counter.number() + 5);
    ASSERT_EQ(snap({ofA, ofB}), (Result{0, 0}));
    counter.waitFor(counter.number() + 5);
    ASSERT_TRUE(run("mkdir -p /mnt/sa /mnt/sb; mount -t ext4 -o ro,noload " + snapshotOf("/dev/vda") +
                    " /mnt/sa && mount -t ext4 -o ro,noload " + snapshotOf("/dev/vdb") + " /mnt/sb"));
    const std::uint64_t first = numberIn("/mnt/sa/number");
    const std::uint64_t second = numberIn("/mnt/sb/number");
    EXPECT_TRUE(first == second || first == second + 1) << first << " " << second;
    EXPECT_GT(first, 0u);
    EXPECT_TRUE(run("umount /mnt/sa /mnt/sb"));
    ASSERT_EQ(discard({"/dev/vda", "/dev/vdb"}), (Result{0, 0}));
  }
}

// Sixteen volumes, each a piece of /dev/vdc, mounted.
class Sixteen {
 public:
  static constexpr unsigned int kVolumes = 16;
  Sixteen() {
    const std::uint64_t share = sectorsOf("/dev/vdc") / kVolumes;
    for (unsigned int i = 0; i < kVolumes; ++i) {
      run("dmsetup --noudevsync --noudevrules create " + name(i) + " --table '0 " + std::to_string(share) +
          " linear /dev/vdc " + std::to_string(i * share) + "'; dmsetup mknodes");
      mMounted.push_back(std::make_unique<Mounted>(device(i), "/mnt/" + name(i), "ext4", "mkfs.ext4 -q -F"));
    }
  }
  ~Sixteen() {
    mMounted.clear();
    for (unsigned int i = 0; i < kVolumes; ++i) run("dmsetup --noudevsync --noudevrules remove " + name(i));
  }
  static std::string device(unsigned int i) { return "/dev/mapper/" + name(i); }
  static std::vector<std::string> devices() {
    std::vector<std::string> all;
    for (unsigned int i = 0; i < kVolumes; ++i) all.push_back(device(i));
    return all;
  }
  const Mounted& operator[](unsigned int i) const { return *mMounted[i]; }

 private:
  static std::string name(unsigned int i) { return "piece" + std::to_string(i); }
  std::vector<std::unique_ptr<Mounted>> mMounted;
};

TEST(Set, of_sixteen_volumes_is_of_one_instant) {
  Mounted store = ext4("/dev/vdd", "/mnt/d");
  Sixteen volumes;
  const Discarded discarded(Sixteen::devices());
  std::vector<SnapVolume> set;
  std::vector<std::string> files;
  for (unsigned int i = 0; i < Sixteen::kVolumes; ++i) {
    set.push_back(snapOf(Sixteen::device(i), store.makeFile("reloc" + std::to_string(i), 12 * kMiB), "/dev/vdd"));
    files.push_back(volumes[i].path("number"));
  }
  Counter counter(files);
  counter.waitFor(3);
  ASSERT_EQ(snap(set), (Result{0, 0}));
  counter.waitFor(counter.number() + 3);
  std::vector<std::uint64_t> numbers;
  for (const std::string& device : Sixteen::devices()) {
    ASSERT_TRUE(run("mkdir -p /mnt/s; mount -t ext4 -o ro,noload " + snapshotOf(device) + " /mnt/s"));
    numbers.push_back(numberIn("/mnt/s/number"));
    ASSERT_TRUE(run("umount /mnt/s"));
  }
  EXPECT_TRUE(std::is_sorted(numbers.rbegin(), numbers.rend())) << testing::PrintToString(numbers);
  EXPECT_LE(numbers.front(), numbers.back() + 1);
  EXPECT_GT(numbers.back(), 0u);
  EXPECT_EQ(discard(Sixteen::devices()), (Result{0, 0}));
}

TEST(Set, is_taken_as_a_whole_or_not_at_all) {
  Mounted store = ext4("/dev/vdc", "/mnt/c");
  const Discarded discarded(kDisks);
  const SnapVolume good = snapOf("/dev/vda", store.makeFile("a", 4 * kMiB), "/dev/vdc");
  SnapVolume bad = snapOf("/dev/vdb", store.makeFile("b", 4 * kMiB), "/dev/vdc");
  ++bad.entry.numBlocks;
  EXPECT_EQ(snap({good, bad}), (Result{ESTALE, -8}));
  EXPECT_EQ(count(IOC_GET_NUM_OF_SNAPPED_VOLUMES), 0u);
  EXPECT_NE(access(snapshotOf("/dev/vda").c_str(), F_OK), 0);
  --bad.entry.numBlocks;
  EXPECT_EQ(snap({good, bad}), (Result{0, 0}));
  EXPECT_EQ(discard({"/dev/vda", "/dev/vdd"}), (Result{ENOENT, -5}));
  EXPECT_EQ(count(IOC_GET_NUM_OF_SNAPPED_VOLUMES), 2u);
  EXPECT_EQ(discard({"/dev/vdb", "/dev/vda"}), (Result{0, 0}));
}

TEST(Set, is_listed_in_the_order_in_which_it_was_named) {
  Mounted store = ext4("/dev/vdd", "/mnt/d");
  const Discarded discarded(kDisks);
  std::vector<SnapVolume> volumes;
  for (const char* device : {"/dev/vdc", "/dev/vda", "/dev/vdb"}) {
    volumes.push_back(snapOf(device, store.makeFile(std::string("reloc") + device[7], 4 * kMiB), "/dev/vdd"));
  }
  ASSERT_EQ(snap(volumes), (Result{0, 0}));
  const auto listed = listSnapped(3);
  ASSERT_EQ(listed.size(), 3u);
  EXPECT_STREQ(listed[0].snappedVolumeName, "/dev/vdc");
  EXPECT_STREQ(listed[1].snappedVolumeName, "/dev/vda");
  EXPECT_STREQ(listed[2].snappedVolumeName, "/dev/vdb");
  EXPECT_EQ(discard({"/dev/vda", "/dev/vdb", "/dev/vdc"}), (Result{0, 0}));
}

// Each keeps its old blocks in a file on the other: their stores must not wait for each other.
TEST(Set, of_two_volumes_that_hold_each_others_relocation_files) {
  Mounted a = ext4("/dev/vda", "/mnt/a");
  Mounted b = ext4("/dev/vdb", "/mnt/b");
  const Discarded discarded(kDisks);
  a.makeFile("old", 32 * kMiB, true);
  b.makeFile("old", 32 * kMiB, true);
  const std::string onA = a.makeFile("reloc", 64 * kMiB);
  const std::string onB = b.makeFile("reloc", 64 * kMiB);
  ASSERT_EQ(snap({snapOf("/dev/vda", onB, "/dev/vdb"), snapOf("/dev/vdb", onA, "/dev/vda")}), (Result{0, 0}));
  std::vector<std::thread> writers;
  for (const std::string folder : {"/mnt/a", "/mnt/b"}) {
    writers.emplace_back([=] {
      for (int i = 0; i < 4; ++i) {
        run("dd if=/dev/urandom of=" + folder + "/old bs=64k count=256 seek=" + std::to_string(i * 64) +
            " conv=notrunc,fsync >/dev/null 2>&1");
      }
    });
  }
  for (std::thread& writer : writers) writer.join();
  for (const std::string& line : snapshotLines()) EXPECT_EQ(wordOf(line, "state"), "snapped") << line;
  EXPECT_TRUE(run("mkdir -p /mnt/s; for s in " + snapshotOf("/dev/vda") + " " + snapshotOf("/dev/vdb") +
                  "; do mount -t ext4 -o ro,noload $s /mnt/s && tr -d '\\000' </mnt/s/old | wc -c | grep -qx 0 && "
                  "umount /mnt/s || exit 1; done"));
  EXPECT_EQ(discard({"/dev/vda", "/dev/vdb"}), (Result{0, 0}));
}

// A newer snapshot's file lies where an older one has a deleted file: what goes into it is a write like any other.
TEST(Set, a_later_relocation_file_on_a_snapped_volume_harms_the_earlier_snapshot_not) {
  Mounted a = ext4("/dev/vda", "/mnt/a");
  Mounted store = ext4("/dev/vdc", "/mnt/c");
  const Discarded discarded(kDisks);
  a.makeFile("old", 160 * kMiB, true);
  fill("/dev/vdb", 1);
  freeze({"/dev/vda"});
  const auto before = sums("/dev/vda");
  ASSERT_EQ(snap({snapOf("/dev/vda", store.makeFile("reloc", 200 * kMiB), "/dev/vdc")}), (Result{0, 0}));
  thaw({"/dev/vda"});
  unlink(a.path("old").c_str());
  run("sync");
  ASSERT_EQ(snap({snapOf("/dev/vdb", a.makeFile("later", 128 * kMiB), "/dev/vda")}), (Result{0, 0}));
  Writers writers("/dev/vdb", {0, 120 * kMiB / 512}, 4);
  writers.waitFor(2000);
  EXPECT_EQ(writers.stop(), 0);
  EXPECT_EQ(wrongSectors(snapshotOf("/dev/vdb"), 1), 0u);
  EXPECT_EQ(differences(sums(snapshotOf("/dev/vda")), before), 0u);
  EXPECT_EQ(discard({"/dev/vdb"}), (Result{0, 0}));
  EXPECT_EQ(discard({"/dev/vda"}), (Result{0, 0}));
}

// Two partitions on /dev/vda, the second not on a boundary of 4 KiB.
struct Partitioned {
  Partitioned() {
    run("printf 'n\\np\\n1\\n2048\\n133119\\nn\\np\\n2\\n133123\\n264191\\nw\\n' | fdisk -u /dev/vda >/dev/null 2>&1");
  }
  ~Partitioned() {
    run("dd if=/dev/zero of=/dev/vda bs=512 count=1 conv=fsync >/dev/null 2>&1; blockdev --rereadpt /dev/vda");
  }
};

TEST(Set, of_the_partitions_of_a_disk_sees_writes_to_the_whole_disk) {
  const Partitioned disk;
  ASSERT_EQ(access("/dev/vda2", F_OK), 0);
  Mounted store = ext4("/dev/vdc", "/mnt/c");
  const Discarded discarded({"/dev/vda1", "/dev/vda2"});
  fill("/dev/vda1", 1);
  fill("/dev/vda2", 1);
  ASSERT_EQ(snap({snapOf("/dev/vda1", store.makeFile("1", 80 * kMiB), "/dev/vdc"),
                  snapOf("/dev/vda2", store.makeFile("2", 80 * kMiB), "/dev/vdc", 512)}),
            (Result{0, 0}));
  {
    Writers onDisk("/dev/vda", {2048, 264192 - 2048}, 2);
    onDisk.waitFor(300);
    EXPECT_EQ(onDisk.stop(), 0);
  }
  Writers onPartition("/dev/vda2", {0, sectorsOf("/dev/vda2")}, 4);
  onPartition.waitFor(300);
  EXPECT_EQ(onPartition.stop(), 0);
  EXPECT_EQ(wrongSectors(snapshotOf("/dev/vda1"), 1), 0u);
  EXPECT_EQ(wrongSectors(snapshotOf("/dev/vda2"), 1), 0u);
  EXPECT_EQ(discard({"/dev/vda1", "/dev/vda2"}), (Result{0, 0}));
}

}  // namespace
}  // namespace guest
