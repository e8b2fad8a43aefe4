// SPDX-License-Identifier: Apache-2.0
//
// File systems under eight writers, on every kind of device: the snapshot is read in full and compared, while they
// write and after.
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>
#include <stdexcept>

#include "Driver.h"
#include "Frozen.h"
#include "Volumes.h"

namespace guest {
namespace {

constexpr std::uint64_t kMiB = 1 << 20;

struct FileSystem {
  const char* name;
  const char* make;
  const char* snapshotOptions;  // to mount a snapshot
};
constexpr FileSystem kExt4 = {"ext4", "mkfs.ext4 -q -F -b 4096 -E lazy_itable_init=0,lazy_journal_init=0", "noload"};
constexpr FileSystem kXfs = {"xfs", "mkfs.xfs -q -f", "nouuid,norecovery"};

enum class Relocation { kOnItself, kElsewhere };
enum class Blocks { kWritten, kUnwritten };

// The files in the snapshot are whole, each sector at its place.
void checkFiles(const std::string& snapshot, const FileSystem& type, const std::vector<std::string>& names) {
  mkdir("/mnt/snap", 0755);
  ASSERT_EQ(mount(snapshot.c_str(), "/mnt/snap", type.name, MS_RDONLY, type.snapshotOptions), 0);
  for (const std::string& name : names) {
    const std::string file = "/mnt/snap/" + name;
    if (access(file.c_str(), F_OK) != 0) continue;  // it was being made anew
    EXPECT_EQ(tornSectors(file), 0u) << file;
  }
  EXPECT_EQ(umount("/mnt/snap"), 0);
}

void holdsUnderWriters(const std::string& device, const FileSystem& type, Relocation place, Blocks blocks) {
  Mounted volume(device, "/mnt/a", type.name, type.make);
  std::unique_ptr<Mounted> other;
  if (place == Relocation::kElsewhere) other = std::make_unique<Mounted>("/dev/vdb", "/mnt/b", kExt4.name, kExt4.make);
  const Mounted& store = other ? *other : volume;
  const Discarded discarded({device});
  const std::uint64_t size = sectorsOf(device) * 512;
  const std::string file = store.makeFile("reloc", other ? 200 * kMiB : size / 2, blocks == Blocks::kWritten);
  run("sync");
  FileWriters writers(volume.folder(), 8, size / 40);
  writers.waitFor(200);
  const SnapVolume asked = snapOf(device, file, store.device());
  const Frozen frozen = snapFrozen(asked, device);
  ASSERT_EQ(frozen.result, (Result{0, 0}));
  writers.waitFor(writers.writes() + 500);
  EXPECT_EQ(differences(sums(snapshotOf(device)), frozen.sums, rangesOf(asked)), 0u);
  checkFiles(snapshotOf(device), type, writers.names());
  EXPECT_EQ(writers.stop(), 0);
  EXPECT_EQ(wordOf(snapshotLines().at(0), "state"), "snapped");
  EXPECT_EQ(differences(sums(snapshotOf(device)), frozen.sums, rangesOf(asked)), 0u);
  EXPECT_GT(std::stoul(wordOf(snapshotLines().at(0), "kept")), 500u);
  EXPECT_EQ(discard({device}), (Result{0, 0}));
}

TEST(Writers, on_ext4_with_its_relocation_file_on_itself_written) {
  holdsUnderWriters("/dev/vda", kExt4, Relocation::kOnItself, Blocks::kWritten);
}
TEST(Writers, on_ext4_with_its_relocation_file_on_itself_unwritten) {
  holdsUnderWriters("/dev/vda", kExt4, Relocation::kOnItself, Blocks::kUnwritten);
}
TEST(Writers, on_ext4_with_its_relocation_file_elsewhere_written) {
  holdsUnderWriters("/dev/vda", kExt4, Relocation::kElsewhere, Blocks::kWritten);
}
TEST(Writers, on_ext4_with_its_relocation_file_elsewhere_unwritten) {
  holdsUnderWriters("/dev/vda", kExt4, Relocation::kElsewhere, Blocks::kUnwritten);
}
TEST(Writers, on_xfs_with_its_relocation_file_on_itself_written) {
  holdsUnderWriters("/dev/vda", kXfs, Relocation::kOnItself, Blocks::kWritten);
}
TEST(Writers, on_xfs_with_its_relocation_file_on_itself_unwritten) {
  holdsUnderWriters("/dev/vda", kXfs, Relocation::kOnItself, Blocks::kUnwritten);
}
TEST(Writers, on_xfs_with_its_relocation_file_elsewhere_written) {
  holdsUnderWriters("/dev/vda", kXfs, Relocation::kElsewhere, Blocks::kWritten);
}
TEST(Writers, on_xfs_with_its_relocation_file_elsewhere_unwritten) {
  holdsUnderWriters("/dev/vda", kXfs, Relocation::kElsewhere, Blocks::kUnwritten);
}

// A device that commands make of /dev/vda (and /dev/vdc) and take apart again.
class Origin {
 public:
  Origin(const std::string& make, std::string unmake) : mUnmake(std::move(unmake)) {
    if (!run("(" + make + ") >/tmp/said 2>&1")) {
      run("cat /tmp/said");
      throw std::runtime_error(make);
    }
  }
  ~Origin() {
    EXPECT_TRUE(run("(" + mUnmake + ") >/tmp/said 2>&1 || { cat /tmp/said; false; }"));
    run("for disk in vda vdc; do dd if=/dev/zero of=/dev/$disk bs=1M count=20 conv=fsync 2>/dev/null; done");
  }
  Origin(const Origin&) = delete;
  Origin& operator=(const Origin&) = delete;

 private:
  std::string mUnmake;
};

constexpr char kDmsetup[] = "dmsetup --noudevsync --noudevrules ";

TEST(Origins, a_partition) {
  const Origin origin("printf 'n\\np\\n1\\n2048\\n411647\\nw\\n' | fdisk -u /dev/vda; test -b /dev/vda1",
                      "dd if=/dev/zero of=/dev/vda bs=512 count=1 conv=fsync; blockdev --rereadpt /dev/vda");
  holdsUnderWriters("/dev/vda1", kExt4, Relocation::kOnItself, Blocks::kUnwritten);
}

TEST(Origins, a_linear_mapping) {
  const Origin origin(kDmsetup + std::string("create lin --table '0 400000 linear /dev/vda 4096'; dmsetup mknodes"),
                      kDmsetup + std::string("remove lin"));
  holdsUnderWriters("/dev/mapper/lin", kExt4, Relocation::kOnItself, Blocks::kUnwritten);
}

TEST(Origins, a_logical_volume) {
  const Origin origin(
      "lvm pvcreate -y /dev/vda /dev/vdc && lvm vgcreate vg /dev/vda /dev/vdc && "
      "lvm lvcreate -y -Wn -Zn -i 2 -L 200M -n data vg && lvm vgmknodes vg && test -b /dev/vg/data",
      "lvm vgremove -y -f vg && lvm pvremove -y /dev/vda /dev/vdc");
  holdsUnderWriters("/dev/vg/data", kExt4, Relocation::kOnItself, Blocks::kUnwritten);
}

TEST(Origins, an_encrypted_volume) {
  const Origin origin(
      "echo -n pass | cryptsetup -q luksFormat --pbkdf pbkdf2 --pbkdf-force-iterations 1000 /dev/vda - && "
      "echo -n pass | cryptsetup -q open /dev/vda secret --key-file -",
      "cryptsetup close secret");
  holdsUnderWriters("/dev/mapper/secret", kExt4, Relocation::kOnItself, Blocks::kUnwritten);
}

TEST(Origins, a_mirror) {
  const Origin origin(
      "mdadm --create /dev/md0 --run --metadata=1.2 --level=1 --assume-clean --size=204800 --raid-devices=2 /dev/vda "
      "/dev/vdc </dev/null",
      "mdadm -S /dev/md0 && mdadm --zero-superblock /dev/vda /dev/vdc");
  holdsUnderWriters("/dev/md0", kExt4, Relocation::kOnItself, Blocks::kUnwritten);
}

// What a file system gives up with a discard is still in the snapshot.
void keepsWhatIsTrimmed(const std::string& options, const std::string& trim) {
  Mounted volume("/dev/vda", "/mnt/a", kExt4.name, kExt4.make, options);
  Mounted store = ext4("/dev/vdb", "/mnt/b");
  const Discarded discarded({"/dev/vda"});
  {
    FileWriters writers(volume.folder(), 4, 8 * kMiB);
    writers.waitFor(1000);
    ASSERT_EQ(writers.stop(), 0);
  }
  const Frozen frozen = snapFrozen(snapOf("/dev/vda", store.makeFile("reloc", 200 * kMiB), "/dev/vdb"), "/dev/vda");
  ASSERT_EQ(frozen.result, (Result{0, 0}));
  ASSERT_TRUE(run("rm -f /mnt/a/writer*; sync; " + trim));
  FileWriters writers(volume.folder(), 4, 8 * kMiB);
  writers.waitFor(1000);
  ASSERT_TRUE(run(trim));
  EXPECT_EQ(writers.stop(), 0);
  EXPECT_EQ(differences(sums(snapshotOf("/dev/vda")), frozen.sums), 0u);
  EXPECT_EQ(discard({"/dev/vda"}), (Result{0, 0}));
}

TEST(Trimmed, blocks_of_a_mount_that_discards_stay_in_the_snapshot) { keepsWhatIsTrimmed("discard", "sync"); }
TEST(Trimmed, blocks_by_fstrim_stay_in_the_snapshot) { keepsWhatIsTrimmed("", "fstrim /mnt/a"); }

}  // namespace
}  // namespace guest
