// SPDX-License-Identifier: Apache-2.0
//
// Every snapshot set taken in this process and not yet deleted.
#pragma once

#include <pthread.h>

#include <shared_mutex>
#include <vector>

#include "engine/SnapshotSetParams.h"

namespace MirelSnapSnapshotCoordinator {

class LinuxGuardedSnapshotSetParamsArray {
 public:
  LinuxGuardedSnapshotSetParamsArray() = default;
  LinuxGuardedSnapshotSetParamsArray(const LinuxGuardedSnapshotSetParamsArray&) = delete;
  LinuxGuardedSnapshotSetParamsArray& operator=(const LinuxGuardedSnapshotSetParamsArray&) = delete;
  virtual ~LinuxGuardedSnapshotSetParamsArray();

  // Lists `set` with a reference of its own. False for null and for a set or an identifier that is listed
  // already, and when memory is short.
  bool Add(MirelSnapshotSetParams* set);
  // Removes the set `setId`; only the set listed first can be removed.
  bool RemoveSnapshotSet(const _SSGUIDPLAIN& setId);
  // Drops every set.
  void RemoveAll();
  // The first volume of any set on this device, with a reference; null when none. Does not take the array's mutex.
  MirelSnapshotVolumeParams* FindVolume(const wchar_t* name);
  MirelSnapshotVolumeParams* FindVolume(const char* name);

  unsigned int GetSnapshotSetCount();
  // 0 for an unknown set.
  unsigned int GetVolumeCountInSnapshotSet(const _SSGUIDPLAIN& setId);
  // Over all sets.
  unsigned int GetSnappedVolumeCount();
  // Volume `index` of that set, with a reference; null when absent.
  MirelSnapshotVolumeParams* GetVolume(const _SSGUIDPLAIN& setId, unsigned int index);

 private:
  // Called with the mutex held; null when absent.
  MirelSnapshotSetParams* find(const _SSGUIDPLAIN& setId) const;

  pthread_mutex_t mMutex = PTHREAD_MUTEX_INITIALIZER;
  std::vector<MirelSnapshotSetParams*> mSets;
  // Held shared while mSets is searched without the mutex, exclusively while it changes.
  std::shared_mutex mSearching;
};

}  // namespace MirelSnapSnapshotCoordinator
