// SPDX-License-Identifier: Apache-2.0
#include "Driver.h"

#include <sys/sysmacros.h>
#include <unistd.h>

#include "Attempt.h"
#include "Processes.h"
#include "driver/ControlDevice.h"
#include "driver/VolumeRecords.h"

namespace cli {

Outcome Driver::check(std::string* version) {
  std::string answered;
  Attempt attempt;
  if (mDriver == nullptr || mDriver->GetDriverVersionDetail(answered) != 0)
    return noDriver(attempt.because(kControlNode));
  if (version != nullptr) *version = answered;
  return std::nullopt;
}

Outcome Driver::busy(const std::string& device, std::uint64_t number) {
  if (snapped(device)) return alreadySnapped(*this, device, number);
  if (frozen(device)) return alreadyFrozen(device);
  return std::nullopt;
}

std::optional<Tracking> Driver::tracking(const std::string& device) {
  const std::wstring name = StringToWString(device);
  Tracking found{};
  if (mDriver == nullptr || !mDriver->IsVtrackActive(name)) return std::nullopt;
  if (mDriver->GetVtrackVars(name, found.id, found.sequence) != 0) return std::nullopt;
  return found;
}

std::list<SnappedVolumeInformation> Driver::snappedVolumes() {
  std::list<SnappedVolumeInformation> found;
  if (mDriver != nullptr) mDriver->GetSnappedVolumeDetails(found);
  return found;
}

std::list<RelocFileMappingInformation> Driver::mappings() {
  std::list<RelocFileMappingInformation> found;
  if (mDriver != nullptr) mDriver->GetRelocFileMapping(found);
  return found;
}

Outcome Driver::holdings(std::list<SnappedVolumeInformation>& snapped, std::list<RelocFileMappingInformation>& mapped) {
  const Failure unknown{kCannotCleanUp, kControlNode, "the driver does not tell what it holds",
                        "look for MIRELSNAP_SDK in the system log"};
  if (mDriver == nullptr) return unknown;
  Attempt attempt;
  const bool told = mDriver->GetSnappedVolumeDetails(snapped) == 0 && mDriver->GetRelocFileMapping(mapped) == 0;
  // A count of mappings that failed is no failure of the listing behind it, which is cut then.
  const std::string because = attempt.because(kControlNode);
  if (told && because.empty()) return std::nullopt;
  return Failure{unknown.code, unknown.subject, unknown.cause + because, unknown.advice};
}

std::vector<int> Driver::owners(const std::string& device, std::uint64_t number) {
  std::vector<int> found;
  for (const SnappedVolumeInformation& entry : snappedVolumes()) {
    if (makedev(entry.getMajorNum(), entry.getMinorNum()) == number) found.push_back(entry.getAppPid());
  }
  for (const RelocFileMappingInformation& mapping : mappings()) {
    if (mapping.getSnappedVolumeName() == device) found.push_back(mapping.getAppPid());
  }
  return found;
}

Failure noDriver(const std::string& because) {
  // Looked for even when the driver is loaded.
  if (findExe("modprobe").empty())
    return {kNoDriver, kControlNode, "there is no modprobe, without which the driver is not looked for",
            "install kmod"};
  if (access("/proc/mirelsnap/dev", F_OK) == 0) {
    return {kNoDriver, kControlNode, "the snapshot driver is loaded but does not answer" + because,
            "look for MIRELSNAP_SDK in the system log"};
  }
  return {kNoDriver, kControlNode, "the driver (module mirelsnap) is not loaded and could not be loaded",
          "install it, or try it without: mirelsnap-emulator -- mirelsnap run ..."};
}

Failure alreadySnapped(Driver& driver, const std::string& device, std::uint64_t number) {
  const std::vector<int> owners = driver.owners(device, number);
  if (!owners.empty() && isGone(owners.front()))
    return {kAlreadySnapped, device, "is still snapped by " + ownerText(owners.front()),
            "mirelsnap reconcile ends that"};
  return {kAlreadySnapped, device, "is already snapped" + (owners.empty() ? "" : " by " + processText(owners.front())),
          "wait until that snapshot is deleted"};
}

Failure alreadyFrozen(const std::string& device) { return {kAlreadySnapped, device, "is frozen", "thaw it first"}; }

Failure notTracked(const std::string& device) {
  return {kNotInState, device, "its changes are not tracked",
          "a snapshot that asks for change tracking starts it (mirelsnap status shows which volumes are tracked)"};
}

Failure refused(const std::string& subject, unsigned int status) {
  if (status == 5) return noDriver(Attempt::becauseSoFar(kControlNode));
  if (status == 6)
    return {kRefused, subject, "the driver refused the request", "look for MIRELSNAP_SDK in the system log"};
  return {kRefused, subject, "the request could not be made (code " + std::to_string(status) + ")",
          "look for MIRELSNAP_SDK in the system log"};
}

}  // namespace cli
