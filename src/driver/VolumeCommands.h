// SPDX-License-Identifier: Apache-2.0
//
// The commands that tell the driver of volumes by their numbers and of nothing else.
#pragma once

#include <cstdint>
#include <list>
#include <optional>
#include <string>

#include "base/Handle.h"
#include "driver/DriverCommand.h"

// The driver's status word for the block device `volume` after `request`, which is one of the checks. Nothing, logged,
// when the driver could not be asked; `logFailure` logs a request that failed with the errno `error`.
std::optional<std::int32_t> askVolumeStatus(const std::string& volume, unsigned long request,
                                            void (*logFailure)(int error));

// Makes the command with a VolumeListEntry for each name, and opens the control device to issue it on. 0; 3, also when
// a name is no block device; 5. Failures are logged; `line` as in resolveVolumes.
unsigned int prepareVolumeList(std::list<std::wstring>* volumes, int line, UniqueFd& device, DriverCommand& command);
