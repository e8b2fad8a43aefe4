// SPDX-License-Identifier: Apache-2.0
//
// What a step of a command comes to: done, or refused with an errno and the reason in words.
#pragma once

#include <cstdint>
#include <cstring>
#include <optional>
#include <string>
#include <utility>
#include <variant>

namespace emulator {

struct [[nodiscard]] Answer {
  int error = 0;                       // errno that the request fails with; 0: it succeeds
  std::string why;                     // the reason, for the line on the standard error
  std::optional<std::int32_t> status;  // the driver status to answer, where the command has one

  bool failed() const { return error != 0; }
};

inline Answer done() { return {}; }
inline Answer refuse(int error, std::string why, std::optional<std::int32_t> status = std::nullopt) {
  return {error, std::move(why), status};
}
// A system call that failed with `error` while doing what `what` says.
inline Answer failedCall(int error, const std::string& what) { return {error, what + ": " + std::strerror(error), {}}; }

// A value, or the answer that says why there is none.
template <class T>
class [[nodiscard]] Result {
 public:
  Result(T value) : mContent(std::move(value)) {}           // NOLINT: meant to convert
  Result(Answer refusal) : mContent(std::move(refusal)) {}  // NOLINT: meant to convert

  explicit operator bool() const { return mContent.index() == 0; }
  T& operator*() { return std::get<0>(mContent); }
  T* operator->() { return &std::get<0>(mContent); }
  Answer refusal() && { return std::get<1>(std::move(mContent)); }

 private:
  std::variant<T, Answer> mContent;
};

}  // namespace emulator
