// SPDX-License-Identifier: Apache-2.0
//
// A name in a directory that was reached without symbolic links: what is made, removed or unmounted there. The entry
// itself is not held open, which would keep a mount busy.
#pragma once

#include <sys/types.h>

#include <array>
#include <climits>

#include "base/Handle.h"

class DirectoryEntry {
 public:
  // The last component of the absolute `path`, no component of which may be a symbolic link (Resolve.h).
  explicit DirectoryEntry(const char* path) noexcept;
  // The same for `relative`, a path without ".." below the directory `root`. Nothing is located where it has no
  // component.
  DirectoryEntry(int root, const char* relative) noexcept;

  // Each answers 0 or an errno: that of the way to the entry where that could not be gone.
  // `mode` is subject to the process's umask.
  [[nodiscard]] int makeDirectory(mode_t mode) const noexcept;
  [[nodiscard]] int removeDirectory() const noexcept;
  // What is mounted on the entry goes, the last of several.
  [[nodiscard]] int unmount() const noexcept;

 private:
  void locate(int root, const char* path) noexcept;

  int mError = 0;
  UniqueFd mDirectory;
  std::array<char, NAME_MAX + 1> mName{};
};
