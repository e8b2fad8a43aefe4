// SPDX-License-Identifier: Apache-2.0
#include "SnapshotDevice.h"

#include "sysinfo/SnapshotName.h"

namespace cli {

std::string snapshotDeviceOf(const SnappedVolumeInformation& volume) {
  return "/dev/snap" + std::to_string(volume.getMajorNum()) + "_" + std::to_string(volume.getMinorNum());
}

bool isSnapshotDevice(const std::string& path) { return volumeOf(path).has_value(); }

std::optional<dev_t> volumeOf(const std::string& path) { return volumeOfSnapshot(path); }

}  // namespace cli
