// SPDX-License-Identifier: Apache-2.0
//
// What the library costs, against the bare system calls in the same run:
//   map    the runs of a 1 GiB relocation file, against a loop of the same FIBMAP requests
//   write  a 1 GiB relocation file written out, against a loop of lseek and write
//   snap   building a snap command of 1,000, 100,000 and 1,000,000 runs: time and memory a run
// Needs root; runs in a private world of its own, on loop devices over memory.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <linux/fs.h>
#include <malloc.h>
#include <mirelsnap/DriverInterface.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <syslog.h>
#include <unistd.h>

#include <chrono>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <list>
#include <memory>
#include <string>
#include <vector>

#include "LoopVolume.h"
#include "RatioReporter.h"
#include "World.h"
#include "base/Handle.h"
#include "driver/DriverProtocol.h"
#include "driver/RunMap.h"
#include "reloc/LinuxSnapshotreloc.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::uint64_t kGiB = 1ULL << 30;
constexpr unsigned int kBlock = 4096;
constexpr int kRepetitions = 9;

// What the interposed calls below do.
struct Interposed {
  bool scatter = false;        // FIBMAP: no two neighbouring blocks lie side by side
  bool allocate = true;        // posix_fallocate: the kernel's; else only the size is set
  std::size_t heapAtSnap = 0;  // bytes in use when the snap command reached the driver
  std::uint32_t lengthAtSnap = 0;
} interposed;

std::size_t heapInUse() {
  const struct mallinfo2 info = mallinfo2();
  return info.uordblks + info.hblkhd;
}

// A driver that holds nothing and accepts everything.
int answerDriver(unsigned long request, void* argument) {
  auto* header = static_cast<_ioctlCmd*>(argument);
  if (request == IOC_CHECK_VOLUME_SNAPPED) header->driverStatus = -4;
  if (request == IOC_CHECK_VOLUME_FROZEN) header->driverStatus = -7;
  if (request == IOC_SNAP) {
    interposed.heapAtSnap = heapInUse();
    interposed.lengthAtSnap = header->length;
  }
  return 0;
}

double secondsSince(Clock::time_point start) { return std::chrono::duration<double>(Clock::now() - start).count(); }

void removeRelocationFile(LinuxSnapshotreloc& file) {
  file.DeleteRelocFile();
  rmdir(file.mRelocDirName.c_str());
}

// --- map ---

// An ext4 volume with a relocation file of 1 GiB on it, every block written.
struct MappedVolume {
  MappedVolume()
      : volume("ext4", 3 * kGiB, {"-b", "4096"}), file(volume.device(), kBlock, kGiB / kBlock, volume.folder(), kGiB) {
    if (file.validate() != 0 || file.initializeUserSelectedOptions() != 0 || file.CreateRelocFile() != 0) {
      std::fprintf(stderr, "cannot make the relocation file to map\n");
      std::exit(1);
    }
  }
  ~MappedVolume() { removeRelocationFile(file); }
  test::Volume volume;
  LinuxSnapshotreloc file;
};

std::unique_ptr<MappedVolume> mapped;

void mapLibrary(benchmark::State& state) {
  for (auto _ : state) {
    std::list<SnapVolumeInformation> volumes;
    volumes.emplace_back(kBlock, 3 * kGiB / kBlock, mapped->volume.wdevice(), false, true, 0U);
    volumes.front().setRelocFileName(mapped->file.GetRelocFileName());
    RunMap runs;
    unsigned int size = 0;
    const auto start = Clock::now();
    if (SnapDriverInterface::mInstance->getIoctlCmdSize(&volumes, &runs, &size) != 0 || runs.size() != 1) {
      state.SkipWithError("the file could not be mapped");
    }
    state.SetIterationTime(secondsSince(start));
    freeRunMap(runs);
  }
}

void mapBare(benchmark::State& state) {
  for (auto _ : state) {
    const auto start = Clock::now();
    const UniqueFd file(open(mapped->file.GetRelocFileName().c_str(), O_RDONLY | O_CLOEXEC));
    for (int block = 0; block < static_cast<int>(kGiB / kBlock); ++block) {
      int physical = block;
      if (ioctl(file.get(), FIBMAP, &physical) != 0 || physical == 0) state.SkipWithError("FIBMAP failed");
    }
    state.SetIterationTime(secondsSince(start));
  }
}

// --- write ---

std::unique_ptr<test::Volume> xfs;

// Gives the image its memory beforehand, so that no repetition pays for it.
void warmUp(const test::Volume& volume) {
  const std::string path = volume.folder() + "/warm";
  const std::vector<char> block(1 << 20, 'w');
  const UniqueFd file(open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644));
  while (write(file.get(), block.data(), block.size()) > 0) {
  }
  fsync(file.get());
  unlink(path.c_str());
}

void writeLibrary(benchmark::State& state) {
  for (auto _ : state) {
    LinuxSnapshotreloc file(xfs->device(), kBlock, kGiB / kBlock, xfs->folder(), kGiB);
    if (file.validate() != 0 || file.initializeUserSelectedOptions() != 0) state.SkipWithError("not placed");
    sync();
    const auto start = Clock::now();
    if (file.CreateRelocFile() != 0) state.SkipWithError("not made");
    state.SetIterationTime(secondsSince(start));
    removeRelocationFile(file);
  }
}

void writeBare(benchmark::State& state) {
  const std::string path = xfs->folder() + "/bare";
  const std::vector<char> zeros(kBlock);
  for (auto _ : state) {
    sync();
    const auto start = Clock::now();
    UniqueFd file(open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
    for (std::uint64_t block = 0; block < kGiB / kBlock; ++block) {
      const auto offset = static_cast<off_t>(block * kBlock);
      if (lseek(file.get(), offset, SEEK_SET) != offset || write(file.get(), zeros.data(), kBlock) != kBlock) {
        state.SkipWithError("write failed");
        break;
      }
    }
    fsync(file.get());
    file.reset();
    state.SetIterationTime(secondsSince(start));
    unlink(path.c_str());
  }
}

// --- snap ---

std::unique_ptr<test::Volume> scattered;

void buildSnap(benchmark::State& state) {
  const auto runs = static_cast<unsigned int>(state.range(0));
  interposed.scatter = true;
  interposed.allocate = false;
  std::size_t used = 0;
  for (auto _ : state) {
    std::list<SnapVolumeInformation> volumes;
    volumes.emplace_back(1024U, 2 * kGiB / 1024, scattered->wdevice(), runs, scattered->wfolder(), false, true, 0U);
    std::list<std::wstring> names;
    const std::size_t before = heapInUse();
    const auto start = Clock::now();
    if (SnapDriverInterface::mInstance->SnapVolume(&volumes, &names) != 0) state.SkipWithError("not snapped");
    state.SetIterationTime(secondsSince(start));
    used = interposed.heapAtSnap - before;
    if (interposed.lengthAtSnap != 27 + 2160 + 16 * runs) state.SkipWithError("not the runs that were asked for");
    SnapDriverInterface::mInstance->cleanRelocFiles(&volumes);
  }
  interposed.scatter = false;
  interposed.allocate = true;
  state.counters["bytes_a_run"] = static_cast<double>(used) / runs;
  state.counters["seconds_a_run"] =
      benchmark::Counter(runs, benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

void registerOne(const std::string& name, void (*function)(benchmark::State&)) {
  benchmark::RegisterBenchmark(name.c_str(), function)
      ->UseManualTime()
      ->Iterations(1)
      ->Unit(benchmark::kMillisecond)
      ->Repetitions(kRepetitions);
}

void registerPair(const std::string& name, void (*library)(benchmark::State&), void (*bare)(benchmark::State&)) {
  registerOne(name + "/library", library);
  registerOne(name + "/bare", bare);
}

}  // namespace

extern "C" int ioctl(int fd, unsigned long request, ...) noexcept {
  va_list arguments;
  va_start(arguments, request);
  void* argument = va_arg(arguments, void*);
  va_end(arguments);
  if (((request >> 8) & 0xFF) == 'S' && (request >> 30) == 3) return answerDriver(request, argument);
  if (request == FIBMAP && interposed.scatter) {
    *static_cast<int*>(argument) = 2 * *static_cast<int*>(argument) + 1;
    return 0;
  }
  return static_cast<int>(syscall(SYS_ioctl, fd, request, argument));
}

extern "C" int posix_fallocate(int fd, off_t offset, off_t length) {
  if (!interposed.allocate) return ftruncate(fd, offset + length) == 0 ? 0 : errno;
  return syscall(SYS_fallocate, fd, 0, offset, length) == 0 ? 0 : errno;
}

int main(int argc, char** argv) {
  test::layPrivateWorld();
  const test::ProcFile driver("mirelsnap/dev", "1 3\n");
  if (SnapDriverInterface::Instance() == nullptr) return 1;
  setlogmask(LOG_MASK(LOG_EMERG));
  mapped = std::make_unique<MappedVolume>();
  xfs = std::make_unique<test::Volume>("xfs", 3 * kGiB);
  warmUp(*xfs);
  scattered = std::make_unique<test::Volume>("ext4", 2 * kGiB, std::vector<std::string>{"-b", "1024"});

  const std::string map = "map a 1 GiB relocation file";
  const std::string write = "write a 1 GiB relocation file";
  registerPair(map, &mapLibrary, &mapBare);
  registerPair(write, &writeLibrary, &writeBare);
  benchmark::RegisterBenchmark("build a snap command of runs", &buildSnap)
      ->Arg(1000)
      ->Arg(100000)
      ->Arg(1000000)
      ->UseManualTime()
      ->Unit(benchmark::kMillisecond)
      ->Iterations(3);

  std::vector<char*> arguments(argv, argv + argc);
  // Library and bare take turns, so that a slow moment of the machine meets both.
  std::string interleave = "--benchmark_enable_random_interleaving=true";
  arguments.push_back(interleave.data());
  int count = static_cast<int>(arguments.size());
  benchmark::Initialize(&count, arguments.data());

  bench::RatioReporter reporter;
  reporter.expectRatio(map, 1.05);
  reporter.expectRatio(write, 1.05);
  benchmark::RunSpecifiedBenchmarks(&reporter);
  const bool kept = reporter.printRatios();

  scattered.reset();
  xfs.reset();
  mapped.reset();
  SnapDriverInterface::releaseInstance();
  unlink("/dev/mirelsnapctl");
  return kept ? 0 : 1;
}
