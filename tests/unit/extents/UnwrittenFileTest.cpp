// SPDX-License-Identifier: Apache-2.0
//
// Relocation files whose blocks are allocated and unwritten: their runs are those that they would have once written,
// and whatever leaves a block's place open is a hole.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/fiemap.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <limits>
#include <stdexcept>

#include "MappedFile.h"
#include "base/Handle.h"

using test::Extent;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr char kSparse[] = "Relocation file is sparse, not supported.\n";

UniqueFd openOrMake(const std::string& path) {
  UniqueFd file(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
  if (!file) throw std::runtime_error("cannot open " + path);
  return file;
}

void allocate(const std::string& path, std::uint64_t bytes, int mode = 0) {
  const UniqueFd file = openOrMake(path);
  if (fallocate(file.get(), mode, 0, static_cast<off_t>(bytes)) != 0 || fsync(file.get()) != 0)
    throw std::runtime_error("cannot allocate " + path);
}

void punchHole(const std::string& path, std::uint64_t offset, std::uint64_t bytes) {
  const UniqueFd file = openOrMake(path);
  if (fallocate(file.get(), FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, static_cast<off_t>(offset),
                static_cast<off_t>(bytes)) != 0)
    throw std::runtime_error("cannot punch a hole into " + path);
}

std::uint64_t sizeOf(const std::string& path) {
  struct stat status {};
  if (stat(path.c_str(), &status) != 0) throw std::runtime_error("cannot examine " + path);
  return static_cast<std::uint64_t>(status.st_size);
}

// Writes every block of a file in its place.
void overwrite(const std::string& path) {
  const std::uint64_t bytes = sizeOf(path);
  for (std::uint64_t at = 0; at < bytes; at += 16 << 20)
    test::writeAt(path, at, std::min<std::uint64_t>(bytes - at, 16 << 20));
}

// Leaves every other block of the file system free, and no two side by side.
void fragment(const test::Volume& volume, std::uint64_t blockSize) {
  struct statfs status {};
  statfs(volume.folder().c_str(), &status);
  const std::string filling = volume.folder() + "/filling";
  const std::uint64_t blocks = status.f_bfree * 9 / 10;
  allocate(filling, blocks * blockSize);
  const UniqueFd rest = openOrMake(volume.folder() + "/rest");
  const std::string block(blockSize, 'x');
  while (write(rest.get(), block.data(), block.size()) == static_cast<ssize_t>(blockSize)) {
  }
  for (std::uint64_t i = 0; i < blocks; i += 2) punchHole(filling, i * blockSize, blockSize);
}

// An ext4 file system that puts a file's blocks where its directory is, as far as it can.
class PlainExt4 {
 public:
  PlainExt4(std::uint64_t bytes, const std::vector<std::string>& options) : mDevice(bytes) {
    mDevice.mkfs("ext4", options);
    mountAnew();
  }
  void mountAnew() {
    mMounted.reset();
    mMounted.emplace(mDevice.path(), mFolder.path(), "ext4", 0, "mb_optimize_scan=0");
  }
  const std::string& folder() const { return mFolder.path(); }
  const test::LoopDevice& device() const { return mDevice; }

 private:
  test::LoopDevice mDevice;
  test::TempDir mFolder;
  std::optional<test::Mounted> mMounted;
};

// A real file.
class AllocatedFile : public test::SnapCommandSize {
 protected:
  void requestOn(const PlainExt4& ext4, unsigned int blockSize, const std::string& file) {
    volumes.emplace_back(blockSize, 1000UL, ext4.device().wpath(), false, true, 0u);
    volumes.back().setRelocFileName(file);
  }
  // Its runs are those that FIBMAP gives once every block is written.
  void expectRunsOfWrittenFile(const std::string& file, std::uint64_t blockSize, std::uint64_t factor = 1) {
    ASSERT_EQ(ask(), 0) << log.dump();
    const std::uint64_t blocks = (sizeOf(file) + blockSize - 1) / blockSize;
    const std::vector<std::uint64_t> unmapped = test::physicalBlocks(file, static_cast<int>(blocks));
    EXPECT_GT(std::count(unmapped.begin(), unmapped.end(), 0u), 0) << "nothing is unwritten";
    overwrite(file);
    EXPECT_EQ(runsOf(0), test::asRuns(test::physicalBlocks(file, static_cast<int>(blocks)), factor));
    EXPECT_EQ(size, test::kEntry + 16 * runsOf(0).size());
  }
};

// A file that is one hole to FIBMAP, and whose extents are as the test says.
class UnwrittenFile : public test::MappedFile {
 protected:
  void requestUnwritten(std::uint64_t count, unsigned int blockSize = 4096) {
    requestFile(count, blockSize);
    answerBlocks(std::vector<int>(std::max<std::size_t>(count, 1), 0));
  }
  // FS_IOC_FIEMAP answers those extents that end behind the start that is asked for, as many as it has room for.
  void answerExtents(std::vector<fiemap_extent> extents) {
    driver.intercept(FS_IOC_FIEMAP, [this, extents](int, void* argument) {
      auto& request = *static_cast<fiemap*>(argument);
      ranges.emplace_back(request.fm_start, request.fm_length);
      request.fm_mapped_extents = 0;
      for (const fiemap_extent& extent : extents) {
        if (extent.fe_logical + extent.fe_length <= request.fm_start) continue;
        if (request.fm_mapped_extents == request.fm_extent_count) break;
        request.fm_extents[request.fm_mapped_extents++] = extent;
      }
      return 0;
    });
  }
  // In bytes.
  static fiemap_extent extent(std::uint64_t logical, std::uint64_t physical, std::uint64_t length,
                              std::uint32_t flags = FIEMAP_EXTENT_UNWRITTEN) {
    fiemap_extent made{};
    made.fe_logical = logical;
    made.fe_physical = physical;
    made.fe_length = length;
    made.fe_flags = flags;
    return made;
  }
  // In blocks of 4096 bytes.
  static fiemap_extent blocks(std::uint64_t logical, std::uint64_t physical, std::uint64_t count,
                              std::uint32_t flags = FIEMAP_EXTENT_UNWRITTEN) {
    return extent(logical * 4096, physical * 4096, count * 4096, flags);
  }

  std::vector<Extent> ranges;  // start and length of each FS_IOC_FIEMAP, in bytes
};

class RefusedFlag : public UnwrittenFile, public testing::WithParamInterface<std::uint32_t> {};

}  // namespace

// --- Real files.

TEST_F(AllocatedFile, of_4_KiB_blocks_has_the_runs_of_a_written_one) {
  const test::Volume volume("ext4", 64 << 20, {"-b", "4096"});
  const std::string file = volume.folder() + "/reloc";
  allocate(file, 9'000'000);  // its last block in part
  request(volume, 4096, file);
  expectRunsOfWrittenFile(file, 4096);
}

TEST_F(AllocatedFile, of_1_KiB_blocks_on_a_record_of_512_bytes_has_the_doubled_runs_of_a_written_one) {
  const test::Volume volume("ext4", 64 << 20, {"-b", "1024"});
  const std::string file = volume.folder() + "/reloc";
  allocate(file, 30 << 20);
  request(volume, 512, file);
  expectRunsOfWrittenFile(file, 1024, 2);
}

TEST_F(AllocatedFile, that_is_torn_has_the_runs_of_a_written_one) {
  const test::Volume volume("ext4", 32 << 20, {"-b", "1024", "-m", "0"});
  fragment(volume, 1024);
  const std::string file = volume.folder() + "/reloc";
  allocate(file, 2000 * 1024);
  request(volume, 1024, file);
  expectRunsOfWrittenFile(file, 1024);
  EXPECT_GT(runsOf(0).size(), 500u);
}

// ext4 cuts an unwritten extent at 32,767 blocks, and a written one at 32,768.
TEST_F(AllocatedFile, of_more_blocks_than_fit_an_extent_has_the_runs_of_a_written_one) {
  PlainExt4 ext4(256 << 20, {"-b", "1024", "-O", "sparse_super2"});
  const std::string file = ext4.folder() + "/reloc";
  allocate(file, 100 << 20);
  ext4.mountAnew();  // no extent is in the kernel's cache, merged
  requestOn(ext4, 1024, file);
  expectRunsOfWrittenFile(file, 1024);
  std::uint64_t longest = 0;
  for (const auto& [start, count] : runsOf(0)) longest = std::max(longest, count);
  EXPECT_GT(longest, 32768u) << "nothing was merged";
}

TEST_F(AllocatedFile, that_is_written_in_part_has_the_runs_of_a_written_one) {
  const test::Volume volume("ext4", 64 << 20, {"-b", "4096"});
  const std::string file = volume.folder() + "/reloc";
  allocate(file, 1000 * 4096);
  for (const std::uint64_t block : {0, 7, 8, 500, 999}) test::writeAt(file, block * 4096, 4096);
  request(volume, 4096, file);
  expectRunsOfWrittenFile(file, 4096);
}

TEST_F(AllocatedFile, behind_2_to_the_31_blocks_of_a_volume_has_runs_there) {
  PlainExt4 ext4(std::uint64_t{15} << 40, {"-b", "4096", "-O", "^has_journal,^resize_inode,sparse_super2", "-N",
                                           "1000000", "-E", "lazy_itable_init=1,nodiscard"});
  constexpr std::uint64_t kBeyond = std::uint64_t{1} << 31;
  // The first small file of each directory at the top lies somewhere else: in every other try behind.
  for (int i = 0; i < 40 && (runs.empty() || runsOf(0).front().first < kBeyond); ++i) {
    ext4.mountAnew();
    const std::string folder = ext4.folder() + "/" + std::to_string(i);
    ASSERT_EQ(mkdir(folder.c_str(), 0700), 0);
    allocate(folder + "/reloc", 10 * 4096);
    volumes.clear();
    freeRunMap(runs);
    requestOn(ext4, 4096, folder + "/reloc");
    ASSERT_EQ(ask(), 0) << log.dump();
  }
  EXPECT_THAT(runsOf(0), ElementsAre(testing::Pair(testing::Gt(kBeyond), 10u)));
}

TEST_F(AllocatedFile, with_a_hole_between_unwritten_extents_is_refused) {
  const test::Volume volume("ext4", 64 << 20, {"-b", "4096"});
  const std::string file = volume.folder() + "/reloc";
  allocate(file, 1000 * 4096);
  punchHole(file, 500 * 4096, 4096);
  request(volume, 4096, file);
  expectRefused(file, kSparse);
}

TEST_F(AllocatedFile, of_size_0_with_blocks_behind_its_end_is_refused) {
  const test::Volume volume("ext4", 64 << 20, {"-b", "4096"});
  const std::string file = volume.folder() + "/reloc";
  allocate(file, 100 * 4096, FALLOC_FL_KEEP_SIZE);
  request(volume, 4096, file);
  driver.intercept(FS_IOC_FIEMAP, [](int, void*) {
    ADD_FAILURE() << "extents were asked for";
    return std::nullopt;
  });
  expectRefused(file, kSparse);
}

TEST_F(AllocatedFile, with_blocks_behind_its_end_has_only_those_before) {
  const test::Volume volume("ext4", 64 << 20, {"-b", "4096"});
  const std::string file = volume.folder() + "/reloc";
  allocate(file, 100 * 4096);
  allocate(file, 200 * 4096, FALLOC_FL_KEEP_SIZE);
  request(volume, 4096, file);
  expectRunsOfWrittenFile(file, 4096);
}

TEST_F(AllocatedFile, on_xfs_is_refused_unasked_for_its_extents) {
  const test::Volume volume("xfs", 300 << 20);
  const std::string file = volume.folder() + "/reloc";
  allocate(file, 100 * 4096);
  request(volume, 4096, file);
  driver.intercept(FS_IOC_FIEMAP, [](int, void*) {
    ADD_FAILURE() << "extents were asked for";
    return std::nullopt;
  });
  expectRefused(file, kSparse);
}

// --- What the kernel may answer.

TEST_F(UnwrittenFile, is_asked_once_an_extent_and_its_extents_all_at_once) {
  requestUnwritten(30);
  answerExtents({blocks(0, 100, 10), blocks(10, 200, 15), blocks(25, 50, 5, 0x800 | FIEMAP_EXTENT_LAST)});
  ASSERT_EQ(ask(), 0) << log.dump();
  EXPECT_THAT(runsOf(0), ElementsAre(Extent(100, 10), Extent(200, 15), Extent(50, 5)));
  EXPECT_THAT(asked, ElementsAre(0, 10, 25));
  EXPECT_THAT(ranges, ElementsAre(Extent(0, 30 * 4096)));
}

TEST_F(UnwrittenFile, of_more_extents_than_one_answer_holds_is_asked_again_from_where_it_ended) {
  requestUnwritten(1000);
  std::vector<fiemap_extent> extents;
  std::vector<Extent> expected;
  for (std::uint64_t i = 0; i < 1000; ++i) {
    extents.push_back(blocks(i, 1000 + 2 * i, 1));
    expected.emplace_back(1000 + 2 * i, 1);
  }
  answerExtents(extents);
  ASSERT_EQ(ask(), 0) << log.dump();
  EXPECT_EQ(runsOf(0), expected);
  EXPECT_EQ(asked.size(), 1000u);
  EXPECT_THAT(ranges, testing::SizeIs(8));
  EXPECT_EQ(ranges.at(1), Extent(128 * 4096, (1000 - 128) * 4096));
}

TEST_F(UnwrittenFile, grows_its_run_over_extents_that_continue_each_other) {
  requestUnwritten(70000);
  answerExtents({blocks(0, 1000, 32767), blocks(32767, 33767, 32767), blocks(65534, 66534, 4466)});
  ASSERT_EQ(ask(), 0) << log.dump();
  EXPECT_THAT(runsOf(0), ElementsAre(Extent(1000, 70000)));
  EXPECT_THAT(asked, ElementsAre(0, 32767, 65534));
}

TEST_F(UnwrittenFile, grows_its_run_from_written_to_unwritten_blocks_and_back) {
  requestFile(6);
  answerBlocks({40, 0, 0, 43, 0, 60});
  answerExtents({blocks(0, 40, 1, 0), blocks(1, 41, 2), blocks(3, 43, 1, 0), blocks(4, 44, 1), blocks(5, 60, 1, 0)});
  ASSERT_EQ(ask(), 0) << log.dump();
  EXPECT_THAT(runsOf(0), ElementsAre(Extent(40, 5), Extent(60, 1)));
  EXPECT_THAT(asked, ElementsAre(0, 1, 3, 4, 5));
}

TEST_F(UnwrittenFile, takes_of_an_extent_that_begins_before_the_block_what_comes_from_there) {
  requestFile(10);
  answerBlocks({7, 8, 9, 10, 0, 0, 0, 0, 0, 0});
  answerExtents({blocks(2, 102, 8)});
  ASSERT_EQ(ask(), 0) << log.dump();
  EXPECT_THAT(runsOf(0), ElementsAre(Extent(7, 4), Extent(104, 6)));
}

TEST_F(UnwrittenFile, takes_of_an_extent_that_ends_behind_the_file_what_comes_before) {
  test::makeSparse(file, 3 * 4096 + 1);  // four blocks
  request(volume, 4096, file);
  answerBlocks({0, 0, 0, 0});
  answerExtents({blocks(0, 100, 1000)});
  ASSERT_EQ(ask(), 0) << log.dump();
  EXPECT_THAT(runsOf(0), ElementsAre(Extent(100, 4)));
  EXPECT_THAT(ranges, ElementsAre(Extent(0, 4 * 4096)));
}

TEST_F(UnwrittenFile, is_scaled_as_a_written_one) {
  requestUnwritten(10, 512);
  answerExtents({blocks(0, 100, 3), blocks(3, 7, 7)});
  ASSERT_EQ(ask(), 0) << log.dump();
  EXPECT_THAT(runsOf(0), ElementsAre(Extent(800, 24), Extent(56, 56)));
}

// FIBMAP could not name such a block of a written file.
TEST_F(UnwrittenFile, may_lie_behind_2_to_the_32_blocks) {
  requestUnwritten(10);
  answerExtents({blocks(0, std::uint64_t{5} << 40, 10)});
  ASSERT_EQ(ask(), 0) << log.dump();
  EXPECT_THAT(runsOf(0), ElementsAre(Extent(std::uint64_t{5} << 40, 10)));
}

TEST_F(UnwrittenFile, takes_the_flags_of_the_last_and_of_a_merged_extent) {
  requestUnwritten(10);
  answerExtents({blocks(0, 100, 10, FIEMAP_EXTENT_UNWRITTEN | FIEMAP_EXTENT_LAST | FIEMAP_EXTENT_MERGED)});
  ASSERT_EQ(ask(), 0) << log.dump();
  EXPECT_THAT(runsOf(0), ElementsAre(Extent(100, 10)));
}

TEST_P(RefusedFlag, of_a_later_extent_makes_it_a_hole) {
  requestUnwritten(10);
  answerExtents({blocks(0, 100, 5), blocks(5, 105, 5, FIEMAP_EXTENT_UNWRITTEN | GetParam())});
  expectRefused(file, kSparse);
  EXPECT_THAT(asked, ElementsAre(0, 5));
}

INSTANTIATE_TEST_SUITE_P(All, RefusedFlag,
                         testing::Values(FIEMAP_EXTENT_UNKNOWN, FIEMAP_EXTENT_DELALLOC, FIEMAP_EXTENT_ENCODED,
                                         FIEMAP_EXTENT_DATA_ENCRYPTED, FIEMAP_EXTENT_NOT_ALIGNED,
                                         FIEMAP_EXTENT_DATA_INLINE, FIEMAP_EXTENT_DATA_TAIL, FIEMAP_EXTENT_SHARED,
                                         0x4000, 0x80000000));  // and such as no kernel has yet

TEST_F(UnwrittenFile, that_has_a_written_extent_where_FIBMAP_says_hole_is_refused) {
  requestUnwritten(10);
  answerExtents({blocks(0, 100, 10, FIEMAP_EXTENT_LAST)});
  expectRefused(file, kSparse);
}

TEST_F(UnwrittenFile, without_an_address_is_refused) {
  requestUnwritten(10);
  answerExtents({blocks(0, 0, 10)});
  expectRefused(file, kSparse);
}

TEST_F(UnwrittenFile, whose_extent_does_not_consist_of_whole_blocks_is_refused) {
  requestFile(10);
  answerBlocks({7, 0});
  for (const fiemap_extent& odd :
       {extent(4095, 409600, 36865), extent(4096, 409600 + 512, 36864), extent(4096, 409600, 36864 + 512)}) {
    answerExtents({odd});
    expectRefused(file, kSparse);
  }
}

TEST_F(UnwrittenFile, whose_extents_leave_the_block_out_is_refused) {
  requestFile(10);
  answerBlocks({7, 0});
  for (const fiemap_extent& other : {blocks(2, 100, 8), blocks(0, 100, 1), blocks(1, 100, 0)}) {
    answerExtents({other});
    expectRefused(file, kSparse);
  }
  answerExtents({});
  expectRefused(file, kSparse);
}

TEST_F(UnwrittenFile, whose_extents_cannot_be_had_is_refused) {
  requestUnwritten(10);
  driver.intercept(FS_IOC_FIEMAP, [](int, void*) { return EOPNOTSUPP; });
  expectRefused(file, kSparse);
  // Nor is a count followed that is beyond the room.
  driver.intercept(FS_IOC_FIEMAP, [](int, void* argument) {
    static_cast<fiemap*>(argument)->fm_mapped_extents = std::numeric_limits<std::uint32_t>::max();
    return 0;
  });
  expectRefused(file, kSparse);
}

TEST_F(UnwrittenFile, is_not_asked_for_extents_while_FIBMAP_fails) {
  requestFile(10);
  answerBlocks({0, 0, 0, 0, -EIO});
  answerExtents({blocks(0, 100, 4)});
  expectRefused(file, "FIBMAP ioctl failed - errno: Input/output error\n");
  EXPECT_THAT(ranges, testing::SizeIs(1));
}

TEST_F(UnwrittenFile, of_size_0_is_refused_unasked_for_extents) {
  requestUnwritten(0);
  answerExtents({blocks(0, 100, 10)});
  expectRefused(file, kSparse);
  EXPECT_THAT(ranges, IsEmpty());
}

// The list of runs is as long as the command has room, also in an extent.
TEST_F(UnwrittenFile, of_more_extents_than_the_command_has_room_for_is_a_lack_of_memory) {
  requestUnwritten(5);
  answerExtents({blocks(0, 100, 1), blocks(1, 200, 1), blocks(2, 300, 1), blocks(3, 400, 2)});
  size = std::numeric_limits<unsigned int>::max() - test::kEntry - 3 * 16 - 15;
  EXPECT_EQ(ask(), 3);
  EXPECT_EQ(log.texts(LOG_ERR).back(), "Memory Allocation failure.\n");
  EXPECT_THAT(asked, ElementsAre(0, 1, 2, 3));
}
