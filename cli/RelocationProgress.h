// SPDX-License-Identifier: Apache-2.0
//
// How far the library is with a relocation file that it is writing, seen from this process's own descriptors.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace cli {

struct FileProgress {
  std::string path;
  std::uint64_t written;  // bytes
};

// The relocation file that this process has open for writing, and its position; none while none is being written.
std::optional<FileProgress> relocationFileBeingWritten();

}  // namespace cli
