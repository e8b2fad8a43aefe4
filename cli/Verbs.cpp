// SPDX-License-Identifier: Apache-2.0
#include "Verbs.h"

namespace cli {

void addJsonOption(Syntax& verb, bool& json) { verb.flag("--json", json, "Print one JSON document instead"); }

}  // namespace cli
