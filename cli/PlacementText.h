// SPDX-License-Identifier: Apache-2.0
//
// Why a relocation file goes where it goes, in words.
#pragma once

#include <string>
#include <vector>

#include "Failure.h"
#include "Placement.h"

namespace cli {

// Whether the file lies on the volume that it is for.
bool onOwnVolume(const Placement& placement);
// Why it goes there, and what gives its size; for a file that is placed.
std::string whereText(const Placement& placement);
std::string sizeReasonText(const Placement& placement);
// "/mnt/x (read only)" each: file systems that could not take it.
std::vector<std::string> passedOverTexts(const Placement& placement);
// Why there is none, for a file that is not placed.
Failure notPlaced(const Placement& placement);

}  // namespace cli
