// SPDX-License-Identifier: Apache-2.0
//
// A writer that goes on while snapshots are taken, and tells by what it wrote whether they stand at one instant.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

namespace test {

// Writes 1, 2, 3, ... into a file of each folder: each number into the first, the second, ..., then the next one.
class AlternatingWriter {
 public:
  explicit AlternatingWriter(const std::vector<std::string>& folders);
  ~AlternatingWriter();
  AlternatingWriter(const AlternatingWriter&) = delete;
  AlternatingWriter& operator=(const AlternatingWriter&) = delete;

  void waitForSteps(std::uint64_t more) const;
  // What the file in `folder`, live or snapshot, holds.
  static std::uint64_t valueIn(const std::string& folder);
  // Whether the folders, in the writer's order, show one instant: numbers fall by one at most, in one place.
  static bool standAtOneInstant(const std::vector<std::string>& folders);

 private:
  void run();

  std::vector<int> mFiles;
  std::atomic<std::uint64_t> mStep{0};
  std::atomic<bool> mStop{false};
  std::thread mThread;
};

}  // namespace test
