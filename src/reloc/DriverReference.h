// SPDX-License-Identifier: Apache-2.0
//
// A reference on the driver singleton for a scope. Without a singleton (memory is short) no device counts as snapped
// or frozen.
#pragma once

#include <mirelsnap/DriverInterface.h>

#include <string>

class DriverReference {
 public:
  DriverReference() : mDriver(SnapDriverInterface::Instance()) {}
  DriverReference(const DriverReference&) = delete;
  DriverReference& operator=(const DriverReference&) = delete;
  ~DriverReference() {
    if (mTaken) SnapDriverInterface::releaseInstance();
  }

  // Null when memory is short.
  SnapDriverInterface* get() const { return mDriver; }
  bool isSnapped(const std::string& device) const { return mDriver != nullptr && mDriver->IsVolumeSnapped(device); }
  bool isFrozen(const std::string& device) const { return mDriver != nullptr && mDriver->IsVolumeFrozen(device); }

  // The reference outlives the scope: some paths never give it back, which is the contract where this is called. Each
  // such return keeps the singleton alive (one count; no memory beyond the singleton itself).
  void neverGiveBack() { mTaken = false; }

 private:
  SnapDriverInterface* mDriver;
  bool mTaken = true;
};
