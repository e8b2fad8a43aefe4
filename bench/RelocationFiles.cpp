// SPDX-License-Identifier: Apache-2.0
#include <fcntl.h>
#include <linux/fiemap.h>
#include <linux/fs.h>
#include <mirelsnap/DriverInterface.h>
#include <sys/ioctl.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <cstdint>
#include <list>
#include <stdexcept>
#include <string>
#include <vector>

#include "LoopVolume.h"
#include "Rows.h"
#include "base/Handle.h"
#include "reloc/LinuxSnapshotreloc.h"
#include "reloc/RunMap.h"

namespace bench {
namespace {

constexpr std::uint64_t kKiB = 1024, kMiB = kKiB << 10, kGiB = kMiB << 10, kTiB = kGiB << 10;
constexpr unsigned int kBlock = 4096;

void require(bool holds, const char* what) {
  if (!holds) throw std::runtime_error(what);
}

UniqueFd openOrMake(const std::string& path) {
  UniqueFd file(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
  require(file.valid(), "cannot open a file");
  return file;
}

LinuxSnapshotreloc placedOn(const test::Volume& volume, unsigned int blockSize, std::uint64_t bytes) {
  const auto blocks = static_cast<unsigned int>(bytes / blockSize);
  LinuxSnapshotreloc file(volume.device(), blockSize, blocks, volume.folder(), blocks);
  require(file.validate() == 0 && file.initializeUserSelectedOptions() == 0, "the relocation file is not placed");
  return file;
}

void removeRelocationFile(LinuxSnapshotreloc& file) {
  file.DeleteRelocFile();
  rmdir(file.mRelocDirName.c_str());
}

// The library's mapping of a file. Returns the number of runs.
std::size_t mapWithLibrary(const test::Volume& volume, unsigned int blockSize, const std::string& path) {
  std::list<SnapVolumeInformation> volumes;
  volumes.emplace_back(blockSize, kTiB / blockSize, volume.wdevice(), false, true, 0U);
  volumes.front().setRelocFileName(path);
  RunMap runs;
  unsigned int size = 0;
  require(SnapDriverInterface::mInstance->getIoctlCmdSize(&volumes, &runs, &size) == 0 && runs.size() == 1,
          "the file could not be mapped");
  const std::size_t count = runs.at(0)->size();
  freeRunMap(runs);
  return count;
}

void mapWithFibmap(const std::string& path, std::uint64_t blocks) {
  const UniqueFd file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  for (std::uint64_t block = 0; block < blocks; ++block) {
    int physical = static_cast<int>(block);
    require(ioctl(file.get(), FIBMAP, &physical) == 0 && physical != 0, "FIBMAP failed");
  }
}

std::uint64_t readExtents(int file) {
  constexpr unsigned int kAtOnce = 128;
  std::vector<std::uint64_t> room((sizeof(fiemap) + kAtOnce * sizeof(fiemap_extent)) / sizeof(std::uint64_t));
  auto& answer = *reinterpret_cast<fiemap*>(room.data());
  std::uint64_t count = 0;
  for (std::uint64_t start = 0;;) {
    answer = {};
    answer.fm_start = start;
    answer.fm_length = FIEMAP_MAX_OFFSET - start;
    answer.fm_extent_count = kAtOnce;
    require(ioctl(file, FS_IOC_FIEMAP, &answer) == 0, "FIEMAP failed");
    if (answer.fm_mapped_extents == 0) return count;
    count += answer.fm_mapped_extents;
    const fiemap_extent& last = answer.fm_extents[answer.fm_mapped_extents - 1];
    if ((last.fe_flags & FIEMAP_EXTENT_LAST) != 0) return count;
    start = last.fe_logical + last.fe_length;
  }
}

// --- Making and mapping on ext4.

struct Large {
  Large() : volume("ext4", 2 * kTiB, {"-b", "4096", "-m", "0", "-J", "size=64", "-N", "10000"}) {}
  test::Volume volume;
};

double makeAndMap(const test::Volume& volume, std::uint64_t bytes) {
  LinuxSnapshotreloc file = placedOn(volume, kBlock, bytes);
  const Stopwatch watch;
  require(file.CreateRelocFile() == 0, "the file could not be made");
  mapWithLibrary(volume, kBlock, file.GetRelocFileName());
  const double seconds = watch.seconds();
  removeRelocationFile(file);
  sync();
  return seconds;
}

double allocateAndReadExtents(const test::Volume& volume, std::uint64_t bytes) {
  const std::string path = volume.folder() + "/bare";
  const Stopwatch watch;
  {
    const UniqueFd file = openOrMake(path);
    require(posix_fallocate(file.get(), 0, static_cast<off_t>(bytes)) == 0, "posix_fallocate failed");
    require(fsync(file.get()) == 0, "fsync failed");
    readExtents(file.get());
  }
  const double seconds = watch.seconds();
  unlink(path.c_str());
  sync();
  return seconds;
}

// --- Mapping what is written.

// A file of 1 GiB on a volume of its own; torn, if asked for, into so many runs.
struct Written {
  Written(const std::string& type, unsigned int runs)
      : volume(type, kGiB + kGiB / 4), path(volume.folder() + "/reloc") {
    const UniqueFd file = openOrMake(path);
    const UniqueFd other = openOrMake(volume.folder() + "/other");
    const std::uint64_t pieces = runs == 0 ? 1 : runs;
    const std::uint64_t piece = kGiB / kBlock / pieces * kBlock;
    blocks = pieces * piece / kBlock;
    for (std::uint64_t i = 0; i < pieces; ++i) {
      write(file.get(), i * piece, piece);
      if (runs != 0) write(other.get(), i * kBlock, kBlock);  // takes the block that follows
    }
  }
  static void write(int file, std::uint64_t at, std::uint64_t bytes) {
    static const std::vector<char> data(16 * kMiB, 'w');
    require(fallocate(file, 0, static_cast<off_t>(at), static_cast<off_t>(bytes)) == 0, "fallocate failed");
    for (std::uint64_t done = 0; done < bytes;) {
      const std::size_t length = std::min<std::uint64_t>(data.size(), bytes - done);
      require(pwrite(file, data.data(), length, static_cast<off_t>(at + done)) == static_cast<ssize_t>(length),
              "a file cannot be written");
      done += length;
    }
    fsync(file);
  }
  test::Volume volume;
  std::string path;
  std::uint64_t blocks;
};

// --- Mapping what is allocated in many pieces.

// An allocated file of `extents` blocks, no two of which lie side by side.
struct Torn {
  explicit Torn(std::uint64_t extents)
      : volume("ext4", extents * 4 * kKiB + 64 * kMiB, {"-b", "1024", "-m", "0", "-J", "size=4"}),
        path(volume.folder() + "/reloc") {
    struct statfs status {};
    statfs(volume.folder().c_str(), &status);
    {
      const UniqueFd filling = openOrMake(volume.folder() + "/filling");
      const std::uint64_t blocks = extents * 2 + extents / 4;
      require(posix_fallocate(filling.get(), 0, static_cast<off_t>(blocks * kKiB)) == 0, "posix_fallocate failed");
      fillUp();
      for (std::uint64_t block = 0; block < blocks; block += 2) {
        require(fallocate(filling.get(), FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, static_cast<off_t>(block * kKiB),
                          kKiB) == 0,
                "a hole cannot be punched");
      }
    }
    const UniqueFd file = openOrMake(path);
    require(posix_fallocate(file.get(), 0, static_cast<off_t>(extents * kKiB)) == 0, "posix_fallocate failed");
    fsync(file.get());
  }
  void fillUp() const {
    for (std::uint64_t bytes = kGiB; bytes >= kKiB; bytes /= 2) {
      for (int i = 0;; ++i) {
        const UniqueFd rest = openOrMake(volume.folder() + "/rest" + std::to_string(bytes) + "_" + std::to_string(i));
        if (fallocate(rest.get(), 0, 0, static_cast<off_t>(bytes)) != 0) break;
      }
    }
  }
  test::Volume volume;
  std::string path;
};

// --- Writing out on xfs.

// Gives the image its memory beforehand, so that no repetition pays for it.
void warmUp(const test::Volume& volume) {
  const std::string path = volume.folder() + "/warm";
  const std::vector<char> block(kMiB, 'w');
  const UniqueFd file = openOrMake(path);
  while (write(file.get(), block.data(), block.size()) > 0) {
  }
  fsync(file.get());
  unlink(path.c_str());
}

double writeWithLibrary(const test::Volume& volume) {
  LinuxSnapshotreloc file = placedOn(volume, kBlock, kGiB);
  sync();
  const Stopwatch watch;
  require(file.CreateRelocFile() == 0, "the file could not be made");
  const double seconds = watch.seconds();
  removeRelocationFile(file);
  return seconds;
}

double writeBare(const test::Volume& volume) {
  const std::string path = volume.folder() + "/bare";
  const std::vector<char> zeros(kBlock);
  sync();
  const Stopwatch watch;
  {
    const UniqueFd file = openOrMake(path);
    for (std::uint64_t block = 0; block < kGiB / kBlock; ++block) {
      const auto offset = static_cast<off_t>(block * kBlock);
      require(lseek(file.get(), offset, SEEK_SET) == offset && write(file.get(), zeros.data(), kBlock) == kBlock,
              "write failed");
    }
    fsync(file.get());
  }
  const double seconds = watch.seconds();
  unlink(path.c_str());
  return seconds;
}

template <class Action>
double timeOf(const Action& action) {
  const Stopwatch watch;
  action();
  return watch.seconds();
}

struct Everything {
  std::vector<std::shared_ptr<void>> kept;
  template <class T, class... Arguments>
  T& keep(Arguments&&... arguments) {
    auto made = std::make_shared<T>(std::forward<Arguments>(arguments)...);
    kept.push_back(made);
    return *made;
  }
};

}  // namespace

Kept addRelocationFiles(Suite& suite) {
  auto all = std::make_shared<Everything>();
  const test::Volume& large = all->keep<Large>().volume;
  for (const auto& [size, bytes] :
       {std::pair{"1 GiB", kGiB}, {"10 GiB", 10 * kGiB}, {"100 GiB", 100 * kGiB}, {"1 TiB", kTiB}}) {
    suite.pair(
        std::string("make and map ") + size + " on ext4", 1.2,
        [&large, bytes = bytes] { return makeAndMap(large, bytes); },
        [&large, bytes = bytes] { return allocateAndReadExtents(large, bytes); });
  }
  for (const char* type : {"ext4", "xfs"}) {
    for (const unsigned int runs : {0U, 10000U}) {
      const Written& file = all->keep<Written>(type, runs);
      suite.pair(
          std::string("map 1 GiB written on ") + type + (runs == 0 ? "" : " in 10,000 runs"), 1.03,
          [&file] { return timeOf([&file] { mapWithLibrary(file.volume, kBlock, file.path); }); },
          [&file] { return timeOf([&file] { mapWithFibmap(file.path, file.blocks); }); });
    }
  }
  const test::Volume& xfs = all->keep<test::Volume>("xfs", kGiB + kGiB / 4);
  warmUp(xfs);
  suite.pair(
      "write 1 GiB on xfs", 1.05, [&xfs] { return writeWithLibrary(xfs); }, [&xfs] { return writeBare(xfs); });
  return all;
}

Kept addTornFiles(Suite& suite) {
  auto all = std::make_shared<Everything>();
  for (const std::uint64_t extents : {1000U, 10000U, 100000U}) {
    const Torn& file = all->keep<Torn>(extents);
    suite.pair(
        "map " + std::to_string(extents) + " unwritten extents", Suite::kNoBound,
        [&file] { return timeOf([&file] { mapWithLibrary(file.volume, kKiB, file.path); }); },
        [&file] { return timeOf([&file] { readExtents(UniqueFd(open(file.path.c_str(), O_RDONLY)).get()); }); });
  }
  suite.growth("map 10000 unwritten extents", "map 100000 unwritten extents", 11);
  return all;
}

}  // namespace bench
