// SPDX-License-Identifier: Apache-2.0
#include "reloc/BlockFinder.h"

#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/vfs.h>

#include <algorithm>
#include <cerrno>

namespace {

constexpr long kExt4Magic = 0xEF53;  // ext2's and ext3's as well: they have no unwritten extents

// The flags of an extent that is allocated, unwritten, and nothing else. The others leave the address open, or the
// blocks to more than this file.
constexpr std::uint32_t kHarmlessFlags = FIEMAP_EXTENT_UNWRITTEN | FIEMAP_EXTENT_LAST | FIEMAP_EXTENT_MERGED;

bool isAllocatedUnwritten(const fiemap_extent& extent, std::uint64_t blockSize) {
  if ((extent.fe_flags & FIEMAP_EXTENT_UNWRITTEN) == 0 || (extent.fe_flags & ~kHarmlessFlags) != 0) return false;
  if (extent.fe_physical == 0) return false;
  return extent.fe_logical % blockSize == 0 && extent.fe_physical % blockSize == 0 && extent.fe_length % blockSize == 0;
}

}  // namespace

FoundBlocks BlockFinder::at(std::uint64_t logical) {
  int block = static_cast<int>(logical);
  if (ioctl(mFile, FIBMAP, &block) != 0) return {errno, 0, 0};
  if (block < 0) return {EOVERFLOW, 0, 0};  // a block beyond what the request can answer, cut by the kernel
  if (block != 0) return {0, static_cast<std::uint64_t>(block), 1};
  return unwrittenAt(logical);
}

bool BlockFinder::findsHole() {
  for (std::uint64_t logical = 0; logical < mNumBlocks;) {
    const FoundBlocks found = at(logical);
    if (found.error != 0) return false;
    if (found.count == 0) return true;
    logical += found.count;
  }
  return false;
}

FoundBlocks BlockFinder::unwrittenAt(std::uint64_t logical) {
  constexpr FoundBlocks kHole{0, 0, 0};
  if (logical >= mNumBlocks || !liesOnExt4()) return kHole;
  const fiemap_extent* const extent = extentAt(logical * mBlockSize);
  if (extent == nullptr || !isAllocatedUnwritten(*extent, mBlockSize)) return kHole;
  // The extent may begin before the block, and end behind the file.
  const std::uint64_t before = logical - extent->fe_logical / mBlockSize;
  const std::uint64_t rest = extent->fe_length / mBlockSize - before;
  return {0, extent->fe_physical / mBlockSize + before, std::min(rest, mNumBlocks - logical)};
}

bool BlockFinder::liesOnExt4() {
  if (!mLiesOnExt4) {
    struct statfs status {};
    mLiesOnExt4 = fstatfs(mFile, &status) == 0 && status.f_type == kExt4Magic;
  }
  return *mLiesOnExt4;
}

// The extent that has the byte; null when it is a hole's.
const fiemap_extent* BlockFinder::extentAt(std::uint64_t byte) {
  const fiemap_extent* extent = nextExtentFrom(byte);
  if (extent == nullptr && readExtentsFrom(byte)) extent = nextExtentFrom(byte);
  return extent != nullptr && extent->fe_logical <= byte ? extent : nullptr;
}

// The first extent of the last answer that ends behind the byte.
const fiemap_extent* BlockFinder::nextExtentFrom(std::uint64_t byte) {
  const auto* const extents = reinterpret_cast<const fiemap_extent*>(mAnswer.data() + sizeof(fiemap));
  for (; mNext < head().fm_mapped_extents; ++mNext) {
    const fiemap_extent& extent = extents[mNext];
    if (extent.fe_logical > byte || byte - extent.fe_logical < extent.fe_length) return &extent;
  }
  return nullptr;
}

bool BlockFinder::readExtentsFrom(std::uint64_t byte) {
  auto& request = *reinterpret_cast<fiemap*>(mAnswer.data());
  request = {};
  request.fm_start = byte;
  request.fm_length = mNumBlocks * mBlockSize - byte;
  request.fm_extent_count = kExtentsAtOnce;
  mNext = 0;
  if (ioctl(mFile, FS_IOC_FIEMAP, &request) == 0 && request.fm_mapped_extents <= kExtentsAtOnce) return true;
  request.fm_mapped_extents = 0;
  return false;
}
