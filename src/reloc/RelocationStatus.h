// SPDX-License-Identifier: Apache-2.0
//
// What the operations around relocation files answer; 0 is success.
#pragma once

enum RelocationStatus : unsigned int {
  kRelocSuccess = 0,
  kRelocNothingMounted = 3,
  kRelocInvalidDeviceName = 7,
  kRelocRequestUndone = 10,
  kRelocInvalidOption = 17,
  kRelocFileNotCreated = 18,
  kRelocNotPlaced = 20,
  kRelocNotEnoughSpace = 21,
};
