// SPDX-License-Identifier: Apache-2.0
//
// What a base shows: the snapshots, on which is forbidden what the live mount forbids (set-user-ID bits, device nodes,
// programs), and live mounts beside them.
#pragma once

#include <memory>
#include <string>
#include <variant>

#include "Failure.h"
#include "VolumeChoice.h"
#include "engine/MountVolumeParams.h"

namespace cli {

// Gives the snapshot of `volume` that is mounted at `target` the restrictions of the live mount; all of them where
// those cannot be told.
Outcome restrictSnapshot(const std::string& target, const ChosenVolume& volume);

// A live mount that a base shows as well. Which one it is, is settled here: another that is put in its place later is
// not bound.
using LiveMount = MirelSnapSnapshotCoordinator::MirelMountVolumeParams;
std::variant<std::unique_ptr<LiveMount>, Failure> liveMountAt(const std::string& mountPoint);
// Binds it at its own path below `base`, read-only, with the restrictions that it brings along. What is mounted or
// unmounted live from now on does not pass into the bind, nor back: one that holds another must be made before it.
Outcome bindLive(LiveMount& live, const std::string& base);

}  // namespace cli
