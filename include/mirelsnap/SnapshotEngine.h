// SPDX-License-Identifier: Apache-2.0
//
// Everything that a backup agent includes: the engine's interfaces in their slot order, their
// identifiers, the result codes, the property record and the exported entry.
//
// An agent loads libmirelsnap.so.1, looks up `GetCreatorFunction`, calls what it returns to make
// one engine, runs one snapshot set with it, and releases it:
//
//     auto entry = reinterpret_cast<UscGetCreatorFunction*>(dlsym(library, "GetCreatorFunction"));
//     UnixSnapshotCoordinator::IUscSnapshotEngine* engine = (*entry())();
//
// All strings are nul-terminated and wide (32-bit wchar_t); conversion to the narrow names that the
// system takes follows the process's locale. No operation throws; none changes the process's working
// directory, umask, locale, signal handlers or standard streams.
#pragma once

#include <cstddef>
#include <cstdint>

#if defined(__GNUC__)
#define MIRELSNAP_API __attribute__((visibility("default")))
#else
#define MIRELSNAP_API
#endif

// Identifier of an interface, a snapshot set or a snapshot; all zero means none.
struct _SSGUIDPLAIN {
  std::uint32_t Data1;
  std::uint16_t Data2;
  std::uint16_t Data3;
  std::uint8_t Data4[8];
};
static_assert(sizeof(_SSGUIDPLAIN) == 16);
static_assert(offsetof(_SSGUIDPLAIN, Data2) == 4 && offsetof(_SSGUIDPLAIN, Data3) == 6 &&
              offsetof(_SSGUIDPLAIN, Data4) == 8);

// Result codes: zero or positive is success, negative is failure.
inline constexpr int S_OK = 0x00000000;                                              // success
inline constexpr int E_NOTIMPL = static_cast<int>(0x80000001);                       // never provided
inline constexpr int E_OUTOFMEMORY = static_cast<int>(0x80000002);                   // allocation failed
inline constexpr int E_INVALIDARG = static_cast<int>(0x80000003);                    // bad or unknown argument
inline constexpr int E_NOINTERFACE = static_cast<int>(0x80000004);                   // unknown interface identifier
inline constexpr int E_POINTER = static_cast<int>(0x80000005);                       // null output pointer
inline constexpr int E_FAIL = static_cast<int>(0x80000008);                          // driver reconcile failed
inline constexpr int E_UNEXPECTED = static_cast<int>(0x8000FFFF);                    // internal failure
inline constexpr int USC_E_BAD_STATE = static_cast<int>(0x80042301);                 // not legal in this state
inline constexpr int USC_E_OBJECT_NOT_FOUND = static_cast<int>(0x80042308);          // identifier not in the set
inline constexpr int USC_S_ASYNC_PENDING = 0x00042309;                               // still running, or wait timed out
inline constexpr int USC_S_ASYNC_FINISHED = 0x0004230A;                              // finished, or nothing to wait for
inline constexpr int USC_E_VOLUME_NOT_SUPPORTED = static_cast<int>(0x8004230C);      // cannot be snapped
inline constexpr int USC_E_OBJECT_ALREADY_EXISTS = static_cast<int>(0x8004230D);     // already in a set here
inline constexpr int USC_E_SNAPSHOT_SET_IN_PROGRESS = static_cast<int>(0x80042316);  // another set is open
inline constexpr int USC_E_VOLUME_ALREADY_SNAPPED = static_cast<int>(0x8004231D);    // snap result 11 or 12
inline constexpr int USC_E_INSUFFICIENT_STORAGE = static_cast<int>(0x8004231F);      // snap result 21

namespace UnixInterfaces {

// One type per identifier: the first field, the two 16-bit fields and the eight bytes, in order.
#define MIRELSNAP_GUID_PARAMETERS                                                                          \
  std::uint32_t D1, std::uint16_t D2, std::uint16_t D3, std::uint8_t B0, std::uint8_t B1, std::uint8_t B2, \
      std::uint8_t B3, std::uint8_t B4, std::uint8_t B5, std::uint8_t B6, std::uint8_t B7
#define MIRELSNAP_GUID_GETTER                                                           \
  static const _SSGUIDPLAIN& GetGUID() {                                                \
    static const _SSGUIDPLAIN scgGuid = {D1, D2, D3, {B0, B1, B2, B3, B4, B5, B6, B7}}; \
    return scgGuid;                                                                     \
  }

// The root of every interface. The reference count is changed atomically; the caller owns one
// reference on every interface pointer that it is handed and drops it with Release.
template <MIRELSNAP_GUID_PARAMETERS>
class IUnknownType {
 public:
  MIRELSNAP_GUID_GETTER

  // Writes the interface named by `iid`, with one reference added, to `*out`.
  // S_OK; E_POINTER for a null `out`; E_NOINTERFACE for an unknown identifier, `*out` untouched.
  virtual int QueryInterface(const _SSGUIDPLAIN& iid, void** out) = 0;
  // Adds a reference; returns the new count.
  virtual unsigned int AddRef() = 0;
  // Drops a reference; returns the remaining count. At zero the object deletes itself.
  virtual unsigned int Release() = 0;
};

using IUnknown = IUnknownType<0x00000000, 0x0000, 0x0000, 0xC0, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x46>;

// The identifier of interface T.
template <class T>
const _SSGUIDPLAIN& __uuidof2() {
  return T::GetGUID();
}

}  // namespace UnixInterfaces

namespace UnixSnapshotCoordinator {

// What DeleteSnapshots is asked to delete.
enum _USC_OBJECT_TYPE : std::int32_t {
  USC_OBJECT_SNAPSHOT_SET = 0,
  USC_OBJECT_SNAPSHOT = 1,
};

// What GetSnapshotProperties tells of one snapshot. The agent owns the record and frees what hangs on
// it with UscFreeSnapshotProperties: every string and the array are heap copies.
struct _USC_SNAPSHOT_PROP {
  _SSGUIDPLAIN SnapshotId;           // the requested identifier
  _SSGUIDPLAIN SnapshotSetId;        // the set that the snapshot belongs to
  std::int32_t SnapshotsCount;       // volumes in the set
  wchar_t* SnapshotDeviceName;       // the snapshot's block device, e.g. /dev/snap8_1
  wchar_t* OriginalVolumeName;       // the volume as it was given to AddToSnapshotSet
  std::int32_t MountPointCount;      // entries of MountPoints
  wchar_t** MountPoints;             // the original mount points, in the order added
  _SSGUIDPLAIN ProviderId;           // this provider
  std::int64_t CreationTimestamp;    // always 0: nothing records it
  std::uint32_t SnapshotAttributes;  // always 0
  wchar_t* RelocationFileName;       // path of the volume's relocation file
};
static_assert(sizeof(_USC_SNAPSHOT_PROP) == 112);
static_assert(offsetof(_USC_SNAPSHOT_PROP, SnapshotId) == 0);
static_assert(offsetof(_USC_SNAPSHOT_PROP, SnapshotSetId) == 16);
static_assert(offsetof(_USC_SNAPSHOT_PROP, SnapshotsCount) == 32);
static_assert(offsetof(_USC_SNAPSHOT_PROP, SnapshotDeviceName) == 40);
static_assert(offsetof(_USC_SNAPSHOT_PROP, OriginalVolumeName) == 48);
static_assert(offsetof(_USC_SNAPSHOT_PROP, MountPointCount) == 56);
static_assert(offsetof(_USC_SNAPSHOT_PROP, MountPoints) == 64);
static_assert(offsetof(_USC_SNAPSHOT_PROP, ProviderId) == 72);
static_assert(offsetof(_USC_SNAPSHOT_PROP, CreationTimestamp) == 88);
static_assert(offsetof(_USC_SNAPSHOT_PROP, SnapshotAttributes) == 96);
static_assert(offsetof(_USC_SNAPSHOT_PROP, RelocationFileName) == 104);

// Frees every string, every mount point and the array of `props` and clears those fields; the record
// itself stays the caller's. Null is ignored; a second call on the same record finds nothing to free.
MIRELSNAP_API void UscFreeSnapshotProperties(_USC_SNAPSHOT_PROP* props);

// A running or finished snapshot job, handed out by DoSnapshotSet. It is another face of the engine and
// shares its reference count.
template <MIRELSNAP_GUID_PARAMETERS>
class IUscAsyncType : public UnixInterfaces::IUnknown {
 public:
  MIRELSNAP_GUID_GETTER

  // Always E_NOTIMPL: a started job cannot be cancelled.
  virtual int Cancel() = 0;
  // Waits at most `timeoutMs` milliseconds for the job to end.
  // USC_S_ASYNC_FINISHED when it ended; USC_S_ASYNC_PENDING when the time ran out; E_UNEXPECTED before
  // DoSnapshotSet, after the set is deleted, and when the clock or the wait failed. A time that ends on a
  // full second, to the nanosecond, counts as a wait that failed: ask again.
  virtual int Wait(unsigned int timeoutMs) = 0;
  // Tells where the job stands. Both pointers are required (else E_INVALIDARG).
  // `*status`: USC_S_ASYNC_PENDING, USC_S_ASYNC_FINISHED, or the failure: USC_E_VOLUME_ALREADY_SNAPPED,
  // USC_E_INSUFFICIENT_STORAGE, E_UNEXPECTED. `*snapResult`: -1 while pending, 0 for success, else the
  // driver interface's code (see DriverInterface.h). USC_E_BAD_STATE, with nothing written, before
  // DoSnapshotSet and after the set is deleted.
  virtual int QueryStatus(int* status, int* snapResult) = 0;
};

using IUscAsync = IUscAsyncType<0x507C37B4, 0xCF5B, 0x4E95, 0xB0, 0xAF, 0x14, 0xEB, 0x97, 0x67, 0x46, 0x7E>;

// The engine. One engine serves one snapshot set: start it, add volumes, set options, run the job,
// expose, read properties, unexpose, delete, release. Only one set per process is in progress at a time.
// Only one thread at a time may call it, except for AddRef and Release (any thread, any time) and for Wait and
// QueryStatus (any thread, once DoSnapshotSet has returned). In a process only one of these may run at a time, whatever
// the engine: creating an engine, its last Release, SupportsSnapshots, DoReconcile, DeleteSnapshots of a set, a job.
// The slots stand in their binary order; the type has no virtual destructor.
template <MIRELSNAP_GUID_PARAMETERS>
class IUscSnapshotEngineType : public UnixInterfaces::IUnknown {
 public:
  MIRELSNAP_GUID_GETTER

  // Writes the kernel driver's version text; empty when there is no driver. The text is the engine's and
  // lives as long as it does. `version` must not be null. Always S_OK.
  virtual int GetVersionString(const wchar_t** version) = 0;
  // Writes 1 when the driver answers, else 0. S_OK; E_POINTER for null; E_OUTOFMEMORY, with nothing written.
  virtual int SupportsSnapshots(int* supported) = 0;
  // Writes 1: several volumes stand at one instant. S_OK, or E_POINTER for null.
  virtual int SupportsPITMultiVolumeSnaps(int* supported) = 0;
  // Writes 1 when `volume` is an openable block device of non-zero size, else 0; the driver is not asked.
  // S_OK, also for null arguments; E_OUTOFMEMORY.
  virtual int IsVolumeSupported(const wchar_t* volume, int* supported) = 0;
  // Removes what dead processes left: snapshots, mappings, relocation files, and every mount under
  // `mountBase` (may be null) with its directory. `mountBase` is spelled as the mount table spells it: no
  // symbolic link, no "/" at its end. S_OK; E_FAIL when the driver's part failed; E_UNEXPECTED without a
  // driver.
  virtual int DoReconcile(const wchar_t* mountBase) = 0;
  // Opens the set and writes its new identifier. S_OK; USC_E_BAD_STATE when this engine has had a set;
  // USC_E_SNAPSHOT_SET_IN_PROGRESS while another engine of this process has one; E_POINTER;
  // E_OUTOFMEMORY.
  virtual int StartSnapshotSet(_SSGUIDPLAIN* setId) = 0;
  // Waits at most `timeoutMs` milliseconds until no set is in progress in this process; legal before
  // StartSnapshotSet only. USC_S_ASYNC_FINISHED, USC_S_ASYNC_PENDING, USC_E_BAD_STATE, E_UNEXPECTED.
  virtual int WaitForNewSnapshotSet(unsigned int timeoutMs) = 0;
  // Adds the block device `volume`, mounted at `mountPoint`, and writes its snapshot identifier. The same
  // device under a further mount point joins the volume that is there and gets the same identifier.
  // S_OK; USC_E_BAD_STATE outside an open set; E_INVALIDARG for a null volume; E_POINTER;
  // USC_E_VOLUME_NOT_SUPPORTED; USC_E_OBJECT_ALREADY_EXISTS when a set of this process holds the device;
  // E_OUTOFMEMORY when it cannot be added (also: nothing is mounted there).
  virtual int AddToSnapshotSet(const wchar_t* volume, const wchar_t* mountPoint, _SSGUIDPLAIN* snapshotId) = 0;
  // Adds a live mount point that is to be bind-mounted under the exposure's base. It must be a mount point
  // itself, spelled as the mount table spells it; added again, it stays one. S_OK; USC_E_BAD_STATE outside an
  // open set; E_INVALIDARG.
  virtual int AddToAlternateMountSet(const wchar_t* mountPoint) = 0;
  // Writes the number of volumes. S_OK; USC_E_BAD_STATE without a set; E_POINTER.
  virtual int GetCountOfVolumesInSnapshotSet(unsigned int* count) = 0;
  // Writes the name of volume `index` (0-based) as it was added. The text is the engine's: it must not be
  // changed or freed, and lives until the volume is dropped, the set deleted or the engine gone.
  // S_OK; USC_E_BAD_STATE; E_INVALIDARG for an index out of range; E_POINTER.
  virtual int GetVolumeInSnapshotSet(unsigned int index, wchar_t** volume) = 0;
  // Writes the snapshot identifier of volume `index`. Results as above.
  virtual int GetVolumeSnapshotGUID(unsigned int index, _SSGUIDPLAIN* snapshotId) = 0;
  // Writes the volume's name (the engine's text), but only when `*volume` is non-null on entry: pre-set it
  // to any non-null value. S_OK; USC_E_BAD_STATE; USC_E_OBJECT_NOT_FOUND; E_POINTER.
  virtual int GetVolumeInSnapshotSetByGUID(const _SSGUIDPLAIN& snapshotId, wchar_t** volume) = 0;
  // Options, keys without regard to case:
  //   "MountPointBase"           absolute directory for the exposure; `snapshotId` is ignored
  //   "RelocationFileMountPoint" mount point for this volume's relocation file
  //   "RelocationFileSize"       its size in blocks of the volume (decimal, 0x hexadecimal, 0 octal)
  // The two relocation options go together. S_OK; USC_E_OBJECT_NOT_FOUND; E_INVALIDARG; E_UNEXPECTED for a base
  // that is empty or that the locale cannot write; E_OUTOFMEMORY.
  virtual int SetOption(const _SSGUIDPLAIN& snapshotId, const wchar_t* key, const wchar_t* value) = 0;
  // Does nothing; S_OK. `async` is left untouched.
  virtual int PrepareForBackup(UnixSnapshotCoordinator::IUscAsync** async) = 0;
  // Starts the job on a thread of its own and hands out its interface (release it when done).
  // S_OK; USC_E_BAD_STATE for a set that is not open, is empty, or has only one of a volume's relocation options;
  // E_POINTER; E_OUTOFMEMORY, also without a driver; E_UNEXPECTED when the thread cannot be prepared or cannot be
  // started (in the second case the engine lives until the process ends). After any failure the set is as it was,
  // and the call may be made again.
  virtual int DoSnapshotSet(UnixSnapshotCoordinator::IUscAsync** async) = 0;
  // Fills `props` for one snapshot of a finished job; what the record held before is overwritten, not freed.
  // Free it with UscFreeSnapshotProperties after S_OK and after E_OUTOFMEMORY; every other result leaves it
  // untouched. S_OK; USC_E_BAD_STATE; E_POINTER; USC_E_OBJECT_NOT_FOUND; E_OUTOFMEMORY.
  virtual int GetSnapshotProperties(const _SSGUIDPLAIN& snapshotId, _USC_SNAPSHOT_PROP* props) = 0;
  // Not provided: E_NOTIMPL.
  virtual int ExposeSnapshot(const _SSGUIDPLAIN& snapshotId, const wchar_t* path, const wchar_t** exposedName) = 0;
  // Mounts every snapshot read-only at `base` joined with its original mount point, shallowest first, then
  // binds the alternate set. `base` is made when missing; give it here or as option "MountPointBase", not
  // both (with the option alone the call always ends in E_UNEXPECTED, everything undone). Every deeper target
  // must be there, usually as a directory inside a snapshot mounted just before. A base that was given once
  // is kept: no later call may name one. A snapshot's device is waited for up to 5 seconds. Below the base no
  // symbolic link is followed: one in the place of a folder is a mount that fails. Who may enter the base may
  // read what the snapshots' own owners and modes allow.
  // S_OK; USC_E_BAD_STATE before the job is done; E_INVALIDARG unless one base is known; E_OUTOFMEMORY,
  // also when a path is not absolute or cannot be converted; E_UNEXPECTED, all undone.
  virtual int ExposeSnapshotsInSnapshotSet(const wchar_t* base) = 0;
  // Writes 1 when the snapshot of the volume's first mount point was never mounted and 0 when it was, also if
  // it was hidden since. S_OK; E_INVALIDARG for null; USC_E_OBJECT_NOT_FOUND.
  virtual int IsSnapshotExposed(const _SSGUIDPLAIN& snapshotId, int* exposed) = 0;
  // Not provided: E_NOTIMPL.
  virtual int UnExposeSnapshot(const _SSGUIDPLAIN& snapshotId) = 0;
  // Undoes the exposure, deepest first, and removes the base directory; legal in any state. A mount that is in
  // use stays and is not tried again. S_OK, also when nothing is exposed; E_UNEXPECTED when the base directory
  // stayed.
  virtual int UnExposeSnapshotsInSnapshotSet() = 0;
  // Deletes the whole set (`id` is the set's) or drops one snapshot from the engine's list (`id` is the
  // snapshot's; its volume stays snapped until the set is deleted). Unexpose first: what is still mounted
  // under the base when the set is deleted is unmounted, and its directories are removed where they can be.
  // Delete the set before the engine's last release: the devices of a set that was not deleted cannot be added
  // to another set of this process.
  // S_OK, whatever the driver answered; USC_E_BAD_STATE unless the job succeeded; USC_E_OBJECT_NOT_FOUND;
  // E_INVALIDARG for another type; E_OUTOFMEMORY, after which it may be called again.
  virtual int DeleteSnapshots(const _SSGUIDPLAIN& id, _USC_OBJECT_TYPE type) = 0;
};

using IUscSnapshotEngine =
    IUscSnapshotEngineType<0x643BB0C4, 0x2D75, 0x44EA, 0x9E, 0xE2, 0x91, 0x3D, 0x66, 0xC2, 0x54, 0xD4>;

}  // namespace UnixSnapshotCoordinator

#undef MIRELSNAP_GUID_PARAMETERS
#undef MIRELSNAP_GUID_GETTER

// Makes one engine that holds one reference; null when memory is short.
using UscCreateSnapshotEngine = UnixSnapshotCoordinator::IUscSnapshotEngine*();
using UscGetCreatorFunction = UscCreateSnapshotEngine*();

extern "C" {

// The exported entry: returns the creator.
MIRELSNAP_API UscCreateSnapshotEngine* GetCreatorFunction();

// Routes the engine's messages to `handler` (level 0 is a failure or a change of state; the text has no
// line end). Null gives the default back: the system log. Thread-safe; once it returns, the old handler is
// not called any more. The handler must not throw, and must not call this function or an engine: some messages
// come while the engine's lock is held.
MIRELSNAP_API void QX_SetLogHandler(void (*handler)(unsigned short level, const wchar_t* message, void* context),
                                    void* context);
}
