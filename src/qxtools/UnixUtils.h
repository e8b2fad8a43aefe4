// SPDX-License-Identifier: Apache-2.0
//
// Names and directories: conversions between narrow and wide text, one directory made or removed, a block device's
// number. Conversions follow the process's locale and answer null, never a cut or altered text; none of them throws.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <memory>

#include "base/Handle.h"

namespace UnixUtils {

using NarrowText = std::unique_ptr<char[], FreeMemory>;
using WideText = std::unique_ptr<wchar_t[], FreeMemory>;

// Narrow (wide) copy of `text`, nul-terminated, on the heap. Null for null, for text that the locale cannot convert and
// when memory is short.
NarrowText ConvertToANSI(const wchar_t* text) noexcept;
WideText ConvertToWide(const char* text) noexcept;
// Narrow copy of a path. Null also for an empty or relative path and for one that PATH_MAX bytes cannot hold.
NarrowText ValidatePathAndConvertToANSI(const wchar_t* path) noexcept;

// Whether `path` leads to a directory.
bool IsDirectory(const char* path) noexcept;
// Makes one directory. 0, also when a directory is there already; else an errno.
int CreateDirectory(const char* path, mode_t mode) noexcept;
// Removes one empty directory. 0, or an errno.
int RemoveDirectory(const char* path) noexcept;

// The number of the block device `name`; 0 when it is none.
std::uint64_t GetBlockDeviceNumber(const wchar_t* name) noexcept;
std::uint64_t GetBlockDeviceNumber(const char* name) noexcept;

}  // namespace UnixUtils
