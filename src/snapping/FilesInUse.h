// SPDX-License-Identifier: Apache-2.0
//
// Which relocation files are in use, as the driver tells it.
#pragma once

#include <mirelsnap/DriverInterface.h>
#include <sys/types.h>

#include <optional>
#include <string>

#include "base/FileIdentity.h"

// A relocation file as the driver names it.
class UsedFile {
 public:
  explicit UsedFile(std::string path);
  // Whether `path` is that file or cannot be told from it: a second mount of its file system shows it under another
  // path, and who owns a folder above a mount point can move it and put another in its place. So every file of that
  // name is taken for it: the name is that of the snapped device. A name that fills the driver's field may have been
  // cut.
  bool isAt(const std::string& path) const;
  // The same of a file that was reached by `path` and is open; nothing: there was none.
  bool isAt(const std::string& path, const std::optional<FileIdentity>& file) const;

 private:
  std::string mPath;
  std::string mEntry;                 // the last component
  std::optional<FileIdentity> mFile;  // which one the path leads to
};

// Asks the driver whether a living process, `except` aside (0: none), has mapped the file that was reached by `path`,
// or holds a snapshot with it. A driver that cannot be asked knows nothing to the contrary: true.
bool isFileInUse(SnapDriverInterface& driver, const std::string& path, const std::optional<FileIdentity>& file,
                 pid_t except);
