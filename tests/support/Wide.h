// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

namespace test {

// An ASCII text as the library's wide interfaces take it.
inline std::wstring wide(const std::string& ascii) { return {ascii.begin(), ascii.end()}; }

}  // namespace test
