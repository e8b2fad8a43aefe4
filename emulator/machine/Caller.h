// SPDX-License-Identifier: Apache-2.0
//
// A process that issues a command, seen from outside: its memory, its descriptors, and the file tree that it sees,
// which need not be the emulator's.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "base/Handle.h"
#include "base/MountInfo.h"
#include "emulator/machine/DeviceNumber.h"
#include "emulator/machine/Kernel.h"

namespace emulator {

// The memory of a process or thread, by its number: the asker makes sure that it is still the same one.
class CallerMemory {
 public:
  explicit CallerMemory(pid_t task) : mTask(task) {}

  pid_t task() const { return mTask; }
  // Copies memory out or in; false when not all of it is there.
  bool readMemory(std::uint64_t address, std::span<std::byte> to) const;
  bool writeMemory(std::uint64_t address, std::span<const std::byte> from) const;
  // A text of at most `limit` bytes; shorter when the memory ends first.
  std::string readText(std::uint64_t address, std::size_t limit) const;

 private:
  pid_t mTask;
};

class Caller : public CallerMemory {
 public:
  // The process or thread `task`. Later queries refer to this very process: once it is gone they fail, even if its
  // number was given to a new process. Only the memory is accessed by number.
  Caller(const Kernel& kernel, pid_t task);
  Caller(Caller&&) = default;
  Caller& operator=(Caller&&) = default;

  // The process that the thread belongs to; the task itself when that cannot be found out.
  pid_t process() const;

  // The file that descriptor `number` of the caller refers to.
  std::optional<struct stat> descriptor(int number) const;

  // Opens a path as the caller sees it; a relative one starts at its root. Invalid on failure, errno says why.
  // With O_CREAT a new file gets `mode`.
  UniqueFd open(const std::string& path, int flags, mode_t mode = 0) const;
  // The same where no component of the path is a symbolic link; ELOOP where one is.
  UniqueFd openWithoutLinks(const std::string& path, int flags) const;
  // Whether the caller, asked to execute `path`, finds a file there; a relative path starts at its working directory.
  bool findsProgram(const std::string& path) const;
  // The device that a path leads to, when it leads to a block device.
  std::optional<DeviceNumber> blockDevice(const std::string& path) const;
  std::vector<MountLine> mounts() const;

 private:
  UniqueFd openAsSeen(const std::string& path, int flags, mode_t mode, std::uint64_t resolve) const;

  UniqueFd mFolder;  // its directory in /proc
};

}  // namespace emulator
