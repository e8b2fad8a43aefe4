// SPDX-License-Identifier: Apache-2.0
//
// Whether files can be made at the top of a file system, tried out or looked at.
#pragma once

#include <optional>
#include <string>

#include "base/Causes.h"

// The file by which it is tried out.
inline const std::string PROBE_FILE_NAME = "qorTESTfile.KQTA";

// Makes a file in `mountPoint` and removes it again. Nothing when that works; else the call that failed, that something
// which the library did not make has the file's name, or that what is made there is not root's alone. The last two are
// told, and what stands there is left alone.
std::optional<Cause> whyNotMakingFiles(const std::string& mountPoint);

// The same as far as the name and the mount's options tell. Makes and removes nothing.
std::optional<Cause> whyFilesCouldNotBeMade(const std::string& mountPoint);
