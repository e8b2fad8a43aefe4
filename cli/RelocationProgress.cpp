// SPDX-License-Identifier: Apache-2.0
#include "RelocationProgress.h"

#include <filesystem>
#include <sstream>

#include "base/ReadText.h"
#include "reloc/LinuxSnapshotreloc.h"

namespace fs = std::filesystem;

namespace cli {
namespace {

std::uint64_t positionOf(const std::string& descriptor) {
  std::istringstream info(readText("/proc/self/fdinfo/" + descriptor).value_or(std::string()));
  std::string key;
  std::uint64_t position = 0;
  return info >> key >> position && key == "pos:" ? position : 0;
}

}  // namespace

std::optional<FileProgress> relocationFileBeingWritten() {
  std::error_code error;
  for (fs::directory_iterator entry("/proc/self/fd", error), end; !error && entry != end; entry.increment(error)) {
    std::error_code unreadable;
    const fs::path target = fs::read_symlink(entry->path(), unreadable);
    if (!unreadable && target.parent_path().filename() == RELOC_FILE_LOCATION) {
      return FileProgress{target, positionOf(entry->path().filename())};
    }
  }
  return std::nullopt;
}

}  // namespace cli
