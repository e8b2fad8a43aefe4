// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <pthread.h>

namespace MirelSnapSnapshotCoordinator {

// Holds a mutex for a scope.
class AutoLock {
 public:
  explicit AutoLock(pthread_mutex_t& mutex) : mMutex(mutex) { pthread_mutex_lock(&mMutex); }
  ~AutoLock() { pthread_mutex_unlock(&mMutex); }
  AutoLock(const AutoLock&) = delete;
  AutoLock& operator=(const AutoLock&) = delete;

 private:
  pthread_mutex_t& mMutex;
};

}  // namespace MirelSnapSnapshotCoordinator
