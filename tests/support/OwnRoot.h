// SPDX-License-Identifier: Apache-2.0
//
// A root directory of its own for what would be wrong on the machine's.
#pragma once

#include <string>

#include "base/Handle.h"

namespace test {

// For a scope this thread's "/" is an empty file system in a mount namespace of its own: nothing there but a /proc, and
// the /mnt that the guard of OwnWorld.h needs. The rest of the process stays where it is.
class OwnRoot {
 public:
  OwnRoot();
  ~OwnRoot();
  OwnRoot(const OwnRoot&) = delete;
  OwnRoot& operator=(const OwnRoot&) = delete;

 private:
  std::string mFolder;  // where the file system is mounted, empty before and after
  // The way back.
  UniqueFd mNamespace;
  UniqueFd mRoot;
  UniqueFd mWorkingFolder;
};

}  // namespace test
