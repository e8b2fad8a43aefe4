// SPDX-License-Identifier: Apache-2.0
//
// What ReconcileAndCleanup has no result for.
#pragma once

// Whether the last ReconcileAndCleanup of this process left snapshots or relocation files of dead processes where they
// are because another process was taking a snapshot, or removing one, all the time that it waited. It returns 0 then,
// as ever, and says so in the system log; reconciling again when the other process is done removes them.
[[nodiscard]] bool wasReconcileHeldOff() noexcept;
