// SPDX-License-Identifier: Apache-2.0
#include "engine/SnapshotSetParams.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <new>

#include "engine/AutoLock.h"
#include "engine/GetDoneWrapper.h"

namespace MirelSnapSnapshotCoordinator {

MirelSnapshotSetParams* MirelSnapshotSetParams::CreateSnapshotSetParams(const _SSGUIDPLAIN& setId) {
  GetDoneWrapper<MirelSnapshotSetParams> set(new (std::nothrow) MirelSnapshotSetParams(setId));
  if (!set || !set->initialize()) return nullptr;
  return set.Detach();
}

bool MirelSnapshotSetParams::initialize() {
  mVolumes = new (std::nothrow) std::vector<MirelSnapshotVolumeParams*>;
  mMutexInitialized = mVolumes != nullptr && pthread_mutex_init(&mMutex, nullptr) == 0;
  return mMutexInitialized;
}

MirelSnapshotSetParams::~MirelSnapshotSetParams() {
  if (!mMutexInitialized) {
    delete mVolumes;
    return;
  }
  {
    const AutoLock hold(mMutex);
    for (MirelSnapshotVolumeParams* volume : *mVolumes) volume->Done();
    delete mVolumes;
    if (mAlternateMounts != nullptr) {
      for (MirelMountVolumeParams* entry : *mAlternateMounts) delete entry;
      delete mAlternateMounts;
    }
  }
  pthread_mutex_destroy(&mMutex);
}

void MirelSnapshotSetParams::Get() { UnixInterfaces::InterlockedIncrement(&mReferenceCount); }

bool MirelSnapshotSetParams::Done() {
  if (UnixInterfaces::InterlockedDecrement(&mReferenceCount) != 0) return false;
  delete this;
  return true;
}

MirelSnapshotVolumeParams* MirelSnapshotSetParams::find(const _SSGUIDPLAIN& id) const {
  const auto found = std::find_if(mVolumes->begin(), mVolumes->end(), [&](const MirelSnapshotVolumeParams* volume) {
    return UnixInterfaces::IsEqualGUID(volume->GetSnapshotGUID(), id);
  });
  return found == mVolumes->end() ? nullptr : *found;
}

MirelSnapshotVolumeParams* MirelSnapshotSetParams::find(const wchar_t* name) const {
  const std::uint64_t number = UnixUtils::GetBlockDeviceNumber(name);
  if (number == 0) return nullptr;
  const auto found = std::find_if(mVolumes->begin(), mVolumes->end(), [&](const MirelSnapshotVolumeParams* volume) {
    return volume->GetDeviceNumber() == number;
  });
  return found == mVolumes->end() ? nullptr : *found;
}

MirelSnapshotVolumeParams* MirelSnapshotSetParams::InternalGet(const _SSGUIDPLAIN& id) {
  const AutoLock hold(mMutex);
  return find(id);
}

MirelSnapshotVolumeParams* MirelSnapshotSetParams::InternalGet(const wchar_t* name) {
  const AutoLock hold(mMutex);
  return find(name);
}

bool MirelSnapshotSetParams::InternalExists(const _SSGUIDPLAIN& id, const wchar_t* name) {
  const AutoLock hold(mMutex);
  return find(id) != nullptr || find(name) != nullptr;
}

bool MirelSnapshotSetParams::Exists(const _SSGUIDPLAIN& id) { return InternalGet(id) != nullptr; }

bool MirelSnapshotSetParams::Exists(const wchar_t* name) { return InternalGet(name) != nullptr; }

MirelSnapshotVolumeParams* MirelSnapshotSetParams::GetFor(const _SSGUIDPLAIN& id) {
  const AutoLock hold(mMutex);
  return withReference(find(id));
}

MirelSnapshotVolumeParams* MirelSnapshotSetParams::GetFor(const wchar_t* name) {
  const AutoLock hold(mMutex);
  return withReference(find(name));
}

MirelSnapshotVolumeParams* MirelSnapshotSetParams::GetAt(unsigned int index) {
  const AutoLock hold(mMutex);
  return index < mVolumes->size() ? withReference((*mVolumes)[index]) : nullptr;
}

MirelSnapshotVolumeParams* MirelSnapshotSetParams::withReference(MirelSnapshotVolumeParams* volume) {
  if (volume != nullptr) volume->Get();
  return volume;
}

unsigned int MirelSnapshotSetParams::GetIndex(const MirelSnapshotVolumeParams* volume) {
  const AutoLock hold(mMutex);
  return positionOf(volume);
}

unsigned int MirelSnapshotSetParams::positionOf(const MirelSnapshotVolumeParams* volume) const {
  const auto found = std::find(mVolumes->begin(), mVolumes->end(), volume);
  return found == mVolumes->end() ? kNoPosition : static_cast<unsigned int>(found - mVolumes->begin());
}

unsigned int MirelSnapshotSetParams::GetVolumeCount() {
  const AutoLock hold(mMutex);
  return count();
}

unsigned int MirelSnapshotSetParams::Add(const _SSGUIDPLAIN& id, const wchar_t* volume, const wchar_t* mountPoint) try {
  const AutoLock hold(mMutex);
  MirelSnapshotVolumeParams* const byId = find(id);
  if (byId != find(volume)) return 0;
  if (byId != nullptr) return byId->AddMountPoint(mountPoint);

  GetDoneWrapper<MirelSnapshotVolumeParams> added(
      MirelSnapshotVolumeParams::CreateSnapshotVolumeParameters(id, volume, mountPoint));
  if (!added) return 0;
  mVolumes->push_back(added.get());
  static_cast<void>(added.Detach());  // the set's from here on
  return count();
} catch (const std::bad_alloc&) {
  return 0;
}

bool MirelSnapshotSetParams::RemoveAt(unsigned int index) {
  const AutoLock hold(mMutex);
  return removeAt(index);
}

bool MirelSnapshotSetParams::Remove(const MirelSnapshotVolumeParams* volume) {
  const AutoLock hold(mMutex);
  return removeAt(positionOf(volume));
}

bool MirelSnapshotSetParams::removeAt(unsigned int index) {
  if (index >= mVolumes->size()) return false;
  (*mVolumes)[index]->Done();
  mVolumes->erase(mVolumes->begin() + index);
  return true;
}

unsigned int MirelSnapshotSetParams::AddToAlternateMountSet(const wchar_t* mountPoint) try {
  const AutoLock hold(mMutex);
  if (mAlternateMounts == nullptr) mAlternateMounts = new std::vector<MirelMountVolumeParams*>;
  const UnixUtils::NarrowText narrow = UnixUtils::ConvertToANSI(mountPoint);
  if (narrow == nullptr) return 0;
  const bool known = std::any_of(mAlternateMounts->begin(), mAlternateMounts->end(), [&](const auto* entry) {
    return std::strcmp(entry->OriginalMountPoint(), narrow.get()) == 0;
  });
  if (known) return GetAlternateMountCount();

  int error = 0;
  std::unique_ptr<MirelMountVolumeParams> added(
      MirelMountVolumeParams::CreateMountVolumeParams(mountPoint, nullptr, error));
  if (added == nullptr) return 0;
  mAlternateMounts->push_back(added.get());
  static_cast<void>(added.release());  // the set's from here on
  return GetAlternateMountCount();
} catch (const std::bad_alloc&) {
  return 0;
}

int MirelSnapshotSetParams::DoMountAlternateSet(const wchar_t* base) {
  if (base == nullptr) return E_INVALIDARG;
  const AutoLock hold(mMutex);
  if (mAlternateMounts == nullptr) return S_OK;
  const bool all = std::all_of(mAlternateMounts->begin(), mAlternateMounts->end(),
                               [&](MirelMountVolumeParams* entry) { return entry->DoMount(base); });
  return all ? S_OK : E_FAIL;
}

int MirelSnapshotSetParams::DoDismountAlternateSet() {
  const AutoLock hold(mMutex);
  if (mAlternateMounts == nullptr) return S_OK;
  int result = S_OK;
  // The last one first: it may lie inside an earlier one.
  for (auto entry = mAlternateMounts->rbegin(); entry != mAlternateMounts->rend(); ++entry) {
    if (!(*entry)->DoDismount()) result = E_FAIL;
  }
  return result;
}

unsigned int MirelSnapshotSetParams::GetAlternateMountCount() const {
  return mAlternateMounts == nullptr ? 0 : static_cast<unsigned int>(mAlternateMounts->size());
}

MirelMountVolumeParams* MirelSnapshotSetParams::GetAlternateMount(unsigned int index) const {
  return index < GetAlternateMountCount() ? (*mAlternateMounts)[index] : nullptr;
}

}  // namespace MirelSnapSnapshotCoordinator
