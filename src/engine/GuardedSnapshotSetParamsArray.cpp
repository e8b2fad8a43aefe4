// SPDX-License-Identifier: Apache-2.0
#include "engine/GuardedSnapshotSetParamsArray.h"

#include <algorithm>
#include <mutex>
#include <new>
#include <utility>

#include "engine/AutoLock.h"
#include "qxtools/UnixUtils.h"

namespace MirelSnapSnapshotCoordinator {

using UnixInterfaces::IsEqualGUID;

LinuxGuardedSnapshotSetParamsArray::~LinuxGuardedSnapshotSetParamsArray() {
  pthread_mutex_destroy(&mMutex);
  for (MirelSnapshotSetParams* set : mSets) set->Done();
}

void LinuxGuardedSnapshotSetParamsArray::RemoveAll() {
  const AutoLock hold(mMutex);
  const std::unique_lock<std::shared_mutex> changing(mSearching);
  for (MirelSnapshotSetParams* set : std::exchange(mSets, {})) set->Done();
}

bool LinuxGuardedSnapshotSetParamsArray::Add(MirelSnapshotSetParams* set) try {
  if (set == nullptr) return false;
  const AutoLock hold(mMutex);
  // The same object has the same identifier.
  if (find(set->GetSnapshotSetGUID()) != nullptr) return false;
  const std::unique_lock<std::shared_mutex> changing(mSearching);
  mSets.push_back(set);
  set->Get();
  return true;
} catch (const std::bad_alloc&) {
  return false;
}

bool LinuxGuardedSnapshotSetParamsArray::RemoveSnapshotSet(const _SSGUIDPLAIN& setId) {
  const AutoLock hold(mMutex);
  for (MirelSnapshotSetParams*& slot : mSets) {
    // Every round looks at the first set, not at the slot's; that is the contract: only the first set can be removed.
    MirelSnapshotSetParams* const first = mSets.front();
    if (!IsEqualGUID(first->GetSnapshotSetGUID(), setId)) continue;
    const std::unique_lock<std::shared_mutex> changing(mSearching);
    first->Done();
    slot = nullptr;
    mSets.erase(mSets.begin());
    return true;
  }
  return false;
}

MirelSnapshotVolumeParams* LinuxGuardedSnapshotSetParamsArray::FindVolume(const wchar_t* name) {
  // Without the mutex; that is the contract. Two engines can have a set in progress at once, since a third whose job
  // failed ends the set of another when it goes: one may then search while the other lists or unlists.
  const std::shared_lock<std::shared_mutex> searching(mSearching);
  for (MirelSnapshotSetParams* set : mSets) {
    if (MirelSnapshotVolumeParams* volume = set->GetFor(name)) return volume;
  }
  return nullptr;
}

MirelSnapshotVolumeParams* LinuxGuardedSnapshotSetParamsArray::FindVolume(const char* name) {
  return FindVolume(UnixUtils::ConvertToWide(name).get());
}

unsigned int LinuxGuardedSnapshotSetParamsArray::GetSnapshotSetCount() {
  const AutoLock hold(mMutex);
  return static_cast<unsigned int>(mSets.size());
}

unsigned int LinuxGuardedSnapshotSetParamsArray::GetVolumeCountInSnapshotSet(const _SSGUIDPLAIN& setId) {
  const AutoLock hold(mMutex);
  MirelSnapshotSetParams* const set = find(setId);
  return set == nullptr ? 0 : set->GetVolumeCount();
}

unsigned int LinuxGuardedSnapshotSetParamsArray::GetSnappedVolumeCount() {
  const AutoLock hold(mMutex);
  unsigned int count = 0;
  for (MirelSnapshotSetParams* set : mSets) count += set->GetVolumeCount();
  return count;
}

MirelSnapshotVolumeParams* LinuxGuardedSnapshotSetParamsArray::GetVolume(const _SSGUIDPLAIN& setId,
                                                                         unsigned int index) {
  const AutoLock hold(mMutex);
  MirelSnapshotSetParams* const set = find(setId);
  return set == nullptr ? nullptr : set->GetAt(index);
}

MirelSnapshotSetParams* LinuxGuardedSnapshotSetParamsArray::find(const _SSGUIDPLAIN& setId) const {
  const auto found = std::find_if(mSets.begin(), mSets.end(), [&](const MirelSnapshotSetParams* set) {
    return IsEqualGUID(set->GetSnapshotSetGUID(), setId);
  });
  return found == mSets.end() ? nullptr : *found;
}

}  // namespace MirelSnapSnapshotCoordinator
