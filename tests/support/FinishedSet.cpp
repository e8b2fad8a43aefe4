// SPDX-License-Identifier: Apache-2.0
#include "FinishedSet.h"

#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>

#include "OtherThread.h"
#include "engine/GetDoneWrapper.h"

namespace test {
namespace {

using namespace MirelSnapSnapshotCoordinator;

void must(bool done, const char* what) {
  if (!done) throw std::runtime_error(what);
}

// The parameters that the worker would have left behind. The job's face that their constructor took is given back.
MirelSnapshotEngine::SnapshotThreadParams* threadParams(MirelSnapshotEngine& engine) {
  auto requests = std::make_unique<std::list<SnapVolumeInformation>>();
  for (unsigned int i = 0; i < engine.mSnapshotSetParams->GetVolumeCount(); ++i) {
    const GetDoneWrapper<MirelSnapshotVolumeParams> volume(engine.mSnapshotSetParams->GetAt(i));
    requests->emplace_back(volume->GetDeviceBlockSize(), volume->GetNumDeviceBlocks(), volume->GetOriginalVolumeName(),
                           false, true, 0u);
  }
  void* face = nullptr;
  must(engine.QueryInterface(UnixSnapshotCoordinator::IUscAsync::GetGUID(), &face) == S_OK, "no job face");
  auto* job = static_cast<IAsyncDoSnapshot*>(static_cast<UnixSnapshotCoordinator::IUscAsync*>(face));
  auto* params = MirelSnapshotEngine::SnapshotThreadParams::CreateSnapshotThreadParams(job, requests.release());
  must(params != nullptr, "no thread parameters");
  job->Release();
  job->Release();
  return params;
}

}  // namespace

FinishedSet::FinishedSet() : mEngine(static_cast<MirelSnapshotEngine*>(MirelSnapshotEngine::CreateSnapshotEngine())) {
  must(mEngine != nullptr && mEngine->StartSnapshotSet(&mId) == S_OK, "cannot start a set");
}

FinishedSet::~FinishedSet() {
  MirelSnapshotEngine::sSnapshotSetParamsArray.RemoveSnapshotSet(mId);
  mEngine->Release();
}

_SSGUIDPLAIN FinishedSet::add(const std::string& device, const std::string& folder, const std::string& snapshot) {
  _SSGUIDPLAIN id{};
  must(mEngine->AddToSnapshotSet(wide(device).c_str(), wide(folder).c_str(), &id) == S_OK, "cannot add a volume");
  const GetDoneWrapper<MirelSnapshotVolumeParams> volume(mEngine->mSnapshotSetParams->GetFor(id));
  volume->GetSnapVolumeName() = wide(snapshot);
  return id;
}

void FinishedSet::finish(int snapResult) {
  mEngine->mThreadParams = threadParams(*mEngine);
  mEngine->mSnapResult = snapResult;
  if (snapResult == 0) MirelSnapshotEngine::sSnapshotSetParamsArray.Add(mEngine->mSnapshotSetParams);
  mEngine->mState = StateSnapshotSetInProgress;
  mEngine->ResetState();
}

int askedUnderLock(const std::function<int()>& ask, const std::function<void()>& change) {
  int answer = -1;
  pthread_mutex_lock(&MirelSnapshotEngine::sLock);
  OtherThread asking([&] { answer = ask(); });
  EXPECT_TRUE(asking.comesToWait()) << "asked without the lock";
  change();
  pthread_mutex_unlock(&MirelSnapshotEngine::sLock);
  asking.join();
  return answer;
}

bool lockIsFree() {
  if (pthread_mutex_trylock(&MirelSnapshotEngine::sLock) != 0) return false;
  pthread_mutex_unlock(&MirelSnapshotEngine::sLock);
  return true;
}

}  // namespace test
