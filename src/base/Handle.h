// SPDX-License-Identifier: Apache-2.0
//
// One owner a resource: move-only handles for descriptors and for what the C library hands out as pointers.
#pragma once

#include <dirent.h>
#include <mntent.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <utility>

// An open descriptor, closed when its owner goes. Closing keeps errno, so that a failure can be reported afterwards.
class UniqueFd {
 public:
  UniqueFd() = default;
  explicit UniqueFd(int descriptor) noexcept : mDescriptor(descriptor) {}
  UniqueFd(UniqueFd&& other) noexcept : mDescriptor(other.release()) {}
  UniqueFd& operator=(UniqueFd&& other) noexcept {
    if (this != &other) reset(other.release());
    return *this;
  }
  ~UniqueFd() { reset(); }

  [[nodiscard]] int get() const noexcept { return mDescriptor; }
  [[nodiscard]] bool valid() const noexcept { return mDescriptor >= 0; }
  explicit operator bool() const noexcept { return valid(); }
  [[nodiscard]] int release() noexcept { return std::exchange(mDescriptor, -1); }
  void reset(int descriptor = -1) noexcept;

 private:
  int mDescriptor = -1;
};

// Calls Close on the pointer when its owner goes.
template <auto Close>
struct CloseWith {
  template <class T>
  void operator()(T* resource) const noexcept {
    static_cast<void>(Close(resource));
  }
};

struct FreeMemory {
  void operator()(void* memory) const noexcept { std::free(memory); }
};

using UniqueFile = std::unique_ptr<std::FILE, CloseWith<&std::fclose>>;
using UniqueDirectory = std::unique_ptr<DIR, CloseWith<&closedir>>;
using UniqueMountTable = std::unique_ptr<std::FILE, CloseWith<&endmntent>>;
