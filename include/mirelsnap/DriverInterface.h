// SPDX-License-Identifier: Apache-2.0
//
// SnapDriverInterface, the one object through which a process talks to the kernel's copy-on-write snapshot
// driver (module "mirelsnap", control node "/dev/mirelsnapctl").
//
// Every operation opens the control node, issues its request and closes it. Nothing here locks: callers must
// not issue commands from two threads at once. Messages go to the system log (identity "MIRELSNAP_SDK").
//
// Results, unless an operation says otherwise:
//    0 success                                  3 a missing argument, or memory is short
//    5 the control device could not be opened   6 the driver refused the request
//    7 a name is not a block device             8 a device does not exist
//   15 more runs than a bitmap command can carry
// Memory that is short for a name or a record leaves an operation as std::bad_alloc. SnapVolume and
// ReconcileAndCleanup let std::out_of_range leave as well: for a line of /proc/meminfo without a figure (no kernel
// writes one), and SnapVolume for a device path shorter than "/dev/".
#pragma once

#include <list>
#include <map>
#include <string>

#include <mirelsnap/VolumeRecords.h>

class MIRELSNAP_API SnapDriverInterface {
 public:
  // The singleton, made on first use, with one reference added; null when memory is short, the reference then
  // counted all the same. Drop each reference with releaseInstance.
  static SnapDriverInterface* Instance();
  // Drops one reference; the last one destroys the singleton.
  static void releaseInstance();

  static SnapDriverInterface* mInstance;
  static unsigned int mReferenceCount;

  // The driver's version text. 0, 3, 5, 6.
  unsigned int GetDriverVersionDetail(std::string& version);
  // True exactly when GetDriverVersionDetail returns 0.
  bool IsDriverEnabled(std::string& version);
  // Sets the driver's log level, and this process's log mask to all priorities up to `level`. 0, 3, 5, 6.
  unsigned int SetLogLevel(unsigned char level);

  // Whether the block device `volume` is snapped (frozen). Every failure reads as false.
  bool IsVolumeSnapped(const std::string& volume);
  bool IsVolumeFrozen(const std::string& volume);
  // 17 when a volume of the list is snapped (frozen), else 0.
  unsigned int checkIfVolSnapped(std::list<SnapVolumeInformation>* volumes);
  unsigned int checkIfVolFrozen(std::list<SnapVolumeInformation>* volumes);
  // Freezes (thaws) the named block devices together. 0; 3 also when a name is no block device or the request
  // fails; 5; 24 (freeze) when one is frozen already; 25 (thaw) when one is not frozen.
  unsigned int FreezeVolume(std::list<std::wstring>* volumes);
  unsigned int ThawVolume(std::list<std::wstring>* volumes);

  // Registers (withdraws) the relocation file of a volume for process `pid`. 0, 3, 5, 6.
  unsigned int CreateRelocationFileMapping(const std::string& snappedVolumeName, const std::string& relocFileName,
                                           int pid);
  unsigned int DeleteRelocationFileMapping(const std::string& snappedVolumeName, int pid);
  // The number of mappings, or 3, 5, 6 on failure: the two meanings share the value.
  unsigned int GetNumOfRelocFileMapping();
  // Appends one record a mapping; the list stays as it was unless 0 comes back. A failed count is taken for a
  // count and leads to the listing all the same. 0, 3, 5, 6.
  unsigned int GetRelocFileMapping(std::list<RelocFileMappingInformation>& mappings);

  // Writes the number of snapped volumes. 0, 3, 5, 6.
  unsigned int GetNumOfSnappedVolumes(int* count);
  // Appends one record a snapped volume; the list stays as it was unless 0 comes back. 0, 3, 5; 6 also when
  // the number of volumes cannot be had.
  unsigned int GetSnappedVolumeDetails(std::list<SnappedVolumeInformation>& volumes);
  // Whether `volume` (the real device path) has a relocation-file mapping or is snapped. Failures read as false.
  bool IsSnapInProgress(std::string& volume);

  // Takes the snapshots of all volumes at one instant. Fills each record's relocation fields and appends one
  // snapshot device name a volume, in list order; names may have been appended although it failed. 0; 3 also when
  // the list is empty, a device is in it twice, the memory's state cannot be read or leaves no room, a relocation
  // file cannot be mapped, no tracking GUID can be made, or another process removes snapshots and makes no
  // progress for a minute; 5; 6, after which a snapshot that was taken all the same is discarded; 7; 8; 11 the
  // only volume is already snapped, or one is frozen; 12 one of several is already snapped; 20 a relocation file
  // could not be placed; 26 a device's size changed.
  int SnapVolume(std::list<SnapVolumeInformation>* volumes, std::list<std::wstring>* snapDeviceNames);

  // Discards the snapshots of the named block devices and removes their relocation files. `flag` is handed to
  // the driver. 0; 3 also when the list is empty or a name is no block device; 5; 6; 13 or 14 when a volume is
  // not snapped. A relocation file stays when other processes take snapshots for 2 s and a living one uses it.
  unsigned int UnSnapVolume(std::list<std::wstring>* volumes, bool flag);
  // Removes what dead processes left: snapshots, mappings, relocation files. 0, also when other processes take
  // snapshots for 5 s: then only mappings go, and the log says so; 3 when the driver cannot be asked.
  unsigned int ReconcileAndCleanup();

  // Change tracking. A snapshot that is taken with change tracking requested, and is not an independent one, has
  // the driver track which blocks of its volume change from that instant on. Tracking ends with StopVtrack or
  // with the snapshot. Names are paths of block devices; runs are in blocks of the snapshot's block size (what
  // GetSnappedVolumeDetails says of the volume).

  // Whether changes of `volume` are tracked. Every failure reads as false.
  bool IsVtrackActive(const std::wstring& volume);
  // What identifies the tracking of `volume`: the GUID text (36 characters) that its snapshot carried, and the
  // driver's sequence number. 0; 3; 5, found before the name is looked at; 6, also when nothing is tracked; 7;
  // 8. `guid` and `sequenceNumber` stay as they were unless 0 comes back.
  unsigned int GetVtrackVars(const std::wstring& volume, std::string& guid, unsigned int& sequenceNumber);
  // Reads the runs of blocks that changed, in rising order, into the record's array, as many as it has room for
  // (`getNumOfRuns`, kMaxBitmapRuns at most). On 0 the record's count is the number of runs filled, never more
  // than there was room for, and its update type says whether more follow: then set the first run's startBlock
  // to the end of the last one, set the count to the room again and ask again, the type left as it is.
  //     std::vector<_run> runs(kMaxBitmapRuns);
  //     SectorBitmap bitmap(volume, kMaxBitmapRuns, runs.data());
  //     while (driver->GetVtrackBitmap(bitmap) == 0) {
  //       // ... use runs[0] to runs[bitmap.getNumOfRuns() - 1] ...
  //       if (bitmap.getUpdateType() != UPDATE_BITMAP_CONTINUE || bitmap.getNumOfRuns() == 0) break;
  //       const _run& last = runs[bitmap.getNumOfRuns() - 1];
  //       runs[0].startBlock = last.startBlock + last.numBlocks;
  //       bitmap.setNumOfRuns(kMaxBitmapRuns);
  //     }
  // What the file system has not written to the device yet is no change, and what changes between two calls may
  // be in one answer and not in the other: freeze the volume to read one instant, whole.
  // 0; 3, also without an array for a count above 0; 5; 6, also when nothing is tracked; 7, also when the device
  // does not exist; 15 the count exceeds kMaxBitmapRuns. The record and its array stay as they were unless 0 comes
  // back.
  unsigned int GetVtrackBitmap(SectorBitmap& bitmap);
  // Tells the driver which blocks of a tracked volume are in use: the record's runs, kMaxBitmapRuns at most.
  // Results as above; the record stays as it was, also on 0.
  unsigned int UpdateUsedSectorBitmap(SectorBitmap& bitmap);
  // Stops the tracking of the named block devices; their snapshots stay. 0, also when the driver says that one
  // is not snapped; 3 also when a name is no block device; 5; 6.
  unsigned int StopVtrack(std::list<std::wstring>* volumes);

  // Has the driver write its state as text: into the file `fileName`, a full path, when `fileFlag` is 1, else
  // into its log. `flag` is handed to the driver; the third argument is not used. 0; 3, also when a file name
  // that counts has 257 characters or more: nothing is asked of the driver then; 5; 6.
  unsigned int DumpState(signed char flag, signed char fileFlag, const std::wstring& unused,
                         const std::wstring& fileName);

  // Steps of SnapVolume.

  // Adds the byte size of every volume's entry to `*size` and fills `runs` with the runs of the relocation
  // files that lie on each volume (those of snapshots that the driver holds, and its own), by position in the
  // list; the caller owns what is in the map. 0; 3; 10 when a relocation file cannot be mapped. On failure the
  // map is left empty.
  int getIoctlCmdSize(std::list<SnapVolumeInformation>* volumes, std::map<unsigned int, std::list<_run*>*>* runs,
                      unsigned int* size);
  // Places, registers and creates a relocation file for every volume; `relocEntriesInMemory` blocks at most
  // for all together. 0; 10 when one fails, the files and mappings of those before it being removed.
  int deduceRelocLocations(std::list<SnapVolumeInformation>* volumes, unsigned long relocEntriesInMemory);
  // Removes every file, its mapping, and its directory when that is empty; failures are only logged.
  void cleanRelocFiles(std::list<SnapVolumeInformation>* volumes);

 private:
  SnapDriverInterface();  // opens the system log, mask up to LOG_ERR
  ~SnapDriverInterface() = default;
};
