// SPDX-License-Identifier: Apache-2.0
#include "Failure.h"

#include <array>
#include <cstdio>

#include <nlohmann/json.hpp>

namespace cli {

std::string onOneLine(const std::string& text) {
  std::string result;
  for (const char character : text) {
    const auto code = static_cast<unsigned char>(character);
    if (code >= 0x20 && code != 0x7F) {
      result += character;
    } else if (character == '\n') {
      result += "\\n";
    } else {
      std::array<char, 8> escape{};
      std::snprintf(escape.data(), escape.size(), "\\x%02x", code);
      result += escape.data();
    }
  }
  return result;
}

std::string Failure::line() const {
  return onOneLine("mirelsnap: " + subject + ": " + cause + (advice.empty() ? "" : "; " + advice));
}

nlohmann::json Failure::json() const {
  return {{"code", static_cast<int>(code)}, {"subject", subject}, {"cause", cause}, {"advice", advice}};
}

}  // namespace cli
