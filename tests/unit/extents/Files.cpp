// SPDX-License-Identifier: Apache-2.0
#include "Files.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <stdexcept>

#include "base/Handle.h"

namespace test {
namespace {

UniqueFd openFile(const std::string& path, int flags) {
  UniqueFd file(open(path.c_str(), flags | O_CLOEXEC, 0600));
  if (!file) throw std::runtime_error("cannot open " + path);
  return file;
}

}  // namespace

void writeAt(const std::string& path, std::uint64_t offset, std::uint64_t bytes) {
  const UniqueFd file = openFile(path, O_WRONLY);
  const std::string data(bytes, 'r');
  if (pwrite(file.get(), data.data(), bytes, static_cast<off_t>(offset)) != static_cast<ssize_t>(bytes) ||
      fsync(file.get()) != 0) {
    throw std::runtime_error("cannot write " + path);
  }
}

void writeOut(const std::string& path, std::uint64_t bytes) {
  openFile(path, O_WRONLY | O_CREAT | O_TRUNC);
  writeAt(path, 0, bytes);
}

void makeSparse(const std::string& path, std::uint64_t bytes) {
  const UniqueFd file = openFile(path, O_WRONLY | O_CREAT | O_TRUNC);
  if (ftruncate(file.get(), static_cast<off_t>(bytes)) != 0) throw std::runtime_error("cannot size " + path);
}

std::vector<std::uint64_t> physicalBlocks(const std::string& path, int count) {
  const UniqueFd file = openFile(path, O_RDONLY);
  std::vector<std::uint64_t> blocks;
  for (int i = 0; i < count; ++i) {
    int block = i;
    if (syscall(SYS_ioctl, file.get(), FIBMAP, &block) != 0) throw std::runtime_error("cannot map " + path);
    blocks.push_back(static_cast<std::uint64_t>(block));
  }
  return blocks;
}

std::vector<std::pair<std::uint64_t, std::uint64_t>> asRuns(const std::vector<std::uint64_t>& blocks,
                                                            std::uint64_t factor) {
  std::vector<std::pair<std::uint64_t, std::uint64_t>> runs;
  for (std::size_t i = 0; i < blocks.size(); ++i) {
    if (i != 0 && blocks[i] == blocks[i - 1] + 1) {
      ++runs.back().second;
    } else {
      runs.emplace_back(blocks[i], 1);
    }
  }
  for (auto& [start, count] : runs) {
    start *= factor;
    count *= factor;
  }
  return runs;
}

}  // namespace test
