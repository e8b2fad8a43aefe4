// SPDX-License-Identifier: Apache-2.0
#include "emulator/machine/SparseCopy.h"

#include <sys/types.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>
#include <thread>

#include "base/Handle.h"

namespace emulator {
namespace {

constexpr std::size_t kChunk = 1 << 20;
constexpr std::size_t kBlock = 4096;  // zeros are skipped in units of this size

bool isZero(const char* block, std::size_t length) {
  return block[0] == 0 && std::memcmp(block, block + 1, length - 1) == 0;
}

int writeAt(int target, const char* data, std::size_t length, std::uint64_t at) {
  while (length > 0) {
    const ssize_t written = pwrite(target, data, length, static_cast<off_t>(at));
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) return errno;
    if (written == 0) return ENOSPC;
    data += written;
    at += static_cast<std::size_t>(written);
    length -= static_cast<std::size_t>(written);
  }
  return 0;
}

// Writes the pieces that are not zero, adjacent ones together.
int writeData(int target, const char* data, std::size_t length, std::uint64_t at) {
  for (std::size_t start = 0; start < length;) {
    std::size_t end = start;
    while (end < length && !isZero(data + end, std::min(kBlock, length - end))) end += std::min(kBlock, length - end);
    if (end > start) {
      if (const int error = writeAt(target, data + start, end - start, at + start); error != 0) return error;
    }
    start = end < length ? end + std::min(kBlock, length - end) : end;
  }
  return 0;
}

class Copier {
 public:
  Copier(const SparseCopy& copy, const std::function<int()>& stop)
      : mCopy(copy), mStop(stop), mBuffer(static_cast<char*>(std::aligned_alloc(kBlock, kChunk))) {
    if (mBuffer == nullptr) throw std::bad_alloc();
  }

  CopyResult run() {
    if (ftruncate(mCopy.target, static_cast<off_t>(mCopy.bytes)) != 0) return {errno, 0, true};
    for (std::uint64_t start = 0; start < mCopy.bytes;) {
      const auto [dataStart, dataEnd] = nextData(start);
      if (const CopyResult result = copyRange(dataStart, dataEnd); result.error != 0) return result;
      start = dataEnd;
    }
    return {};
  }

 private:
  struct Range {
    std::uint64_t start, end;
  };

  // The next range with data at or after `start`; an empty one at the end when there is none.
  Range nextData(std::uint64_t start) const {
    if (!mCopy.hasHoles) return {start, mCopy.bytes};
    const off_t data = lseek(mCopy.source, static_cast<off_t>(mCopy.offset + start), SEEK_DATA);
    if (data < 0) return {errno == ENXIO ? mCopy.bytes : start, mCopy.bytes};
    const off_t hole = lseek(mCopy.source, data, SEEK_HOLE);
    const auto inCopy = [&](off_t at) { return std::min(static_cast<std::uint64_t>(at) - mCopy.offset, mCopy.bytes); };
    return {inCopy(data), hole < 0 ? mCopy.bytes : inCopy(hole)};
  }

  CopyResult copyRange(std::uint64_t start, std::uint64_t end) {
    while (start < end) {
      if (const int error = mStop(); error != 0) return {error, 0, false};
      const std::size_t wanted = std::min<std::uint64_t>(kChunk, end - start);
      const ssize_t got = pread(mCopy.source, mBuffer.get(), wanted, static_cast<off_t>(mCopy.offset + start));
      if (got < 0 && errno == EINTR) continue;
      if (got < 0) return {errno, 0, false};
      if (got == 0) return {};  // a loop device's file that was cut reads as zeros
      const auto length = static_cast<std::size_t>(got);
      if (const int error = writeData(mCopy.target, mBuffer.get(), length, start); error != 0) return {error, 0, true};
      start += length;
    }
    return {};
  }

  const SparseCopy& mCopy;
  const std::function<int()>& mStop;
  std::unique_ptr<char, FreeMemory> mBuffer;
};

}  // namespace

CopyResult copyAll(const std::vector<SparseCopy>& copies, const std::function<int()>& stop) {
  std::atomic<std::size_t> next{0};
  std::atomic<int> failed{0};
  std::mutex mutex;
  CopyResult outcome;
  const std::function<int()> stopOrFailed = [&] {
    const int error = failed;
    return error != 0 ? error : stop();
  };
  const auto work = [&] {
    for (std::size_t i = 0; (i = next++) < copies.size() && failed == 0;) {
      CopyResult result;
      try {
        result = Copier(copies[i], stopOrFailed).run();
      } catch (const std::bad_alloc&) {
        result = {ENOMEM, 0, false};
      }
      if (result.error == 0) continue;
      const std::lock_guard lock(mutex);
      if (outcome.error == 0) outcome = {result.error, i, result.whileWriting};
      failed = result.error;
    }
  };
  {
    std::vector<std::jthread> helpers;
    const std::size_t workers = std::min<std::size_t>(copies.size(), std::max(1u, std::thread::hardware_concurrency()));
    while (helpers.size() + 1 < workers) helpers.emplace_back(work);
    work();
  }
  return outcome;
}

}  // namespace emulator
