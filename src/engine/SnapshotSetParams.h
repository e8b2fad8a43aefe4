// SPDX-License-Identifier: Apache-2.0
//
// One snapshot set: its volumes, in the order added, and its alternate mount set. Reference-counted; guarded by its own
// mutex. Accessors that return a volume add a reference, which the caller drops with Done.
#pragma once

#include <pthread.h>

#include <vector>

#include "engine/MountVolumeParams.h"
#include "engine/SnapshotVolumeParams.h"

namespace MirelSnapSnapshotCoordinator {

class MirelSnapshotSetParams {
 public:
  // An empty set with one reference; null when memory is short.
  static MirelSnapshotSetParams* CreateSnapshotSetParams(const _SSGUIDPLAIN& setId);

  void Get();
  // Drops a reference; true when the object was deleted.
  bool Done();

  const _SSGUIDPLAIN& GetSnapshotSetGUID() const { return mSnapshotSetId; }

  // Volumes are the same when their devices are, whatever path names them.
  bool Exists(const _SSGUIDPLAIN& id);
  bool Exists(const wchar_t* name);
  // Whether a volume with this identifier or with this device is there.
  bool InternalExists(const _SSGUIDPLAIN& id, const wchar_t* name);
  // No reference added; null when absent.
  MirelSnapshotVolumeParams* InternalGet(const _SSGUIDPLAIN& id);
  MirelSnapshotVolumeParams* InternalGet(const wchar_t* name);
  // With a reference added; null when absent.
  MirelSnapshotVolumeParams* GetFor(const _SSGUIDPLAIN& id);
  MirelSnapshotVolumeParams* GetFor(const wchar_t* name);
  MirelSnapshotVolumeParams* GetAt(unsigned int index);
  // Position of that very object; 0xFFFFFFFF when absent.
  unsigned int GetIndex(const MirelSnapshotVolumeParams* volume);
  unsigned int GetVolumeCount();

  // Adds a volume, or a mount point to the volume that both `id` and `volume` name. The new count of volumes or of
  // mount points; 0 when the two disagree or the volume cannot be made.
  unsigned int Add(const _SSGUIDPLAIN& id, const wchar_t* volume, const wchar_t* mountPoint);
  // Drop a volume with the set's reference on it; false when it is not there.
  bool RemoveAt(unsigned int index);
  bool Remove(const MirelSnapshotVolumeParams* volume);

  // Adds a live mount point to the alternate set; the count, unchanged when it is there already; 0 when it is refused.
  unsigned int AddToAlternateMountSet(const wchar_t* mountPoint);
  // Binds every entry under `base`, in order, up to the first failure. S_OK, E_INVALIDARG for null, E_FAIL.
  int DoMountAlternateSet(const wchar_t* base);
  // Unbinds every entry, the last one first. S_OK, or E_FAIL when one stayed.
  int DoDismountAlternateSet();
  // Not locked.
  unsigned int GetAlternateMountCount() const;
  MirelMountVolumeParams* GetAlternateMount(unsigned int index) const;

 private:
  explicit MirelSnapshotSetParams(const _SSGUIDPLAIN& setId) : mSnapshotSetId(setId) {}
  virtual ~MirelSnapshotSetParams();

  bool initialize();

  // Called with the mutex held.
  MirelSnapshotVolumeParams* find(const _SSGUIDPLAIN& id) const;
  MirelSnapshotVolumeParams* find(const wchar_t* name) const;
  unsigned int count() const { return static_cast<unsigned int>(mVolumes->size()); }
  unsigned int positionOf(const MirelSnapshotVolumeParams* volume) const;
  bool removeAt(unsigned int index);
  static MirelSnapshotVolumeParams* withReference(MirelSnapshotVolumeParams* volume);

  static constexpr unsigned int kNoPosition = 0xFFFFFFFF;

  _SSGUIDPLAIN mSnapshotSetId;
  std::vector<MirelSnapshotVolumeParams*>* mVolumes = nullptr;
  std::vector<MirelMountVolumeParams*>* mAlternateMounts = nullptr;  // made on first use
  volatile unsigned int mReferenceCount = 1;
  pthread_mutex_t mMutex{};
  bool mMutexInitialized = false;
};

}  // namespace MirelSnapSnapshotCoordinator
