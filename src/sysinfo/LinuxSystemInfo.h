// SPDX-License-Identifier: Apache-2.0
//
// What the library knows of the machine: mounted block devices and their sizes, device aliases, memory. Nothing is
// cached: every mount query reads the kernel's table afresh. Construction walks /dev; build the object where an answer
// is needed and drop it afterwards.
#pragma once

#include <cstdint>
#include <list>
#include <map>
#include <string>
#include <vector>

#include "sysinfo/MountEntry.h"

// Between a directory and a name in every path that the library composes.
inline const std::string FILE_PATH_SEPERATOR = "/";

namespace mirelsnapsdk_linuxcomputer {

// Memory figures in kB, as /proc/meminfo prints them; a key that is not there reads 0.
struct _sysMemStateInfo {
  std::uint64_t MemTotal;
  std::uint64_t MemFree;
  std::uint64_t HighFree;
  std::uint64_t LowFree;
  std::uint64_t Cached;
  std::uint64_t AnonPages;
};

// Path of the block device node under /dev with this number; "Boot device" for 0; the number as "0x%04x" when no
// node has it.
std::string FindDev(unsigned long device);
// Searches the tree at `path`; on success `path` is the node's, else it is as it was.
bool FindDevRecursive(std::string& path, unsigned long device);

class LinuxSystemInfo {
 public:
  // Finds the root file system's device. No aliases and no memory state yet.
  LinuxSystemInfo();

  // Reads the aliases, then the memory state, whose status it returns (0 or 5).
  int Initialize();

  // The mounted block devices, aliases resolved, sorted by device name; entries of one device keep no order.
  // Empty when the table cannot be read.
  std::vector<MountEntry> GetProcMounts();
  // Every mount directory of `volume` (exact name), in table order.
  std::vector<std::string> GetMountPoints(const std::string& volume);
  // The real device paths that have at least one alias.
  std::vector<std::string> GetAllVolumes();
  // The first mount directory of each of those, sorted, without duplicates.
  std::list<std::string> GetAllMountPoints();
  // The device mounted exactly at `mountPoint`; empty when none is.
  std::string GetVolumeFromMountPoint(const std::string& mountPoint);
  // The device of the longest mount directory that occurs anywhere in `dirName`; empty when none does.
  std::string GetVolumeFromDir(const std::string& dirName);
  // Sizes in KB (free blocks, those reserved for the superuser included), the block size in bytes and the magic
  // number of the file system at `mountPoint`. 0; 16 with the outputs untouched.
  unsigned int GetMountSizeDetails(const std::string& mountPoint, std::uint64_t* availKB, std::uint64_t* usedKB,
                                   std::uint32_t* blockSize, std::uint64_t* fsType);
  // 0; 16 when the path cannot be examined.
  unsigned int GetMountFSType(const std::string& mountPoint, std::uint64_t* fsType);
  // 0 when `path` is a directory, else 16. The second argument is ignored.
  unsigned int IsValidMountPoint(std::string& path, const std::string& ignored);
  // Appends the full path of every entry. 0, or the errno of opendir.
  int GetFilesInDirectory(const std::string& dir, std::list<std::string>& out);
  // Removes `dir` when it has no entries. 0, also when it has; 3 when it cannot be read.
  unsigned int DeleteDirectoryIfEmpty(const std::string& dir);
  // A human-readable dump to standard output.
  void printMounts();

  // Rebuilds both alias maps.
  void LinkVolumeDeviceAliases();
  // Registers the symbolic links under `path`.
  void LinkVolumeDeviceAliases(const std::string& path, const std::string& parentDir);
  // Registers the nodes under `candidate` that carry the device number of `alias`.
  void InitVolumeDeviceAlias(const std::string& alias, const std::string& candidate);

  // Reads /proc/meminfo. 0; 5 when it cannot be opened. A line without a digit throws std::out_of_range.
  int InitializeSystemMemoryState();
  // Copies the six figures. 0; 3 for null.
  unsigned int GetSpecificSystemMemoryState(_sysMemStateInfo* out);
  // One figure by its exact key; 0 when absent.
  std::uint64_t GetSpecificSystemMemoryDetail(const std::string& key);

  std::vector<MountEntry> mountEntries;  // never filled by the class itself
  std::map<std::string, std::vector<std::string>> volumeAliasMap;  // real device path to its aliases
  std::map<std::string, std::string> volumeAliases;                // alias to real device path
  std::uint64_t rootDevice = 0;                                    // st_dev of "/"
  std::string bootDeviceName;                                      // device path of the root file system
  std::map<std::string, std::uint64_t> memInfo;                    // /proc/meminfo, in kB
};

}  // namespace mirelsnapsdk_linuxcomputer
