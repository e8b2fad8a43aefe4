// SPDX-License-Identifier: Apache-2.0
#include "snapping/Unsnap.h"

#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>

#include "driver/ControlDevice.h"
#include "driver/DriverCommand.h"
#include "driver/DriverLock.h"
#include "reloc/RelocationFileRemoval.h"
#include "snapping/FilesInUse.h"

namespace {

// How long the end of a snapshot waits for those that are being taken.
constexpr std::chrono::seconds kPatience{2};

// The driver's refusals, two for one text.
enum DiscardStatus : std::int32_t {
  kNotSnapped = -4,
  kNotSnappedEither = -5,
};

void fillRecords(DriverCommand& command, const DeviceNumberPair* volumes, unsigned int count, bool flag) {
  for (unsigned int i = 0; i < count; ++i) {
    auto* entry = command.record<DiscardEntry>(i);
    entry->majorNum = volumes[i].majorNum;
    entry->minorNum = volumes[i].minorNum;
    entry->flag = flag ? 1 : 0;
    syslog(LOG_DEBUG, "UNSNAP VOL ID: (MAJ, MIN): (%d, %d).\n", static_cast<int>(volumes[i].majorNum),
           static_cast<int>(volumes[i].minorNum));
  }
}

// 0, 6, 13, 14.
unsigned int issueDiscard(DriverCommand& command, int descriptor) {
  if (command.issue(descriptor, IOC_SNAP_DISCARD) == 0) return 0;
  const int error = errno;
  switch (command.header().driverStatus) {
    case kNotSnapped:
      syslog(LOG_ERR, "The volume is not snapped\n");
      return 13;
    case kNotSnappedEither:
      syslog(LOG_ERR, "The volume is not snapped\n");
      return 14;
    default:
      syslog(LOG_ERR, "Snap Discard IOCTL failed, errno:%d\n", error);
      return 6;
  }
}

// Removes the relocation files of the discarded snapshots, and their directories when these are empty then.
void removeRelocFiles(DriverCommand& command, unsigned int count, SnapDriverInterface* asked) {
  for (unsigned int i = 0; i < count; ++i) {
    const auto* entry = command.record<DiscardEntry>(i);
    if (entry->result != 0) {
      syslog(LOG_ERR, "Volume (maj, min): (%d, %d) is not snapped.\n", static_cast<int>(entry->majorNum),
             static_cast<int>(entry->minorNum));
      continue;
    }
    const DoomedRelocFile file(getText(entry->relocFileName));
    if (asked != nullptr && isFileInUse(*asked, file.path(), file.identity(), getpid())) {
      syslog(LOG_INFO, "RelocFile %s is in use and stays.\n", file.path().c_str());
      continue;
    }
    file.remove();
    syslog(LOG_DEBUG, "Deleted directory: %s.\n", relocFileDirectory(file.path()).c_str());  // whether or not it was
  }
}

}  // namespace

unsigned int discardSnappedVolumes(unsigned int count, const DeviceNumberPair* volumes, bool flag,
                                   SnapDriverInterface* asked) {
  if (count == 0) {
    syslog(LOG_ERR, "assert at %d in %s failed.\n", 2711, "LinuxSnapLib.cpp");
    return 3;
  }
  if (volumes == nullptr) {
    syslog(LOG_ERR, "assert at %d in %s failed.\n", 2712, "LinuxSnapLib.cpp");
    return 3;
  }
  const UniqueFd device = openDriver();
  if (!device) return 5;
  DriverCommand command(sizeof(_ioctlCmd) + std::size_t{count} * sizeof(DiscardEntry) + kDriverTrailerSize, count);
  if (!command) {
    syslog(LOG_ERR, "Error Allocating memory.\n");
    return 3;
  }
  fillRecords(command, volumes, count, flag);
  const unsigned int result = issueDiscard(command, device.get());
  // The contract: also after a failed request. Its result words still read 0 then, so that the removal of a file
  // without a name is tried, and reported, for each volume.
  removeRelocFiles(command, count, asked);
  return result;
}

unsigned int discardUnderLock(SnapDriverInterface& driver, unsigned int count, const DeviceNumberPair* volumes,
                              bool flag) {
  DriverLock lock;
  lock.adoptNode();
  const bool isBusy = lock.take(DriverLock::Kind::kExclusive, kPatience) == DriverLock::Outcome::kBusy;
  return discardSnappedVolumes(count, volumes, flag, isBusy ? &driver : nullptr);
}

unsigned int SnapDriverInterface::UnSnapVolume(std::list<std::wstring>* volumes, bool flag) {
  const auto pairs = resolveVolumes(volumes, 1288);
  if (pairs == nullptr) return 3;  // the contract: whatever was wrong with a name
  return discardUnderLock(*this, static_cast<unsigned int>(volumes->size()), pairs.get(), flag);
}
