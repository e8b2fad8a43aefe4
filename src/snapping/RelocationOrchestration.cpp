// SPDX-License-Identifier: Apache-2.0
//
// The loop over a snap request: a relocation file for every volume before the snap, their removal, and the forecast of
// what the loop would do.
#include <fcntl.h>
#include <mirelsnap/DriverInterface.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>
#include <memory>
#include <optional>
#include <utility>

#include "base/Causes.h"
#include "base/FileIdentity.h"
#include "base/Resolve.h"
#include "reloc/LinuxSnapshotreloc.h"
#include "reloc/Planted.h"
#include "reloc/RelocationDirectory.h"
#include "reloc/RelocationFileRemoval.h"
#include "reloc/RelocationForecast.h"
#include "reloc/RelocationStatus.h"
#include "reloc/WritabilityProbe.h"
#include "snapping/RelocationOrchestration.h"

namespace {

using VolumeIterator = std::list<SnapVolumeInformation>::iterator;

// The object that places the volume's file: without options, or with the caller's.
template <class Reloc, class... Context>
std::unique_ptr<Reloc> makeFor(SnapVolumeInformation& volume, unsigned long entriesInMemory, Context&... context) {
  if (volume.getRelocFileSize() == 0 && *volume.getcStrRelocMountName() == '\0') {
    return std::make_unique<Reloc>(context..., volume.getSnapVolumeNameString(), volume.getBlockSize(),
                                   volume.getNumBlocks(), entriesInMemory);
  }
  return std::make_unique<Reloc>(context..., volume.getSnapVolumeNameString(), volume.getBlockSize(),
                                 volume.getRelocFileSize(), volume.getcStrRelocMountName(), entriesInMemory);
}

// The placement's decision, into the record.
void takeOverFile(LinuxSnapshotreloc& reloc, SnapVolumeInformation& volume) {
  volume.setRelocFileName(reloc.GetRelocFileName());
  volume.setRelocVolumeName(reloc.GetRelocDeviceName());
}

void takeOverSize(LinuxSnapshotreloc& reloc, SnapVolumeInformation& volume) {
  volume.setRelocFileSize(static_cast<unsigned int>(reloc.GetRelocNumBlks()));
}

void logPlacement(int priority, const SnapVolumeInformation& volume) {
  syslog(priority, "SVName: %s, RFName: %s, RVName: %s, RVSize: %d.\n", volume.getcStrSnapVolumeName(),
         volume.getcStrRelocFileName(), volume.getcStrRelocVolumeName(), static_cast<int>(volume.getRelocFileSize()));
}

// Each of the four ways fills the record's relocation fields; a failure is logged.

unsigned int placeFreely(LinuxSnapshotreloc& reloc, SnapVolumeInformation& volume) {
  if (const unsigned int status = reloc.initialize(); status != kRelocSuccess) {
    syslog(LOG_ERR, "Reloc options are not correct.\n");
    return status;
  }
  takeOverFile(reloc, volume);
  takeOverSize(reloc, volume);
  logPlacement(LOG_INFO, volume);
  return kRelocSuccess;
}

unsigned int placeOnMount(LinuxSnapshotreloc& reloc, SnapVolumeInformation& volume) {
  syslog(LOG_DEBUG, "SnapVolue: %s, RMountName: %s\n", volume.getcStrSnapVolumeName(), volume.getcStrRelocMountName());
  if (const unsigned int status = reloc.initializeRelocLocationOption(volume.getNumBlocks()); status != kRelocSuccess) {
    syslog(LOG_ERR, "Unable to initialize user selected reloc option.\n");
    return status;
  }
  takeOverFile(reloc, volume);
  takeOverSize(reloc, volume);
  logPlacement(LOG_ERR, volume);  // the contract: at error priority, although it reports success
  return kRelocSuccess;
}

unsigned int placeWithSize(LinuxSnapshotreloc& reloc, SnapVolumeInformation& volume) {
  syslog(LOG_DEBUG, "SnapVolume: %s , RFSize: %d.\n", volume.getcStrSnapVolumeName(),
         static_cast<int>(volume.getRelocFileSize()));
  if (const unsigned int status = reloc.initializeRelocSizeOption(); status != kRelocSuccess) {
    syslog(LOG_ERR, "Not able to find appropriate volume for reloc file.\n");
    return status;
  }
  takeOverFile(reloc, volume);
  logPlacement(LOG_ERR, volume);  // the contract: at error priority, although it reports success
  return kRelocSuccess;
}

unsigned int placeAsGiven(LinuxSnapshotreloc& reloc, SnapVolumeInformation& volume) {
  syslog(LOG_INFO, "User Options -- SnapVolName: %s, RMountName: %s, RVSize: %d.\n", volume.getcStrSnapVolumeName(),
         volume.getcStrRelocMountName(), static_cast<int>(volume.getRelocFileSize()));
  if (const unsigned int status = reloc.validate(); status != kRelocSuccess) {
    syslog(LOG_ERR, "Reloc options are not correct.\n");
    return status;
  }
  if (const unsigned int status = reloc.initializeUserSelectedOptions(); status != kRelocSuccess) {
    syslog(LOG_ERR, "Unable to initialize user selected options.\n");
    return status;
  }
  takeOverFile(reloc, volume);
  syslog(LOG_DEBUG, "Final options -- SnapVolName: %s, RMountName: %s, RVolName: %s, RVSize: %d.\n",
         volume.getcStrSnapVolumeName(), volume.getcStrRelocMountName(), volume.getcStrRelocVolumeName(),
         static_cast<int>(volume.getRelocFileSize()));
  return kRelocSuccess;
}

unsigned int place(LinuxSnapshotreloc& reloc, SnapVolumeInformation& volume) {
  const bool sizeGiven = volume.getRelocFileSize() != 0;
  const bool mountGiven = *volume.getcStrRelocMountName() != '\0';
  if (sizeGiven && mountGiven) return placeAsGiven(reloc, volume);
  if (sizeGiven) return placeWithSize(reloc, volume);
  if (mountGiven) return placeOnMount(reloc, volume);
  return placeFreely(reloc, volume);
}

// Opens, through no link, the file that was made at `path`; nothing, which is logged and noted, where the path leads to
// another one.
UniqueFd reopen(const std::string& path, const FileIdentity& made) {
  UniqueFd file = openWithoutLinks(path.c_str(), O_PATH);
  if (file && identityOf(file.get()) == made) return file;
  const std::string why = file ? "is another file than the one that was made"
                               : std::string("cannot be reached any more: ") + std::strerror(errno);
  tellPlanted(path, why);
  noteCause(path.c_str(), why.c_str());
  return UniqueFd();
}

// Places, registers and creates one volume's file and takes its size off `remaining`; false, logged, when a step fails.
bool makeRelocationFile(SnapDriverInterface& driver, SnapVolumeInformation& volume, unsigned long& remaining,
                        std::vector<UniqueFd>& made) {
  const auto reloc = makeFor<LinuxSnapshotreloc>(volume, remaining);
  if (place(*reloc, volume) != kRelocSuccess) {
    if (reloc->mObstacle) noteCause(*reloc->mObstacle);
    return false;
  }
  // The contract: asked only now, so that the record of the volume that finds no memory left is placed all the same.
  if (remaining == 0) {
    syslog(LOG_ERR, "Not enough Memory to hold  relocationobjects\n");
    return false;
  }
  // The driver learns the mapping before the file exists. When the file fails, the mapping stays: the contract.
  if (driver.CreateRelocationFileMapping(reloc->GetSnappedDeviceName(), reloc->GetRelocFileName(), getpid()) != 0) {
    syslog(LOG_ERR, "Unable to create relocation file mapping.\n");
    return false;
  }
  if (reloc->CreateRelocFile() != kRelocSuccess ||
      !made.emplace_back(reopen(reloc->mRelocFileName, reloc->mMadeFile))) {
    syslog(LOG_ERR, "Reloc File couldnt be created.\n");
    return false;
  }
  takeOverSize(*reloc, volume);
  remaining -= reloc->GetRelocNumBlks();
  return true;
}

// Bytes of the files placed so far, by the device number of the file system that would hold them.
using PromisedSpace = std::map<dev_t, std::uint64_t>;

// Decides as every placement does, but looks on only, at file systems that hold the files promised before.
class ForecastPlacement : public LinuxSnapshotreloc {
 public:
  template <class... Arguments>
  explicit ForecastPlacement(PromisedSpace& promised, Arguments&&... arguments)
      : LinuxSnapshotreloc(std::forward<Arguments>(arguments)...), mPromised(promised) {}

  bool IsMountPointWritable(const std::string& mountPoint) override {
    struct statvfs status {};
    if (faccessat(AT_FDCWD, mountPoint.c_str(), W_OK | X_OK, AT_EACCESS) != 0) return false;
    if (statvfs(mountPoint.c_str(), &status) != 0 || (status.f_flag & ST_RDONLY) != 0) return false;
    if (whyFilesCouldNotBeMade(mountPoint) || whyNotHoldingRelocationFiles(mountPoint)) return false;
    return status.f_files == 0 || status.f_ffree != 0;  // those that make files as they need them count none
  }

  unsigned int GetMountSizeDetails(const std::string& mountPoint, std::uint64_t* availKB, std::uint64_t* usedKB,
                                   std::uint32_t* blockSize, std::uint64_t* fsType) override {
    const unsigned int status = LinuxSnapshotreloc::GetMountSizeDetails(mountPoint, availKB, usedKB, blockSize, fsType);
    if (status != 0) return status;
    const std::uint64_t promisedKB = std::min(promised(mountPoint) >> 10, *availKB);
    *availKB -= promisedKB;
    *usedKB += promisedKB;
    return status;
  }

  RelocationForecast forecast(unsigned int status) {
    if (status != kRelocSuccess) return {status, "", "", "", 0, 0, mReasons};
    const std::string mountPoint = mRelocDirName.substr(0, mRelocDirName.rfind(FILE_PATH_SEPERATOR));
    promised(mountPoint) += mBlockSize * mRelocNumBlks;
    return {status, mRelocFileName, mountPoint, mRelocDeviceName, mRelocNumBlks, mFSType, mReasons};
  }

 private:
  std::uint64_t& promised(const std::string& mountPoint) {
    struct stat status {};
    static_cast<void>(stat(mountPoint.c_str(), &status));
    return mPromised[status.st_dev];
  }

  PromisedSpace& mPromised;
};

void deleteMapping(SnapDriverInterface& driver, SnapVolumeInformation& volume) {
  if (driver.DeleteRelocationFileMapping(volume.getSnapVolumeNameString(), getpid()) != 0) {
    syslog(LOG_ERR, "Unable to delete the reloc file mapping.\n");
  }
}

// Removes the files and mappings of the volumes from `volume` to `end`. The records keep the names.
void undo(SnapDriverInterface& driver, VolumeIterator volume, VolumeIterator end) {
  for (; volume != end; ++volume) {
    const std::string& file = volume->getRelocFileName();
    RelocationDirectory(relocFileDirectory(file)).remove(relocFileEntry(file));
    deleteMapping(driver, *volume);
    syslog(LOG_INFO, "Deleted precreated RelocFile\n");
  }
}

}  // namespace

int SnapDriverInterface::deduceRelocLocations(std::list<SnapVolumeInformation>* volumes,
                                              unsigned long relocEntriesInMemory) {
  if (volumes == nullptr) return kRelocSuccess;
  std::vector<UniqueFd> made;
  return makeRelocationFiles(*this, *volumes, relocEntriesInMemory, made);
}

int makeRelocationFiles(SnapDriverInterface& driver, std::list<SnapVolumeInformation>& volumes,
                        unsigned long relocEntriesInMemory, std::vector<UniqueFd>& made) {
  const ToldOnce once;
  unsigned long remaining = relocEntriesInMemory;
  made.reserve(volumes.size());
  VolumeIterator volume = volumes.begin();
  try {
    while (volume != volumes.end() && makeRelocationFile(driver, *volume, remaining, made)) ++volume;
  } catch (...) {
    undo(driver, volumes.begin(), volume);
    throw;
  }
  if (volume == volumes.end()) return kRelocSuccess;
  undo(driver, volumes.begin(), volume);
  return kRelocRequestUndone;
}

bool isStillTheFile(const std::string& path, const UniqueFd& made) {
  const std::optional<FileIdentity> identity = identityOf(made.get());
  return identity && reopen(path, *identity).valid();
}

std::vector<RelocationForecast> forecastRelocLocations(std::list<SnapVolumeInformation>& volumes,
                                                       unsigned long relocEntriesInMemory) {
  const ToldOnce once;
  std::vector<RelocationForecast> forecasts;
  PromisedSpace promised;
  unsigned long remaining = relocEntriesInMemory;
  for (SnapVolumeInformation& volume : volumes) {
    const auto reloc = makeFor<ForecastPlacement>(volume, remaining, promised);
    unsigned int status = place(*reloc, volume);
    // A file that is placed when no memory is left is not made.
    if (status == kRelocSuccess && remaining == 0) {
      status = kRelocNotPlaced;
      reloc->mReasons.beyondMemory = true;
    }
    forecasts.push_back(reloc->forecast(status));
    remaining -= forecasts.back().blocks;
  }
  return forecasts;
}

void SnapDriverInterface::cleanRelocFiles(std::list<SnapVolumeInformation>* volumes) {
  if (volumes == nullptr) return;
  for (SnapVolumeInformation& volume : *volumes) {
    const std::string& fileName = volume.getRelocFileName();
    const std::string directoryName = relocFileDirectory(fileName);
    const RelocationDirectory directory(directoryName);
    directory.remove(relocFileEntry(fileName));
    deleteMapping(*this, volume);
    directory.removeIfEmpty();
    syslog(LOG_DEBUG, "Deleted directory: %s.\n", directoryName.c_str());
    syslog(LOG_DEBUG, "Deleted precreated RelocFile: %s.\n", fileName.c_str());
  }
}
