// SPDX-License-Identifier: Apache-2.0
//
// What somebody else may have put where the library makes something of its own: a mounted file system can belong to a
// user, or come from one.
#pragma once

#include <sys/stat.h>

#include <optional>
#include <string>

// Why a file is none that the library made on the file system `device`, as in "it ...": it is not a regular one, lies
// elsewhere, belongs to a user, or has a second name. Nothing when it is one.
std::optional<std::string> whyNotOurFile(const struct stat& file, dev_t device);

// The same of a directory: it is none, is a mount point, belongs to a user, or others may write to it.
std::optional<std::string> whyNotOurDirectory(const struct stat& directory, dev_t device);

// The same of a directory of relocation files in the directory `top`, which belongs to whom it may: who can rename what
// is in `top` could have given the name to another directory of root's. Ours cannot be searched, as hardly another.
std::optional<std::string> whyNotRelocationDirectory(const struct stat& top, const struct stat& directory);

// Logs that what stands at `path` is not used, and why: the one line that a planted thing adds to what its operation
// says.
void tellPlanted(const std::string& path, const std::string& why);
