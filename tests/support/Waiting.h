// SPDX-License-Identifier: Apache-2.0
//
// Tests wait for what happens, never for time to pass.
#pragma once

#include <chrono>
#include <functional>

namespace test {

// How long a test waits for what must happen. It takes nearly no time; the bound only ends a test that has failed.
inline constexpr std::chrono::seconds kPatience{60};

// Waits until `happened` says so; false when it does not within kPatience.
[[nodiscard]] bool comesTrue(const std::function<bool()>& happened);

}  // namespace test
