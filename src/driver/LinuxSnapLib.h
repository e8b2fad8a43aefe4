// SPDX-License-Identifier: Apache-2.0
//
// All of the driver interface in one header: SnapDriverInterface, its control device, its records, and the free
// operations around the relocation files of a volume.
#pragma once

#include <mirelsnap/DriverInterface.h>

#include "driver/ControlDevice.h"
#include "driver/VolumeRecords.h"
#include "reloc/RelocationFileLocation.h"
#include "snapping/Unsnap.h"
