// SPDX-License-Identifier: Apache-2.0
//
// The one way in which tests remove directories and unmount: it refuses whatever is not the test's own. What is refused
// stays untouched, and the test fails.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <set>
#include <string>
#include <vector>

#include "base/Handle.h"

namespace test {

// What belongs to a test: the directories that its world laid, the roots, and the file systems that were made below
// them. Paths are absolute, without ".", ".." and links; the last component of one to be removed may be a link, which
// is removed itself.
class OwnWorld {
 public:
  // A file system was just mounted on `folder`, for the tests alone. Throws when it cannot be examined.
  void addRoot(const std::string& folder);
  // The file system on `folder` was just made. Throws when it cannot be examined.
  void addFileSystem(const std::string& folder);
  // Something was just mounted on `folder`, wherever that is. Throws when it cannot be examined.
  void addMount(const std::string& folder);

  // Removes `path` with all below it. Refused unless `path` lies below a root, on an own file system, and nothing is
  // mounted on or below it. Returns whether it is gone; a path that is missing is. What cannot be removed fails the
  // test.
  bool removeTree(const std::string& path) const;

  // Unmounts what is mounted on `folder`; `flags` as for umount2. Refused unless `folder` lies below a root or the
  // mount is one that was added. Answers as umount2 does, EPERM when refused.
  int unmount(const std::string& folder, int flags = 0);

  // Takes a mount of the machine's with all below it out of the world's mount namespace. Refused in any other. Answers
  // as umount2 does.
  int hideMachines(const std::string& folder) const;

 private:
  struct Root {
    std::string path;
    dev_t device;
    ino_t inode;
    // Invalid when another directory stands there.
    UniqueFd open() const;
  };
  struct Place;
  Place findBelowRoot(const std::string& path) const;

  std::vector<Root> mRoots;
  std::set<dev_t> mFileSystems;
  std::set<std::uint64_t> mMounts;  // identifiers, which the kernel uses again: those that are still there
};

// The one of this process; nothing belongs to it before layPrivateWorld.
OwnWorld& ownWorld();

bool removeTree(const std::string& path);
int unmount(const std::string& folder, int flags = 0);

}  // namespace test
