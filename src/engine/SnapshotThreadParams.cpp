// SPDX-License-Identifier: Apache-2.0
#include <new>

#include "engine/MirelSnapshotEngine.h"

namespace MirelSnapSnapshotCoordinator {

using ThreadParams = MirelSnapshotEngine::SnapshotThreadParams;

ThreadParams* ThreadParams::CreateSnapshotThreadParams(IAsyncDoSnapshot* async,
                                                       std::list<SnapVolumeInformation>* volumes) {
  if (async == nullptr || volumes == nullptr) return nullptr;
  auto* params = new (std::nothrow) SnapshotThreadParams(async, volumes);
  if (params == nullptr || params->initialize()) return params;
  params->Done();
  async->Release();  // the constructor's: nobody else will, and the engine must not outlive the agent's use
  return nullptr;
}

ThreadParams::SnapshotThreadParams(IAsyncDoSnapshot* async, std::list<SnapVolumeInformation>* volumes)
    : mAsync(async), mVolumes(volumes) {
  mAsync->AddRef();
}

// Neither the reference on the job nor the list goes with the object: the agent has the one, whoever drops the
// parameters frees the other.
ThreadParams::~SnapshotThreadParams() {
  if (mConditionInitialized) pthread_cond_destroy(&mCondition);
  if (mMutexInitialized) pthread_mutex_destroy(&mMutex);
  mAsync = nullptr;
  mVolumes = nullptr;
}

bool ThreadParams::initialize() {
  mMutexInitialized = pthread_mutex_init(&mMutex, nullptr) == 0;
  mConditionInitialized = mMutexInitialized && pthread_cond_init(&mCondition, nullptr) == 0;
  return mConditionInitialized;
}

int ThreadParams::Wait() {
  const int locked = pthread_mutex_lock(&mMutex);
  if (locked != 0) return locked;
  if (!mStarted) pthread_cond_wait(&mCondition, &mMutex);  // once: the contract
  return pthread_mutex_unlock(&mMutex);
}

void ThreadParams::Signal() {
  const AutoLock lock(mMutex);
  mStarted = true;
  pthread_cond_signal(&mCondition);
}

void ThreadParams::Done() { delete this; }

}  // namespace MirelSnapSnapshotCoordinator
