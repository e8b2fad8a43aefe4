// SPDX-License-Identifier: Apache-2.0
//
// Relocation files on real file systems: every block must have a physical place that can be told, or the snapshot is
// refused as sparse.
#include <fcntl.h>
#include <linux/fiemap.h>
#include <linux/fs.h>
#include <sys/ioctl.h>

#include <algorithm>
#include <limits>
#include <ostream>
#include <stdexcept>

#include "RelocTest.h"
#include "base/Handle.h"

namespace test {
namespace {

struct Kind {
  const char* name;
  const char* fileSystem;
  std::uint64_t bytes;
  std::vector<std::string> mkfsOptions;
  unsigned int blockSize;
  const char* created;  // the message of success
  bool writtenOut;
  bool mapped;  // FIBMAP tells the blocks
};

// Bytes of the file that its extents give a place, written or not.
std::uint64_t placedBytes(const std::string& path) {
  const UniqueFd file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  std::vector<std::uint64_t> room(4096);
  auto& answer = *reinterpret_cast<fiemap*>(room.data());
  answer.fm_length = std::numeric_limits<std::uint64_t>::max();
  answer.fm_extent_count = 500;
  if (ioctl(file.get(), FS_IOC_FIEMAP, &answer) != 0) throw std::runtime_error("cannot read the extents of " + path);
  std::uint64_t bytes = 0;
  for (std::uint32_t i = 0; i < answer.fm_mapped_extents; ++i) {
    const fiemap_extent& extent = answer.fm_extents[i];
    if (extent.fe_physical != 0 && (extent.fe_flags & FIEMAP_EXTENT_UNKNOWN) == 0) bytes += extent.fe_length;
  }
  return bytes;
}

void PrintTo(const Kind& kind, std::ostream* out) { *out << kind.name; }

class RealVolume : public RelocTest, public testing::WithParamInterface<Kind> {
 protected:
  RealVolume() : volume(GetParam().fileSystem, GetParam().bytes, GetParam().mkfsOptions) {
    machine.list(volume.device(), volume.folder());
  }

  void expectWhole(LinuxSnapshotreloc& reloc, bool mapped = GetParam().mapped) {
    EXPECT_EQ(placedBytes(reloc.mRelocFileName), reloc.mRelocNumBlks * GetParam().blockSize);
    const std::vector<int> blocks = physicalBlocks(reloc.mRelocFileName);
    EXPECT_EQ(blocks.size(), reloc.mRelocNumBlks);
    EXPECT_EQ(std::count(blocks.begin(), blocks.end(), 0), mapped ? 0 : std::ssize(blocks)) << "holes";
  }

  const Volume volume;
};

TEST_P(RealVolume, holds_its_own_relocation_file_with_every_block_mapped) {
  LinuxSnapshotreloc reloc(volume.device(), GetParam().blockSize, 1000000UL, 300UL);
  ASSERT_EQ(reloc.initialize(), 0u);
  EXPECT_EQ(reloc.mRelocFileName, volume.folder() + "/.verrelocarea/" + volume.device().substr(5));
  EXPECT_EQ(reloc.mRelocNumBlks, 300u);
  log.clear();
  ASSERT_EQ(reloc.CreateRelocFile(), 0u);
  EXPECT_EQ(messages().back(), GetParam().created);
  EXPECT_EQ(log.has(3, "fallocate failed with err: 0falling back to traditional method.\n"), GetParam().writtenOut);
  expectWhole(reloc);
}

TEST_P(RealVolume, holds_a_file_of_the_callers_choice_with_every_block_mapped) {
  LinuxSnapshotreloc reloc("/dev/elsewhere", GetParam().blockSize, 50, volume.folder(), 1000);
  ASSERT_EQ(reloc.validate(), 0u);
  ASSERT_EQ(reloc.initializeUserSelectedOptions(), 0u);
  ASSERT_EQ(reloc.CreateRelocFile(), 0u);
  expectWhole(reloc);
}

TEST_P(RealVolume, takes_the_file_of_another_volume_with_every_block_mapped_whatever_was_looked_at_last) {
  // Looked at behind the real volume, so that its kind is the one that is kept.
  machine.mount(machine.device("zzz"), {1, 0, GetParam().writtenOut ? kExt : kXfs});
  LinuxSnapshotreloc reloc("/dev/elsewhere", GetParam().blockSize, 50, "", 1000);
  ASSERT_EQ(reloc.initializeRelocSizeOption(), 0u);
  ASSERT_EQ(reloc.mRelocDeviceName, volume.device());
  ASSERT_EQ(reloc.CreateRelocFile(), 0u);
  expectWhole(reloc, true);
}

constexpr char kWritten[] = "[7] Reloc File successfully created.\n";
constexpr char kAllocated[] = "[3] Reloc File successfully created.\n";

INSTANTIATE_TEST_SUITE_P(
    Kinds, RealVolume,
    testing::Values(Kind{"ext4_of_1_KiB_blocks", "ext4", 32U << 20, {"-b", "1024"}, 1024, kAllocated, false, false},
                    Kind{"ext4_of_4_KiB_blocks", "ext4", 32U << 20, {"-b", "4096"}, 4096, kAllocated, false, false},
                    Kind{"xfs", "xfs", 300U << 20, {}, 4096, kWritten, true, true},
                    // The C library allocates by writing a byte of each block.
                    Kind{"ext2", "ext2", 32U << 20, {"-b", "1024"}, 1024, kAllocated, false, true}),
    [](const testing::TestParamInfo<Kind>& kind) { return kind.param.name; });

// Why extents are asked for at all.
TEST(TodaysKernel, maps_no_block_that_ext4_has_only_allocated_and_tells_its_extent) {
  const Volume volume("ext4", 32U << 20);
  const std::string path = volume.folder() + "/a";
  const UniqueFd file(open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644));
  ASSERT_EQ(posix_fallocate(file.get(), 0, 4096), 0);
  int block = 0;
  ASSERT_EQ(ioctl(file.get(), FIBMAP, &block), 0);
  EXPECT_EQ(block, 0) << "extents need not be asked for on this kernel";
  EXPECT_EQ(placedBytes(path), 4096u);
}

}  // namespace
}  // namespace test
