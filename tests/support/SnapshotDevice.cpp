// SPDX-License-Identifier: Apache-2.0
#include "SnapshotDevice.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <stdexcept>
#include <vector>

#include "Frozen.h"
#include "base/Handle.h"

namespace test {
namespace {

std::uint64_t sizeOf(const std::string& file) {
  struct stat status {};
  if (stat(file.c_str(), &status) != 0) throw std::runtime_error("cannot examine " + file);
  return static_cast<std::uint64_t>(status.st_size);
}

// Holes stay holes.
void copyData(const std::string& from, const std::string& to) {
  const UniqueFd in(open(from.c_str(), O_RDONLY | O_CLOEXEC));
  const UniqueFd out(open(to.c_str(), O_WRONLY | O_CLOEXEC));
  std::vector<char> buffer(1 << 20);
  off_t hole = 0;
  for (off_t data; (data = lseek(in.get(), hole, SEEK_DATA)) >= 0;) {
    hole = lseek(in.get(), data, SEEK_HOLE);
    while (data < hole) {
      const auto piece = std::min(buffer.size(), static_cast<std::size_t>(hole - data));
      const ssize_t got = pread(in.get(), buffer.data(), piece, data);
      if (got <= 0 || pwrite(out.get(), buffer.data(), static_cast<std::size_t>(got), data) != got) {
        throw std::runtime_error("cannot copy " + from + " to " + to);
      }
      data += got;
    }
  }
  if (fsync(out.get()) != 0) throw std::runtime_error("cannot copy " + from + " to " + to);
}

}  // namespace

SnapshotDevice::SnapshotDevice(const LoopDevice& live, const std::string& folder)
    : mCopy(sizeOf(live.image())),
      mNode("/dev/snap" + std::to_string(live.major()) + "_" + std::to_string(live.minor()), S_IFBLK, mCopy.major(),
            mCopy.minor()) {
  const Frozen still(folder);
  copyData(live.image(), mCopy.path());
}

}  // namespace test
