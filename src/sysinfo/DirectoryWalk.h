// SPDX-License-Identifier: Apache-2.0
//
// What the walks of directory trees have in common: which entries they pass over.
#pragma once

#include <cstddef>
#include <cstring>

namespace mirelsnapsdk_linuxcomputer {

// Bytes that a directory's path and the name of an entry may have together; an entry beyond is skipped, never cut.
// Every level adds to the path, so this bounds the depth of a walk as well.
inline constexpr std::size_t kPathLimit = 4096;

// "." and "..".
inline bool isSelfOrParent(const char* name) { return std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0; }

// Whether a walk looks at the entry `name` of a directory whose path has `directoryLength` bytes.
inline bool isWalked(std::size_t directoryLength, const char* name) {
  return !isSelfOrParent(name) && directoryLength + std::strlen(name) <= kPathLimit;
}

}  // namespace mirelsnapsdk_linuxcomputer
