// SPDX-License-Identifier: Apache-2.0
//
// Opening a snapshot set and adding its volumes.
#include <uuid/uuid.h>

#include <cstring>

#include "engine/Boundary.h"
#include "engine/GetDoneWrapper.h"
#include "engine/MirelSnapshotEngine.h"
#include "qxtools/Log.h"

namespace MirelSnapSnapshotCoordinator {
namespace {

constexpr char kAddToSnapshotSet[] = "AddToSnapshotSet";

_SSGUIDPLAIN newIdentifier() {
  uuid_t bytes;
  uuid_generate(bytes);
  _SSGUIDPLAIN identifier;
  static_assert(sizeof identifier == sizeof bytes);
  std::memcpy(&identifier, bytes, sizeof identifier);
  return identifier;
}

}  // namespace

int MirelSnapshotEngine::StartSnapshotSet(_SSGUIDPLAIN* setId) {
  static constexpr char kName[] = "StartSnapshotSet";
  return AtBoundary([&] {
    // Tested before the lock is taken.
    if (mState != StateUninitialized) {
      QX_Zprintf(0,
                 L"%hs: ERROR: (UnExpected) Current state: %hs, is invalid to start a snapshot set, returning "
                 L"USC_E_BAD_STATE!",
                 kName, SnapshotStateAsString(mState));
      return USC_E_BAD_STATE;
    }

    const AutoLock lock(sLock);
    // Comes before the test of the argument, and without a message: an agent may poll.
    if (!UnixInterfaces::InlineIsNULLGUID(sUUID)) return USC_E_SNAPSHOT_SET_IN_PROGRESS;
    if (setId == nullptr) {
      QX_Zprintf(0, L"%hs: ERROR: ptrGuidSetID is NULL, returning E_POINTER!", kName);
      return E_POINTER;
    }
    if (mSnapshotSetParams != nullptr) {
      QX_Zprintf(0, L"%hs: ERROR: (UnExpected) mSnapshotSetParams is NON NULL, returning USC_E_BAD_STATE!", kName);
      return USC_E_BAD_STATE;
    }

    *setId = sUUID = newIdentifier();
    mSnapshotSetParams = MirelSnapshotSetParams::CreateSnapshotSetParams(sUUID);
    if (mSnapshotSetParams == nullptr) {
      QX_Zprintf(0, L"%hs: ERROR: (UnExpected) CreateSnapshotSetParams failed, returning E_OUTOFMEMORY!", kName);
      sUUID = {};  // and nobody who waits for it is woken: the contract
      return E_OUTOFMEMORY;
    }
    mState = StateSnapshotSetStarted;
    return S_OK;
  });
}

int MirelSnapshotEngine::WaitForNewSnapshotSet(unsigned int timeoutMs) {
  return AtBoundary([&] {
    if (mState != StateUninitialized) return USC_E_BAD_STATE;
    {
      const AutoLock lock(sLock);
      if (UnixInterfaces::InlineIsNULLGUID(sUUID)) return USC_S_ASYNC_FINISHED;
    }
    // The lock is let go between the look and the wait: a set that ends right here is waited for in vain.
    return WaitInternal(timeoutMs, true, true);
  });
}

int MirelSnapshotEngine::AddToSnapshotSet(const wchar_t* volume, const wchar_t* mountPoint, _SSGUIDPLAIN* snapshotId) {
  return AtBoundary([&] {
    int result = checkOpenForVolumes();
    if (result == S_OK) result = checkVolume(volume);
    if (result != S_OK) return result;
    // Tested only now: a volume that cannot be snapped is told first.
    if (snapshotId == nullptr) {
      QX_Zprintf(0, L"%hs: ERROR: ptrGuidSnapshotID is NULL, returning E_POINTER!!!", kAddToSnapshotSet);
      return E_POINTER;
    }
    const GetDoneWrapper<MirelSnapshotVolumeParams> known(mSnapshotSetParams->GetFor(volume));
    return !known ? addNewVolume(volume, mountPoint, snapshotId)
                  : addFurtherMountPoint(*known.get(), volume, mountPoint, snapshotId);
  });
}

int MirelSnapshotEngine::checkOpenForVolumes() const {
  if (!hasSet()) {
    QX_Zprintf(0,
               L"%hs: ERROR: ISNULL( mSnapshotSetParams )   ||  UnixInterfaces::InlineIsNULLGUID( "
               L"mSnapshotSetParams->GetSnapshotSetGUID() ), returning USC_E_BAD_STATE",
               kAddToSnapshotSet);
    return USC_E_BAD_STATE;
  }
  if (mState != StateSnapshotSetStarted) {
    QX_Zprintf(0,
               L"%hs: ERROR: Bad state of state machine: %hs, Expected: StateSnapshotSetStarted, returning "
               L"USC_E_BAD_STATE",
               kAddToSnapshotSet, SnapshotStateAsString(mState));
    return USC_E_BAD_STATE;
  }
  return S_OK;
}

int MirelSnapshotEngine::checkVolume(const wchar_t* volume) {
  if (volume == nullptr) {
    QX_Zprintf(0, L"%hs: ERROR: NULL cwstrVolumeName, returning E_INVALIDARG", kAddToSnapshotSet);
    return E_INVALIDARG;
  }
  const GetDoneWrapper<MirelSnapshotVolumeParams> snapped(sSnapshotSetParamsArray.FindVolume(volume));
  if (!!snapped) {
    QX_Zprintf(0, L"%hs: ERROR: Volume %ls already being snapped, returning USC_E_OBJECT_ALREADY_EXISTS!!!",
               kAddToSnapshotSet, volume);
    return USC_E_OBJECT_ALREADY_EXISTS;
  }
  int supported = 0;
  if (IsVolumeSupported(volume, &supported) < 0 || supported == 0) {
    QX_Zprintf(0, L"%hs: ERROR: Volume %ls is not supported, returning USC_E_VOLUME_NOT_SUPPORTED!!!",
               kAddToSnapshotSet, volume);
    return USC_E_VOLUME_NOT_SUPPORTED;
  }
  return S_OK;
}

int MirelSnapshotEngine::addNewVolume(const wchar_t* volume, const wchar_t* mountPoint, _SSGUIDPLAIN* snapshotId) {
  *snapshotId = newIdentifier();
  if (mSnapshotSetParams->Add(*snapshotId, volume, mountPoint) > 0) return S_OK;
  QX_Zprintf(0, L"%hs: Volume %ls could not be added to the snapshotset params!!!", kAddToSnapshotSet, volume);
  return E_OUTOFMEMORY;
}

int MirelSnapshotEngine::addFurtherMountPoint(const MirelSnapshotVolumeParams& known, const wchar_t* volume,
                                              const wchar_t* mountPoint, _SSGUIDPLAIN* snapshotId) {
  *snapshotId = known.GetSnapshotGUID();
  if (mSnapshotSetParams->Add(*snapshotId, volume, mountPoint) > 0) return S_OK;
  QX_Zprintf(0, L"%hs: Snapshot GUID already exists, unable to add %ls to set", kAddToSnapshotSet, volume);
  QX_Zprintf(0, L"%hs: Volume %ls could not be added to the snapshotset params!!!", kAddToSnapshotSet, volume);
  return USC_E_OBJECT_ALREADY_EXISTS;
}

}  // namespace MirelSnapSnapshotCoordinator
