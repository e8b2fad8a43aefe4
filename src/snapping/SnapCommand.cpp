// SPDX-License-Identifier: Apache-2.0
//
// Taking the snapshots of a set of volumes with one driver command.
#include <mirelsnap/DriverInterface.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <new>
#include <set>
#include <utility>
#include <vector>

#include "base/Causes.h"
#include "base/DeviceFlush.h"
#include "driver/ControlDevice.h"
#include "driver/DriverCommand.h"
#include "driver/DriverLock.h"
#include "driver/LinuxSnapLibUtil.h"
#include "driver/TrackingGuid.h"
#include "driver/VolumeRecords.h"
#include "reloc/Planted.h"
#include "reloc/RunMap.h"
#include "snapping/RelocationOrchestration.h"
#include "snapping/Unsnap.h"

namespace {

constexpr char kSnapshotNodePrefix[] = "/dev/snap";

// How long a snapshot waits for removals: one whose process is stopped must not hold it up for ever.
constexpr std::chrono::seconds kPatience{60};

constexpr std::size_t kLongestSent = kDriverPathSize - 1;

// What SnapVolume answers when a relocation file was not made, or is not where it was made. The contract: 20, although
// the engine looks for 21 to report that storage is short.
constexpr int kNotPlaced = 20;

// The driver's refusals.
enum SnapStatus : std::int32_t {
  kDeviceSnapped = -2,
  kOneDeviceSnapped = -3,
  kDeviceSizeChanged = -8,
};

// The number of a block device that the request cannot do without. 0, 7, 8, logged with the path.
unsigned int requireDevice(const char* path, DeviceNumberPair* pair) {
  const unsigned int result = getDeviceNumber(path, pair);
  if (result != 0) {
    noteBadDevice(path, result);
    syslog(LOG_ERR, "Device is invalid: %s.\n", path);
  }
  return result;
}

// Whether `found` is this process's snapshot of `volume`, with the relocation file that was made for it. Other sets of
// the process have other files.
bool isOwnSnapshot(const SnappedVolumeInformation& found, const SnapVolumeInformation& volume) {
  const std::string file = WStringToString(found.getRelocFileName());
  return found.getAppPid() == getpid() && file == std::string(volume.getcStrRelocFileName()).substr(0, kLongestSent);
}

// Discards it, with its relocation file.
bool takeBack(SnapDriverInterface& driver, const SnappedVolumeInformation& snapshot) {
  const DeviceNumberPair number{snapshot.getMajorNum(), snapshot.getMinorNum()};
  return discardUnderLock(driver, 1, &number, false) == 0;
}

// One set of snapshots in the making. It owns the control descriptor, with the driver's lock on it from before the
// first relocation file on, the run map and the command, and gives all of them back when it goes.
class SnapSet {
 public:
  SnapSet(SnapDriverInterface& driver, std::list<SnapVolumeInformation>& volumes,
          std::list<std::wstring>& snapDeviceNames)
      : mDriver(driver), mVolumes(volumes), mSnapDeviceNames(snapDeviceNames) {}
  ~SnapSet() { freeRunMap(mRuns); }
  SnapSet(const SnapSet&) = delete;
  SnapSet& operator=(const SnapSet&) = delete;

  int take();

 private:
  using Step = int (SnapSet::*)();

  // Until relocation files exist: nothing to undo.
  int checkDevices();
  int checkVolumeStates();
  int openControl();
  int sizeDriverTables();
  int lockDriver();
  int placeRelocFiles();
  // With relocation files.
  int collectRuns();
  int allocateCommand();
  int fillEntries();
  int checkRelocFiles();
  int issue();

  // Parts of one volume's entry.
  int fillEntry(SnapVolumeInformation& volume, unsigned int index, std::size_t offset);
  void fillSizes(const SnapVolumeInformation& volume, SnapVolumeEntry& entry);
  void fillDevice(const SnapVolumeInformation& volume, SnapVolumeEntry& entry);
  void nameSnapshotDevice(const SnapVolumeInformation& volume);
  int fillRelocDevice(const SnapVolumeInformation& volume, SnapVolumeEntry& entry);
  int fillRequests(const SnapVolumeInformation& volume, SnapVolumeEntry& entry);
  void fillRuns(const RunList* runs, SnapVolumeEntry& entry, std::size_t offset);
  const RunList* runsOf(unsigned int index) { return mRuns[index]; }

  void logSize() const { syslog(LOG_DEBUG, "Size of the IOCTL Command: %d.\n", static_cast<int>(mSize)); }
  void giveBack();
  void abandon();
  void abandonUnanswered();
  bool isRefused();
  int refusal(int error);

  SnapDriverInterface& mDriver;
  std::list<SnapVolumeInformation>& mVolumes;
  std::list<std::wstring>& mSnapDeviceNames;

  DriverLock mControl;
  SnapDriverInterfaceUtility* mUtility = nullptr;  // never released, as every command's
  std::uint64_t mMaxRelocBlocks = 0;
  std::vector<UniqueFd> mMadeFiles;  // open, one a volume, in list order
  RunMap mRuns;
  unsigned int mSize = 0;
  DriverCommand mCommand;
  DeviceNumberPair mDevice{};  // of the volume whose entry is being filled, or of the one before
};

int SnapSet::take() {
  const ToldOnce once;
  for (const Step step : {&SnapSet::checkDevices, &SnapSet::checkVolumeStates, &SnapSet::openControl,
                          &SnapSet::sizeDriverTables, &SnapSet::lockDriver, &SnapSet::placeRelocFiles}) {
    if (const int result = (this->*step)(); result != 0) return result;
  }
  try {
    for (const Step step :
         {&SnapSet::collectRuns, &SnapSet::allocateCommand, &SnapSet::fillEntries, &SnapSet::checkRelocFiles}) {
      if (const int result = (this->*step)(); result != 0) {
        abandon();
        return result;
      }
    }
  } catch (...) {
    abandon();
    throw;
  }
  if (issue() == 0) return 0;
  const int error = errno;
  isRefused() ? abandon() : abandonUnanswered();
  return refusal(error);
}

int SnapSet::checkDevices() {
  std::set<std::pair<unsigned int, unsigned int>> seen;
  for (const SnapVolumeInformation& volume : mVolumes) {
    DeviceNumberPair number{};
    if (const unsigned int result = requireDevice(volume.getcStrSnapVolumeName(), &number); result != 0) {
      return static_cast<int>(result);
    }
    if (!seen.emplace(number.majorNum, number.minorNum).second) {
      syslog(LOG_ERR, "Multiple entries for the Device: %s.\n", volume.getcStrSnapVolumeName());
      return 3;
    }
  }
  return 0;
}

int SnapSet::checkVolumeStates() {
  if (mDriver.checkIfVolSnapped(&mVolumes) != 0) return mVolumes.size() == 1 ? 11 : 12;
  if (mDriver.checkIfVolFrozen(&mVolumes) != 0) return 11;
  return 0;
}

int SnapSet::openControl() {
  mControl.adopt(openDriver());
  return mControl.descriptor() < 0 ? 5 : 0;
}

int SnapSet::sizeDriverTables() {
  mUtility = storeFreshUtility();
  if (mUtility == nullptr) {
    noteShortMemory();
    syslog(LOG_ERR, "Memory Allocation Failure.\n");
    return 3;
  }
  mirelsnapsdk_linuxcomputer::_sysMemStateInfo memory{};
  if (mUtility->getSystemState(&memory) != 0) {
    syslog(LOG_ERR, "Unable to get the System State\n");
    return 3;
  }
  mMaxRelocBlocks = mUtility->calculateMaxRelocBlocks(memory);
  if (mMaxRelocBlocks == 0) {
    noteCause("/proc/meminfo", "tells of no memory that the driver could use");
    syslog(LOG_ERR, "Not enough Memory space to hold relocation Entries\n");
    return 3;
  }
  return 0;
}

int SnapSet::lockDriver() {
  if (mControl.take(DriverLock::Kind::kShared, kPatience) != DriverLock::Outcome::kBusy) return 0;
  noteCause(kControlNode, "is locked by a process that removes snapshots and makes no progress");
  syslog(
      LOG_ERR,
      "Unable to take a snapshot: another process is removing snapshots or relocation files (reconcile) and makes no "
      "progress; try again when it is done.\n");
  return 3;
}

int SnapSet::placeRelocFiles() {
  return makeRelocationFiles(mDriver, mVolumes, mMaxRelocBlocks, mMadeFiles) == 0 ? 0 : kNotPlaced;
}

int SnapSet::collectRuns() { return mDriver.getIoctlCmdSize(&mVolumes, &mRuns, &mSize) == 0 ? 0 : 3; }

int SnapSet::allocateCommand() {
  const std::size_t length = sizeof(_ioctlCmd) + mSize + kDriverTrailerSize;
  mCommand = DriverCommand(length, static_cast<std::uint32_t>(mVolumes.size()), *mUtility);
  if (!mCommand) {
    syslog(LOG_ERR, "Memory Allocation Failure.\n");
    return 3;
  }
  mSize = static_cast<unsigned int>(length);
  logSize();
  return 0;
}

int SnapSet::fillEntries() {
  try {
    std::size_t offset = sizeof(_ioctlCmd);
    unsigned int index = 0;
    for (SnapVolumeInformation& volume : mVolumes) {
      if (const int result = fillEntry(volume, index, offset); result != 0) return result;
      const RunList* runs = runsOf(index++);
      offset += kSnapEntrySize + sizeof(_run) * (runs == nullptr ? 0 : runs->size());
      flushDevice(volume.getcStrSnapVolumeName());
    }
  } catch (const std::bad_alloc&) {
    noteShortMemory();
    syslog(LOG_ERR, "Unable to allocate memory.\n");
    return 3;
  }
  return 0;
}

// Just before the driver opens them by their paths.
int SnapSet::checkRelocFiles() {
  auto made = mMadeFiles.begin();
  for (const SnapVolumeInformation& volume : mVolumes) {
    if (!isStillTheFile(volume.getRelocFileName(), *made++)) return kNotPlaced;
  }
  return 0;
}

int SnapSet::fillEntry(SnapVolumeInformation& volume, unsigned int index, std::size_t offset) {
  syslog(LOG_INFO, "SnapvolName: %s, RelocVolName: %s, RelocFileName: %s.\n", volume.getcStrSnapVolumeName(),
         volume.getcStrRelocVolumeName(), volume.getcStrRelocFileName());
  auto& entry = *mCommand.at<SnapVolumeEntry>(offset);
  fillSizes(volume, entry);
  fillDevice(volume, entry);
  nameSnapshotDevice(volume);
  if (const int result = fillRelocDevice(volume, entry); result != 0) return result;
  if (const int result = fillRequests(volume, entry); result != 0) return result;
  putText(entry.relocFileName, volume.getcStrRelocFileName());
  fillRuns(runsOf(index), entry, offset + sizeof entry);
  syslog(LOG_DEBUG, "BS: %u, numSectors: %lu , rSize: %u.\n", volume.getBlockSize(), volume.getNumBlocks(),
         volume.getRelocFileSize());
  syslog(LOG_DEBUG, "SnapVolName: %s, relocFileName: %s.\n", volume.getcStrSnapVolumeName(),
         volume.getcStrRelocFileName());
  return 0;
}

void SnapSet::fillSizes(const SnapVolumeInformation& volume, SnapVolumeEntry& entry) {
  entry.blockSize = volume.getBlockSize();
  entry.numBlocks = volume.getNumBlocks();
  entry.relocFileSize = volume.getRelocFileSize();
  entry.hashSize = mUtility->calculateHashSize(volume.getRelocFileSize());
  entry.appPid = static_cast<std::uint32_t>(getpid());
}

void SnapSet::fillDevice(const SnapVolumeInformation& volume, SnapVolumeEntry& entry) {
  // The contract: a device that is gone by now is only logged, and its entry carries the numbers of the volume before.
  static_cast<void>(getDeviceNumber(volume.getcStrSnapVolumeName(), &mDevice));
  entry.volumeMajor = mDevice.majorNum;
  entry.volumeMinor = mDevice.minorNum;
  putText(entry.volumeName, volume.getcStrSnapVolumeName());
}

void SnapSet::nameSnapshotDevice(const SnapVolumeInformation& volume) {
  std::array<char, 1024> name{};
  std::snprintf(name.data(), name.size(), "%s%d%s%d", kSnapshotNodePrefix, static_cast<int>(mDevice.majorNum), "_",
                static_cast<int>(mDevice.minorNum));
  syslog(LOG_INFO, "SnapVolName: %s, SnapAccessVolName: %s.\n", volume.getcStrSnapVolumeName(), name.data());
  std::array<wchar_t, name.size()> wide{};
  std::mbstowcs(wide.data(), name.data(), wide.size() - 1);
  mSnapDeviceNames.emplace_back(wide.data());
}

int SnapSet::fillRelocDevice(const SnapVolumeInformation& volume, SnapVolumeEntry& entry) {
  DeviceNumberPair number{};
  if (const unsigned int result = requireDevice(volume.getcStrRelocVolumeName(), &number); result != 0) {
    return static_cast<int>(result);
  }
  entry.relocVolumeMajor = number.majorNum;
  entry.relocVolumeMinor = number.minorNum;
  return 0;
}

int SnapSet::fillRequests(const SnapVolumeInformation& volume, SnapVolumeEntry& entry) {
  entry.vtrackRequest = volume.getVtrackReqState() ? 1 : 0;
  entry.independentSnapshotRequest = volume.getIndSnapshotReqState() ? 1 : 0;
  entry.snapUsageType = volume.getSnapUsageType();
  if (!volume.getVtrackReqState() || volume.getIndSnapshotReqState()) return 0;

  const std::string guid = generateTrackingGuid();
  if (guid == "{null}") {
    syslog(LOG_ERR, "Unable to generate UUID for volume (maj, min):(%u, %u)", mDevice.majorNum, mDevice.minorNum);
    return 3;
  }
  putText(entry.trackingGuid, guid.c_str());
  syslog(LOG_DEBUG, "Guid generated : %s\n", guid.c_str());
  return 0;
}

void SnapSet::fillRuns(const RunList* runs, SnapVolumeEntry& entry, std::size_t offset) {
  if (runs == nullptr) return;
  entry.numRuns = static_cast<std::uint32_t>(runs->size());
  auto* field = mCommand.at<_run>(offset);
  for (const _run* run : *runs) *field++ = *run;
}

int SnapSet::issue() {
  logSize();
  return mCommand.issue(mControl.descriptor(), IOC_SNAP);
}

void SnapSet::giveBack() {
  mControl.release();
  freeRunMap(mRuns);
}

// Gives back what the set holds and removes the relocation files.
void SnapSet::abandon() {
  giveBack();
  mDriver.cleanRelocFiles(&mVolumes);
}

// The same when the command failed and the driver did not say why: it may have been carried out, and a snapshot that is
// held needs its relocation file. Such snapshots are discarded; what cannot be told stays for a reconcile.
void SnapSet::abandonUnanswered() {
  giveBack();
  std::list<SnappedVolumeInformation> snapped;
  const bool isKnown = mDriver.GetSnappedVolumeDetails(snapped) == 0;
  std::list<SnapVolumeInformation> unsnapped;
  for (const SnapVolumeInformation& volume : mVolumes) {
    const auto taken = std::find_if(snapped.begin(), snapped.end(), [&](const SnappedVolumeInformation& found) {
      return isOwnSnapshot(found, volume);
    });
    if (isKnown && taken == snapped.end()) {
      unsnapped.push_back(volume);
    } else if (!isKnown || !takeBack(mDriver, *taken)) {
      syslog(LOG_ERR,
             "The snapshot of %s may be held though its command failed: relocation file %s is kept; run reconcile when "
             "process %d has ended.\n",
             volume.getcStrSnapVolumeName(), volume.getcStrRelocFileName(), static_cast<int>(getpid()));
    }
  }
  mDriver.cleanRelocFiles(&unsnapped);
}

bool SnapSet::isRefused() {
  const std::int32_t status = mCommand.header().driverStatus;
  return status == kDeviceSnapped || status == kOneDeviceSnapped || status == kDeviceSizeChanged;
}

// What the driver's refusal means; `error` is that of the request.
int SnapSet::refusal(int error) {
  switch (mCommand.header().driverStatus) {
    case kDeviceSnapped:
      syslog(LOG_ERR, "The Device is already snapped.\n");
      return 11;
    case kOneDeviceSnapped:
      syslog(LOG_ERR, "A device is already snapped.\n");
      return 12;
    case kDeviceSizeChanged:
      syslog(LOG_ERR, "A device size got changed.\n");
      return 26;
    default:
      syslog(LOG_ERR, "Device Snap ioctl failed, errno: %d\n", error);
      return 6;
  }
}

}  // namespace

int SnapDriverInterface::SnapVolume(std::list<SnapVolumeInformation>* volumes,
                                    std::list<std::wstring>* snapDeviceNames) {
  if (volumes == nullptr || snapDeviceNames == nullptr) {
    syslog(LOG_ERR, "assert at %d in %s failed.\n", 1008, "LinuxSnapLib.cpp");
    return 3;
  }
  if (volumes->empty()) {
    syslog(LOG_DEBUG, "SnapVolumes: Number of volumes to be snapped: %d.\n", 0);
    return 3;
  }
  return SnapSet(*this, *volumes, *snapDeviceNames).take();
}
