// SPDX-License-Identifier: Apache-2.0
//
// C library calls that the running kernel cannot be made to answer as a test needs.
#pragma once

#include <cstddef>
#include <functional>
#include <optional>

#include <sys/time.h>

namespace test {

// The time that gettimeofday tells; nothing: it is the kernel's.
inline std::optional<timeval> fixedTime;
// Each look at the monotonic clock finds it so many seconds later than the last one; 0: it is the kernel's.
inline long clockStride = 0;
// Every flock fails with it; 0: the kernel decides.
inline int flockError = 0;
// The library's calloc of at least so many bytes fails; 0: none does.
inline std::size_t callocFailsFrom = 0;

// Told of every descriptor that fsync is called with.
inline std::function<void(int descriptor)> onFsync;

}  // namespace test
