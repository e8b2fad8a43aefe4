// SPDX-License-Identifier: Apache-2.0
//
// Why a relocation file goes where it goes, in words.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "Failure.h"
#include "MountTable.h"
#include "Placement.h"

namespace cli {

// The file system that would hold the file.
Mount holderOf(const Placement& placement, const MountTable& table);
// Whether the file lies on the volume that it is for.
bool onOwnVolume(const Placement& placement);
// Why it goes there, and what gives its size; for a file that is placed.
std::string whereText(const Placement& placement);
std::string sizeReasonText(const Placement& placement);
// Bytes that making a file on a file system of this type would write: none where it is allocated at once.
std::uint64_t bytesWritten(const Placement& placement, const std::string& type);
// What making it costs: "allocated at once", or "written out: 24.0 GiB, xfs" and what costs less.
std::string costText(const Placement& placement, const std::string& type);
// "/mnt/x (read only)" each: file systems that could not take it.
std::vector<std::string> passedOverTexts(const Placement& placement);
// Why there is none, for a file that is not placed.
Failure notPlaced(const Placement& placement);

}  // namespace cli
