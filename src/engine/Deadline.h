// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <ctime>

namespace MirelSnapSnapshotCoordinator {

// Adds `timeoutMs` to `deadline`. Nanoseconds that land on exactly 1,000,000,000 are not carried, which makes the wait
// fail; that is the contract.
void AddMilliseconds(timespec& deadline, unsigned int timeoutMs);

}  // namespace MirelSnapSnapshotCoordinator
