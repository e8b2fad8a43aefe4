// SPDX-License-Identifier: Apache-2.0
#include "Volumes.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <stdexcept>

namespace guest {
namespace {

constexpr std::size_t kSector = 512;
constexpr std::size_t kWords = kSector / sizeof(std::uint64_t);
constexpr std::size_t kMost = 2048;  // sectors in one transfer

[[noreturn]] void fail(const std::string& what) { throw std::runtime_error(what + ": " + std::strerror(errno)); }

struct Descriptor {
  int number;
  Descriptor(const std::string& path, int flags) : number(open(path.c_str(), flags | O_CLOEXEC)) {
    if (number < 0) fail(path);
  }
  ~Descriptor() { close(number); }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
};

// Room for kMost sectors, aligned for direct I/O.
struct Buffer {
  std::uint64_t* words = static_cast<std::uint64_t*>(std::aligned_alloc(4096, kMost* kSector));
  ~Buffer() { std::free(words); }
};

std::uint64_t mixed(std::uint64_t x) {
  x ^= x << 13;
  x ^= x >> 7;
  return x ^ (x << 17);
}

class Random {
 public:
  explicit Random(std::uint64_t seed) : mState(seed * 0x9E3779B97F4A7C15u + 1) {}
  std::uint64_t below(std::uint64_t limit) { return (mState = mixed(mState)) % limit; }

 private:
  std::uint64_t mState;
};

void makeSector(std::uint64_t* words, std::uint64_t sector, std::uint64_t generation) {
  std::uint64_t x = (sector * 0x9E3779B97F4A7C15u) ^ generation;
  words[0] = sector;
  words[1] = generation;
  for (std::size_t i = 2; i < kWords; ++i) words[i] = x = mixed(x + 1);
}

bool isSector(const std::uint64_t* words, std::uint64_t sector, std::uint64_t generation) {
  std::uint64_t expected[kWords];
  makeSector(expected, sector, generation);
  return std::memcmp(words, expected, kSector) == 0;
}

bool transfer(ssize_t (*call)(int, std::uint64_t*, std::size_t, off_t), int file, std::uint64_t* words, Range range) {
  const std::size_t bytes = range.count * kSector;
  return call(file, words, bytes, static_cast<off_t>(range.first * kSector)) == static_cast<ssize_t>(bytes);
}
bool readSectors(int file, std::uint64_t* words, Range range) {
  return transfer([](int f, std::uint64_t* w, std::size_t n, off_t o) { return pread(f, w, n, o); }, file, words,
                  range);
}
bool writeSectors(int file, std::uint64_t* words, Range range) {
  return transfer([](int f, std::uint64_t* w, std::size_t n, off_t o) { return pwrite(f, w, n, o); }, file, words,
                  range);
}

bool liesIn(std::uint64_t sector, std::uint64_t count, const std::vector<Range>& ranges) {
  return std::any_of(ranges.begin(), ranges.end(), [=](const Range& range) {
    return sector < range.first + range.count && range.first < sector + count;
  });
}

}  // namespace

bool run(const std::string& command) { return std::system(command.c_str()) == 0; }

std::uint64_t sectorsOf(const std::string& device) {
  const Descriptor file(device, O_RDONLY);
  std::uint64_t bytes = 0;
  if (ioctl(file.number, BLKGETSIZE64, &bytes) != 0) fail(device);
  return bytes / kSector;
}

Mounted::Mounted(std::string device, std::string folder, const std::string& type, const std::string& make,
                 const std::string& options)
    : mDevice(std::move(device)), mFolder(std::move(folder)) {
  mkdir(mFolder.c_str(), 0755);
  if (!run(make + " " + mDevice + " >/dev/null 2>&1")) throw std::runtime_error(make + " " + mDevice);
  if (mount(mDevice.c_str(), mFolder.c_str(), type.c_str(), 0, options.c_str()) != 0) fail("mount " + mDevice);
}

Mounted::~Mounted() {
  if (umount(mFolder.c_str()) != 0) {
    std::perror(("umount " + mFolder).c_str());
    umount2(mFolder.c_str(), MNT_DETACH);
  }
}

std::string Mounted::makeFile(const std::string& name, std::uint64_t bytes, bool written) const {
  const std::string file = path(name);
  const Descriptor descriptor(file, O_RDWR | O_CREAT | O_TRUNC);
  fchmod(descriptor.number, 0600);  // as the driver demands of a relocation file; vfat keeps no modes
  if (posix_fallocate(descriptor.number, 0, static_cast<off_t>(bytes)) != 0) fail(file);
  if (written) {
    const std::string zeros(1 << 20, '\0');
    for (std::uint64_t at = 0; at < bytes; at += zeros.size()) {
      const std::size_t length = std::min<std::uint64_t>(zeros.size(), bytes - at);
      if (pwrite(descriptor.number, zeros.data(), length, static_cast<off_t>(at)) != static_cast<ssize_t>(length)) {
        fail(file);
      }
    }
  }
  fsync(descriptor.number);
  return file;
}

Mounted ext4(const std::string& device, const std::string& folder) {
  return Mounted(device, folder, "ext4", "mkfs.ext4 -q -F -b 4096 -E lazy_itable_init=0,lazy_journal_init=0");
}

void fill(const std::string& device, std::uint64_t generation) {
  const Descriptor file(device, O_RDWR | O_DIRECT);
  const std::uint64_t sectors = sectorsOf(device);
  const Buffer buffer;
  for (std::uint64_t at = 0; at < sectors; at += kMost) {
    const Range range{at, std::min<std::uint64_t>(kMost, sectors - at)};
    for (std::uint64_t i = 0; i < range.count; ++i) makeSector(buffer.words + i * kWords, at + i, generation);
    if (!writeSectors(file.number, buffer.words, range)) fail(device);
  }
}

std::uint64_t wrongSectors(const std::string& device, std::uint64_t generation, const std::vector<Range>& except) {
  const Descriptor file(device, O_RDONLY | O_DIRECT);
  const std::uint64_t sectors = sectorsOf(device);
  const Buffer buffer;
  std::uint64_t wrong = 0;
  for (std::uint64_t at = 0; at < sectors; at += kMost) {
    const Range range{at, std::min<std::uint64_t>(kMost, sectors - at)};
    if (!readSectors(file.number, buffer.words, range)) fail(device);
    for (std::uint64_t i = 0; i < range.count; ++i) {
      if (!isSector(buffer.words + i * kWords, at + i, generation) && !liesIn(at + i, 1, except)) ++wrong;
    }
  }
  return wrong;
}

std::vector<std::uint64_t> sums(const std::string& device) {
  const Descriptor file(device, O_RDONLY | O_DIRECT);
  const std::uint64_t sectors = sectorsOf(device);
  const Buffer buffer;
  std::vector<std::uint64_t> result;
  for (std::uint64_t at = 0; at < sectors; at += kMost) {
    const Range range{at, std::min<std::uint64_t>(kMost, sectors - at)};
    if (!readSectors(file.number, buffer.words, range)) fail(device);
    for (std::size_t block = 0; block < range.count / 8; ++block) {
      std::uint64_t sum = 1469598103934665603u;
      for (std::size_t i = 0; i < 8 * kWords; ++i) {
        sum = (sum ^ buffer.words[block * 8 * kWords + i]) * 0x100000001b3u + (sum >> 29);
      }
      result.push_back(sum);
    }
  }
  return result;
}

std::uint64_t differences(const std::vector<std::uint64_t>& a, const std::vector<std::uint64_t>& b,
                          const std::vector<Range>& except) {
  std::uint64_t different = a.size() == b.size() ? 0 : 1;
  for (std::size_t block = 0; block < std::min(a.size(), b.size()); ++block) {
    if (a[block] != b[block] && !liesIn(block * 8, 8, except)) ++different;
  }
  return different;
}

Writers::Writers(const std::string& device, Range range, unsigned int threads, bool onlySmall) {
  const std::uint64_t share = range.count / threads / 8 * 8;
  for (unsigned int i = 0; i < threads; ++i) {
    mThreads.emplace_back(&Writers::write, this, device, Range{range.first + i * share, share}, i + 2, onlySmall);
  }
}

std::int64_t Writers::stop() {
  mStop = true;
  for (std::thread& thread : mThreads) thread.join();
  mThreads.clear();
  return mFailed ? -1 : mWrong.load();
}

void Writers::waitFor(std::uint64_t writes) const {
  while (mWrites < writes && !mFailed) std::this_thread::yield();
}

void Writers::write(const std::string& device, Range range, std::uint64_t id, bool onlySmall) {
  constexpr std::uint64_t kUntouched = 0;
  constexpr std::uint64_t kUnknown = ~0ull;
  constexpr std::uint64_t kZero = ~1ull;
  const Descriptor file(device, O_RDWR | O_DIRECT);
  const Buffer buffer;
  Random random(id);
  std::vector<std::uint64_t> expected(range.count, kUntouched);
  std::uint64_t generation = id << 40;
  while (!mStop) {
    const std::uint64_t kind = onlySmall ? 0 : random.below(100);
    std::uint64_t length = kind < 60   ? 8
                           : kind < 75 ? 1 + random.below(64)
                           : kind < 95 ? 8 * (1 + random.below(32))
                                       : kMost;
    std::uint64_t offset = random.below(range.count);
    if (kind < 60) offset &= ~7ull;
    length = std::min(length, range.count - offset);
    const Range part{range.first + offset, length};
    std::uint64_t bytes[2] = {part.first * kSector, part.count * kSector};
    if (kind == 98) {
      ioctl(file.number, BLKDISCARD, bytes);
      std::fill_n(expected.begin() + static_cast<std::ptrdiff_t>(offset), length, kUnknown);
    } else if (kind == 99) {
      if (ioctl(file.number, BLKZEROOUT, bytes) != 0) mFailed = true;
      std::fill_n(expected.begin() + static_cast<std::ptrdiff_t>(offset), length, kZero);
    } else {
      ++generation;
      for (std::uint64_t i = 0; i < length; ++i) makeSector(buffer.words + i * kWords, part.first + i, generation);
      if (!writeSectors(file.number, buffer.words, part)) mFailed = true;
      std::fill_n(expected.begin() + static_cast<std::ptrdiff_t>(offset), length, generation);
    }
    ++mWrites;
    if (mFailed) return;
  }
  const std::uint64_t zeros[kWords] = {};
  for (std::uint64_t at = 0; at < range.count; at += kMost) {
    const Range part{range.first + at, std::min<std::uint64_t>(kMost, range.count - at)};
    if (!readSectors(file.number, buffer.words, part)) mFailed = true;
    for (std::uint64_t i = 0; i < part.count; ++i) {
      const std::uint64_t* found = buffer.words + i * kWords;
      const std::uint64_t right = expected[at + i];
      if (right == kUntouched || right == kUnknown) continue;
      if (right == kZero ? std::memcmp(found, zeros, kSector) != 0 : !isSector(found, part.first + i, right)) ++mWrong;
    }
  }
}

Readers::Readers(const std::string& device, std::uint64_t generation, Range range, unsigned int threads) {
  for (unsigned int i = 0; i < threads; ++i) {
    mThreads.emplace_back(&Readers::read, this, device, generation, range, i + 77);
  }
}

std::uint64_t Readers::stop() {
  mStop = true;
  for (std::thread& thread : mThreads) thread.join();
  mThreads.clear();
  return mWrong;
}

void Readers::read(const std::string& device, std::uint64_t generation, Range range, std::uint64_t id) {
  const Descriptor file(device, O_RDONLY | O_DIRECT);
  const Buffer buffer;
  Random random(id);
  while (!mStop) {
    const std::uint64_t offset = random.below(range.count);
    const std::uint64_t length = 1 + random.below(random.below(4) == 0 ? kMost : 64);
    const Range part{range.first + offset, std::min(length, range.count - offset)};
    if (!readSectors(file.number, buffer.words, part)) {
      mWrong += part.count;
      return;
    }
    for (std::uint64_t i = 0; i < part.count; ++i) {
      if (!isSector(buffer.words + i * kWords, part.first + i, generation)) ++mWrong;
    }
    ++mReads;
  }
}

FileWriters::FileWriters(const std::string& folder, unsigned int threads, std::uint64_t bytesEach) : mCount(threads) {
  for (unsigned int i = 0; i < threads; ++i) {
    mThreads.emplace_back(&FileWriters::write, this, folder + "/" + names()[i], bytesEach / kSector, i + 1);
  }
}

std::vector<std::string> FileWriters::names() const {
  std::vector<std::string> all;
  for (unsigned int i = 0; i < mCount; ++i) all.push_back("writer" + std::to_string(i));
  return all;
}

std::int64_t FileWriters::stop() {
  mStop = true;
  for (std::thread& thread : mThreads) thread.join();
  mThreads.clear();
  return mFailed ? -1 : mWrong.load();
}

void FileWriters::waitFor(std::uint64_t writes) const {
  while (mWrites < writes && !mFailed) std::this_thread::yield();
}

void FileWriters::write(const std::string& file, std::uint64_t sectors, std::uint64_t id) {
  constexpr std::uint64_t kPage = 8;
  const Buffer buffer;
  Random random(id);
  std::uint64_t generation = id << 40;
  std::vector<std::uint64_t> expected(sectors, 0);  // 0: nothing was written
  auto makeSectors = [&](Range range) {
    for (std::uint64_t i = 0; i < range.count; ++i) {
      makeSector(buffer.words + i * kWords, range.first + i, generation);
    }
  };
  while (!mStop && !mFailed) {
    if (random.below(200) == 0) {
      unlink(file.c_str());
      std::fill(expected.begin(), expected.end(), 0);
    }
    const Descriptor opened(file, O_RDWR | O_CREAT | (random.below(2) == 0 ? O_DIRECT : 0));
    for (std::uint64_t left = 1 + random.below(20); left > 0 && !mStop; --left) {
      ++generation;
      const std::uint64_t first = random.below(sectors / kPage) * kPage;
      const Range range{first, std::min(kPage * (1 + random.below(16)), sectors - first)};
      makeSectors(range);
      if (!writeSectors(opened.number, buffer.words, range)) mFailed = true;
      std::fill_n(expected.begin() + static_cast<std::ptrdiff_t>(range.first), range.count, generation);
      ++mWrites;
    }
    if (random.below(4) == 0 && fdatasync(opened.number) != 0) mFailed = true;
  }
  // What was never written is a hole, or lies behind the file's end.
  const Descriptor opened(file, O_RDWR | O_CREAT);
  if (ftruncate(opened.number, static_cast<off_t>(sectors * kSector)) != 0) mFailed = true;
  for (std::uint64_t at = 0; at < sectors && !mFailed; at += kMost) {
    const Range range{at, std::min<std::uint64_t>(kMost, sectors - at)};
    if (!readSectors(opened.number, buffer.words, range)) mFailed = true;
    for (std::uint64_t i = 0; i < range.count; ++i) {
      if (expected[at + i] == 0) continue;
      if (!isSector(buffer.words + i * kWords, at + i, expected[at + i])) ++mWrong;
    }
  }
}

std::uint64_t tornSectors(const std::string& file) {
  const Descriptor opened(file, O_RDONLY);
  const Buffer buffer;
  std::uint64_t torn = 0, sector = 0;
  for (ssize_t bytes; (bytes = read(opened.number, buffer.words, kMost * kSector)) > 0;) {
    for (std::size_t i = 0; i < static_cast<std::size_t>(bytes) / kSector; ++i, ++sector) {
      const std::uint64_t* words = buffer.words + i * kWords;
      const bool isZero = std::all_of(words, words + kWords, [](std::uint64_t word) { return word == 0; });
      if (!isZero && !isSector(words, sector, words[1])) ++torn;
    }
  }
  return torn;
}

}  // namespace guest
