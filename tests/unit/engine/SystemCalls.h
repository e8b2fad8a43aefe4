// SPDX-License-Identifier: Apache-2.0
//
// The library's own calls of access, open and calloc, which this program links through its hands (--wrap).
#pragma once

#include <string>
#include <vector>

namespace test {

// Records the names that access is asked for, while it lives.
class AccessedNames {
 public:
  AccessedNames();
  ~AccessedNames();
  AccessedNames(const AccessedNames&) = delete;
  AccessedNames& operator=(const AccessedNames&) = delete;
  const std::vector<std::string>& all() const;
};

// A removable drive without a medium in the block device's place, while it lives: an open that means to read fails, one
// that does not wait for the medium succeeds.
class NoMedium {
 public:
  explicit NoMedium(std::string device);
  ~NoMedium();
  NoMedium(const NoMedium&) = delete;
  NoMedium& operator=(const NoMedium&) = delete;
};

// A write-protected drive in the block device's place, while it lives: an open that means to write fails.
class WriteProtected {
 public:
  explicit WriteProtected(std::string device);
  ~WriteProtected();
  WriteProtected(const WriteProtected&) = delete;
  WriteProtected& operator=(const WriteProtected&) = delete;
};

// While it lives, calloc finds no memory, and its last request is kept.
class NoCalloc {
 public:
  NoCalloc();
  ~NoCalloc();
  NoCalloc(const NoCalloc&) = delete;
  NoCalloc& operator=(const NoCalloc&) = delete;
  // Bytes that were asked for; 0 when nothing was.
  std::size_t asked() const;
};

}  // namespace test
