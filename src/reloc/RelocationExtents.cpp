// SPDX-License-Identifier: Apache-2.0
//
// Relocation files as physical block runs, and the size of the snap command that carries them.
#include <linux/fs.h>
#include <mirelsnap/DriverInterface.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <syslog.h>

#include <cerrno>
#include <cstring>
#include <limits>
#include <new>

#include "base/Causes.h"
#include "base/Handle.h"
#include "driver/DriverProtocol.h"
#include "reloc/BlockFinder.h"
#include "reloc/RelocationDirectory.h"
#include "reloc/RelocationFileLocation.h"
#include "reloc/RelocationFileRemoval.h"
#include "reloc/RunMap.h"

namespace {

// Results of mapping one file.
enum MapResult : int {
  kMapped = 0,
  kNameless = 3,
  kUnreadable = 8,
  kUnusable = 9,
};

// Maps one file: finds the physical blocks of the whole file and appends the runs, in the unit of the volume's blocks,
// to a list.
class FileMap {
 public:
  // At most `room` runs fit the list.
  FileMap(const std::string& name, unsigned int volumeBlockSize, RunList& runs, std::size_t room)
      : mName(name), mVolumeBlockSize(volumeBlockSize), mRuns(runs), mRunsBefore(runs.size()), mRoom(room) {}

  // Throws std::bad_alloc when memory, or the room, is short.
  MapResult map() {
    if (const MapResult opened = openFile(); opened != kMapped) return opened;
    if (const MapResult blockSizeRead = readBlockSize(); blockSizeRead != kMapped) return blockSizeRead;
    if (const MapResult factorChosen = chooseFactor(); factorChosen != kMapped) return factorChosen;
    if (const MapResult counted = countBlocks(); counted != kMapped) return counted;
    if (const MapResult mapped = mapBlocks(); mapped != kMapped) return mapped;
    syslog(LOG_DEBUG, "Number of Runs: %u.\n", static_cast<unsigned int>(numRuns()));
    return kMapped;
  }

  // Runs of this file.
  std::size_t numRuns() const { return mRuns.size() - mRunsBefore; }

 private:
  MapResult openFile() {
    if (mName.empty()) {
      syslog(LOG_ERR, "assert at %d in %s failed.\n", 130, "LinuxSnapLib.cpp");
      return kNameless;
    }
    mFile = RelocationDirectory(relocFileDirectory(mName)).open(relocFileEntry(mName));
    if (!mFile) {
      noteFailedCall("open", mName.c_str(), errno);
      syslog(LOG_ERR, "Error opening file %s \n", mName.c_str());
      return kUnreadable;
    }
    return kMapped;
  }

  MapResult readBlockSize() {
    int blockSize = 0;
    if (ioctl(mFile.get(), FIGETBSZ, &blockSize) != 0 || blockSize <= 0) {
      noteCause(mName.c_str(), "its block size cannot be read");
      syslog(LOG_ERR, "Error getting the block size for file: %s.\n", mName.c_str());
      return kUnreadable;
    }
    mBlockSize = static_cast<unsigned int>(blockSize);
    return kMapped;
  }

  MapResult chooseFactor() {
    if (mBlockSize == mVolumeBlockSize) return kMapped;
    syslog(LOG_ERR,
           "The block size passed and obtained from FIBMAP doesn't match. fibmap blocksize: %u  obtained blocksize: "
           "%u\n",
           mBlockSize, mVolumeBlockSize);
    // A volume without a block size has no unit to scale to.
    if (mBlockSize < mVolumeBlockSize || mVolumeBlockSize == 0) {
      noteCause(mName.c_str(), "lies on a file system whose blocks are smaller than the volume's");
      syslog(LOG_ERR, "FIBMAP blockSize is less that of origblockSize. Failed to continue.\n");
      return kUnusable;
    }
    mFactor = mBlockSize / mVolumeBlockSize;
    mScaling = true;
    return kMapped;
  }

  MapResult countBlocks() {
    struct stat status {};
    if (fstat(mFile.get(), &status) != 0) {
      noteFailedCall("fstat", mName.c_str(), errno);
      syslog(LOG_ERR, "Error getting File status for file: %s errno: %s.\n", mName.c_str(), std::strerror(errno));
      return kUnreadable;
    }
    const auto size = static_cast<std::uint64_t>(status.st_size);
    mNumBlocks = size / mBlockSize + (size % mBlockSize != 0 ? 1 : 0);
    syslog(LOG_DEBUG, "File: %s Size: %ld Blocks: %u Blocksize: %u\n", mName.c_str(), status.st_size,
           static_cast<unsigned int>(mNumBlocks), mBlockSize);
    // A file beyond what can be asked for is refused before hours are spent on its first blocks.
    return mNumBlocks > BlockFinder::kMostBlocks ? mappingFailed(EOVERFLOW, kUnusable) : kMapped;
  }

  MapResult mapBlocks() {
    BlockFinder finder(mFile.get(), mBlockSize, mNumBlocks);
    std::uint64_t logical = 0;
    do {  // block 0 is asked for also in an empty file
      const FoundBlocks found = finder.at(logical);
      if (found.error != 0) return mappingFailed(found.error, logical == 0 ? kUnreadable : kUnusable);
      if (found.count == 0) return refuseSparse();
      append(found);
      logical += found.count;
    } while (logical < mNumBlocks);
    closeRun();
    return kMapped;
  }

  MapResult mappingFailed(int error, MapResult result) const {
    noteFailedCall("ioctl FIBMAP", mName.c_str(), error);
    syslog(LOG_ERR, "FIBMAP ioctl failed - errno: %s\n", std::strerror(error));
    return result;
  }

  MapResult refuseSparse() const {
    noteCause(mName.c_str(), "has blocks that are not allocated");
    syslog(LOG_ERR, "Relocation file is sparse, not supported.\n");
    return kUnusable;
  }

  // Lengthens the current run, or closes it and starts another.
  void append(const FoundBlocks& found) {
    if (mRun != nullptr && found.physical == mRun->startBlock + mRun->numBlocks) {
      mRun->numBlocks += found.count;
      return;
    }
    if (mRun != nullptr) closeRun();
    if (mRuns.size() >= mRoom) throw std::bad_alloc();
    std::unique_ptr<_run> run(new _run{found.physical, found.count});
    mRuns.push_back(run.get());
    mRun = run.release();
  }

  void closeRun() {
    if (!mScaling) return;
    syslog(LOG_DEBUG, "Shifting blocks offset: %u. startBlock: %lu, numBlocks: %lu\n", mFactor, mRun->startBlock,
           mRun->numBlocks);
    mRun->startBlock *= mFactor;
    mRun->numBlocks *= mFactor;
    syslog(LOG_DEBUG, " New startBlock: %lu, numBlocks: %lu\n", mRun->startBlock, mRun->numBlocks);
  }

  const std::string& mName;
  const unsigned int mVolumeBlockSize;
  RunList& mRuns;
  const std::size_t mRunsBefore;
  const std::size_t mRoom;
  UniqueFd mFile;
  unsigned int mBlockSize = 0;  // of the file system that holds the file
  unsigned int mFactor = 1;     // blocks of the volume in one of the file system
  bool mScaling = false;
  std::uint64_t mNumBlocks = 0;
  _run* mRun = nullptr;  // the run being grown, the last of the list; null before the first
};

// Adds to the size of the command; one beyond its 32 bits is a lack of memory.
void grow(unsigned int& size, std::uint64_t bytes) {
  if (__builtin_add_overflow(size, bytes, &size)) throw std::bad_alloc();
}

bool mapFile(const std::string& name, unsigned int volumeBlockSize, RunList& runs, std::size_t room) {
  syslog(LOG_INFO, "RelocFile: %s.\n", name.c_str());
  FileMap file(name, volumeBlockSize, runs, room);
  if (file.map() != kMapped) {
    syslog(LOG_ERR, "Relocation File %s is invalid.\n", name.c_str());
    return false;
  }
  syslog(LOG_INFO, "Reloc fileName: %s, num of runs: %lu.\n", name.c_str(), file.numRuns());
  return true;
}

// Adds one volume's entry to the size, and its runs, when it has any, to the map. 0, 3, 10.
int addVolume(SnapVolumeInformation& volume, unsigned int index, RunMap& runMap, unsigned int& size) {
  grow(size, kSnapEntrySize);
  std::list<std::string> files;
  if (getAllRelocFileInVol(volume.getSnapVolumeNameString(), volume.getRelocFileName(), files) != 0) {
    syslog(LOG_ERR, "Unable to read the relocation files.\n");
    return 3;
  }
  if (files.empty()) return 0;

  syslog(LOG_DEBUG, "Process %lu reloc files on this volume.\n", files.size());
  UniqueRuns runs(new RunList);
  const std::size_t room = (std::numeric_limits<unsigned int>::max() - size) / sizeof(_run);
  for (const std::string& file : files) {
    if (!mapFile(file, volume.getBlockSize(), *runs, room)) return 10;
  }

  const std::size_t bytes = sizeof(_run) * runs->size();
  grow(size, bytes);
  syslog(LOG_INFO, "SnapVolName: %s, num of runs: %lu, size to be allocated: %lu.\n", volume.getcStrSnapVolumeName(),
         runs->size(), bytes);
  RunList*& slot = runMap[index];
  slot = runs.release();
  return 0;
}

// Leaves the map empty unless it is told that all went well.
class MapGuard {
 public:
  explicit MapGuard(RunMap& runs) : mRuns(runs) {}
  ~MapGuard() {
    if (!mKeep) freeRunMap(mRuns);
  }
  MapGuard(const MapGuard&) = delete;
  MapGuard& operator=(const MapGuard&) = delete;
  void keep() { mKeep = true; }

 private:
  RunMap& mRuns;
  bool mKeep = false;
};

}  // namespace

int SnapDriverInterface::getIoctlCmdSize(std::list<SnapVolumeInformation>* volumes, RunMap* runs, unsigned int* size) {
  MapGuard guard(*runs);
  try {
    unsigned int index = 0;
    for (SnapVolumeInformation& volume : *volumes) {
      if (const int result = addVolume(volume, index++, *runs, *size); result != 0) return result;
    }
  } catch (const std::bad_alloc&) {
    syslog(LOG_ERR, "Memory Allocation failure.\n");
    return 3;
  }
  guard.keep();
  return 0;
}
