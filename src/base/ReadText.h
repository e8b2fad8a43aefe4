// SPDX-License-Identifier: Apache-2.0
//
// Small text files, those of procfs and sysfs above all.
#pragma once

#include <optional>
#include <string>

// All that the file at `path` holds; nothing, with errno set, where it cannot be opened or read. `flags` are added to
// those of open(). Throws std::bad_alloc.
[[nodiscard]] std::optional<std::string> readText(const std::string& path, int flags = 0);
// Its first line, without the end of it; empty where it cannot be read.
[[nodiscard]] std::string readLine(const std::string& path);
