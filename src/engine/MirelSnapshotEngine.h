// SPDX-License-Identifier: Apache-2.0
//
// The engine object behind the agent's two interfaces. Only CreateSnapshotEngine leaves the library, through
// GetCreatorFunction; the members are open to the job's worker and to the library's own tests. Who includes this header
// has all of the engine's operations, those on paths, deadlines and leftover mounts too.
#pragma once

#include <pthread.h>

#include <cstdint>
#include <deque>
#include <list>
#include <memory>
#include <string>

#include <mirelsnap/DriverInterface.h>

#include "engine/AutoLock.h"
#include "engine/Deadline.h"
#include "engine/GuardedSnapshotSetParamsArray.h"
#include "engine/MountPath.h"
#include "engine/ReconcileSweep.h"
#include "engine/SnapshotSetParams.h"
#include "engine/UnknownImpl.h"
#include "qxtools/Strings.h"
#include "qxtools/UnixUtils.h"

namespace MirelSnapSnapshotCoordinator {

// Where an engine stands in the life of its set. The values are bit-like and part of the contract.
enum SnapshotState : std::uint32_t {
  StateUninitialized = 0,
  StateSnapshotSetStarted = 2,
  StateSnapshotSetInProgress = 4,
  StateSnapshotSetDone = 8,
  StateSnapshotSetUnDone = 16,
};
const char* SnapshotStateAsString(SnapshotState state);

// The job's face with the operation that the worker calls through it.
class IAsyncDoSnapshot : public UnixSnapshotCoordinator::IUscAsync {
 public:
  virtual int DoSnapshotOnSeparateThread(void* threadParams) = 0;
};

class MirelSnapshotEngine : public UnixInterfaces::IUnknownImpl<UnixSnapshotCoordinator::IUscSnapshotEngine>,
                            protected IAsyncDoSnapshot {
 public:
  // The hand-over between DoSnapshotSet and the worker.
  class SnapshotThreadParams {
   public:
    // Adds a reference to `async`, which goes to the agent with the job's pointer, and refers to `volumes`, which stays
    // the caller's to free. Null, with nothing added, when an argument is null, when the mutex or the condition cannot
    // be made and when memory is short.
    static SnapshotThreadParams* CreateSnapshotThreadParams(IAsyncDoSnapshot* async,
                                                            std::list<SnapVolumeInformation>* volumes);
    IAsyncDoSnapshot* GetAsyncSnapshot() const { return mAsync; }
    std::list<SnapVolumeInformation>* GetVolumeInformationList() const { return mVolumes; }
    // Waits, once, until the worker has signalled; the result of the lock or unlock.
    int Wait();
    // Tells DoSnapshotSet that the worker has taken over.
    void Signal();
    // Deletes the object; neither the reference on the job nor the list goes with it.
    void Done();

    IAsyncDoSnapshot* mAsync;
    std::list<SnapVolumeInformation>* mVolumes;

   private:
    SnapshotThreadParams(IAsyncDoSnapshot* async, std::list<SnapVolumeInformation>* volumes);
    virtual ~SnapshotThreadParams();
    // Makes the mutex and the condition; false when one fails.
    bool initialize();

    pthread_mutex_t mMutex{};
    pthread_cond_t mCondition{};
    bool mMutexInitialized = false;
    bool mConditionInitialized = false;
    bool mStarted = false;
  };

  // One mount that an exposure makes. Copies share the strings; cleanup frees them.
  struct MountPointInfoWithFolderDepth {
    std::int32_t depth;             // "/" characters in the target path
    std::uint32_t volumeIndex;      // position in the set
    std::uint32_t mountPointIndex;  // position in the volume's mount points
    char* target;                   // where the snapshot is mounted
    char* device;                   // the snapshot's block device
    char* fsType;                   // file-system type
    char* base;                     // that it is mounted below; the engine's may be another one by then

    void cleanup();
  };

  // Entries in ascending depth order.
  class MountPointInfoWithFolderDepthQueue : public std::deque<MountPointInfoWithFolderDepth> {
   public:
    MountPointInfoWithFolderDepthQueue() = default;
    MountPointInfoWithFolderDepthQueue(const MountPointInfoWithFolderDepthQueue&) = delete;
    MountPointInfoWithFolderDepthQueue& operator=(const MountPointInfoWithFolderDepthQueue&) = delete;
    ~MountPointInfoWithFolderDepthQueue() { clear(); }
    // Frees every entry's strings and empties the queue.
    void clear();
  };

  // The creator: one engine with one reference, or null.
  static UnixSnapshotCoordinator::IUscSnapshotEngine* CreateSnapshotEngine();

  MirelSnapshotEngine();
  ~MirelSnapshotEngine() override;

  // Both faces share these three.
  int QueryInterface(const _SSGUIDPLAIN& iid, void** out) override;
  unsigned int AddRef() override;
  unsigned int Release() override;

  // IUscSnapshotEngine.
  int GetVersionString(const wchar_t** version) override;
  int SupportsSnapshots(int* supported) override;
  int SupportsPITMultiVolumeSnaps(int* supported) override;
  int IsVolumeSupported(const wchar_t* volume, int* supported) override;
  int DoReconcile(const wchar_t* mountBase) override;
  int StartSnapshotSet(_SSGUIDPLAIN* setId) override;
  int WaitForNewSnapshotSet(unsigned int timeoutMs) override;
  int AddToSnapshotSet(const wchar_t* volume, const wchar_t* mountPoint, _SSGUIDPLAIN* snapshotId) override;
  int AddToAlternateMountSet(const wchar_t* mountPoint) override;
  int GetCountOfVolumesInSnapshotSet(unsigned int* count) override;
  int GetVolumeInSnapshotSet(unsigned int index, wchar_t** volume) override;
  int GetVolumeSnapshotGUID(unsigned int index, _SSGUIDPLAIN* snapshotId) override;
  int GetVolumeInSnapshotSetByGUID(const _SSGUIDPLAIN& snapshotId, wchar_t** volume) override;
  int SetOption(const _SSGUIDPLAIN& snapshotId, const wchar_t* key, const wchar_t* value) override;
  int PrepareForBackup(UnixSnapshotCoordinator::IUscAsync** async) override;
  int DoSnapshotSet(UnixSnapshotCoordinator::IUscAsync** async) override;
  int GetSnapshotProperties(const _SSGUIDPLAIN& snapshotId,
                            UnixSnapshotCoordinator::_USC_SNAPSHOT_PROP* props) override;
  int ExposeSnapshot(const _SSGUIDPLAIN& snapshotId, const wchar_t* path, const wchar_t** exposedName) override;
  int ExposeSnapshotsInSnapshotSet(const wchar_t* base) override;
  int IsSnapshotExposed(const _SSGUIDPLAIN& snapshotId, int* exposed) override;
  int UnExposeSnapshot(const _SSGUIDPLAIN& snapshotId) override;
  int UnExposeSnapshotsInSnapshotSet() override;
  int DeleteSnapshots(const _SSGUIDPLAIN& id, UnixSnapshotCoordinator::_USC_OBJECT_TYPE type) override;

  // IUscAsync and the worker's operation.
  int Cancel() override;
  int Wait(unsigned int timeoutMs) override;
  int QueryStatus(int* status, int* snapResult) override;
  int DoSnapshotOnSeparateThread(void* threadParams) override;

  // The worker thread's entry; `params` is a SnapshotThreadParams.
  static void* DoSnapshotRoutine(void* params);
  // The one place where the state changes at the end of a job or of the engine.
  void ResetState();
  // Waits for sCondNewSnapshotSet or sCond, once; the state is looked at first unless `anyState`.
  int WaitInternal(unsigned int timeoutMs, bool waitForNewSet, bool anyState);

  // Mounts one snapshot read-only; the mount's errno, 0 on success.
  int DoMount(const MountPointInfoWithFolderDepth& entry);
  // Adds an entry with copies of the three strings, and of the base, in depth order. Its position; 0x7FFFFFFD for bad
  // input, when nothing is added; negative when memory is short.
  int InsertIntoInternalShallowFirstSortedQueue(const char* target, const char* device, const char* fsType,
                                                int volumeIndex, int mountPointIndex);

  // Whether there is a set with an identifier.
  bool hasSet() const;
  // The state, read under sLock, under which the worker's end changes it.
  SnapshotState currentState() const;
  // Discards the snapshots of every volume that the job snapped, also of those that were dropped from the set since.
  // The driver's answer is kept in mUnSnapResult.
  void unsnapVolumes();
  // Drops the job's parameters, if any, and the list of request records with them.
  void dropThreadParams();

  static _SSGUIDPLAIN sUUID;                  // set now being built or taken in this process; zero: none
  static const _SSGUIDPLAIN sProviderUUID;    // {862B8DDD-8146-46A1-9885-EA7F74C15BA7}
  static pthread_mutex_t sLock;               // guards sUUID, every engine's mState and mSnapResult, both conditions
  static pthread_cond_t sCond;                // a job left StateSnapshotSetInProgress
  static pthread_cond_t sCondNewSnapshotSet;  // sUUID was cleared
  // Never destroyed, only emptied: a worker may list its set while the process ends.
  static LinuxGuardedSnapshotSetParamsArray& sSnapshotSetParamsArray;

  MirelSnapshotSetParams* mSnapshotSetParams = nullptr;  // one reference
  SnapDriverInterface* mDriver = nullptr;                // one reference on the singleton
  SnapshotState mState = StateUninitialized;
  SnapshotThreadParams* mThreadParams = nullptr;
  wcstring mVersionString;  // the driver's version
  cstring mMountPointBase;  // directory of the exposure
  MountPointInfoWithFolderDepthQueue mMountPointQueue;
  std::int32_t mSnapResult = -1;   // -1 until the worker has called the driver
  unsigned int mUnSnapResult = 0;  // what the driver side answered when the set was deleted

 private:
  using RequestList = std::list<SnapVolumeInformation>;

  // Construction: the driver's version, into the log and mVersionString.
  void readDriverVersion();

  // Steps of AddToSnapshotSet: S_OK, or the call's result.
  int checkOpenForVolumes() const;
  int checkVolume(const wchar_t* volume);
  int addNewVolume(const wchar_t* volume, const wchar_t* mountPoint, _SSGUIDPLAIN* snapshotId);
  int addFurtherMountPoint(const MirelSnapshotVolumeParams& known, const wchar_t* volume, const wchar_t* mountPoint,
                           _SSGUIDPLAIN* snapshotId);

  // One option each of SetOption.
  int setMountPointBase(const wchar_t* value);
  static int setRelocationFileMountPoint(MirelSnapshotVolumeParams& volume, const wchar_t* value);
  static int setRelocationFileSize(MirelSnapshotVolumeParams& volume, const wchar_t* value);

  // Steps of DoSnapshotSet: S_OK, or the call's result.
  int checkReadyForJob(UnixSnapshotCoordinator::IUscAsync** async) const;
  int obtainDriver();
  int validateVolumes() const;
  std::unique_ptr<RequestList> buildRequests() const;
  int startWorker(std::unique_ptr<RequestList> requests, UnixSnapshotCoordinator::IUscAsync** async);

  // Steps of the worker.
  void takeSnapshots(RequestList& requests);
  void recordSnapshots(RequestList& requests, const std::list<std::wstring>& snapDeviceNames);
  void takeBackSnapshots() noexcept;

  // Ends the process-wide set in progress; called with sLock held.
  static void clearSetInProgress();
};

inline bool MirelSnapshotEngine::hasSet() const {
  return mSnapshotSetParams != nullptr && !UnixInterfaces::InlineIsNULLGUID(mSnapshotSetParams->GetSnapshotSetGUID());
}

inline SnapshotState MirelSnapshotEngine::currentState() const {
  const AutoLock hold(sLock);
  return mState;
}

}  // namespace MirelSnapSnapshotCoordinator
