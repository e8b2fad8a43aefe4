// SPDX-License-Identifier: Apache-2.0
//
// What keeps a volume or a folder from being handed to the library, whatever the driver says: names that do not reach
// it, sizes that cannot be read. To be asked before anything is begun.
#pragma once

#include <string>
#include <vector>

#include "Failure.h"
#include "Placement.h"
#include "VolumeChoice.h"

namespace cli {

// Why no snapshot can be taken of the volume under this mount point.
Outcome checkVolume(const ChosenVolume& volume);
// The first reason among several.
Outcome checkVolumes(const std::vector<ChosenVolume>& volumes);
// Why relocation files cannot be put at the named mount point, if one is named.
Outcome checkRelocationMount(const RelocationOptions& options);

}  // namespace cli
