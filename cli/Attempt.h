// SPDX-License-Identifier: Apache-2.0
//
// What the library tells of why an operation of its failed (base/Causes.h), for the line that a person reads.
#pragma once

#include <algorithm>
#include <string>
#include <vector>

#include "base/Causes.h"
#include "driver/ControlDevice.h"

namespace cli {

// What a failed `call` was on; empty for another cause.
inline std::string objectOf(const Cause& cause, const std::string& call) {
  const bool is = cause.what.starts_with(call + "(") && cause.what.ends_with(')');
  return is ? cause.what.substr(call.size() + 1, cause.what.size() - call.size() - 2) : "";
}

// "open(/a): Permission denied"; where the line's subject is /a, which need not be named again, "open: Permission
// denied".
inline std::string textBeside(const Cause& cause, const std::string& subject) {
  const std::string call = cause.what.substr(0, cause.what.find('('));
  if (cause.what == subject) return cause.why;
  return objectOf(cause, call) == subject ? call + ": " + cause.why : cause.text();
}

// The removal of a relocation file, of its directory or of a probe; not that of the control node, which each process
// makes anew.
inline bool isRemoval(const Cause& cause) {
  const std::string unlinked = objectOf(cause, "unlink");
  return (!unlinked.empty() && unlinked != kControlNode) || !objectOf(cause, "rmdir").empty();
}

// ": unlink: Permission denied" for the call on `object` if it is among the causes, in a line about `subject`; else
// empty.
inline std::string becauseOf(const std::vector<Cause>& causes, const std::string& call, const std::string& object,
                             const std::string& subject) {
  const auto found =
      std::find_if(causes.begin(), causes.end(), [&](const Cause& cause) { return objectOf(cause, call) == object; });
  return found == causes.end() ? "" : ": " + textBeside(*found, subject);
}

// One operation of the library's, or several: begun when this is made, by which older causes are forgotten.
class Attempt {
 public:
  Attempt() { takeCauses(); }

  // ": open(/proc/meminfo): Permission denied", the first cause since then, in a line about `subject`; empty where the
  // library noted none.
  std::string because(const std::string& subject) { return becauseSoFar(subject); }
  // All of them, in order.
  std::vector<Cause> causes() { return takeCauses(); }

  // The first cause since the last attempt began.
  static std::string becauseSoFar(const std::string& subject) { return firstOf(takeCauses(), subject); }
  // The first of those that were taken.
  static std::string firstOf(const std::vector<Cause>& causes, const std::string& subject) {
    return causes.empty() ? "" : ": " + textBeside(causes.front(), subject);
  }
};

}  // namespace cli
