// SPDX-License-Identifier: Apache-2.0
//
// Whether files can be made at the top of a file system, tried out or looked at.
#pragma once

#include <string>

// The file by which it is tried out.
inline const std::string PROBE_FILE_NAME = "qorTESTfile.KQTA";

// Makes a file in `mountPoint` and removes it again. False when that fails, when something that the library did not
// make has the file's name, which is told and left alone, or when what is made there is not root's alone.
bool canMakeFiles(const std::string& mountPoint);

// Whether that could be so, by the name and the mount's options. Makes and removes nothing.
bool couldMakeFiles(const std::string& mountPoint);
