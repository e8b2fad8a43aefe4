// SPDX-License-Identifier: Apache-2.0
//
// What a verb comes to: what it tells, as text or as one JSON document, what went wrong, and its exit code.
#pragma once

#include <string>

#include <nlohmann/json.hpp>

#include "Failure.h"

namespace cli {

class Report {
 public:
  // With `json`, text is not shown, and the document is printed in the end.
  explicit Report(bool json) : mJson(json) {}

  bool json() const { return mJson; }
  // To be filled by the verb; "failures" and "exit_code" are added.
  nlohmann::json& document() { return mDocument; }
  // Shows text on standard output.
  void print(const std::string& text) const;
  // Shows the failure's line on standard error and adds it to the document. The first one gives the exit code; one that
  // something could not be removed takes its place.
  void failed(const Failure& failure);
  void setExitCode(int code) { mExitCode = code; }
  int exitCode() const { return mExitCode; }
  // Prints the document, when one is wanted; the exit code.
  int finish();

 private:
  bool mJson;
  int mExitCode = kSuccess;
  nlohmann::json mDocument = nlohmann::json::object();
  nlohmann::json mFailures = nlohmann::json::array();
};

// The failure of a verb that is not run by root; `reason` says what root is needed for.
Outcome requireRoot(const std::string& verb, const std::string& reason);

}  // namespace cli
