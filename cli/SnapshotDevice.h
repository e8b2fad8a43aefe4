// SPDX-License-Identifier: Apache-2.0
//
// The names of the devices that the driver offers snapshots as: /dev/snapMAJOR_MINOR, the numbers being the volume's.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

#include "driver/VolumeRecords.h"

namespace cli {

// The path of the device that the driver offers the snapshot of a volume as.
std::string snapshotDeviceOf(const SnappedVolumeInformation& volume);
// Whether a path names a device that the driver offers a snapshot as.
bool isSnapshotDevice(const std::string& path);
// The volume whose snapshot a device is; nothing when the path names no such device.
std::optional<dev_t> volumeOf(const std::string& path);

}  // namespace cli
