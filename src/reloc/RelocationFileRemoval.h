// SPDX-License-Identifier: Apache-2.0
//
// Removing relocation files that no snapshot needs any more.
#pragma once

#include <optional>
#include <string>

#include "base/FileIdentity.h"
#include "base/Handle.h"
#include "reloc/RelocationDirectory.h"

// The text before the last "/" of `path`; the whole text when there is none.
std::string relocFileDirectory(const std::string& path);
// The text after it; empty when there is none.
std::string relocFileEntry(const std::string& path);

// A relocation file that is to be removed. Its path is resolved once: whatever is moved or put in its place afterwards,
// what is judged is what is removed.
class DoomedRelocFile {
 public:
  explicit DoomedRelocFile(std::string path);

  const std::string& path() const { return mPath; }
  // Which file it is; nothing when there is none that the library made.
  std::optional<FileIdentity> identity() const { return identityOf(mFile.get()); }
  // Unlinks it and logs whether that worked, then removes its directory when nothing else is in it.
  void remove() const;

 private:
  std::string mPath;
  RelocationDirectory mDirectory;
  UniqueFd mFile;
  int mError = 0;  // errno that kept the file from being opened
};
