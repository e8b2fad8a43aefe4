// SPDX-License-Identifier: Apache-2.0
//
// Where one volume's relocation file goes, how large it is, and the file itself. One object serves one volume:
// construct it, initialise it by exactly one of the four ways, create the file.
//
// File-system sizes are in KB (1024 bytes); relocation sizes are in blocks of `mBlockSize` bytes.
#pragma once

#include <cstdint>
#include <list>
#include <optional>
#include <string>

#include "base/Causes.h"
#include "base/FileIdentity.h"
#include "base/Handle.h"
#include "reloc/RelocationReasons.h"
#include "sysinfo/LinuxSystemInfo.h"

// Directory at the top of a file system that holds relocation files.
inline const std::string RELOC_FILE_LOCATION = ".verrelocarea";

// `name` with every "/" replaced by "_".
std::string prepareRelocFileName(std::string name);

class DriverReference;
class RelocationDirectory;

class LinuxSnapshotreloc : public mirelsnapsdk_linuxcomputer::LinuxSystemInfo {
 public:
  // With the caller's options: a size (0: not given), a mount point (empty: not given). `relocEntriesInMemory` bounds
  // the size.
  LinuxSnapshotreloc(const std::string& snappedDeviceName, unsigned int blockSize, unsigned int relocNumBlks,
                     const std::string& relocMountName, unsigned long relocEntriesInMemory);
  // Without options.
  LinuxSnapshotreloc(const std::string& snappedDeviceName, unsigned int blockSize, unsigned long numBlocksOfVolume,
                     unsigned long relocEntriesInMemory);

  virtual ~LinuxSnapshotreloc() = default;

  // The four ways, each 0 when the file is placed: neither option given (7, 20 or 17) ...
  unsigned int initialize();
  // ... the mount point only; `fallbackSize` is the volume's number of blocks (17) ...
  unsigned int initializeRelocLocationOption(unsigned long fallbackSize);
  // ... the size only (17, 21) ...
  unsigned int initializeRelocSizeOption();
  // ... both: validate first, then place (17).
  unsigned int validate();
  unsigned int initializeUserSelectedOptions();

  // Places the file on the other file system with the most free space. 0; 21 when there is none, or, with
  // `onlyIfLarger`, none with more free space than the volume's own.
  unsigned int SetRelocFileLocation(bool onlyIfLarger);
  // Places a file of the given size on the other file system with the most free space. 0; 21 when none has more than
  // the volume itself and than the file needs.
  unsigned int checkOtherMountVolumeForReloc();
  // Finds out whether and where `volume` is mounted, and its sizes. Always 0: `mIsMounted` tells.
  unsigned int GetVolumeDetails(const std::string& volume);
  // Sets `mIsMounted`, and `mVolMountPoint` to the first mount point, or to none when that is no folder; without any
  // mount point it stays as it is.
  void CheckIfVolumeIsMounted(const std::string& volume);
  // Fills the outputs and `mFSType`; where they cannot be read they stay, and `mIsMounted` becomes false.
  void GetMountDetails(const std::string& mountPoint, std::uint64_t* availKB, std::uint64_t* usedKB,
                       std::uint32_t* blockSize);
  // Tries it out with a file, which is removed again.
  virtual bool IsMountPointWritable(const std::string& mountPoint);
  // The base's operation, through which the placement reads every size.
  virtual unsigned int GetMountSizeDetails(const std::string& mountPoint, std::uint64_t* availKB, std::uint64_t* usedKB,
                                           std::uint32_t* blockSize, std::uint64_t* fsType);
  // Size in blocks of a file that stays on the volume itself.
  std::uint64_t PredictSizeOfFile();

  std::uint64_t GetRelocNumBlks();
  std::string GetSnappedDeviceName();
  std::string GetRelocDeviceName();
  std::string GetRelocFileName();
  std::string GetRelocFileLocation();

  // True when a file of `mRelocNumBlks` reaches the largest that a file system of this magic takes, which is written to
  // `*limitBlocks`; file systems without a known limit leave it untouched.
  bool CheckIfExceedsFSLimits(std::uint64_t fsType, std::uint64_t* limitBlocks);
  // Cuts the size to that limit; returns the new size, or 0 when nothing was cut.
  std::uint64_t ImposeRelocFSLimits(std::uint64_t fsType);
  // Makes the file at its full size with every block allocated and written or mapped. 0, 18. The size may have been
  // cut by the file system: read GetRelocNumBlks afterwards.
  unsigned int CreateRelocFile();
  // Removes the file, not its directory. True when it was removed, or never named; false also when it was gone already.
  bool DeleteRelocFile();
  // True when the file is named and can be opened for reading.
  bool IsRelocFileExists();
  // Appends what the relocation directories of all mounted file systems hold. 0; 3 when nothing is mounted.
  unsigned int GetAllRelocationFiles(std::list<std::string>& files);
  // Appends what the relocation directory of `volume` holds. Always 0.
  unsigned int GetAllRelocationFilesInVolume(const std::string& volume, std::list<std::string>& files);

  std::string mRelocMountName;          // chosen by the caller; empty when not
  std::string mRelocFileName;           // full path; empty until placed
  std::uint64_t mRelocNumBlks;          // size in blocks
  std::uint64_t mRelocEntriesInMemory;  // blocks that the driver can still hold in memory
  std::string mRelocDirName;            // directory of the file
  std::string mRelocDeviceName;         // block device of the file system that holds the file
  std::string mSnappedDeviceName;       // block device of the volume to snap, beginning with /dev/
  std::string mVolMountPoint;           // first mount point of the volume, later the chosen one
  bool mIsMounted = false;              // mounted, and its sizes could be read
  std::uint64_t mTotalSizeKOfVolume = 0;
  std::uint64_t mAvailSizeKOfVolume = 0;
  std::uint64_t mUsedSizeKofVolume = 0;
  std::uint32_t mBlockSize;          // bytes
  std::uint64_t mNumBlocksOfVolume;  // size of the volume in blocks
  std::uint64_t mFSType = 0;         // magic of the file system that holds the file
  RelocationReasons mReasons;        // why the decision is as it is
  FileIdentity mMadeFile;            // what CreateRelocFile made
  // Why the mount point that was tried last, other file systems' aside, cannot hold the file; nothing where it can.
  std::optional<Cause> mObstacle;

 private:
  // A mounted file system that can take the file.
  struct Candidate {
    std::uint64_t availKB = 0;  // 0: none found yet
    std::uint64_t fsType = 0;
    mirelsnapsdk_linuxcomputer::MountEntry mount;
  };

  // Steps of the initialisers.

  // True when the volume is mounted, writable, and a file that stays on it gets at least one block; sets
  // `mRelocNumBlks`.
  bool predictFileOnVolume();
  // True when the volume is mounted, writable, and has more space free than the file of the given size needs.
  bool volumeHasRoom();
  // Sets and logs the volume's total size.
  void sumUpVolume();
  // True from 90 % on.
  bool isNearlyFull() const;
  // Places the file on the snapped volume itself; 17 when it is snapped already.
  unsigned int placeOnVolume();
  // Replaces `mRelocMountName` by what it resolves to; false, logged, when it cannot be resolved.
  bool resolveRelocMount();
  // False, logged, when the caller's mount point cannot take a file of the caller's size; sets `mFSType`.
  bool acceptsChosenFile();
  // Size of a file on the caller's mount point, which has `availKB` free.
  std::uint64_t sizeOnChosenMount(std::uint64_t availKB, unsigned long fallbackSize);

  // Notes why the file cannot stay on the volume itself; false.
  bool ruleOutVolume(OwnVolume why);
  // Notes why the caller's mount point is refused; 17.
  unsigned int refuseChosenMount(ChosenMount why);

  // What a file system tells of itself.
  struct Sizes {
    std::uint64_t availKB = 0;
    std::uint64_t usedKB = 0;
    std::uint32_t blockSize = 0;
    std::uint64_t fsType = 0;
  };
  // GetMountSizeDetails into a record, which a failure leaves as it was.
  unsigned int readSizes(const std::string& mountPoint, Sizes& sizes);

  // IsMountPointWritable, and nothing is mounted over what `device` shows there: the file would lie elsewhere. Sets
  // `mObstacle`.
  bool canHoldFile(const std::string& mountPoint, const std::string& device);

  // Steps of the searches.

  // Why the file system cannot take the file; nothing when it can.
  std::optional<PassedOver> obstacleOn(const mirelsnapsdk_linuxcomputer::MountEntry& mount,
                                       const DriverReference& driver);
  // The other file system with the most free space; FAT only as a last resort.
  Candidate findLargestFileSystem();
  // Size of a file on a file system other than the volume's own, with `availKB` free.
  std::uint64_t sizeElsewhere(std::uint64_t availKB);
  // `blocks`, or what the driver can hold in memory.
  std::uint64_t withinMemory(std::uint64_t blocks);
  void passOver(const mirelsnapsdk_linuxcomputer::MountEntry& mount, PassedOver why);

  // KB to blocks and back.
  std::uint64_t toBlocks(std::uint64_t sizeKB) const { return bytesToBlocks(sizeKB << 10); }
  std::uint64_t toKB(std::uint64_t blocks) const { return (mBlockSize * blocks) >> 10; }
  // Whole blocks; none for a volume without a block size.
  std::uint64_t bytesToBlocks(std::uint64_t bytes) const { return mBlockSize == 0 ? 0 : bytes / mBlockSize; }

  // Composes directory and path of the file on the file system mounted at `mountPoint`. A snapped device whose name is
  // shorter than "/dev/" throws std::out_of_range, the directory being set.
  void nameFileOn(const std::string& mountPoint);
  void nameDirectoryOn(const std::string& mountPoint);
  void nameFile();

  // Steps of CreateRelocFile.

  // Nothing when every block of the open file is allocated and can be found; else the error number that writing it out
  // logs.
  std::optional<int> allocateAtOnce(int file) const;
  // Writes the file block by block. 0, 18.
  unsigned int writeOut(const RelocationDirectory& directory, UniqueFd file, int allocationError);
  // False, logged, when a block cannot be written: then the file is closed and gone.
  bool writeBlocks(const RelocationDirectory& directory, UniqueFd& file, const void* zeros);
  // The file ends with its first `blocks` blocks.
  void cutTo(std::uint64_t blocks, int file);
  void closeAndDelete(const RelocationDirectory& directory, UniqueFd& file);
};
