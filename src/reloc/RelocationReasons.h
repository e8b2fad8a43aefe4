// SPDX-License-Identifier: Apache-2.0
//
// Why a relocation file goes where it goes and is as large as it is, noted by the decision as it is made. Nothing
// depends on it: it is there to be told.
#pragma once

#include <string>
#include <vector>

// What the decision found on the snapped volume itself; kFits until something speaks against it.
enum class OwnVolume {
  kFits,
  kNotMounted,   // or its sizes cannot be read
  kNotWritable,  // also: nothing can be made there
  kNoBlocks,     // a file there would have no block
  kNearlyFull,   // nine tenths or more; without a roomier file system it keeps the file all the same
  kNoRoom,       // no more space than the size asked for
  kSnapped,      // already
};

// Which rule gave the size.
enum class RelocSize {
  kAsked,          // by the caller
  kTenthOfFree,    // of the file system that holds the file
  kTenthOfUsed,    // of the snapped volume's file system
  kTenthOfVolume,  // of the snapped volume
  kLimit,          // 512 MiB for a file on a volume with little in use
  kMemory,         // what the driver can hold in memory
};

// Why the mount point that the caller chose is refused.
enum class ChosenMount {
  kAccepted,
  kNoSuchPath,
  kNotMountPoint,
  kSnapped,
  kFrozen,
  kNotWritable,
  kNotReadable,       // its sizes or kind cannot be read
  kBeyondFileSystem,  // a file of that size is larger than the file system takes
  kBeyondMemory,      // or than the driver can hold in memory
  kNotEnoughSpace,
};

// Why another file system could not take the file.
enum class PassedOver { kSnapped, kFrozen, kNotWritable };
struct PassedOverMount {
  std::string device;
  std::string mountPoint;
  PassedOver why;
};

struct RelocationReasons {
  OwnVolume ownVolume = OwnVolume::kFits;
  RelocSize size = RelocSize::kAsked;
  ChosenMount chosenMount = ChosenMount::kAccepted;
  bool fatAsLastResort = false;  // the roomiest file system is FAT, and no other has 40 GiB free
  bool beyondMemory = false;     // the size asked for is more than the driver can hold in memory
  std::vector<PassedOverMount> passedOver;
};
