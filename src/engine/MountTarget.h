// SPDX-License-Identifier: Apache-2.0
//
// Mounts below the base of an exposure. How the base is reached is the agent's affair. Below it lie folders of
// snapshots and of live volumes, which may belong to anybody: no symbolic link is followed there, so that nothing is
// mounted or unmounted elsewhere. The base is opened anew for each mount, because the snapshot of "/" covers it.
#pragma once

namespace MirelSnapSnapshotCoordinator {

// As mount(2), at `target`: `base` itself or a path below it. 0 or an errno: ELOOP where a link stands in the way (on
// kernels before 5.6 ENOTDIR), EXDEV when `target` does not lie there.
int MountBelow(const char* base, const char* target, const char* source, const char* type, unsigned long flags,
               const char* data) noexcept;

// Unmounts what is mounted last at `target`, as umount(2); results as above.
int UnmountBelow(const char* base, const char* target) noexcept;

}  // namespace MirelSnapSnapshotCoordinator
