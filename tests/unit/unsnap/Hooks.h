// SPDX-License-Identifier: Apache-2.0
//
// A C library call that the running kernel cannot be made to answer as a test needs.
#pragma once

#include <sys/types.h>

namespace test {

// The process that may not be signalled; 0: the kernel decides.
inline pid_t unsignallable = 0;

}  // namespace test
