// SPDX-License-Identifier: Apache-2.0
#include "Failure.h"

#include <nlohmann/json.hpp>

namespace cli {

std::string Failure::line() const {
  return "mirelsnap: " + subject + ": " + cause + (advice.empty() ? "" : "; " + advice);
}

nlohmann::json Failure::json() const {
  return {{"code", static_cast<int>(code)}, {"subject", subject}, {"cause", cause}, {"advice", advice}};
}

}  // namespace cli
