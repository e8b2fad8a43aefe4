// SPDX-License-Identifier: Apache-2.0
//
// The end of a set, and of what dead processes left.
#include <list>
#include <memory>
#include <string>

#include "engine/Boundary.h"
#include "engine/GetDoneWrapper.h"
#include "engine/MirelSnapshotEngine.h"
#include "engine/ReconcileSweep.h"
#include "qxtools/Log.h"
#include "qxtools/UnixUtils.h"

namespace MirelSnapSnapshotCoordinator {
namespace {

// Only a job that succeeded has something to delete.
bool hasSnapshots(const MirelSnapshotEngine& engine) {
  const AutoLock hold(MirelSnapshotEngine::sLock);
  return engine.mState == StateSnapshotSetDone && engine.mSnapResult == 0;
}

int deleteSet(MirelSnapshotEngine& engine, const _SSGUIDPLAIN& id) {
  const _SSGUIDPLAIN setId = engine.mSnapshotSetParams->GetSnapshotSetGUID();
  if (!UnixInterfaces::IsEqualGUID(id, setId)) return USC_E_OBJECT_NOT_FOUND;
  engine.unsnapVolumes();  // what stays is left to a later DoReconcile
  if (!engine.mMountPointBase.empty()) DismountAndDeleteAllUnder(engine.mMountPointBase.c_str());
  MirelSnapshotEngine::sSnapshotSetParamsArray.RemoveSnapshotSet(setId);
  engine.mSnapshotSetParams->Done();
  engine.mSnapshotSetParams = nullptr;
  engine.dropThreadParams();
  engine.ResetState();
  return S_OK;
}

// Drops one volume from the engine's list. The driver is not told: the volume stays snapped until its set is deleted.
int deleteSnapshot(MirelSnapshotSetParams& set, const _SSGUIDPLAIN& id) {
  const GetDoneWrapper<MirelSnapshotVolumeParams> volume(set.GetFor(id));
  return !!volume && set.RemoveAt(set.GetIndex(volume.get())) ? S_OK : USC_E_OBJECT_NOT_FOUND;
}

// Whatever is thrown is a failure of the driver's part.
int reconcileDriver(SnapDriverInterface& driver) noexcept try {
  return driver.ReconcileAndCleanup() == 0 ? S_OK : E_FAIL;
} catch (...) {
  return E_FAIL;
}

void sweep(const wchar_t* mountBase) noexcept {
  const UnixUtils::NarrowText base = UnixUtils::ValidatePathAndConvertToANSI(mountBase);
  if (!base) {
    QX_Zprintf(0, L"%hs: UnixUtils::ValidatePathAndConvertToANSI( %ls ) returned NULL!", "DoReconcile", mountBase);
    return;
  }
  DismountAndDeleteAllUnder(base.get());
}

}  // namespace

void MirelSnapshotEngine::unsnapVolumes() {
  if (mDriver == nullptr || mThreadParams == nullptr) return;
  std::list<std::wstring> names;
  for (SnapVolumeInformation& request : *mThreadParams->GetVolumeInformationList()) {
    names.push_back(request.getSnapVolumeName());
  }
  mUnSnapResult = mDriver->UnSnapVolume(&names, false);
}

int MirelSnapshotEngine::DeleteSnapshots(const _SSGUIDPLAIN& id, UnixSnapshotCoordinator::_USC_OBJECT_TYPE type) {
  return AtBoundary([&]() -> int {
    if (!hasSet() || !hasSnapshots(*this)) return USC_E_BAD_STATE;
    switch (type) {
      case UnixSnapshotCoordinator::USC_OBJECT_SNAPSHOT_SET:
        return deleteSet(*this, id);
      case UnixSnapshotCoordinator::USC_OBJECT_SNAPSHOT:
        return deleteSnapshot(*mSnapshotSetParams, id);
    }
    return E_INVALIDARG;
  });
}

int MirelSnapshotEngine::DoReconcile(const wchar_t* mountBase) {
  if (mDriver == nullptr) return E_UNEXPECTED;
  const int result = reconcileDriver(*mDriver);
  if (mountBase != nullptr) sweep(mountBase);
  return result;
}

}  // namespace MirelSnapSnapshotCoordinator
