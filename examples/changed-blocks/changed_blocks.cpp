// SPDX-License-Identifier: Apache-2.0
//
// Keeps an image of a volume up to date by copying only the blocks that changed:
//
//   changed-blocks [--reloc-mount DIR] DEVICE IMAGE -- COMMAND [ARG...]
//
// Takes a snapshot of DEVICE with change tracking and copies it to IMAGE in full. Runs COMMAND. Then freezes DEVICE,
// asks the driver which blocks have changed, copies only these to IMAGE, and thaws DEVICE. IMAGE is then identical to
// DEVICE as it was while frozen. Needs root and the driver (or mirelsnap-emulator).
#include <fcntl.h>
#include <linux/fs.h>
#include <mirelsnap/DriverInterface.h>
#include <mntent.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <list>
#include <memory>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

constexpr std::size_t kPiece = 1 << 20;
constexpr std::size_t kAlignment = 4096;  // for O_DIRECT
constexpr unsigned int kAlreadyFrozen = 24;

[[noreturn]] void fail(const std::string& what) { throw std::runtime_error(what); }
[[noreturn]] void failWithErrno(const std::string& what) { fail(what + ": " + std::strerror(errno)); }

std::wstring wide(const std::string& path) { return {path.begin(), path.end()}; }  // only low bytes reach the driver

// An open file; closed by the destructor.
class File {
 public:
  File(const std::string& path, int flags) : mDescriptor(open(path.c_str(), flags | O_CLOEXEC, 0600)), mPath(path) {
    if (mDescriptor < 0) failWithErrno("cannot open " + path);
  }
  ~File() { close(mDescriptor); }
  File(const File&) = delete;
  File& operator=(const File&) = delete;

  int get() const { return mDescriptor; }
  struct stat status() const {
    struct stat found;
    if (fstat(mDescriptor, &found) != 0) failWithErrno("cannot stat " + mPath);
    return found;
  }
  void read(char* to, std::size_t length, std::uint64_t at) const {
    while (length > 0) {
      const ssize_t got = pread(mDescriptor, to, length, static_cast<off_t>(at));
      if (got <= 0) failWithErrno("cannot read " + mPath);
      to += got;
      at += static_cast<std::uint64_t>(got);
      length -= static_cast<std::size_t>(got);
    }
  }
  void write(const char* from, std::size_t length, std::uint64_t at) const {
    while (length > 0) {
      const ssize_t put = pwrite(mDescriptor, from, length, static_cast<off_t>(at));
      if (put <= 0) failWithErrno("cannot write " + mPath);
      from += put;
      at += static_cast<std::uint64_t>(put);
      length -= static_cast<std::size_t>(put);
    }
  }

 private:
  int mDescriptor;
  std::string mPath;
};

// Copies bytes [start, start + length) of one file to the same offset of another.
void copyRange(const File& from, const File& to, std::uint64_t start, std::uint64_t length) {
  const std::unique_ptr<char, void (*)(void*)> buffer(static_cast<char*>(std::aligned_alloc(kAlignment, kPiece)),
                                                      std::free);
  if (buffer == nullptr) fail("memory is short");
  for (const std::uint64_t end = start + length; start < end;) {
    const std::size_t piece = std::min<std::uint64_t>(kPiece, end - start);
    from.read(buffer.get(), piece, start);
    to.write(buffer.get(), piece, start);
    start += piece;
  }
}

// A reference on the driver interface.
class Driver {
 public:
  Driver() : mDriver(SnapDriverInterface::Instance()) {
    if (mDriver == nullptr) fail("memory is short");
  }
  ~Driver() { SnapDriverInterface::releaseInstance(); }
  Driver(const Driver&) = delete;
  Driver& operator=(const Driver&) = delete;
  SnapDriverInterface* operator->() const { return mDriver; }

 private:
  SnapDriverInterface* mDriver;
};

// What the other classes need to know about a volume.
struct Volume {
  std::string path;
  dev_t number = 0;
  std::uint64_t bytes = 0;
  unsigned int blockSize = 0;  // of its file system, in bytes; also the unit of the changed runs

  explicit Volume(const std::string& device) : path(device) {
    const File opened(device, O_RDONLY);
    if (ioctl(opened.get(), BLKGETSIZE64, &bytes) != 0) failWithErrno(device + " is not a block device");
    number = opened.status().st_rdev;
    blockSize = fileSystemBlockSize();
  }
  std::list<std::wstring> names() const { return {wide(path)}; }

 private:
  // Of the file system mounted from the device.
  unsigned int fileSystemBlockSize() const {
    const std::unique_ptr<FILE, int (*)(FILE*)> table(setmntent("/proc/self/mounts", "r"), endmntent);
    while (const mntent* mount = table == nullptr ? nullptr : getmntent(table.get())) {
      struct stat found;
      if (stat(mount->mnt_dir, &found) != 0 || found.st_dev != number) continue;
      int size = 0;
      const File folder(mount->mnt_dir, O_RDONLY | O_DIRECTORY);
      if (ioctl(folder.get(), FIGETBSZ, &size) == 0 && size > 0) return static_cast<unsigned int>(size);
    }
    fail(path + " is not mounted");
  }
};

// A snapshot of a volume whose changes the driver tracks while this object exists.
class TrackedSnapshot {
 public:
  TrackedSnapshot(const Driver& driver, const Volume& volume, const std::string& relocMount)
      : mDriver(driver), mVolume(volume) {
    constexpr bool kTrackChanges = true;
    constexpr bool kIndependent = false;  // independent snapshots do not start tracking
    constexpr unsigned int kSizeOfTheLibrarysChoice = 0;
    constexpr unsigned int kUsage = 0;
    std::list<SnapVolumeInformation> request;
    request.emplace_back(volume.blockSize, volume.bytes / volume.blockSize, wide(volume.path), kSizeOfTheLibrarysChoice,
                         wide(relocMount), kTrackChanges, kIndependent, kUsage);
    std::list<std::wstring> devices;
    const int result = driver->SnapVolume(&request, &devices);
    if (result != 0) fail("cannot take a snapshot of " + volume.path + ": driver interface " + std::to_string(result));
    const std::wstring& device = devices.front();
    mDevice.assign(device.begin(), device.end());
  }
  ~TrackedSnapshot() {
    std::list<std::wstring> names = mVolume.names();
    const unsigned int result = mDriver->UnSnapVolume(&names, false);
    if (result != 0) std::fprintf(stderr, "changed-blocks: cannot discard the snapshot: driver interface %u\n", result);
  }
  TrackedSnapshot(const TrackedSnapshot&) = delete;
  TrackedSnapshot& operator=(const TrackedSnapshot&) = delete;

  const std::string& device() const { return mDevice; }

 private:
  const Driver& mDriver;
  const Volume& mVolume;
  std::string mDevice;
};

// Freezes a volume for a scope. A volume that is already frozen stays frozen.
class Standstill {
 public:
  Standstill(const Driver& driver, const Volume& volume) : mDriver(driver), mVolume(volume) {
    std::list<std::wstring> names = volume.names();
    const unsigned int result = driver->FreezeVolume(&names);
    if (result != 0 && result != kAlreadyFrozen) {
      fail("cannot freeze " + volume.path + ": driver interface " + std::to_string(result));
    }
    mOurs = result == 0;
  }
  ~Standstill() {
    std::list<std::wstring> names = mVolume.names();
    if (mOurs) mDriver->ThawVolume(&names);
  }
  Standstill(const Standstill&) = delete;
  Standstill& operator=(const Standstill&) = delete;

 private:
  const Driver& mDriver;
  const Volume& mVolume;
  bool mOurs;
};

// All changed runs, however many commands it takes to read them.
std::vector<_run> changedRuns(const Driver& driver, const Volume& volume) {
  std::vector<_run> all;
  std::wstring name = wide(volume.path);
  std::vector<_run> runs(kMaxBitmapRuns);
  SectorBitmap bitmap(name, kMaxBitmapRuns, runs.data());
  for (std::uint64_t next = 0;;) {
    const unsigned int result = driver->GetVtrackBitmap(bitmap);
    if (result != 0) fail("cannot read what changed: driver interface " + std::to_string(result));
    for (const _run& run : std::span(runs).first(bitmap.getNumOfRuns())) {
      // Without progress this loop would never end.
      if (run.startBlock < next || run.numBlocks == 0)
        fail("the driver's changed runs of " + volume.path + " do not rise");
      next = run.startBlock + run.numBlocks;
      all.push_back(run);
    }
    if (bitmap.getUpdateType() != UPDATE_BITMAP_CONTINUE) return all;
    if (bitmap.getNumOfRuns() == 0) fail("the driver has more changed runs of " + volume.path + " but tells none");
    runs[0].startBlock = next;
    bitmap.setNumOfRuns(kMaxBitmapRuns);
  }
}

void runCommand(char** command) {
  const pid_t process = fork();
  if (process == 0) {
    execvp(command[0], command);
    std::fprintf(stderr, "changed-blocks: %s: %s\n", command[0], std::strerror(errno));
    _exit(127);
  }
  int status = 0;
  if (process < 0 || waitpid(process, &status, 0) != process) failWithErrno("cannot run the command");
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) fail(std::string(command[0]) + " failed");
}

// The two points in time.
void keepImage(const std::string& device, const std::string& imagePath, const std::string& relocMount, char** command) {
  const Driver driver;
  const Volume volume(device);
  const File image(imagePath, O_RDWR | O_CREAT);
  // It could not be written while the volume is frozen.
  if (image.status().st_dev == volume.number) fail(imagePath + " lies on the volume itself");

  const TrackedSnapshot snapshot(driver, volume, relocMount);
  if (ftruncate(image.get(), static_cast<off_t>(volume.bytes)) != 0) failWithErrno("cannot write " + imagePath);
  copyRange(File(snapshot.device(), O_RDONLY), image, 0, volume.bytes);
  runCommand(command);

  std::uint64_t copied = 0;
  const Standstill standstill(driver, volume);
  const std::vector<_run> runs = changedRuns(driver, volume);
  const File live(device, O_RDONLY | O_DIRECT);  // the page cache of the device may be older than the device
  for (const _run& run : runs) {
    copyRange(live, image, run.startBlock * volume.blockSize, run.numBlocks * volume.blockSize);
    copied += run.numBlocks * volume.blockSize;
  }
  if (fsync(image.get()) != 0) failWithErrno("cannot write " + imagePath);
  std::printf("%zu changed runs, %llu of %llu bytes copied\n", runs.size(), static_cast<unsigned long long>(copied),
              static_cast<unsigned long long>(volume.bytes));
}

}  // namespace

int main(int argc, char** argv) {
  int next = 1;
  std::string relocMount;
  if (argc > 2 && std::string(argv[1]) == "--reloc-mount") {
    relocMount = argv[2];
    next = 3;
  }
  if (argc < next + 4 || std::string(argv[next + 2]) != "--") {
    std::fprintf(stderr, "Usage: changed-blocks [--reloc-mount DIR] DEVICE IMAGE -- COMMAND [ARG...]\n");
    return 2;
  }
  try {
    keepImage(argv[next], argv[next + 1], relocMount, argv + next + 3);
    return 0;
  } catch (const std::exception& problem) {
    std::fprintf(stderr, "changed-blocks: %s\n", problem.what());
    return 1;
  }
}
