// SPDX-License-Identifier: Apache-2.0
//
// Discarding snapshots, with their relocation files.
#pragma once

#include <mirelsnap/DriverInterface.h>

#include "driver/VolumeRecords.h"

// Discards the snapshots of `count` devices with one command, whatever its outcome removes the relocation files that
// the driver names, and returns the command's status: 0, 3, 5, 6, 13, 14. `flag` is handed to the driver.
// The caller holds the driver's lock alone: a new snapshot of the same volume may give its file the same name. While
// others hold it, it hands over the driver to be asked before each removal (null: it is not): a file that another
// living process uses then stays.
unsigned int discardSnappedVolumes(unsigned int count, const DeviceNumberPair* volumes, bool flag,
                                   SnapDriverInterface* asked = nullptr);
// The same with the driver's lock taken for it.
unsigned int discardUnderLock(SnapDriverInterface& driver, unsigned int count, const DeviceNumberPair* volumes,
                              bool flag);
