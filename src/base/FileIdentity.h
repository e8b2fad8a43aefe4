// SPDX-License-Identifier: Apache-2.0
//
// Which file it is, whatever path leads to it.
#pragma once

#include <sys/types.h>

#include <optional>

// Holds while the file is there: its number can be given to another one afterwards.
struct FileIdentity {
  dev_t device = 0;
  ino_t number = 0;
  bool operator==(const FileIdentity&) const = default;
};

// Of what `descriptor` has open; nothing, with errno set, when that cannot be told.
[[nodiscard]] std::optional<FileIdentity> identityOf(int descriptor) noexcept;
