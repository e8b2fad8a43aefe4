// SPDX-License-Identifier: Apache-2.0
//
// Repairing what processes left that died while they held snapshots.

#include <mirelsnap/DriverInterface.h>
#include <syslog.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <memory>
#include <new>
#include <optional>

#include "base/Causes.h"
#include "base/Process.h"
#include "driver/ControlDevice.h"
#include "driver/DriverCommand.h"
#include "driver/DriverLock.h"
#include "driver/RelocationMappings.h"
#include "driver/VolumeRecords.h"
#include "reloc/LinuxSnapshotreloc.h"
#include "reloc/Planted.h"
#include "reloc/RelocationFileRemoval.h"
#include "snapping/FilesInUse.h"
#include "snapping/Unsnap.h"

namespace {

using Paths = std::list<std::string>;
using SnappedVolumes = std::list<SnappedVolumeInformation>;

// How long the removal of what is left waits for snapshots that are being taken.
constexpr std::chrono::seconds kPatience{5};

bool readSnappedVolumes(SnapDriverInterface& driver, SnappedVolumes& volumes) {
  if (driver.GetSnappedVolumeDetails(volumes) == 0) return true;
  syslog(LOG_ERR, "Unable to obtain the snapped volume details.\n");
  return false;
}

// The snapshots that belong to nobody any more.
SnappedVolumes findStaleSnapshots(const SnappedVolumes& volumes) {
  SnappedVolumes stale;
  for (const SnappedVolumeInformation& volume : volumes) {
    if (processIsGone(volume.getAppPid())) {
      stale.push_back(volume);
    } else {
      syslog(LOG_INFO, "Valid Snap: %s.\n", WStringToString(volume.getSnappedVolumeName()).c_str());
    }
  }
  return stale;
}

// Leaves the snapshots that the same dead process still holds `now`: another reconcile may have discarded one, and a
// living process may have snapped its volume since.
void keepStillStale(SnappedVolumes& stale, const SnappedVolumes& now) {
  stale.remove_if([&](const SnappedVolumeInformation& old) {
    return !processIsGone(old.getAppPid()) ||
           std::none_of(now.begin(), now.end(), [&](const SnappedVolumeInformation& volume) {
             return volume.getMajorNum() == old.getMajorNum() && volume.getMinorNum() == old.getMinorNum() &&
                    volume.getAppPid() == old.getAppPid();
           });
  });
}

// The outcome is not looked at: what stays is found again below, or by the next reconcile.
void discardSnapshots(SnapDriverInterface& driver, const SnappedVolumes& stale) {
  if (stale.empty()) return;
  syslog(LOG_INFO, "Unsnap Volume List has %lu entries.\n", stale.size());
  const std::unique_ptr<DeviceNumberPair[]> pairs(new (std::nothrow) DeviceNumberPair[stale.size()]());
  if (pairs == nullptr) return;
  std::transform(stale.begin(), stale.end(), pairs.get(), [](const SnappedVolumeInformation& volume) {
    return DeviceNumberPair{volume.getMajorNum(), volume.getMinorNum()};
  });
  static_cast<void>(discardSnappedVolumes(static_cast<unsigned int>(stale.size()), pairs.get(), false, &driver));
}

// Every relocation file on the mounted file systems.
Paths findRelocFiles() {
  Paths files;
  LinuxSnapshotreloc("", 0, 0UL, 0UL).GetAllRelocationFiles(files);
  return files;
}

// Takes a file in use off the list, under all its paths.
void keepFileInUse(const std::string& used, Paths& orphans) {
  const UsedFile file(used);
  orphans.remove_if([&](const std::string& path) { return file.isAt(path); });
}

// Drops the mappings of dead owners; the files of living ones are in use.
void reconcileMappings(SnapDriverInterface& driver, Paths& orphans) {
  std::list<RelocFileMappingInformation> mappings;
  if (!readAllMappings(mappings)) {
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

void removeOrphans(SnapDriverInterface& driver, const Paths& orphans) {
  for (const std::string& path : orphans) {
    const DoomedRelocFile file(path);
    if (isFileInUse(driver, path, file.identity(), 0)) continue;  // since it was listed
    syslog(LOG_DEBUG, "Relocation File to be deleted: %s.\n", path.c_str());
    file.remove();
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

// The driver's lock, taken by the first removal of a reconcile and kept to its end: one that has nothing to remove
// waits for nobody. Each removal must ask mayRemove(), and look again at what it found before.
class RemovalLock {
 public:
  // False when other processes hold the lock for longer than the patience lasts, which is logged once.
  bool mayRemove() {
    if (!mAnswer) mAnswer = take();
    return *mAnswer;
  }

 private:
  bool take() {
    mLock.adoptNode();
    if (mLock.take(DriverLock::Kind::kExclusive, kPatience) != DriverLock::Outcome::kBusy) return true;
    noteCause(kControlNode, "is locked by a process that takes a snapshot or removes one");
    syslog(LOG_ERR,
           "Snapshots and relocation files of dead processes are left: another process is taking a snapshot, or "
           "removing one; run reconcile again when it is done.\n");
    return false;
  }

  DriverLock mLock;
  std::optional<bool> mAnswer;  // once asked
};

}  // namespace

unsigned int SnapDriverInterface::ReconcileAndCleanup() {
  const ToldOnce once;
  RemovalLock lock;
  Paths orphans;
  SnappedVolumes snapped;
  if (!readSnappedVolumes(*this, snapped)) return 3;
  // The contract: nothing was collected yet, so this always tells of 0 files.
  syslog(LOG_INFO, "Found %lu relocation files.\n", orphans.size());
  if (SnappedVolumes stale = findStaleSnapshots(snapped); !stale.empty() && lock.mayRemove()) {
    snapped.clear();
    if (!readSnappedVolumes(*this, snapped)) return 3;
    keepStillStale(stale, snapped);
    discardSnapshots(*this, stale);
  }

  orphans = findRelocFiles();
  reconcileMappings(*this, orphans);
  snapped.clear();
  if (!readSnappedVolumes(*this, snapped)) return 3;
  keepFilesOfSnapshots(snapped, orphans);
  syslog(LOG_INFO, "Reloc File List contains: %lu files.\n", orphans.size());
  if (!orphans.empty() && lock.mayRemove()) removeOrphans(*this, orphans);
  verifyAndCleanVolumes();
  return 0;
}
