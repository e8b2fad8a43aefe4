// SPDX-License-Identifier: Apache-2.0
//
// The relocation file itself: its name, the largest that a file system takes, making, deleting and listing it.
#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <memory>

#include "base/Causes.h"
#include "base/DeviceFlush.h"
#include "reloc/BlockFinder.h"
#include "reloc/LinuxSnapshotreloc.h"
#include "reloc/RelocationDirectory.h"
#include "reloc/RelocationFileRemoval.h"
#include "reloc/RelocationStatus.h"
#include "sysinfo/SnapshotName.h"

using mirelsnapsdk_linuxcomputer::LinuxSystemInfo;
using mirelsnapsdk_linuxcomputer::MountEntry;

namespace {

constexpr std::uint64_t kXfsMagic = 0x58465342;

struct FileSizeLimit {
  std::uint64_t fsType;
  std::uint64_t largestGiB;
};
constexpr FileSizeLimit kFileSizeLimits[] = {
    {0x4D44, 4},         // FAT
    {0xEF53, 2048},      // ext2, ext3
    {0xEF53, 2048},      // ext4: the same magic, so the row before it answers
    {0x52654973, 2048},  // ReiserFS
};

constexpr std::size_t kDevPrefixLength = 5;  // "/dev/"

// Whether some of the file's `bytes` bytes cannot be found on its device before they are written. A file system that
// maps no blocks for anybody is no reason to write.
bool hasHole(int file, std::uint64_t bytes) {
  int blockSize = 0;
  if (ioctl(file, FIGETBSZ, &blockSize) != 0 || blockSize <= 0) return false;
  const auto size = static_cast<unsigned int>(blockSize);
  return BlockFinder(file, size, std::min(bytes / size + (bytes % size != 0), BlockFinder::kMostBlocks)).findsHole();
}

// Whether it is a block device that differs from the snapped one.
bool isOtherDevice(const std::string& device, const std::string& snapped) {
  const std::optional<dev_t> number = deviceNumber(device);
  return number && number != deviceNumber(snapped);
}

}  // namespace

// --- The name.

std::string prepareRelocFileName(std::string name) {
  std::replace(name.begin(), name.end(), '/', '_');
  return name;
}

void LinuxSnapshotreloc::nameFileOn(const std::string& mountPoint) {
  nameDirectoryOn(mountPoint);
  nameFile();
}

void LinuxSnapshotreloc::nameDirectoryOn(const std::string& mountPoint) {
  mRelocDirName = mountPoint + FILE_PATH_SEPERATOR + RELOC_FILE_LOCATION;
}

void LinuxSnapshotreloc::nameFile() {
  // A shorter device name throws std::out_of_range. That is the contract.
  mRelocFileName = mRelocDirName + "/" + prepareRelocFileName(mSnappedDeviceName.substr(kDevPrefixLength));
}

// --- Limits.

bool LinuxSnapshotreloc::CheckIfExceedsFSLimits(std::uint64_t fsType, std::uint64_t* limitBlocks) {
  const auto* limit = std::find_if(std::begin(kFileSizeLimits), std::end(kFileSizeLimits),
                                   [fsType](const FileSizeLimit& row) { return row.fsType == fsType; });
  if (limit == std::end(kFileSizeLimits)) return false;
  *limitBlocks = bytesToBlocks(limit->largestGiB << 30);
  if (*limitBlocks > mRelocNumBlks) return false;
  syslog(LOG_INFO, "mRelocNumBlks : %lu\t\t\t\t\t\t\t   ,maxFileSizeLimitInBlocks :%lu\n", mRelocNumBlks, *limitBlocks);
  return true;
}

std::uint64_t LinuxSnapshotreloc::ImposeRelocFSLimits(std::uint64_t fsType) {
  std::uint64_t limitBlocks = 0;
  if (!CheckIfExceedsFSLimits(fsType, &limitBlocks)) return 0;
  mRelocNumBlks = limitBlocks;
  return limitBlocks;
}

// --- Making the file.

unsigned int LinuxSnapshotreloc::CreateRelocFile() {
  if (mRelocFileName.empty()) {
    syslog(LOG_ERR, "Invalid reloc file name initilzed.\n");
    return kRelocFileNotCreated;
  }
  syslog(LOG_DEBUG, "Directory containing reloc file is: %s.\n", mRelocDirName.c_str());
  // The contract: mode 0644 when it is made, and never removed here, whatever follows.
  const RelocationDirectory directory = RelocationDirectory::make(mRelocDirName, deviceNumber(mRelocDeviceName));
  if (!directory) {
    if (directory.cause()) noteCause(*directory.cause());
    syslog(LOG_ERR, "Unable to create the directory.\n");
    return kRelocFileNotCreated;
  }
  syslog(LOG_DEBUG, "Reloc file name is: %s.\n", mRelocFileName.c_str());
  UniqueFd file = directory.create(relocFileEntry(mRelocFileName));
  if (!file) {
    if (directory.cause()) noteCause(*directory.cause());
    syslog(LOG_ERR, "Unable to create the directory.\n");  // the contract: the directory's text
    return kRelocFileNotCreated;
  }
  mMadeFile = identityOf(file.get()).value_or(FileIdentity());
  if (const std::optional<int> error = allocateAtOnce(file.get())) {
    return writeOut(directory, std::move(file), *error);
  }
  file.reset();
  syslog(LOG_ERR, "Reloc File successfully created.\n");  // the contract: at error priority on this path
  return kRelocSuccess;
}

std::optional<int> LinuxSnapshotreloc::allocateAtOnce(int file) const {
  if (mFSType == kXfsMagic) return 0;  // xfs never maps allocated blocks before they are written
  const std::uint64_t bytes = mBlockSize * mRelocNumBlks;
  if (const int error = posix_fallocate(file, 0, static_cast<off_t>(bytes)); error != 0) return error;
  // Until then the journal alone knows which blocks are the file's.
  if (fsync(file) != 0) return errno;
  if (hasHole(file, bytes)) return 0;
  // What the kernel holds in memory of blocks that are the file's from now on. The snap flushes the snapped volumes.
  if (isOtherDevice(mRelocDeviceName, mSnappedDeviceName)) flushDevice(mRelocDeviceName.c_str());
  return std::nullopt;
}

unsigned int LinuxSnapshotreloc::writeOut(const RelocationDirectory& directory, UniqueFd file, int allocationError) {
  syslog(LOG_ERR, "fallocate failed with err: %dfalling back to traditional method.\n", allocationError);
  const std::unique_ptr<void, FreeMemory> zeros(std::calloc(1, mBlockSize));
  if (zeros == nullptr) {
    noteShortMemory();
    syslog(LOG_ERR, "Unable to allocate memory.\n");
    static_cast<void>(file.release());  // the contract: the descriptor stays open, and the file stays
    return kRelocFileNotCreated;
  }
  if (!writeBlocks(directory, file, zeros.get())) {
    if (allocationError != 0) noteFailedCall("posix_fallocate", mRelocFileName.c_str(), allocationError);
    return kRelocFileNotCreated;
  }
  fsync(file.get());
  file.reset();
  syslog(LOG_DEBUG, "Reloc File successfully created.\n");
  return kRelocSuccess;
}

// One seek and one write a block and nothing else: this loop bounds the time that a snapshot waits for its file.
bool LinuxSnapshotreloc::writeBlocks(const RelocationDirectory& directory, UniqueFd& file, const void* zeros) {
  if (mBlockSize == 0) return true;  // blocks of no size fill no file
  for (std::uint64_t i = 0; i < mRelocNumBlks; ++i) {
    const std::uint64_t offset = mBlockSize * i;
    errno = 0;
    if (lseek(file.get(), static_cast<off_t>(offset), SEEK_SET) != static_cast<off_t>(offset)) {
      const int error = errno;
      noteFailedCall("lseek", mRelocFileName.c_str(), error);
      closeAndDelete(directory, file);
      syslog(LOG_ERR, "lseek failed to offset to :%lu bytes, errno : %d.\n", offset, error);
      return false;
    }
    errno = 0;
    const auto written = static_cast<std::int32_t>(write(file.get(), zeros, mBlockSize));
    if (written == static_cast<std::int32_t>(mBlockSize)) continue;
    if (errno != 0) {
      noteFailedCall("write", mRelocFileName.c_str(), errno);
      closeAndDelete(directory, file);
      syslog(LOG_ERR, "write failed for Reloc file.\n");
      return false;
    }
    cutTo(i, file.get());
    break;
  }
  return true;
}

void LinuxSnapshotreloc::cutTo(std::uint64_t blocks, int file) {
  syslog(LOG_DEBUG,
         "reloc file size is limited to count = %luinstead of mBlockSize = %lu blocks because of filesystem file size "
         "limit.\n ",
         blocks, mRelocNumBlks);
  mRelocNumBlks = blocks;
  // The beginning of one more block may be there. Where it cannot be cut off, it does no harm behind the last.
  [[maybe_unused]] const int cut = ftruncate(file, static_cast<off_t>(mBlockSize * blocks));
}

void LinuxSnapshotreloc::closeAndDelete(const RelocationDirectory& directory, UniqueFd& file) {
  file.reset();
  directory.remove(relocFileEntry(mRelocFileName), mMadeFile);
}

bool LinuxSnapshotreloc::DeleteRelocFile() {
  if (mRelocFileName.empty()) return true;
  return RelocationDirectory(relocFileDirectory(mRelocFileName)).remove(relocFileEntry(mRelocFileName));
}

bool LinuxSnapshotreloc::IsRelocFileExists() {
  if (mRelocFileName.empty()) return false;
  return RelocationDirectory(relocFileDirectory(mRelocFileName)).open(relocFileEntry(mRelocFileName)).valid();
}

// --- Listing files.

unsigned int LinuxSnapshotreloc::GetAllRelocationFiles(std::list<std::string>& files) {
  LinuxSystemInfo system;
  system.Initialize();
  const std::vector<MountEntry> mounts = system.GetProcMounts();
  if (mounts.empty()) {
    syslog(LOG_DEBUG, "Unable to find a mounted volume.\n");
    return kRelocNothingMounted;
  }
  for (const MountEntry& mount : mounts) {
    // What a snapshot shows are pictures, which nobody can remove; while it is looked at its owner cannot unmount it.
    if (volumeOfSnapshot(mount.fsname)) continue;
    const std::string directory = mount.dir + FILE_PATH_SEPERATOR + RELOC_FILE_LOCATION;
    if (RelocationDirectory(directory).list(files) != 0) {
      syslog(LOG_DEBUG, "GetAllRelocationFiles: Unable to read directory: %s.\n", directory.c_str());
    }
  }
  return kRelocSuccess;
}

unsigned int LinuxSnapshotreloc::GetAllRelocationFilesInVolume(const std::string& volume,
                                                               std::list<std::string>& files) {
  syslog(LOG_DEBUG, "Checking for mounts: %s.\n", volume.c_str());
  LinuxSystemInfo system;
  system.Initialize();
  const std::vector<std::string> mountPoints = system.GetMountPoints(volume);
  if (mountPoints.empty()) {
    syslog(LOG_DEBUG, "volume is not mounted.");
    return kRelocSuccess;
  }
  syslog(LOG_DEBUG, "volMountPoint: %s.\n", mountPoints.front().c_str());
  const std::string directory = mountPoints.front() + FILE_PATH_SEPERATOR + RELOC_FILE_LOCATION + FILE_PATH_SEPERATOR;
  syslog(LOG_DEBUG, "relocDir is : %s.\n", directory.c_str());
  if (RelocationDirectory(directory).list(files) != 0) {
    syslog(LOG_DEBUG, "Unable to read the relocation directory: %s.\n", directory.c_str());
  }
  return kRelocSuccess;
}
