// SPDX-License-Identifier: Apache-2.0
#include "Failure.h"

#include <algorithm>
#include <array>

#include <nlohmann/json.hpp>

#include "Text.h"

namespace cli {
namespace {

struct Meaning {
  ExitCode code;
  const char* text;
};
constexpr std::array kMeanings = {
    Meaning{kSuccess, "all went well"},
    Meaning{kFindings, "something stands in the way of a snapshot"},
    Meaning{kUsage, "the options are wrong, nothing was done"},
    Meaning{kNotRoot, "not root"},
    Meaning{kNoDriver, "the driver does not answer"},
    Meaning{kVolumeNotSupported, "a volume cannot be snapped"},
    Meaning{kAlreadySnapped, "a volume is snapped or frozen already"},
    Meaning{kNoRoom, "no room for a relocation file"},
    Meaning{kSnapshotFailed, "the snapshot failed otherwise"},
    Meaning{kCannotExpose, "the snapshots cannot be mounted"},
    Meaning{kCannotCleanUp, "something could not be removed"},
    Meaning{kRefused, "the driver refused the request"},
    Meaning{kNotInState, "a volume is not frozen, or not tracked"},
    Meaning{kOutputLost, "standard output cannot be written"},
    Meaning{kNotExecutable, "COMMAND cannot be executed"},
    Meaning{kNotFound, "COMMAND is not found"},
};

}  // namespace

std::string exitCodeHelp(std::initializer_list<ExitCode> codes) {
  std::string text = "Exit codes:\n";
  for (const Meaning& meaning : kMeanings) {
    // What every verb may end with.
    const bool common = meaning.code == kUsage || meaning.code == kOutputLost;
    if (!common && std::find(codes.begin(), codes.end(), meaning.code) == codes.end()) continue;
    const std::string number = std::to_string(meaning.code);
    text += std::string(5 - number.size(), ' ') + number + "  " + meaning.text + "\n";
  }
  return text;
}

std::string Failure::line() const {
  return onOneLine("mirelsnap: " + subject + ": " + cause + (advice.empty() ? "" : "; " + advice));
}

nlohmann::json Failure::json() const {
  return {{"code", static_cast<int>(code)}, {"subject", subject}, {"cause", cause}, {"advice", advice}};
}

}  // namespace cli
