// SPDX-License-Identifier: Apache-2.0
//
// Repairing what processes left that died while they held snapshots.
#include <mirelsnap/DriverInterface.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <syslog.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <new>
#include <optional>
#include <utility>

#include "base/Process.h"
#include "driver/ControlDevice.h"
#include "driver/DriverCommand.h"
#include "driver/Unsnap.h"
#include "driver/VolumeRecords.h"
#include "reloc/LinuxSnapshotreloc.h"
#include "reloc/RelocationFileRemoval.h"

namespace {

using Paths = std::list<std::string>;
using SnappedVolumes = std::list<SnappedVolumeInformation>;

bool readSnappedVolumes(SnapDriverInterface& driver, SnappedVolumes& volumes) {
  if (driver.GetSnappedVolumeDetails(volumes) == 0) return true;
  syslog(LOG_ERR, "Unable to obtain the snapped volume details.\n");
  return false;
}

// The devices whose snapshots belong to nobody any more.
std::list<DeviceNumberPair> findStaleSnapshots(const SnappedVolumes& volumes) {
  std::list<DeviceNumberPair> stale;
  for (const SnappedVolumeInformation& volume : volumes) {
    if (processIsGone(volume.getAppPid())) {
      stale.push_back({volume.getMajorNum(), volume.getMinorNum()});
    } else {
      syslog(LOG_INFO, "Valid Snap: %s.\n", WStringToString(volume.getSnappedVolumeName()).c_str());
    }
  }
  return stale;
}

// The outcome is not looked at: what stays is found again below, or by the next reconcile.
void discardStaleSnapshots(const std::list<DeviceNumberPair>& stale) {
  if (stale.empty()) return;
  syslog(LOG_INFO, "Unsnap Volume List has %lu entries.\n", stale.size());
  const std::unique_ptr<DeviceNumberPair[]> pairs(new (std::nothrow) DeviceNumberPair[stale.size()]());
  if (pairs == nullptr) return;
  std::copy(stale.begin(), stale.end(), pairs.get());
  static_cast<void>(discardSnappedVolumes(static_cast<unsigned int>(stale.size()), pairs.get(), false));
}

// Every relocation file on the mounted file systems.
Paths findRelocFiles() {
  Paths files;
  LinuxSnapshotreloc("", 0, 0UL, 0UL).GetAllRelocationFiles(files);
  return files;
}

// Which file a path leads to; nothing when it leads to none.
std::optional<std::pair<dev_t, ino_t>> fileBehind(const std::string& path) {
  struct stat status {};
  if (stat(path.c_str(), &status) != 0) return std::nullopt;
  return std::pair(status.st_dev, status.st_ino);
}

// Takes a file in use off the list, under all its paths: a second mount of its file system shows it under another one,
// and unlinking it there would take it from its owner. A path that fills the driver's field may have been cut.
void keepFileInUse(const std::string& used, Paths& orphans) {
  const auto file = fileBehind(used);
  const bool cut = used.size() >= kDriverPathSize - 1;
  orphans.remove_if([&](const std::string& path) {
    return path == used || (file && fileBehind(path) == file) || (cut && path.starts_with(used));
  });
}

// Drops the mappings of dead owners; the files of living ones are in use.
void reconcileMappings(SnapDriverInterface& driver, Paths& orphans) {
  std::list<RelocFileMappingInformation> mappings;
  if (driver.GetRelocFileMapping(mappings) != 0) {
    orphans.clear();  // which files are in use is not known: none is removed
    return;
  }
  for (const RelocFileMappingInformation& mapping : mappings) {
    syslog(LOG_INFO, "SVolName: %s, RelFileName: %s.\n", mapping.getSnappedVolumeName().c_str(),
           mapping.getRelocFileName().c_str());
    if (!processIsGone(mapping.getAppPid())) {
      keepFileInUse(mapping.getRelocFileName(), orphans);
    } else if (driver.DeleteRelocationFileMapping(mapping.getSnappedVolumeName(), mapping.getAppPid()) != 0) {
      syslog(LOG_ERR, "Unable to delete the relocation mapping.\n");
    }
  }
}

void keepFilesOfSnapshots(const SnappedVolumes& volumes, Paths& orphans) {
  for (const SnappedVolumeInformation& volume : volumes) {
    keepFileInUse(WStringToString(volume.getRelocFileName()), orphans);
  }
}

void removeOrphans(const Paths& orphans) {
  syslog(LOG_INFO, "Reloc File List contains: %lu files.\n", orphans.size());
  for (const std::string& file : orphans) {
    syslog(LOG_DEBUG, "Relocation File to be deleted: %s.\n", file.c_str());
    removeRelocFile(file);
  }
}

// Has the driver drop the volumes whose devices are gone. Failures are only logged.
void verifyAndCleanVolumes() {
  const UniqueFd device = openDriver();
  if (!device) return;
  DriverCommand command(sizeof(_ioctlCmd) + sizeof(CountPayload), 0);
  if (!command) {
    syslog(LOG_ERR, "Memory alocation failed.\n");
    return;
  }
  if (command.issue(device.get(), IOC_VERIFY_AND_CLEAN_VOLUMES) != 0) {
    syslog(LOG_ERR, "verify and clean volumes ioctl failed, errno:%d\n", errno);
  }
}

}  // namespace

unsigned int SnapDriverInterface::ReconcileAndCleanup() {
  Paths orphans;
  SnappedVolumes snapped;
  if (!readSnappedVolumes(*this, snapped)) return 3;
  // The contract: nothing was collected yet, so this always tells of 0 files.
  syslog(LOG_INFO, "Found %lu relocation files.\n", orphans.size());
  discardStaleSnapshots(findStaleSnapshots(snapped));

  orphans = findRelocFiles();
  reconcileMappings(*this, orphans);
  snapped.clear();
  if (!readSnappedVolumes(*this, snapped)) return 3;
  keepFilesOfSnapshots(snapped, orphans);
  removeOrphans(orphans);
  verifyAndCleanVolumes();
  return 0;
}
