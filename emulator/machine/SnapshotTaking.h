// SPDX-License-Identifier: Apache-2.0
//
// Taking the snapshots of a set: all volumes at one instant, all or none.
#pragma once

#include <atomic>
#include <chrono>
#include <set>
#include <string>
#include <vector>

#include "emulator/machine/BlockDevice.h"
#include "emulator/machine/Caller.h"
#include "emulator/machine/DeviceNumber.h"
#include "emulator/machine/Kernel.h"
#include "emulator/machine/Result.h"
#include "emulator/machine/SnapshotImage.h"

namespace emulator {

struct SnapshotRequest {
  std::vector<DeviceNumber> volumes;
  std::set<DeviceNumber> frozen;       // volumes that are frozen already, and stay so
  std::vector<std::string> stores;     // directories for the images; the first suitable one is used
  std::chrono::milliseconds limit{0};  // how long the volumes may stay frozen
};

struct TakenSnapshots {
  std::vector<SnapshotImage> images;  // in the order of the volumes
  std::chrono::system_clock::time_point instant;
  std::chrono::microseconds frozen{0};  // how long the volumes stood still
};

// Images of the volumes, each on its loop device with its node in the caller's /dev. Nothing is left
// when it is refused: ENOSPC where the store has no room, EDEADLK where every store lies on a volume to be frozen,
// ETIMEDOUT after the limit, ECANCELED once `cancelled` is set.
Result<TakenSnapshots> takeSnapshots(const Kernel& kernel, const Caller& caller, const SnapshotRequest& request,
                                     const std::atomic<bool>& cancelled);

}  // namespace emulator
