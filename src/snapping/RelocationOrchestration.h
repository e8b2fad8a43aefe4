// SPDX-License-Identifier: Apache-2.0
//
// The relocation files of a request, and whether they stay where they were made.
#pragma once

#include <mirelsnap/DriverInterface.h>

#include <list>
#include <string>
#include <vector>

#include "base/Handle.h"

// SnapDriverInterface::deduceRelocLocations, which also appends what it made, in list order: open, so that no other
// file can get the number of one of them.
int makeRelocationFiles(SnapDriverInterface& driver, std::list<SnapVolumeInformation>& volumes,
                        unsigned long relocEntriesInMemory, std::vector<UniqueFd>& made);

// Whether `path` still leads to the file that was made, through no link: who owns a directory above it could have moved
// it and put another in its place. Where it does not, that is logged and noted.
bool isStillTheFile(const std::string& path, const UniqueFd& made);
