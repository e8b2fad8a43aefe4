// SPDX-License-Identifier: Apache-2.0
//
// Which relocation files lie on a volume.
#pragma once

#include <list>
#include <string>

// True when the resolved `path`, or a folder above it, is a mount point of the block device `device`, also when a mount
// of another device lies between. A path that cannot be resolved lies on no device.
bool inPartitionRelocFile(const std::string& path, const std::string& device);

// Appends the relocation files that lie on `snapVolumeName`: those of the volumes that the driver holds snapped,
// in its order, then `relocFileName`. A file on another device that is mounted inside the volume is left out. 0, with
// nothing appended when the volume is not mounted; 3 when the driver cannot be asked.
int getAllRelocFileInVol(const std::string& snapVolumeName, const std::string& relocFileName,
                         std::list<std::string>& files);
