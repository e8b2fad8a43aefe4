// SPDX-License-Identifier: Apache-2.0
//
// What dead processes left at their bases: unmounted and removed, and nothing besides. Whatever else is mounted there
// is left alone.
#pragma once

#include <string>
#include <vector>

#include "BaseRecord.h"
#include "Failure.h"
#include "MountTable.h"

namespace cli {

// Whether a mount is a snapshot's, or one of the binds that a record tells of.
bool isOfExposure(const Mount& mount, const std::vector<BaseRecord>& records);

// Unmounts what is of the exposure that a record tells of, deepest first, and waits for who uses it for a moment. What
// stays shows in the mount table.
void unmountExposure(const BaseRecord& record);

// Unmounts what is of exposures in the bases of dead processes and in `base`, unless that is empty, deepest first, and
// removes the folders: those that the dead ones recorded, and in `base` those that a snapshot was mounted on. What
// could not be done shows in what is still there; told is only why nothing could.
Outcome sweepBases(const std::string& base);

// What would be removed with the bases of dead processes, the run directory among it where it is empty.
std::vector<std::string> abandonedFolders();

}  // namespace cli
