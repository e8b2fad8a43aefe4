// SPDX-License-Identifier: Apache-2.0
//
// What changed, found out the plain way: byte by byte.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "DriverClient.h"

namespace test {

// A device or a file from its beginning to its end; a device as it is, not as its page cache has it.
inline std::string wholeOf(const std::string& path, int flags = O_DIRECT) {
  constexpr std::size_t kPiece = 1 << 20;
  const std::unique_ptr<void, void (*)(void*)> buffer(std::aligned_alloc(4096, kPiece), std::free);
  const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC | flags);
  EXPECT_GE(file, 0) << path;
  std::string content;
  for (ssize_t got; (got = read(file, buffer.get(), kPiece)) > 0;) {
    content.append(static_cast<const char*>(buffer.get()), static_cast<std::size_t>(got));
  }
  close(file);
  return content;
}

// The runs of blocks in which two contents differ.
inline std::vector<DriverClient::Run> differingRuns(const std::string& a, const std::string& b, std::size_t blockSize) {
  EXPECT_EQ(a.size(), b.size());
  std::vector<DriverClient::Run> runs;
  for (std::uint64_t block = 0; (block + 1) * blockSize <= a.size(); ++block) {
    if (a.compare(block * blockSize, blockSize, b, block * blockSize, blockSize) == 0) continue;
    if (!runs.empty() && runs.back().start + runs.back().blocks == block) {
      ++runs.back().blocks;
    } else {
      runs.push_back({block, 1});
    }
  }
  return runs;
}

}  // namespace test
