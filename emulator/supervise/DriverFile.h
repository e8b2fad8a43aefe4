// SPDX-License-Identifier: Apache-2.0
//
// The file in /proc that names the control device's numbers.
#pragma once

#include <linux/seccomp.h>
#include <sys/stat.h>

#include <cstddef>
#include <optional>
#include <vector>

#include "base/Handle.h"
#include "emulator/machine/Caller.h"
#include "emulator/machine/Kernel.h"
#include "emulator/machine/Result.h"

namespace emulator {

class DriverFile {
 public:
  static Result<DriverFile> make();

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

// Whether a call asks for the driver's file by its full path.
bool namesDriverFile(const seccomp_data& call, const CallerMemory& caller);

}  // namespace emulator
