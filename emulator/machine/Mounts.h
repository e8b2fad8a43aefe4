// SPDX-License-Identifier: Apache-2.0
//
// Taking away what the emulator's devices left in the tree where it lives.
#pragma once

#include <functional>
#include <set>
#include <string>

#include "emulator/machine/DeviceNumber.h"
#include "emulator/machine/Kernel.h"

namespace emulator {

// Unmounts what is mounted from the devices where the emulator lives, the last mount first; what is busy is detached.
// `tell` is told of what did not go as it should.
void unmountAll(const Kernel& kernel, const std::set<DeviceNumber>& devices,
                const std::function<void(const std::string&)>& tell);

}  // namespace emulator
