// SPDX-License-Identifier: Apache-2.0
//
// Resolving paths through directories that belong to other people. Between a look at a path and its use its owner may
// put a symbolic link in the place of any directory of it; what is opened here was reached without one, and is used by
// its descriptor from then on.
#pragma once

#include <sys/types.h>

#include <array>

#include "base/Handle.h"

// Opens the absolute `path`, no component of which may be a symbolic link: paths from the kernel's mount table and from
// realpath() have none. `flags` as for open(); O_CLOEXEC is added, and O_CREAT and O_TMPFILE are not for here.
// Nothing is open and errno is set on failure: ELOOP, or ENOTDIR on kernels before 5.6, where a link is met, else as
// open().
[[nodiscard]] UniqueFd openWithoutLinks(const char* path, int flags) noexcept;

// Opens `relative`, a path without "..", below the directory `root`: no component may be a symbolic link, file systems
// mounted on the way are entered. Slashes at its beginning do not count; what is left empty is the directory itself.
// Flags and failures as above; EXDEV for "..".
[[nodiscard]] UniqueFd openBeneath(int root, const char* relative, int flags) noexcept;

// Opens the entry `name` of `directory`, one component. Neither a link nor a mount is followed: ELOOP (ENOTDIR on
// kernels before 5.6 with O_DIRECTORY) and EXDEV.
[[nodiscard]] UniqueFd openEntry(int directory, const char* name, int flags) noexcept;

// The path by which system calls that take only paths reach exactly what a descriptor has open:
//   mount(device, DescriptorPath(target.get()).text(), ...);
// It needs procfs on /proc and holds only while the descriptor is open.
class DescriptorPath {
 public:
  explicit DescriptorPath(int descriptor) noexcept;
  [[nodiscard]] const char* text() const noexcept { return mText.data(); }

 private:
  std::array<char, 32> mText{};
};
