// SPDX-License-Identifier: Apache-2.0
//
// What a snapshot set, an agent or the emulator could leave behind, looked for in the whole world of a test.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace test {

// Loop devices whose file lies in this process's scratch, "loop3 (/mnt/t-1-x/image)". With `onlySnapshots` those of
// the tests' own volumes are left out.
std::vector<std::string> loopsInScratch(bool onlySnapshots);
// Snapshot nodes in /dev.
std::vector<std::string> snapshotNodes();
// Relocation files, their directories and the probe for writability, at the top of every file system that is mounted.
std::vector<std::string> relocationRemains();
// Processes below `ancestor`, itself not among them.
std::vector<pid_t> processesBelow(pid_t ancestor);

// Fails a test that leaves a loop device or a process.
class LeftoverListener : public testing::EmptyTestEventListener {
 public:
  void OnTestEnd(const testing::TestInfo& info) override;
};

}  // namespace test
