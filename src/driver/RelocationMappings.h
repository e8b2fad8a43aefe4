// SPDX-License-Identifier: Apache-2.0
//
// The driver's mappings, for whoever removes what no mapping names.
#pragma once

#include <mirelsnap/VolumeRecords.h>

#include <list>

// Appends one record a mapping. False when the driver does not tell, the list unchanged then.
// SnapDriverInterface::GetRelocFileMapping cannot say so: it takes a count that failed for one of 3, 5 or 6 mappings,
// and leaves those beyond out.
[[nodiscard]] bool readAllMappings(std::list<RelocFileMappingInformation>& mappings);
