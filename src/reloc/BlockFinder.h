// SPDX-License-Identifier: Apache-2.0
//
// Where the blocks of a relocation file lie on the device of its file system. The making asks whether each can be
// found, the snap command tells the driver which they are: both have to come to the same answer.
#pragma once

#include <linux/fiemap.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>

// Blocks of a file that lie side by side on the device, in blocks of the file system.
struct FoundBlocks {
  int error;               // errno of the request that failed; 0: none did
  std::uint64_t physical;  // the first of them
  std::uint64_t count;     // 0, where nothing failed: a hole
};

// Looks one file up that nobody changes meanwhile. FIBMAP names a block a request. To it, ext4 calls a block that is
// allocated but unwritten a hole, from kernel 5.7 on: then FS_IOC_FIEMAP tells the extent, as it does for a swap file.
class BlockFinder {
 public:
  // FIBMAP numbers the blocks of a file in an int.
  static constexpr std::uint64_t kMostBlocks = std::uint64_t{1} << 31;

  // `file` is the caller's and stays open; `blockSize`, in bytes and not 0, is the file system's; `numBlocks`, at most
  // kMostBlocks, is the size of the file, the last block counted whole.
  BlockFinder(int file, unsigned int blockSize, std::uint64_t numBlocks)
      : mFile(file), mBlockSize(blockSize), mNumBlocks(numBlocks) {}

  // The block `logical`, below kMostBlocks, and the next ones of the file as far as they are known to follow it on the
  // device, none behind the end of the file. Blocks are asked for in rising order; one behind the end may be.
  FoundBlocks at(std::uint64_t logical);

  // Whether a block of the file is a hole. A file system that maps no blocks for anybody has none.
  bool findsHole();

 private:
  FoundBlocks unwrittenAt(std::uint64_t logical);
  bool liesOnExt4();
  const fiemap_extent* extentAt(std::uint64_t byte);
  const fiemap_extent* nextExtentFrom(std::uint64_t byte);
  bool readExtentsFrom(std::uint64_t byte);
  const fiemap& head() const { return *reinterpret_cast<const fiemap*>(mAnswer.data()); }

  const int mFile;
  const std::uint64_t mBlockSize;
  const std::uint64_t mNumBlocks;
  std::optional<bool> mLiesOnExt4;
  // The last answer of FS_IOC_FIEMAP, and which of its extents comes next.
  static constexpr unsigned int kExtentsAtOnce = 128;
  alignas(fiemap) std::array<std::byte, sizeof(fiemap) + kExtentsAtOnce * sizeof(fiemap_extent)> mAnswer{};
  unsigned int mNext = 0;
};
