// SPDX-License-Identifier: Apache-2.0
//
// Removes what is still mounted under the directory of an exposure, deepest first. Nothing here throws but
// InsertIntoQueue.
#pragma once

#include <deque>

namespace MirelSnapSnapshotCoordinator {

// One mount that is to go.
struct PosCnt {
  unsigned int position;  // index in the mount-point collection
  unsigned int count;     // depth of its folder; an undecodable one counts as the deepest (-1 as unsigned)
};
using PosCntQueue = std::deque<PosCnt>;

// Inserts {position, depth} so that the queue stays in descending depth order.
void InsertIntoQueue(PosCntQueue& queue, unsigned int position, unsigned int depth);

// Unmounts `folder`, spelled as the mount table does, and then removes the directory; a folder that cannot be unmounted
// is kept. No symbolic link is followed: the mount table's paths have none, and one that stands there now was planted.
// Only logs; `n` is the number that its messages carry.
void DismountAndDeleteDirectory(const char* folder, unsigned int n) noexcept;

// Unmounts and removes every folder of the local mount table that is `base` or lies under it. The mount table's
// spelling is compared with `base` as it is given: neither symbolic links nor a trailing "/" are resolved. "/" itself
// is left alone. 0, whatever became of the folders; else an errno value: 22 when `base` is null or no directory, that
// of stat, 12 when memory is short or the mount table cannot be read.
int DismountAndDeleteAllUnder(const char* base) noexcept;

}  // namespace MirelSnapSnapshotCoordinator
