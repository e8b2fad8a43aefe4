// SPDX-License-Identifier: Apache-2.0
//
// A kernel, or a filter of system calls, that has no openat2.
#pragma once

namespace test {

// Until it goes, openat2 fails with `error`; 0 leaves it as it is.
class WithoutOpenat2 {
 public:
  explicit WithoutOpenat2(int error);
  ~WithoutOpenat2();
  WithoutOpenat2(const WithoutOpenat2&) = delete;
  WithoutOpenat2& operator=(const WithoutOpenat2&) = delete;
  // How often it was asked for.
  static int refused();
};

}  // namespace test
