// SPDX-License-Identifier: Apache-2.0
//
// Directories, links and nodes that a test lays under /dev, gone with their scope.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace test {

class DevTree {
 public:
  DevTree() = default;
  ~DevTree();
  DevTree(const DevTree&) = delete;
  DevTree& operator=(const DevTree&) = delete;

  // The directory and those above it that are not there.
  void directory(const std::string& path);
  void file(const std::string& path);
  void link(const std::string& path, const std::string& text);
  void block(const std::string& path, unsigned int major, unsigned int minor);
  void character(const std::string& path, unsigned int major, unsigned int minor);

 private:
  void made(const std::string& path, int result);
  std::vector<std::string> mMade;
};

// A chain of directories from `top` (which is there) down to one whose path has exactly `length` bytes. Returns its
// path.
std::string makeDeepDirectory(const std::string& top, std::size_t length);
// A block device node in the directory `directory`, whose path the kernel need not take as a whole.
void makeBlockAt(const std::string& directory, const std::string& name, unsigned int major, unsigned int minor);

// The names of a directory in its own order, "." and ".." left out.
std::vector<std::string> namesInOrder(const std::string& directory);

}  // namespace test
