// SPDX-License-Identifier: Apache-2.0
//
// The kernel driver as the verbs ask it, through the library's own interface.
#pragma once

#include <cstdint>
#include <list>
#include <string>
#include <vector>

#include <mirelsnap/DriverInterface.h>

#include "Failure.h"

namespace cli {

// What identifies the tracking of a volume's changes.
struct Tracking {
  std::string id;
  unsigned int sequence;
};

// The driver-interface singleton for a scope. Without one (memory is short) no device is snapped or frozen.
class Driver {
 public:
  Driver() : mDriver(SnapDriverInterface::Instance()) {}
  ~Driver() {
    if (mDriver != nullptr) SnapDriverInterface::releaseInstance();
  }
  Driver(const Driver&) = delete;
  Driver& operator=(const Driver&) = delete;

  // The singleton; null when memory is short.
  SnapDriverInterface* get() { return mDriver; }
  // Why it does not answer, having tried to load it; nothing when it does. `version` is filled then.
  Outcome check(std::string* version = nullptr);

  bool snapped(const std::string& device) { return mDriver != nullptr && mDriver->IsVolumeSnapped(device); }
  bool frozen(const std::string& device) { return mDriver != nullptr && mDriver->IsVolumeFrozen(device); }
  // Why a volume cannot be snapped now: it is snapped already, or frozen; nothing when neither.
  Outcome busy(const std::string& device, std::uint64_t number);
  // Nothing when the volume's changes are not tracked.
  std::optional<Tracking> tracking(const std::string& device);
  // Empty when it cannot be asked.
  std::list<SnappedVolumeInformation> snappedVolumes();
  std::list<RelocFileMappingInformation> mappings();
  // Both lists at once, and why they cannot be had: what is not told may be there all the same.
  Outcome holdings(std::list<SnappedVolumeInformation>& snapped, std::list<RelocFileMappingInformation>& mapped);
  // The processes that hold a snapshot or a relocation-file mapping of the volume.
  std::vector<int> owners(const std::string& device, std::uint64_t number);
  void deleteMapping(const std::string& device, int process) {
    if (mDriver != nullptr) mDriver->DeleteRelocationFileMapping(device, process);
  }

 private:
  SnapDriverInterface* mDriver;
};

// Why there is no driver, as far as that can be seen; `because` is what an attempt told (Attempt.h).
Failure noDriver(const std::string& because);
// Why a volume cannot be snapped now.
Failure alreadySnapped(Driver& driver, const std::string& device, std::uint64_t number);
Failure alreadyFrozen(const std::string& device);
// Why there are no changes to be told, and nothing to be stopped.
Failure notTracked(const std::string& device);
// A request that the driver answered with `status`, concerning `subject`.
Failure refused(const std::string& subject, unsigned int status);

}  // namespace cli
