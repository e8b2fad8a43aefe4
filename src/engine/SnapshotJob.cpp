// SPDX-License-Identifier: Apache-2.0
//
// The job that takes a set's snapshots: started by the agent, done on a thread of its own, watched by the agent.
#include <mirelsnap/DriverInterface.h>

#include "engine/Boundary.h"
#include "engine/GetDoneWrapper.h"
#include "engine/MirelSnapshotEngine.h"
#include "qxtools/Log.h"
#include "qxtools/UnixUtils.h"

namespace MirelSnapSnapshotCoordinator {
namespace {

constexpr char kDoSnapshotSet[] = "DoSnapshotSet";

// Snap results of the driver interface that mean something here.
constexpr int kNoMemory = 3;
constexpr int kAlreadySnapped = 11;
constexpr int kOneOfThemAlreadySnapped = 12;
constexpr int kNoRoom = 21;  // the driver interface answers 20 when it finds no room; both values are the contract

int statusOfFailure(int snapResult) {
  switch (snapResult) {
    case kAlreadySnapped:
    case kOneOfThemAlreadySnapped:
      return USC_E_VOLUME_ALREADY_SNAPPED;
    case kNoRoom:
      return USC_E_INSUFFICIENT_STORAGE;
    default:
      return E_UNEXPECTED;
  }
}

// Starts a thread that nobody joins.
bool startDetached(void* (*routine)(void*), void* argument) {
  pthread_attr_t attributes;
  if (pthread_attr_init(&attributes) != 0) return false;
  pthread_t thread;
  const bool started = pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED) == 0 &&
                       pthread_create(&thread, &attributes, routine, argument) == 0;
  pthread_attr_destroy(&attributes);
  return started;
}

// An agent may drop the library while a job runs: as long as a thread still has something of a library to destroy, the
// C library does not unload it.
class KeepsLibraryLoaded {
 public:
  KeepsLibraryLoaded() = default;
  ~KeepsLibraryLoaded() { __asm__ volatile(""); }  // never optimised away
  KeepsLibraryLoaded(const KeepsLibraryLoaded&) = delete;
  KeepsLibraryLoaded& operator=(const KeepsLibraryLoaded&) = delete;
};

// What a thread that ends with `result` hands to pthreads.
void* exitValue(int result) { return reinterpret_cast<void*>(static_cast<std::intptr_t>(result)); }

}  // namespace

// --- Starting

int MirelSnapshotEngine::DoSnapshotSet(UnixSnapshotCoordinator::IUscAsync** async) {
  return AtBoundary([&] {
    int result = checkReadyForJob(async);
    if (result == S_OK) result = obtainDriver();
    if (result == S_OK) result = validateVolumes();
    return result == S_OK ? startWorker(buildRequests(), async) : result;
  });
}

int MirelSnapshotEngine::checkReadyForJob(UnixSnapshotCoordinator::IUscAsync** async) const {
  if (mState != StateSnapshotSetStarted) {
    QX_Zprintf(0, L"%hs: ERROR: Bad State of state machine: %hs, Expected: StateSnapshotSetStarted", kDoSnapshotSet,
               SnapshotStateAsString(mState));
    return USC_E_BAD_STATE;
  }
  if (async == nullptr) {
    QX_Zprintf(0, L"%hs: ERROR: ptrpAsnyc = NULL, returning E_POINTER", kDoSnapshotSet);
    return E_POINTER;
  }
  if (mSnapshotSetParams == nullptr || mSnapshotSetParams->GetVolumeCount() == 0) {
    QX_Zprintf(0,
               L"%hs: ERROR: mSnapshotSetParams == NULL || 0  == mSnapshotSetParams->GetVolumeCount(), returning "
               L"USC_E_BAD_STATE",
               kDoSnapshotSet);
    return USC_E_BAD_STATE;
  }
  return S_OK;
}

int MirelSnapshotEngine::obtainDriver() {
  if (mDriver == nullptr) mDriver = SnapDriverInterface::Instance();
  if (mDriver != nullptr) return S_OK;
  QX_Zprintf(0, L"%hs: ERROR: mDriver == NULL, Out of Memory!", kDoSnapshotSet);
  return E_OUTOFMEMORY;
}

int MirelSnapshotEngine::validateVolumes() const {
  const unsigned int count = mSnapshotSetParams->GetVolumeCount();
  for (unsigned int i = 0; i < count; ++i) {
    const GetDoneWrapper<MirelSnapshotVolumeParams> volume(mSnapshotSetParams->GetAt(i));
    if (!volume) {
      QX_Zprintf(0, L"%hs: ERROR: (UnExpected) NULL VolParams at %u/%u, returning USC_E_BAD_STATE", kDoSnapshotSet,
                 i + 1, count);
      return USC_E_BAD_STATE;
    }
    const bool sized = volume->GetRelocationFileSizeInBlocks() != 0;
    const bool placed = !volume->GetRelocationFileMountName().empty();
    if (!sized && placed) {
      QX_Zprintf(0,
                 L"%hs: ERROR: (UnExpected) VolParams->GetRelocationFileSizeInBlocks() == 0 && "
                 L"!VolParams->GetRelocationFileMountName().empty(), returning USC_E_BAD_STATE",
                 kDoSnapshotSet);
      return USC_E_BAD_STATE;
    }
    if (sized && !placed) {
      QX_Zprintf(0,
                 L"%hs: ERROR: (UnExpected) VolParams->GetRelocationFileSizeInBlocks() != 0 && "
                 L"VolParams->GetRelocationFileMountName().empty(), returning USC_E_BAD_STATE",
                 kDoSnapshotSet);
      return USC_E_BAD_STATE;
    }
  }
  return S_OK;
}

std::unique_ptr<MirelSnapshotEngine::RequestList> MirelSnapshotEngine::buildRequests() const {
  constexpr bool kTrackChanges = false;
  constexpr bool kIndependentSnapshot = true;
  constexpr unsigned int kUsageType = 0;
  auto requests = std::make_unique<RequestList>();
  const unsigned int count = mSnapshotSetParams->GetVolumeCount();
  for (unsigned int i = 0; i < count; ++i) {
    const GetDoneWrapper<MirelSnapshotVolumeParams> volume(mSnapshotSetParams->GetAt(i));
    if (!volume) continue;  // gone since the set was validated
    requests->emplace_back(volume->GetDeviceBlockSize(), volume->GetNumDeviceBlocks(), volume->GetOriginalVolumeName(),
                           volume->GetRelocationFileSizeInBlocks(), volume->GetRelocationFileMountName(), kTrackChanges,
                           kIndependentSnapshot, kUsageType);
  }
  return requests;
}

int MirelSnapshotEngine::startWorker(std::unique_ptr<RequestList> requests,
                                     UnixSnapshotCoordinator::IUscAsync** async) {
  AddRef();  // the worker's; it drops it at its end
  SnapshotThreadParams* const params = SnapshotThreadParams::CreateSnapshotThreadParams(this, requests.get());
  if (params == nullptr) {
    Release();
    QX_Zprintf(0,
               L"%hs: ERROR: SnapshotThreadParams::CreateSnapshotThreadParams() returned NULL, returning E_UNEXPECTED!",
               kDoSnapshotSet);
    return E_UNEXPECTED;
  }
  static_cast<void>(requests.release());  // freed by whoever drops the parameters

  if (!startDetached(&DoSnapshotRoutine, params)) {
    // The parameters, their list and their reference on the engine stay: the contract (docs/left-allocated.md).
    Release();
    QX_Zprintf(0, L"%hs: ERROR: pthread_create() failed, returning E_UNEXPECTED!", kDoSnapshotSet);
    return E_UNEXPECTED;
  }
  params->Wait();
  *async = this;  // with the reference that the parameters took
  return S_OK;
}

// --- Working

void* MirelSnapshotEngine::DoSnapshotRoutine(void* threadParams) {
  static constexpr char kName[] = "DoSnapshotRoutine";
  static thread_local const KeepsLibraryLoaded untilThisThreadEnds;
  auto* const params = static_cast<SnapshotThreadParams*>(threadParams);
  if (params == nullptr) {
    QX_Zprintf(0, L"%hs: ERROR: (Unexpected): ThreadParams is null in thread routine, returning E_INVALIDARG!", kName);
    return exitValue(E_INVALIDARG);
  }
  IAsyncDoSnapshot* const async = params->GetAsyncSnapshot();
  if (async == nullptr) {
    QX_Zprintf(0, L"%hs: ERROR: (Unexpected): SnapEngine is null, returning E_INVALIDARG!", kName);
    params->Signal();
    return exitValue(E_INVALIDARG);
  }
  auto* const engine = static_cast<MirelSnapshotEngine*>(async);
  if (params->GetVolumeInformationList() == nullptr) {
    // The worker's reference on the engine stays: the contract, and nothing that DoSnapshotSet starts comes here.
    QX_Zprintf(0, L"%hs: ERROR: (Unexpected): VolInfoListPtr is null, returning E_INVALIDARG!", kName);
    params->Signal();
    engine->ResetState();
    return exitValue(E_INVALIDARG);
  }
  // Without the lock: DoSnapshotSet is blocked until the signal, and nobody else writes them.
  engine->mThreadParams = params;
  engine->mState = StateSnapshotSetInProgress;
  return exitValue(async->DoSnapshotOnSeparateThread(params));
}

// Works on mThreadParams, not on its argument.
int MirelSnapshotEngine::DoSnapshotOnSeparateThread(void*) {
  static constexpr char kName[] = "DoSnapshotOnSeparateThread";
  return AtBoundary([&] {
    SnapshotThreadParams* const params = mThreadParams;
    if (params == nullptr || params->GetAsyncSnapshot() == nullptr || params->GetVolumeInformationList() == nullptr ||
        mState != StateSnapshotSetInProgress) {
      // The worker's reference on the engine stays: the contract, and DoSnapshotRoutine never calls so.
      QX_Zprintf(0, L"%hs: ERROR: (Unexpected): Invalid Input, returning USC_E_BAD_STATE!", kName);
      if (params != nullptr) params->Signal();
      ResetState();
      return USC_E_BAD_STATE;
    }
    // Taken now: once the job is done, the agent may delete the set and the parameters with it.
    IAsyncDoSnapshot* const async = params->GetAsyncSnapshot();
    params->Signal();
    takeSnapshots(*params->GetVolumeInformationList());
    ResetState();
    async->Release();
    return S_OK;
  });
}

void MirelSnapshotEngine::takeSnapshots(RequestList& requests) {
  bool snapped = false;
  try {
    std::list<std::wstring> snapDeviceNames;
    mSnapResult = mDriver->SnapVolume(&requests, &snapDeviceNames);
    snapped = mSnapResult == 0;
    if (snapped) recordSnapshots(requests, snapDeviceNames);
  } catch (...) {
    // Nothing may end the agent's process, and no snapshot may stay that the agent cannot delete.
    mSnapResult = kNoMemory;
    if (snapped) takeBackSnapshots();
  }
  if (mSnapResult != 0) {
    QX_Zprintf(0, L"%hs: ERROR: <Driver Interface>::SnapVolume() failed, Snap Result: %d!",
               "DoSnapshotOnSeparateThread", mSnapResult);
  }
}

void MirelSnapshotEngine::recordSnapshots(RequestList& requests, const std::list<std::wstring>& snapDeviceNames) {
  auto request = requests.begin();
  auto name = snapDeviceNames.begin();
  const unsigned int count = mSnapshotSetParams->GetVolumeCount();
  // A volume without a device name keeps what it has.
  for (unsigned int i = 0; i < count && request != requests.end() && name != snapDeviceNames.end();
       ++i, ++request, ++name) {
    const GetDoneWrapper<MirelSnapshotVolumeParams> volume(mSnapshotSetParams->GetAt(i));
    if (!volume) continue;
    volume->GetSnapVolumeName() = *name;
    const UnixUtils::WideText relocationFile = UnixUtils::ConvertToWide(request->getcStrRelocFileName());
    if (relocationFile != nullptr) volume->SetRelocationFileName(relocationFile.get());
  }
  sSnapshotSetParamsArray.Add(mSnapshotSetParams);
}

void MirelSnapshotEngine::takeBackSnapshots() noexcept try { unsnapVolumes(); } catch (...) {
  // Memory is short still: a reconciliation after the process's end discards them.
}

void MirelSnapshotEngine::dropThreadParams() {
  if (mThreadParams == nullptr) return;
  const std::unique_ptr<RequestList> requests(mThreadParams->GetVolumeInformationList());
  mThreadParams->Done();
  mThreadParams = nullptr;
}

// --- Watching

int MirelSnapshotEngine::Cancel() { return E_NOTIMPL; }

int MirelSnapshotEngine::Wait(unsigned int timeoutMs) {
  return AtBoundary([&] { return WaitInternal(timeoutMs, false, false); });
}

int MirelSnapshotEngine::QueryStatus(int* status, int* snapResult) {
  static constexpr char kName[] = "QueryStatus";
  return AtBoundary([&] {
    if (status == nullptr || snapResult == nullptr) {
      QX_Zprintf(0, L"%hs: Invalid Input, returning E_INVALIDARG!", kName);
      return E_INVALIDARG;
    }
    const AutoLock lock(sLock);
    switch (mState) {
      case StateSnapshotSetDone:
        *status = mSnapResult == 0 ? USC_S_ASYNC_FINISHED : statusOfFailure(mSnapResult);
        *snapResult = mSnapResult;
        return S_OK;
      case StateSnapshotSetInProgress:
        *status = USC_S_ASYNC_PENDING;
        *snapResult = -1;
        return S_OK;
      default:
        return USC_E_BAD_STATE;
    }
  });
}

}  // namespace MirelSnapSnapshotCoordinator
