// SPDX-License-Identifier: Apache-2.0
//
// C library calls that this program can make answer what the running kernel cannot be made to, and two steps of a
// placement that never fail by themselves. A call without a hook goes to the kernel, or to the step.
#pragma once

#include <sys/types.h>
#include <sys/vfs.h>

#include <functional>
#include <optional>

namespace test {

struct Hooks {
  // Called before every open and openat; an errno makes it fail.
  std::function<int(const char* path, int flags, mode_t mode)> open;
  // Answers 0 and fills the sizes, or an errno; nothing asks the kernel.
  std::function<std::optional<int>(const char* path, struct statfs* sizes)> statfs;
  // The result, errno being set by the hook; nothing asks the kernel.
  std::function<std::optional<ssize_t>(int fd, const void* data, size_t size)> write;
  std::function<std::optional<off_t>(int fd, off_t offset, int whence)> lseek;
  std::function<std::optional<int>(int fd, off_t offset, off_t length)> posixFallocate;
  // Files that are made have this mode and keep it, as on FAT, which was mounted with it.
  std::optional<mode_t> modeOfAllFiles;
  // Called before every fsync; an errno makes it fail.
  std::function<int(int fd)> fsync;
  // What these two steps of a placement answer; nothing is looked up.
  std::optional<unsigned int> getVolumeDetails;
  std::optional<unsigned int> initializeUserSelectedOptions;
  // Non-throwing operator new answers null.
  bool noMemory = false;
};

// Emptied by the fixture after every test.
extern Hooks hooks;

}  // namespace test
