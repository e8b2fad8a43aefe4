// SPDX-License-Identifier: Apache-2.0
#include "Verbs.h"

namespace cli {

std::string checkNamed(const std::string& text) { return text.empty() ? "the value is empty" : ""; }

void addJsonOption(CLI::App& verb, bool& json) { verb.add_flag("--json", json, "Print one JSON document instead"); }

}  // namespace cli
