// SPDX-License-Identifier: Apache-2.0
//
// What the agent can ask about the volumes of its set and their snapshots.
#include <cstdlib>
#include <cwchar>
#include <memory>

#include "engine/Boundary.h"
#include "engine/GetDoneWrapper.h"
#include "engine/MirelSnapshotEngine.h"

namespace MirelSnapSnapshotCoordinator {
namespace {

using UnixSnapshotCoordinator::_USC_SNAPSHOT_PROP;
using Volume = GetDoneWrapper<MirelSnapshotVolumeParams>;

// The interface hands the engine's own text out through a pointer that could change it.
wchar_t* engineText(const wcstring& text) { return const_cast<wchar_t*>(text.c_str()); }

// Copies `text` to `*copy`, null as null. False when memory is short.
bool copyText(const wchar_t* text, wchar_t** copy) {
  *copy = text == nullptr ? nullptr : wcsdup(text);
  return text == nullptr || *copy != nullptr;
}

bool copyMountPoints(const Volume& volume, _USC_SNAPSHOT_PROP& props) {
  for (int i = 0; i < props.MountPointCount; ++i) {
    if (!copyText(volume->GetOriginalMountPoint(static_cast<unsigned int>(i)), &props.MountPoints[i])) return false;
  }
  return true;
}

// Frees a record that stays incomplete.
int dropProperties(_USC_SNAPSHOT_PROP& props) {
  UnixSnapshotCoordinator::UscFreeSnapshotProperties(&props);
  return E_OUTOFMEMORY;
}

int fillProperties(const MirelSnapshotEngine& engine, const Volume& volume, const _SSGUIDPLAIN& snapshotId,
                   _USC_SNAPSHOT_PROP& props) {
  props = {};  // whatever fails below, the agent can free the record
  props.SnapshotId = snapshotId;
  props.SnapshotSetId = engine.mSnapshotSetParams->GetSnapshotSetGUID();
  props.SnapshotsCount = static_cast<std::int32_t>(engine.mSnapshotSetParams->GetVolumeCount());
  if (!copyText(volume->GetSnapVolumeName().c_str(), &props.SnapshotDeviceName)) return dropProperties(props);
  if (!copyText(volume->GetOriginalVolumeName().c_str(), &props.OriginalVolumeName)) return dropProperties(props);
  props.MountPointCount = static_cast<std::int32_t>(volume->GetMountPointCount());
  props.MountPoints = static_cast<wchar_t**>(std::calloc(volume->GetMountPointCount(), sizeof(wchar_t*)));
  // What was copied so far stays in the record, for the agent to free: that is the contract.
  if (props.MountPoints == nullptr) return E_OUTOFMEMORY;
  if (!copyMountPoints(volume, props)) return dropProperties(props);
  props.ProviderId = MirelSnapshotEngine::sProviderUUID;
  props.CreationTimestamp = volume->GetCreationTime();
  props.SnapshotAttributes = 0;
  if (!copyText(volume->GetRelocationFileName(), &props.RelocationFileName)) return dropProperties(props);
  return S_OK;
}

}  // namespace

int MirelSnapshotEngine::GetCountOfVolumesInSnapshotSet(unsigned int* count) {
  return AtBoundary([&]() -> int {
    if (!hasSet()) return USC_E_BAD_STATE;
    if (count == nullptr) return E_POINTER;
    *count = mSnapshotSetParams->GetVolumeCount();
    return S_OK;
  });
}

int MirelSnapshotEngine::GetVolumeInSnapshotSet(unsigned int index, wchar_t** volume) {
  return AtBoundary([&]() -> int {
    if (!hasSet()) return USC_E_BAD_STATE;
    const Volume found(mSnapshotSetParams->GetAt(index));
    if (!found) return E_INVALIDARG;
    if (volume == nullptr) return E_POINTER;
    *volume = engineText(found->GetOriginalVolumeName());
    return S_OK;
  });
}

int MirelSnapshotEngine::GetVolumeSnapshotGUID(unsigned int index, _SSGUIDPLAIN* snapshotId) {
  return AtBoundary([&]() -> int {
    if (!hasSet()) return USC_E_BAD_STATE;
    const Volume found(mSnapshotSetParams->GetAt(index));
    if (!found) return E_INVALIDARG;
    if (snapshotId == nullptr) return E_POINTER;
    *snapshotId = found->GetSnapshotGUID();
    return S_OK;
  });
}

int MirelSnapshotEngine::GetVolumeInSnapshotSetByGUID(const _SSGUIDPLAIN& snapshotId, wchar_t** volume) {
  return AtBoundary([&]() -> int {
    if (!hasSet()) return USC_E_BAD_STATE;
    const Volume found(mSnapshotSetParams->GetFor(snapshotId));
    if (!found) return USC_E_OBJECT_NOT_FOUND;
    if (volume == nullptr) return E_POINTER;
    // Written only over a non-null pointer: that is the contract.
    if (*volume != nullptr) *volume = engineText(found->GetOriginalVolumeName());
    return S_OK;
  });
}

int MirelSnapshotEngine::GetSnapshotProperties(const _SSGUIDPLAIN& snapshotId, _USC_SNAPSHOT_PROP* props) {
  return AtBoundary([&]() -> int {
    if (!hasSet()) return USC_E_BAD_STATE;
    if (props == nullptr) return E_POINTER;
    if (currentState() != StateSnapshotSetDone) return USC_E_BAD_STATE;
    const Volume volume(mSnapshotSetParams->GetFor(snapshotId));
    if (!volume) return USC_E_OBJECT_NOT_FOUND;
    return fillProperties(*this, volume, snapshotId, *props);
  });
}

}  // namespace MirelSnapSnapshotCoordinator
