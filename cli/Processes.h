// SPDX-License-Identifier: Apache-2.0
//
// Other processes, as far as a message names them.
#pragma once

#include <optional>
#include <string>

namespace cli {

// Whether no process has this number any more, or one that has ended and is only still to be asked for its end.
bool isGone(int process);
// "process 12 (tar)"
std::string processText(int process);
// A process whose working directory, root or an open file lies in `folder`.
std::optional<int> userOf(const std::string& folder);

}  // namespace cli
