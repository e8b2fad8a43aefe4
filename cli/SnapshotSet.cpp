// SPDX-License-Identifier: Apache-2.0
#include "SnapshotSet.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>
#include <uuid/uuid.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <filesystem>

#include "BaseSweep.h"
#include "Driver.h"
#include "PlacementText.h"
#include "Processes.h"
#include "RelocationProgress.h"
#include "RelocationTraces.h"
#include "SnapshotDevice.h"
#include "Text.h"
#include "Wide.h"
#include "base/Paths.h"
#include "base/Resolve.h"
#include "driver/ControlDevice.h"

namespace fs = std::filesystem;

namespace cli {
namespace {

using UnixSnapshotCoordinator::_USC_SNAPSHOT_PROP;
using UnixSnapshotCoordinator::IUscAsync;

// How often the terminal is redrawn while the job runs.
constexpr unsigned int kTickMs = 200;

// The job's result when the snap command fails and the driver gives no reason.
constexpr int kDriverRefused = 6;

constexpr char kReconcileAdvice[] = "run mirelsnap reconcile: that removes what is left";

std::string idText(const _SSGUIDPLAIN& id) {
  std::array<char, 37> text{};
  uuid_t bytes;
  std::memcpy(bytes, &id, sizeof bytes);
  uuid_unparse_lower(bytes, text.data());
  return text.data();
}

bool isFull(const std::string& folder, std::uint64_t needed) {
  struct statvfs status {};
  return statvfs(folder.c_str(), &status) == 0 && status.f_bavail * status.f_frsize < needed;
}

std::string textOf(const wchar_t* text) { return text == nullptr ? std::string() : narrow(text); }

bool isOwn(const SnappedVolumeInformation& snapshot) { return snapshot.getAppPid() == getpid(); }

// What a discard told of why a snapshot is held: not what it told of the file of another one, which was discarded.
std::string heldBecause(const std::vector<Cause>& causes) {
  if (const std::string refused = becauseOf(causes, "ioctl", "IOC_SNAP_DISCARD", ""); !refused.empty())
    return ": the driver refused to discard the snapshot" + refused;
  const auto unreached = std::find_if(causes.begin(), causes.end(), [](const Cause& cause) {
    return !isRemoval(cause) && cause.what != "ioctl(IOC_SNAP)";
  });
  return unreached == causes.end() ? "" : ": the driver could not be told to discard it: " + unreached->text();
}

Failure stillHeld(const std::string& device, const std::string& snapshotDevice, const std::string& state,
                  const std::vector<Cause>& causes) {
  const std::vector<User> holders = holdersOf(snapshotDevice);
  return {kCannotCleanUp, device, state + heldBecause(causes) + (holders.empty() ? "" : ", " + usersText(holders)),
          kReconcileAdvice};
}

Failure mayBeSnapped(const std::vector<ChosenVolume>& volumes, const Failure& unknown) {
  return {kCannotCleanUp, listed(devicesOf(volumes)),
          "the snapshots may be left: " + unknown.subject + ": " + unknown.cause, kReconcileAdvice};
}

// Where the file is by now; empty when it is gone, or where no path leads to it.
std::string placeOf(const UniqueFd& file) {
  struct stat status {};
  std::error_code error;
  if (!file || fstat(file.get(), &status) != 0 || status.st_nlink == 0) return {};
  const std::string path = fs::read_symlink(DescriptorPath(file.get()).text(), error);
  return fileAt(path) == FileId{status.st_dev, status.st_ino} ? path : std::string();
}

Failure notRemoved(const std::string& file, const std::string& because) {
  return {kCannotCleanUp, file, "the relocation file could not be removed" + because,
          fileAt(file) == FileId{} ? "look for it: it was moved, or what it lies on was" : kReconcileAdvice};
}

// What is left of the relocation file of a snapshot that was discarded. Who owns the top of its file system, or a
// folder above that, can have moved it meanwhile. Nobody is sent to remove a file while the driver may write to one.
Outcome relocationFileLeft(const SnappedVolume& volume, const std::vector<Cause>& causes, bool driverHoldsAny) {
  const std::string& file = volume.relocationFile;
  const std::string because = becauseOf(causes, "unlink", file, file);
  const std::string place = placeOf(volume.file);
  if (place == file) return notRemoved(file, because);
  if (!place.empty())
    return Failure{kCannotCleanUp, place, "the relocation file was moved there from " + file + " and is left",
                   isInRelocationDirectory(place) ? kReconcileAdvice
                   : driverHoldsAny               ? "remove it when mirelsnap status shows no snapshot and no mapping"
                                                  : "no snapshot uses it any more: remove it"};
  return because.empty() ? std::nullopt : Outcome(notRemoved(file, because));
}

}  // namespace

SnapshotSet::SnapshotSet(Terminal& terminal, std::vector<ChosenVolume> volumes, std::vector<std::string> binds,
                         RelocationOptions relocation)
    : mTerminal(terminal), mVolumes(std::move(volumes)), mBinds(std::move(binds)), mRelocation(std::move(relocation)) {}

SnapshotSet::~SnapshotSet() { finish(); }

Outcome SnapshotSet::take() {
  for (const auto step : {&SnapshotSet::makeEngine, &SnapshotSet::removeRemains, &SnapshotSet::addVolumes,
                          &SnapshotSet::addBinds, &SnapshotSet::runJob}) {
    if (Outcome failure = (this->*step)()) return failure;
  }
  readProperties();
  return std::nullopt;
}

Outcome SnapshotSet::makeEngine() {
  mEngine.reset((*GetCreatorFunction())());
  if (mEngine == nullptr) return Failure{kSnapshotFailed, "the engine", "memory is short", ""};
  int supported = 0;
  Attempt attempt;
  if (mEngine->SupportsSnapshots(&supported) < 0 || supported == 0) return noDriver(attempt.because(kControlNode));
  if (mEngine->StartSnapshotSet(&mSetId) < 0)
    return Failure{kSnapshotFailed, "the snapshot set", "could not be started", ""};
  mId = idText(mSetId);
  return std::nullopt;
}

// A process that was killed could not clean up: what it left on these volumes would keep them from being snapped. What
// cannot be removed shows in what follows.
Outcome SnapshotSet::removeRemains() {
  Driver driver;
  const bool remain = std::any_of(mVolumes.begin(), mVolumes.end(), [&](const ChosenVolume& volume) {
    const std::vector<int> owners = driver.owners(volume.device, volume.number);
    return std::any_of(owners.begin(), owners.end(), &isGone);
  });
  if (!remain && abandonedBases().empty()) return std::nullopt;
  mTerminal.begin("Removing what a process left that was killed");
  // What is mounted goes first: the driver keeps what is discarded while it is in use.
  sweepBases("");
  mEngine->DoReconcile(nullptr);
  mTerminal.end();
  return std::nullopt;
}

Outcome SnapshotSet::addVolumes() {
  for (const ChosenVolume& volume : mVolumes) {
    _SSGUIDPLAIN snapshotId{};
    const int result =
        mEngine->AddToSnapshotSet(wide(volume.device).c_str(), wide(volume.mountPoint).c_str(), &snapshotId);
    if (result < 0) return refusal(volume, result);
    if (Outcome failure = setOptions(snapshotId, volume)) return failure;
    const bool known = std::any_of(mSnapshotIds.begin(), mSnapshotIds.end(), [&](const _SSGUIDPLAIN& id) {
      return std::memcmp(&id, &snapshotId, sizeof id) == 0;
    });
    if (!known) mSnapshotIds.push_back(snapshotId);
  }
  return std::nullopt;
}

Failure SnapshotSet::refusal(const ChosenVolume& volume, int result) const {
  switch (result) {
    case USC_E_OBJECT_ALREADY_EXISTS:
      return {kAlreadySnapped, volume.device, "is named twice under " + volume.mountPoint,
              "name each mount point once"};
    case USC_E_VOLUME_NOT_SUPPORTED:
      return {kVolumeNotSupported, volume.device, "cannot be opened or has no size", "check the device"};
    default:
      return {kVolumeNotSupported, volume.device, "cannot be added to the set as mounted at " + volume.mountPoint,
              "check that the device is mounted there and that its size can be read"};
  }
}

Outcome SnapshotSet::setOptions(const _SSGUIDPLAIN& snapshotId, const ChosenVolume& volume) {
  if (mRelocation.blocks == 0) return std::nullopt;
  if (mEngine->SetOption(snapshotId, L"RelocationFileMountPoint", wide(mRelocation.mountPoint).c_str()) < 0) {
    return Failure{kNoRoom, mRelocation.mountPoint,
                   "is not a mount point, so no relocation file of " + volume.device + " can go there",
                   "name a mount point with --reloc-mount"};
  }
  if (mEngine->SetOption(snapshotId, L"RelocationFileSize", std::to_wstring(mRelocation.blocks).c_str()) < 0) {
    return Failure{kUsage, std::to_string(mRelocation.blocks), "is no size for a relocation file", ""};
  }
  return std::nullopt;
}

Outcome SnapshotSet::addBinds() {
  for (const std::string& bind : mBinds) {
    auto live = liveMountAt(bind);
    if (const auto* failure = std::get_if<Failure>(&live)) return *failure;
    mLiveMounts.push_back(std::move(std::get<0>(live)));
  }
  return std::nullopt;
}

Outcome SnapshotSet::runJob() {
  if (mTerminal.interactive()) mPlacements = predictPlacements(mVolumes, mRelocation);
  mTerminal.begin("Taking the snapshot of " + listed(devicesOf(mVolumes)));
  IUscAsync* started = nullptr;
  Attempt attempt;
  const int result = mEngine->DoSnapshotSet(&started);
  if (result < 0)
    return result == E_OUTOFMEMORY
               ? Failure{kSnapshotFailed, listed(devicesOf(mVolumes)), "the job could not be started: memory is short",
                         ""}
               : Failure{kSnapshotFailed, listed(devicesOf(mVolumes)),
                         "the job could not be started: no thread can be had",
                         "memory, address space or processes are limited too tightly (ulimit -v, -u)"};
  const std::unique_ptr<IUscAsync, Release> job(started);
  waitForJob(*job);
  int status = 0;
  int snapResult = -1;
  job->QueryStatus(&status, &snapResult);
  mTerminal.end();
  if (snapResult != 0) {
    mJobCauses = attempt.causes();
    mRefused = snapResult == kDriverRefused;
    Failure failure = snapFailure(snapResult);
    // Nothing was made where a volume is snapped or frozen, and looking at a frozen one would never end.
    if (failure.code != kAlreadySnapped) dropMappings();
    return failure;
  }
  mTaken = true;
  return std::nullopt;
}

// A job cannot be cancelled: a signal that comes meanwhile is honoured when it is done.
void SnapshotSet::waitForJob(IUscAsync& job) {
  for (;;) {
    int status = USC_S_ASYNC_PENDING;
    int snapResult = -1;
    job.QueryStatus(&status, &snapResult);
    if (status != USC_S_ASYNC_PENDING) return;
    // One wait in a million fails for its clock; the status above is what counts.
    if (job.Wait(kTickMs) < 0) usleep(kTickMs * 1000);
    showRelocationFile();
  }
}

void SnapshotSet::showRelocationFile() {
  if (!mTerminal.interactive()) return;
  const std::optional<FileProgress> file = relocationFileBeingWritten();
  if (!file || file->written == 0) {
    mTerminal.tick();
    return;
  }
  const auto predicted = std::find_if(mPlacements.begin(), mPlacements.end(),
                                      [&](const Placement& placement) { return placement.file.file == file->path; });
  const std::uint64_t total = predicted == mPlacements.end() ? 0 : predicted->bytes();
  const bool written = total != 0 && file->written >= total;
  mTerminal.bar((written ? "flushing the relocation file " : "writing the relocation file ") + file->path,
                file->written, total);
}

Failure SnapshotSet::snapFailure(int snapResult) const {
  const std::string all = listed(devicesOf(mVolumes));
  const std::string because = Attempt::firstOf(mJobCauses, all);
  switch (snapResult) {
    case 5:
      return noDriver(Attempt::firstOf(mJobCauses, kControlNode));
    case kDriverRefused:
      return {kSnapshotFailed, all, "the driver refused the snapshot" + because,
              "look for MIRELSNAP_SDK in the system log, or use --verbose"};
    case 11:
    case 12:
      return busyFailure();
    case 20:
    case 21:
      return noRoomFailure(because);
    case 26:
      return {kSnapshotFailed, all, "the size of a device changed", "try again when it no longer changes"};
    default:
      return {kSnapshotFailed, all,
              "the snapshot could not be prepared" +
                  (because.empty() ? " (code " + std::to_string(snapResult) + ")" : because),
              "look for MIRELSNAP_SDK in the system log, or use --verbose"};
  }
}

// A volume was snapped or frozen.
Failure SnapshotSet::busyFailure() const {
  Driver driver;
  for (const ChosenVolume& volume : mVolumes) {
    if (const Outcome busy = driver.busy(volume.device, volume.number)) return *busy;
  }
  return {kAlreadySnapped, listed(devicesOf(mVolumes)), "a volume was snapped or frozen at that moment", "try again"};
}

// A relocation file could not be placed or made, or the mapping of one stood there already.
Failure SnapshotSet::noRoomFailure(const std::string& because) const {
  Driver driver;
  for (const ChosenVolume& volume : mVolumes) {
    for (const int owner : driver.owners(volume.device, volume.number)) {
      if (owner == getpid() || isGone(owner)) continue;
      return {kAlreadySnapped, volume.device, "is being snapped by " + processText(owner),
              "wait until that snapshot is deleted"};
    }
  }
  for (const Placement& placement : predictPlacements(mVolumes, mRelocation)) {
    if (!placement.placed()) return notPlaced(placement);
    if (!isFull(placement.file.mountPoint, placement.bytes())) continue;
    return {kNoRoom, placement.file.mountPoint,
            "has no room for the relocation file of " + placement.volume.device + " (" + sizeText(placement.bytes()) +
                ")" + because,
            "free some space or name a place with --reloc-mount and --reloc-size"};
  }
  return {kNoRoom, listed(devicesOf(mVolumes)), "a relocation file could not be made" + because,
          "look for MIRELSNAP_SDK in the system log, or use --verbose"};
}

void SnapshotSet::readProperties() {
  for (const _SSGUIDPLAIN& id : mSnapshotIds) {
    _USC_SNAPSHOT_PROP properties{};
    if (mEngine->GetSnapshotProperties(id, &properties) < 0) continue;
    SnappedVolume volume{textOf(properties.OriginalVolumeName), {}, textOf(properties.SnapshotDeviceName),
                         textOf(properties.RelocationFileName), "", {}};
    for (std::int32_t i = 0; i < properties.MountPointCount; ++i)
      volume.mountPoints.push_back(textOf(properties.MountPoints[i]));
    volume.file = openWithoutLinks(volume.relocationFile.c_str(), O_PATH);
    mSnapped.push_back(std::move(volume));
    UnixSnapshotCoordinator::UscFreeSnapshotProperties(&properties);
  }
}

// A snap that failed may leave mappings of this process, and the folders of files that could not be made. What a
// snapshot is held with stays: the driver writes to that file.
void SnapshotSet::dropMappings() {
  Driver driver;
  std::list<SnappedVolumeInformation> held;
  std::list<RelocFileMappingInformation> mapped;
  if (driver.holdings(held, mapped)) return;
  std::vector<std::string> files;
  for (const RelocFileMappingInformation& mapping : mapped) {
    const bool isHeld = std::any_of(held.begin(), held.end(), [&](const SnappedVolumeInformation& snapshot) {
      return isOwn(snapshot) && WStringToString(snapshot.getSnappedVolumeName()) == mapping.getSnappedVolumeName();
    });
    if (mapping.getAppPid() != getpid() || isHeld) continue;
    driver.deleteMapping(mapping.getSnappedVolumeName(), getpid());
    files.push_back(mapping.getRelocFileName());
  }
  for (const Placement& placement : predictPlacements(mVolumes, mRelocation)) {
    if (placement.placed()) files.push_back(placement.file.file);
  }
  for (const std::string& file : files) static_cast<void>(removeEmptyDirectory(std::string(folderOf(file))));
}

std::vector<std::string> SnapshotSet::allMountPoints() const {
  std::vector<std::string> all = mBinds;
  for (const ChosenVolume& volume : mVolumes) all.push_back(volume.mountPoint);
  return all;
}

Outcome SnapshotSet::expose(const std::string& base) {
  mTerminal.begin("Mounting the snapshots");
  if (Outcome failure = mBase.make(base, allMountPoints(), mBinds)) return failure;
  mExposed = true;
  Attempt attempt;
  if (mEngine->ExposeSnapshotsInSnapshotSet(wide(mBase.path()).c_str()) < 0) {
    return Failure{kCannotExpose, mBase.path(),
                   "the snapshots could not be mounted there" + attempt.because(mBase.path()),
                   "look for mirelsnap in the system log, or use --verbose"};
  }
  if (Outcome failure = restrictSnapshots()) return failure;
  if (Outcome failure = bindLiveMounts()) return failure;
  for (SnappedVolume& volume : mSnapped) {
    if (!volume.mountPoints.empty()) volume.exposedAt = joined(mBase.path(), volume.mountPoints.front());
  }
  mTerminal.end();
  return std::nullopt;
}

// Nobody but root reaches the base: its mounts are as the live ones before anybody can look.
Outcome SnapshotSet::restrictSnapshots() const {
  for (const ChosenVolume& volume : mVolumes) {
    if (Outcome failure = restrictSnapshot(joined(mBase.path(), volume.mountPoint), volume)) return failure;
  }
  return std::nullopt;
}

Outcome SnapshotSet::bindLiveMounts() {
  for (const std::unique_ptr<LiveMount>& live : mLiveMounts) {
    if (Outcome failure = bindLive(*live, mBase.path())) return failure;
  }
  return std::nullopt;
}

std::vector<Failure> SnapshotSet::finish() {
  if (mEngine == nullptr) return {};
  if (mTaken) mTerminal.begin("Cleaning up");
  // The engine removes the base itself, which the folders made here keep it from: what counts is what is left in the
  // end.
  if (mExposed) {
    mEngine->UnExposeSnapshotsInSnapshotSet();
    // Before the deletion: the driver keeps the image of a snapshot that is discarded while it is mounted.
    unmountExposure(mBase.record());
  }
  Attempt attempt;
  const int deletion =
      mTaken ? mEngine->DeleteSnapshots(mSetId, UnixSnapshotCoordinator::USC_OBJECT_SNAPSHOT_SET) : S_OK;
  mEngine.reset();
  std::vector<Failure> left = stillMounted();
  for (Failure& snapshot : deletion < 0 ? std::vector{notDeleted(deletion)} : stillSnapped(attempt.causes()))
    left.push_back(std::move(snapshot));
  for (Failure& folder : mBase.remove()) {
    const bool explained = std::any_of(left.begin(), left.end(),
                                       [&](const Failure& mount) { return liesWithin(mount.subject, folder.subject); });
    if (!explained) left.push_back(std::move(folder));
  }
  mTerminal.end();
  return left;
}

std::vector<Failure> SnapshotSet::stillMounted() const {
  std::vector<Failure> left;
  if (!mExposed) return left;
  for (const Mount& mount : MountTable().under(mBase.path())) {
    left.push_back({kCannotCleanUp, mount.folder, "is still mounted: " + usersText(usersOf(mount.folder)),
                    "stop what uses it, then: umount " + mount.folder});
  }
  return left;
}

Failure SnapshotSet::notDeleted(int result) const {
  return {kCannotCleanUp, listed(devicesOf(mVolumes)),
          std::string("the deletion of the snapshots failed") + (result == E_OUTOFMEMORY ? ": memory is short" : ""),
          kReconcileAdvice};
}

std::vector<Failure> SnapshotSet::stillSnapped(const std::vector<Cause>& causes) const {
  if (!mTaken) return mRefused ? snappedAllTheSame() : std::vector<Failure>();
  std::vector<Failure> left;
  Driver driver;
  std::list<SnappedVolumeInformation> held;
  std::list<RelocFileMappingInformation> mapped;
  if (const Outcome unknown = driver.holdings(held, mapped)) return {mayBeSnapped(mVolumes, *unknown)};
  for (const SnappedVolume& volume : mSnapped) {
    const bool isHeld = std::any_of(held.begin(), held.end(), [&](const SnappedVolumeInformation& other) {
      return isOwn(other) && snapshotDeviceOf(other) == volume.snapshotDevice;
    });
    if (isHeld) {
      left.push_back(stillHeld(volume.device, volume.snapshotDevice, "is still snapped", causes));
    } else if (const Outcome file = relocationFileLeft(volume, causes, !held.empty() || !mapped.empty())) {
      left.push_back(*file);
    }
  }
  return left;
}

// The snap command can fail though it was carried out; the library discards the snapshots then, where it can.
std::vector<Failure> SnapshotSet::snappedAllTheSame() const {
  std::vector<Failure> left;
  Driver driver;
  std::list<SnappedVolumeInformation> held;
  std::list<RelocFileMappingInformation> mapped;
  if (const Outcome unknown = driver.holdings(held, mapped)) return {mayBeSnapped(mVolumes, *unknown)};
  for (const SnappedVolumeInformation& snapshot : held) {
    if (isOwn(snapshot))
      left.push_back(stillHeld(WStringToString(snapshot.getSnappedVolumeName()), snapshotDeviceOf(snapshot),
                               "is snapped though the command failed", mJobCauses));
  }
  // Each had been made by then.
  for (const Cause& cause : mJobCauses) {
    if (const std::string file = objectOf(cause, "unlink"); isRemoval(cause) && !file.empty())
      left.push_back(notRemoved(file, ": " + textBeside(cause, file)));
  }
  return left;
}

}  // namespace cli
