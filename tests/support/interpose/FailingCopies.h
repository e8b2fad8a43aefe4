// SPDX-License-Identifier: Apache-2.0
//
// Makes strdup, wcsdup or calloc fail for the library's own code. For programs that list interpose/FailingCopies.cpp
// among their sources and link with --wrap=strdup, --wrap=wcsdup and --wrap=calloc, which leaves the C library's and
// the sanitizers' own calls alone.
#pragma once

namespace test {

enum class CopyCall { kStrdup, kWcsdup, kCalloc };

// From construction to destruction this thread's calls of one function answer null, the first `allowed` ones excepted;
// one at a time exists.
class FailingCopies {
 public:
  explicit FailingCopies(CopyCall call, int allowed = 0);
  ~FailingCopies();
  FailingCopies(const FailingCopies&) = delete;
  FailingCopies& operator=(const FailingCopies&) = delete;
};

}  // namespace test
