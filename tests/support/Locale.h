// SPDX-License-Identifier: Apache-2.0
//
// The process's character set for a scope.
#pragma once

#include <clocale>
#include <stdexcept>
#include <string>

namespace test {

class Locale {
 public:
  explicit Locale(const char* name) : mBefore(std::setlocale(LC_CTYPE, nullptr)) {
    if (std::setlocale(LC_CTYPE, name) == nullptr) throw std::runtime_error(std::string("no locale ") + name);
  }
  ~Locale() { std::setlocale(LC_CTYPE, mBefore.c_str()); }
  Locale(const Locale&) = delete;
  Locale& operator=(const Locale&) = delete;

 private:
  std::string mBefore;
};

inline constexpr char kUtf8[] = "C.UTF-8";
inline constexpr char kPlain[] = "C";

}  // namespace test
