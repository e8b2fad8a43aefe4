// SPDX-License-Identifier: Apache-2.0
//
// What making the relocation files of a request would come to, without making, registering or writing anything.
#pragma once

#include <mirelsnap/VolumeRecords.h>

#include <cstdint>
#include <list>
#include <string>
#include <vector>

#include "reloc/RelocationReasons.h"

struct RelocationForecast {
  unsigned int status;     // 0; else why it could not be placed (RelocationStatus.h)
  std::string file;        // full path; empty unless it is placed
  std::string mountPoint;  // of the file system that would hold it; empty unless it is placed
  std::string device;      // of that file system; empty unless it is placed
  std::uint64_t blocks;    // in blocks of the volume
  std::uint64_t fsType;    // magic of the kind of file system that the making would go by
  RelocationReasons reasons;
};

// One answer a volume, in list order: where SnapDriverInterface::deduceRelocLocations would put its file, by the same
// decision. Each file that is placed leaves less memory and less free space to those after it. Where a volume cannot be
// placed the operation would end; here those after it are answered all the same. The records' relocation fields are
// filled as the operation would. Nothing is written; which volumes are snapped or frozen is asked of the driver, and a
// driver that cannot be asked counts as none.
std::vector<RelocationForecast> forecastRelocLocations(std::list<SnapVolumeInformation>& volumes,
                                                       unsigned long relocEntriesInMemory);
