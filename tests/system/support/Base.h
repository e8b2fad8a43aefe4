// SPDX-License-Identifier: Apache-2.0
//
// A directory to expose snapshots under, with the folders that an agent must make for the shallowest of them: the
// engine makes the base alone.
#pragma once

#include <string>
#include <vector>

#include "World.h"

namespace test {

class Base {
 public:
  // Folders for `mountPoints`; those that lie in another one's snapshot are not among them.
  explicit Base(const std::vector<std::string>& mountPoints);
  // Removes the folders; fails the test when something else is there.
  ~Base();
  Base(const Base&) = delete;
  Base& operator=(const Base&) = delete;

  const std::string& path() const { return mPath; }
  // Where the snapshot of what is mounted on `mountPoint` appears.
  std::string at(const std::string& mountPoint) const { return mPath + mountPoint; }

 private:
  TempDir mDir;
  std::string mPath;
};

}  // namespace test
