// SPDX-License-Identifier: Apache-2.0
//
// What the library tells of why an operation of its failed (base/Causes.h), for the line that a person reads.
#pragma once

#include <string>
#include <vector>

#include "base/Causes.h"

namespace cli {

// One operation of the library's, or several: begun when this is made, by which older causes are forgotten.
class Attempt {
 public:
  Attempt() { takeCauses(); }

  // ": open(/proc/meminfo): Permission denied", the first cause since then; empty where the library noted none.
  std::string because() { return becauseSoFar(); }
  // All of them, in order.
  std::vector<Cause> causes() { return takeCauses(); }

  // The first cause since the last attempt began.
  static std::string becauseSoFar() {
    const std::vector<Cause> noted = takeCauses();
    return noted.empty() ? "" : ": " + noted.front().text();
  }
};

// ": unlink(/a): Permission denied" for the call on `object` if it is among the causes; else empty.
inline std::string becauseOf(const std::vector<Cause>& causes, const std::string& call, const std::string& object) {
  for (const Cause& cause : causes) {
    if (cause.what == call + "(" + object + ")") return ": " + cause.text();
  }
  return "";
}

}  // namespace cli
