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
// Searches the tree at `path`, depth first, links not followed; on success `path` is the node's, else it is as it was.
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
  // number of the file system at `mountPoint`; no output may be null. 0; 16 with the outputs untouched.
  unsigned int GetMountSizeDetails(const std::string& mountPoint, std::uint64_t* availKB, std::uint64_t* usedKB,
                                   std::uint32_t* blockSize, std::uint64_t* fsType);
  // 0; 16 when the path cannot be examined.
  unsigned int GetMountFSType(const std::string& mountPoint, std::uint64_t* fsType);
  // 0 when `path` is a directory, else 16. The second argument is ignored.
  unsigned int IsValidMountPoint(std::string& path, const std::string& ignored);
  // Appends the full path of every entry, of any kind, in the directory's own order. 0, or the errno of opendir.
  // This and the next follow links: where users may put one, RelocationDirectory is the way.
  int GetFilesInDirectory(const std::string& dir, std::list<std::string>& out);
  // Removes `dir` when it has no entries. 0, also when it has; 3 when it cannot be read.
  unsigned int DeleteDirectoryIfEmpty(const std::string& dir);
  // A human-readable dump to standard output.
  void printMounts();

  // Rebuilds both alias maps from /dev/disk and /dev/root.
  void LinkVolumeDeviceAliases();
  // Registers the symbolic link `path`, or all those in the tree at `path`, under the path that they lead to, a
  // dangling one as far as it can be resolved. `parentDir` is the directory that holds `path`.
  void LinkVolumeDeviceAliases(const std::string& path, const std::string& parentDir);
  // Registers `candidate`, or else the nodes in the tree at it, that carry the device number of `alias`.
  void InitVolumeDeviceAlias(const std::string& alias, const std::string& candidate);

  // Reads /proc/meminfo into `memInfo`, replacing values of the same key. 0; 5 when it cannot be opened. A line without
  // a digit throws std::out_of_range and leaves the file open.
  int InitializeSystemMemoryState();
  // Copies the six figures of the last reading. 0; 3 for null.
  unsigned int GetSpecificSystemMemoryState(_sysMemStateInfo* out);
  // One figure by its exact key; 0 when absent.
  std::uint64_t GetSpecificSystemMemoryDetail(const std::string& key);

  std::vector<MountEntry> mountEntries;                            // never filled by the class itself
  std::map<std::string, std::vector<std::string>> volumeAliasMap;  // real device path to its aliases
  std::map<std::string, std::string> volumeAliases;                // alias to real device path
  std::uint64_t rootDevice = 0;                                    // st_dev of "/"
  std::string bootDeviceName;                                      // device path of the root file system
  std::map<std::string, std::uint64_t> memInfo;                    // /proc/meminfo, in kB

 private:
  // The real path of a device as the mount table names it.
  std::string realDeviceOf(const std::string& device);
  // Registers every symbolic link of the tree at `path`, a directory.
  void linkAliasesInDirectory(const std::string& path);
  // Registers the symbolic link `path`; a relative text starts at `parentDir`.
  void linkAlias(const std::string& path, const std::string& parentDir);
  // Registers the nodes with the number of `alias` in the tree at `path`, a directory.
  void initAliasesInDirectory(const std::string& alias, const std::string& path);
  void registerAlias(const std::string& alias, const std::string& device);
  // Stores one line of /proc/meminfo; throws std::out_of_range for one without a digit.
  void readMemoryLine(const std::string& line);
};

}  // namespace mirelsnapsdk_linuxcomputer
