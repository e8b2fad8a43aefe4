// SPDX-License-Identifier: Apache-2.0
//
// Paths as texts. Nothing here looks at a file system.
#pragma once

#include <string>
#include <string_view>

// Whether `path` is `folder` or lies below it. Both are absolute, without "." or ".." and without slashes to spare, as
// realpath() and the kernel's mount table spell them.
[[nodiscard]] bool liesWithin(std::string_view path, std::string_view folder) noexcept;

// How many components an absolute path has: 0 for "/".
[[nodiscard]] std::size_t depthOf(std::string_view path) noexcept;

// `base` joined with `path`, whether `path` begins with a slash or not: "/mnt" and "/srv/data" give "/mnt/srv/data".
// Slashes at the end of `base` do not count. With nothing or "/" for `path`, it is `base`; never empty ("/").
[[nodiscard]] std::string joined(std::string_view base, std::string_view path);

// The part behind the last slash; the whole where there is none.
[[nodiscard]] std::string_view lastPart(std::string_view path) noexcept;

// The directory that an absolute path lies in: "/" for "/a".
[[nodiscard]] std::string_view folderOf(std::string_view path) noexcept;
