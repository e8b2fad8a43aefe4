// SPDX-License-Identifier: Apache-2.0
//
// The control node. Its numbers are those of the null device, so that making and opening it stay real.
#pragma once

#include "emulator/machine/DeviceNumber.h"

namespace emulator {

inline constexpr DeviceNumber kControlDevice{1, 3};

// Removes the control node when it has the control device's numbers.
void removeControlNode();

}  // namespace emulator
