// SPDX-License-Identifier: Apache-2.0
//
// Disks and file systems of the guest, and content that tells where it belongs.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace guest {

// Runs a shell command; false when it fails.
bool run(const std::string& command);

std::uint64_t sectorsOf(const std::string& device);

// A file system that is made, mounted, and unmounted at the end.
class Mounted {
 public:
  // `make`: "mkfs.ext4 -q -F" and the like.
  Mounted(std::string device, std::string folder, const std::string& type, const std::string& make,
          const std::string& options = "");
  ~Mounted();
  Mounted(const Mounted&) = delete;
  Mounted& operator=(const Mounted&) = delete;

  const std::string& device() const { return mDevice; }
  const std::string& folder() const { return mFolder; }
  std::string path(const std::string& name) const { return mFolder + "/" + name; }
  // A file whose blocks are allocated, and written if asked for.
  std::string makeFile(const std::string& name, std::uint64_t bytes, bool written = false) const;

 private:
  std::string mDevice;
  std::string mFolder;
};
Mounted ext4(const std::string& device, const std::string& folder);

// Sectors [first, first + count) of a device.
struct Range {
  std::uint64_t first;
  std::uint64_t count;
};

// Every sector of a filled device says where it is and of which generation it is; the rest of it follows from both.
void fill(const std::string& device, std::uint64_t generation);
// How many sectors of the device are not of that generation; those in `except` do not count.
std::uint64_t wrongSectors(const std::string& device, std::uint64_t generation, const std::vector<Range>& except = {});

// A hash of each block of 4 KiB.
std::vector<std::uint64_t> sums(const std::string& device);
// How many blocks differ, but for those that lie in `except` at least in part.
std::uint64_t differences(const std::vector<std::uint64_t>& a, const std::vector<std::uint64_t>& b,
                          const std::vector<Range>& except = {});

// Threads that write to a part of a device at random, in sizes from a sector to 1 MiB, zeroes and discards among it.
// Each has a part for itself and knows what must be there at the end.
class Writers {
 public:
  Writers(const std::string& device, Range range, unsigned int threads, bool onlySmall = false);
  ~Writers() { stop(); }
  // How many sectors of what was written are not there; -1: a write failed.
  std::int64_t stop();
  std::uint64_t writes() const { return mWrites; }
  // Until so many writes were made.
  void waitFor(std::uint64_t writes) const;

 private:
  void write(const std::string& device, Range range, std::uint64_t id, bool onlySmall);

  std::atomic<bool> mStop{false};
  std::atomic<std::uint64_t> mWrites{0};
  std::atomic<std::int64_t> mWrong{0};
  std::atomic<bool> mFailed{false};
  std::vector<std::thread> mThreads;
};

// Reads of a device of one generation, at random, until stopped.
class Readers {
 public:
  Readers(const std::string& device, std::uint64_t generation, Range range, unsigned int threads);
  ~Readers() { stop(); }
  // How many sectors were wrong.
  std::uint64_t stop();
  std::uint64_t reads() const { return mReads; }

 private:
  void read(const std::string& device, std::uint64_t generation, Range range, std::uint64_t id);

  std::atomic<bool> mStop{false};
  std::atomic<std::uint64_t> mReads{0};
  std::atomic<std::uint64_t> mWrong{0};
  std::vector<std::thread> mThreads;
};

// Threads that write files of a folder at random, each a file of its own in which every sector says where it is and of
// which generation; through the page cache and past it, and now and then the file is removed and made anew.
class FileWriters {
 public:
  FileWriters(const std::string& folder, unsigned int threads, std::uint64_t bytesEach);
  ~FileWriters() { stop(); }
  // How many sectors of the files are not what was written last; -1: a write failed.
  std::int64_t stop();
  std::uint64_t writes() const { return mWrites; }
  // Until so many writes were made.
  void waitFor(std::uint64_t writes) const;
  std::vector<std::string> names() const;

 private:
  void write(const std::string& file, std::uint64_t sectors, std::uint64_t id);

  unsigned int mCount;
  std::atomic<bool> mStop{false};
  std::atomic<std::uint64_t> mWrites{0};
  std::atomic<std::int64_t> mWrong{0};
  std::atomic<bool> mFailed{false};
  std::vector<std::thread> mThreads;
};

// How many sectors of a file are not whole: neither zeros nor what some generation has there.
std::uint64_t tornSectors(const std::string& file);

}  // namespace guest
