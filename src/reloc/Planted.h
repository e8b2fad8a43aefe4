// SPDX-License-Identifier: Apache-2.0
//
// What somebody else may have put where the library makes something of its own: a mounted file system can belong to a
// user, or come from one.
#pragma once

#include <sys/stat.h>

#include <optional>
#include <set>
#include <string>

// Why a file is none that the library made on the file system `device`, as in "it ...": it is not a regular one, lies
// elsewhere, belongs to a user, or has a second name. Nothing when it is one.
std::optional<std::string> whyNotOurFile(const struct stat& file, dev_t device);

// The same of a directory: it is none, is a mount point, belongs to a user, or others may write to it.
std::optional<std::string> whyNotOurDirectory(const struct stat& directory, dev_t device);

// The same of a directory of relocation files in the directory `top`, which belongs to whom it may: who can rename what
// is in `top` could have given the name to another directory of root's. Ours cannot be searched, as hardly another.
std::optional<std::string> whyNotRelocationDirectory(const struct stat& top, const struct stat& directory);

// Why files on a file system that keeps no modes of its own (FAT) could be read by others: `top` is its top, and all
// that is made there has the mode `file`. Nothing when root alone may look.
std::optional<std::string> whyOpenToOthers(const struct stat& top, mode_t file);

// Logs that what stands at `path` is not used, and why: the one line that a planted thing adds to what its operation
// says.
void tellPlanted(const std::string& path, const std::string& why);

// One operation that may come upon the same thing several times: while this lives its thread tells each line once.
class ToldOnce {
 public:
  ToldOnce() noexcept;
  ~ToldOnce();
  ToldOnce(const ToldOnce&) = delete;
  ToldOnce& operator=(const ToldOnce&) = delete;

 private:
  friend void tellPlanted(const std::string& path, const std::string& why);
  std::set<std::string> mLines;
};
