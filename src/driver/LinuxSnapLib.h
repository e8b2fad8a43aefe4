// SPDX-License-Identifier: Apache-2.0
//
// The driver interface as the library's own rooms use it: SnapDriverInterface, its control device, and the free
// operations around the relocation files of a volume.
#pragma once

#include <mirelsnap/DriverInterface.h>

#include <list>
#include <string>

#include "driver/ControlDevice.h"
#include "driver/VolumeRecords.h"

// True when the resolved `path`, or a folder above it, is a mount point of the block device `device`, also when a mount
// of another device lies between. A path that cannot be resolved lies on no device.
bool inPartitionRelocFile(const std::string& path, const std::string& device);

// Appends the relocation files that lie on `snapVolumeName`: those of the volumes that the driver holds snapped,
// in its order, then `relocFileName`. A file on another device that is mounted inside the volume is left out. 0, with
// nothing appended when the volume is not mounted; 3 when the driver cannot be asked.
int getAllRelocFileInVol(const std::string& snapVolumeName, const std::string& relocFileName,
                         std::list<std::string>& files);

// Discards the snapshots of `count` devices with one command, whatever its outcome removes the relocation files that
// the driver names, and returns the command's status: 0, 3, 5, 6, 13, 14. `flag` is handed to the driver.
unsigned int discardSnappedVolumes(unsigned int count, const DeviceNumberPair* volumes, bool flag);
