// SPDX-License-Identifier: Apache-2.0
//
// The driver's files in /proc: the control device's numbers, and a line a snapshot.
#pragma once

#include <linux/seccomp.h>
#include <sys/stat.h>

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "base/Handle.h"
#include "emulator/machine/Caller.h"
#include "emulator/machine/Kernel.h"
#include "emulator/machine/Result.h"

namespace emulator {

class DriverFile {
 public:
  // A file with a content of its own.
  static Result<DriverFile> make(const std::string& text);
  // The control device's numbers.
  static Result<DriverFile> ofNumbers();

  // How a system call on the file is answered.
  struct Reply {
    int error = 0;                   // errno it fails with
    UniqueFd opened;                 // an open's new descriptor
    bool closeOnExecution = false;   // whether that is what the open asked for
    std::uint64_t address = 0;       // where `written` goes in the caller's memory
    std::vector<std::byte> written;  // what a question for the file's properties gets
  };
  // Nothing when the call is about another file, or none that the file answers.
  std::optional<Reply> answer(const Kernel& kernel, const seccomp_data& call, const CallerMemory& caller) const;

 private:
  explicit DriverFile(UniqueFd content) : mContent(std::move(content)) {}

  Reply open(const Kernel& kernel, unsigned long flags) const;
  Reply properties(std::uint64_t address) const;
  Reply extendedProperties(std::uint64_t address) const;

  UniqueFd mContent;
};

enum class DriverFileName { kNumbers, kSnapshots };
// Which of the driver's files a call asks for, by its full path.
std::optional<DriverFileName> driverFileOf(const seccomp_data& call, const CallerMemory& caller);

}  // namespace emulator
