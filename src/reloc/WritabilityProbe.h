// SPDX-License-Identifier: Apache-2.0
//
// Whether files can be made at the top of a file system, tried out or looked at.
#pragma once

#include <string>

// Makes a file in `mountPoint` and removes it again. False when that fails, when something that the library did not
// make has the file's name, which is told and left alone, or when what is made there is open to everybody.
bool canMakeFiles(const std::string& mountPoint);

// Whether the name is free for that, or could be made free. Makes and removes nothing.
bool isProbeNameFree(const std::string& mountPoint);
