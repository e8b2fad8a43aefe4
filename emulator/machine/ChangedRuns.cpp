// SPDX-License-Identifier: Apache-2.0
#include "emulator/machine/ChangedRuns.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>

#include "base/Handle.h"

namespace emulator {
namespace {

constexpr std::size_t kChunk = 1 << 20;
constexpr std::size_t kAlignment = 4096;  // of what is read directly from a device

struct Side {
  int file;
  std::uint64_t offset;
  bool hasHoles;

  // The first byte at or after `start` that may be other than zero; `end` when there is none.
  std::uint64_t nextData(std::uint64_t start, std::uint64_t end) const {
    if (!hasHoles) return start;
    const off_t data = lseek(file, static_cast<off_t>(offset + start), SEEK_DATA);
    if (data < 0) return errno == ENXIO ? end : start;
    return std::min(static_cast<std::uint64_t>(data) - offset, end);
  }

  // Fills the buffer, with zeros past the end of the file. An errno.
  int read(char* buffer, std::size_t length, std::uint64_t start) const {
    while (length > 0) {
      const ssize_t got = pread(file, buffer, length, static_cast<off_t>(offset + start));
      if (got < 0 && errno == EINTR) continue;
      if (got < 0) return errno;
      if (got == 0) {
        std::memset(buffer, 0, length);
        return 0;
      }
      buffer += got;
      start += static_cast<std::uint64_t>(got);
      length -= static_cast<std::size_t>(got);
    }
    return 0;
  }
};

class Comparer {
 public:
  Comparer(const Comparison& comparison, std::uint64_t firstBlock, std::size_t room)
      : mLive{comparison.device.file.get(), comparison.device.offset, comparison.device.hasHoles},
        mImage{comparison.image, 0, true},
        mBlockSize(comparison.blockSize),
        mFirstBlock(firstBlock),
        mEnd(comparison.numBlocks * comparison.blockSize),
        mRoom(room),
        mGrain(std::max<std::uint64_t>(kAlignment, comparison.blockSize)),
        mChunk(std::max<std::uint64_t>(kChunk, comparison.blockSize)),
        mBuffer(static_cast<char*>(std::aligned_alloc(kAlignment, 2 * mChunk))) {
    if (mBuffer == nullptr) throw std::bad_alloc();
  }

  ChangedRuns run(const std::function<int()>& stop) {
    for (std::uint64_t start = onGrain(mFirstBlock * mBlockSize); start < mEnd && !mFound.more; start += mChunk) {
      if (mFound.error = stop(); mFound.error != 0) break;
      // Where neither has data, they are the same.
      start = onGrain(std::min(mLive.nextData(start, mEnd), mImage.nextData(start, mEnd)));
      if (mFound.error = compareChunk(start); mFound.error != 0) break;
    }
    return std::move(mFound);
  }

 private:
  std::uint64_t onGrain(std::uint64_t position) const { return position / mGrain * mGrain; }

  int compareChunk(std::uint64_t start) {
    const std::size_t length = std::min<std::uint64_t>(mChunk, mEnd - start);
    char* const live = mBuffer.get();
    char* const image = mBuffer.get() + mChunk;
    if (const int error = mLive.read(live, length, start); error != 0) return error;
    if (const int error = mImage.read(image, length, start); error != 0) return error;
    if (std::memcmp(live, image, length) == 0) return 0;
    for (std::size_t at = 0; at < length && !mFound.more; at += mBlockSize) {
      const std::uint64_t block = (start + at) / mBlockSize;
      if (block >= mFirstBlock && std::memcmp(live + at, image + at, mBlockSize) != 0) add(block);
    }
    return 0;
  }

  void add(std::uint64_t block) {
    std::vector<_run>& runs = mFound.runs;
    if (!runs.empty() && runs.back().startBlock + runs.back().numBlocks == block) {
      ++runs.back().numBlocks;
    } else if (runs.size() < mRoom) {
      runs.push_back({block, 1});
    } else {
      mFound.more = true;
    }
  }

  Side mLive;
  Side mImage;
  std::size_t mBlockSize;
  std::uint64_t mFirstBlock;
  std::uint64_t mEnd;  // bytes
  std::size_t mRoom;
  std::uint64_t mGrain;  // reading starts at its multiples
  std::size_t mChunk;    // a multiple of the grain
  std::unique_ptr<char, FreeMemory> mBuffer;
  ChangedRuns mFound;
};

}  // namespace

ChangedRuns findChangedRuns(const Comparison& comparison, std::uint64_t firstBlock, std::size_t room,
                            const std::function<int()>& stop) {
  return Comparer(comparison, firstBlock, room).run(stop);
}

}  // namespace emulator
