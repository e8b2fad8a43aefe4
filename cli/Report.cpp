// SPDX-License-Identifier: Apache-2.0
#include "Report.h"

#include <unistd.h>

#include <cstdio>

namespace cli {

void Report::print(const std::string& text) const {
  if (!mJson) std::fputs(text.c_str(), stdout);
}

void Report::failed(const Failure& failure) {
  std::fflush(stdout);
  std::fprintf(stderr, "%s\n", failure.line().c_str());
  mFailures.push_back(failure.json());
  if (mExitCode == kSuccess || failure.code == kCannotCleanUp) mExitCode = failure.code;
}

int Report::finish() {
  if (mJson) {
    mDocument["failures"] = mFailures;
    mDocument["exit_code"] = mExitCode;
    std::printf("%s\n", mDocument.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace).c_str());
  }
  return mExitCode;
}

Outcome requireRoot(const std::string& verb, const std::string& reason) {
  if (geteuid() == 0) return std::nullopt;
  return Failure{kNotRoot, "mirelsnap " + verb, "needs root: " + reason, "run it with sudo"};
}

}  // namespace cli
