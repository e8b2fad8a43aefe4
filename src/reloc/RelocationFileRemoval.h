// SPDX-License-Identifier: Apache-2.0
//
// Removing relocation files that no snapshot needs any more.
#pragma once

#include <string>

// The text before the last "/" of `path`; the whole text when there is none.
std::string relocFileDirectory(const std::string& path);
// The text after it; empty when there is none.
std::string relocFileEntry(const std::string& path);

// Unlinks the file and logs whether that worked, then removes its directory when nothing else is in it.
void removeRelocFile(const std::string& path);
