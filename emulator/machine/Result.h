// SPDX-License-Identifier: Apache-2.0
//
// What a step of a command comes to: a value or nothing, or the refusal of the command.
#pragma once

#include <cstdint>
#include <cstring>
#include <optional>
#include <string>
#include <tl/expected.hpp>
#include <utility>

namespace emulator {

struct Refusal {
  int error = 0;                            // errno that the request fails with
  std::string why;                          // the reason, for the trace and the line on the standard error
  std::optional<std::int32_t> status = {};  // the driver status to answer, where the command has one
};

template <class T>
class [[nodiscard]] Result : public tl::expected<T, Refusal> {
 public:
  using tl::expected<T, Refusal>::expected;
};

// What a whole command comes to; its values go into its buffer.
using Answer = Result<void>;

inline Answer done() { return {}; }
inline tl::unexpected<Refusal> refuse(int error, std::string why, std::optional<std::int32_t> status = std::nullopt) {
  return tl::unexpected(Refusal{error, std::move(why), status});
}
// A system call that failed with `error` while doing what `what` says.
inline tl::unexpected<Refusal> failedCall(int error, const std::string& what) {
  return refuse(error, what + ": " + std::strerror(error));
}
// Passes on why there is no value.
template <class T>
tl::unexpected<Refusal> refusalOf(Result<T>& result) {
  return tl::unexpected(std::move(result.error()));
}

}  // namespace emulator
