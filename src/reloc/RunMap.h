// SPDX-License-Identifier: Apache-2.0
//
// The physical runs of the relocation files that lie on each volume of a request, by the volume's position in it. A
// volume without such a file has no entry. The runs are plain pointers, owned by whoever owns the map: free them with
// freeRunMap.
#pragma once

#include <list>
#include <map>
#include <memory>

#include <mirelsnap/VolumeRecords.h>

using RunList = std::list<_run*>;
using RunMap = std::map<unsigned int, RunList*>;

// Frees a list with its runs; null is no list.
void freeRuns(RunList* runs) noexcept;
// Frees every list of the map and leaves the map empty.
void freeRunMap(RunMap& runs) noexcept;

struct FreeRuns {
  void operator()(RunList* runs) const noexcept { freeRuns(runs); }
};
using UniqueRuns = std::unique_ptr<RunList, FreeRuns>;
