// SPDX-License-Identifier: Apache-2.0
//
// Unmounting snapshots in the emulator's own mount namespace.
#pragma once

#include <functional>
#include <set>
#include <string>

#include "emulator/machine/DeviceNumber.h"
#include "emulator/machine/Kernel.h"

namespace emulator {

// Unmounts everything that is mounted from the devices, the last mount first; what is busy is detached. Problems are
// passed to `tell`.
void unmountAll(const Kernel& kernel, const std::set<DeviceNumber>& devices,
                const std::function<void(const std::string&)>& tell);

}  // namespace emulator
