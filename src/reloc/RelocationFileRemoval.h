// SPDX-License-Identifier: Apache-2.0
//
// Removing relocation files that no snapshot needs any more.
#pragma once

#include <string>

// Unlinks the file and logs whether that worked.
void unlinkRelocFile(const std::string& path);

// The text before the last "/" of `path`; the whole text when there is none.
std::string relocFileDirectory(const std::string& path);
