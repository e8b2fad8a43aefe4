// SPDX-License-Identifier: Apache-2.0
//
// C library calls that the running kernel cannot be made to answer as a test needs.
#pragma once

#include <optional>
#include <string>

namespace test {

// errno that fstat fails with; 0: it is the kernel's.
inline int fstatFailure = 0;
// What realpath answers for an empty path; nothing: it is the C library's.
inline std::optional<std::string> realpathOfNothing;

}  // namespace test
