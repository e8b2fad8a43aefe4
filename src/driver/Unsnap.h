// SPDX-License-Identifier: Apache-2.0
//
// Discarding snapshots, with their relocation files.
#pragma once

#include "driver/VolumeRecords.h"

// Discards the snapshots of `count` devices with one command, whatever its outcome removes the relocation files that
// the driver names, and returns the command's status: 0, 3, 5, 6, 13, 14. `flag` is handed to the driver.
unsigned int discardSnappedVolumes(unsigned int count, const DeviceNumberPair* volumes, bool flag);
