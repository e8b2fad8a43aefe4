// SPDX-License-Identifier: Apache-2.0
#include "JobTest.h"

#include <stdexcept>

#include "Interposed.h"
#include "Waiting.h"

namespace test {
namespace {

void must(bool done, const char* what) {
  if (!done) throw std::runtime_error(what);
}

}  // namespace

Engine::Engine() : mEngine(static_cast<MirelSnapshotEngine*>(MirelSnapshotEngine::CreateSnapshotEngine())) {
  must(mEngine != nullptr, "no engine");
}

void Engine::release() {
  if (mEngine != nullptr) mEngine->Release();
  mEngine = nullptr;
}

unsigned int Engine::references() const {
  mEngine->AddRef();
  return mEngine->Release();
}

IAsyncDoSnapshot* Engine::face() const {
  void* face = nullptr;
  must(mEngine->QueryInterface(IUscAsync::GetGUID(), &face) == S_OK, "no job face");
  mEngine->Release();
  return static_cast<IAsyncDoSnapshot*>(static_cast<IUscAsync*>(face));
}

_SSGUIDPLAIN Engine::start() const {
  _SSGUIDPLAIN setId{};
  must(mEngine->StartSnapshotSet(&setId) == S_OK, "cannot start a set");
  return setId;
}

_SSGUIDPLAIN Engine::add(const Volume& volume) const {
  _SSGUIDPLAIN snapshotId{};
  must(mEngine->AddToSnapshotSet(volume.wdevice().c_str(), volume.wfolder().c_str(), &snapshotId) == S_OK,
       "cannot add a volume");
  return snapshotId;
}

_SSGUIDPLAIN Engine::addWithRelocation(const Volume& volume) const {
  const _SSGUIDPLAIN snapshotId = add(volume);
  must(mEngine->SetOption(snapshotId, L"RelocationFileMountPoint", volume.wfolder().c_str()) == S_OK,
       "cannot place the relocation file");
  must(mEngine->SetOption(snapshotId, L"RelocationFileSize", L"16") == S_OK, "cannot size the relocation file");
  return snapshotId;
}

Job::Job(const Engine& engine) { must(engine->DoSnapshotSet(&mJob) == S_OK, "cannot start the job"); }

void Job::release() {
  if (mJob != nullptr) mJob->Release();
  mJob = nullptr;
}

void JobTest::TearDown() {
  EXPECT_TRUE(noSetInProgress());
  EXPECT_EQ(MirelSnapshotEngine::sSnapshotSetParamsArray.GetSnapshotSetCount(), 0u);
  EXPECT_EQ(SnapDriverInterface::mReferenceCount, 0u);
  EXPECT_EQ(SnapDriverInterface::mInstance, nullptr);
}

void JobTest::awaitEnd(const Engine& engine, const Job& job) {
  ASSERT_EQ(job->Wait(20'000), USC_S_ASYNC_FINISHED);
  ASSERT_TRUE(detachedThreadsEnded());
  EXPECT_EQ(engine.references(), 2u);  // the agent's: the worker dropped its own
}

std::pair<int, int> JobTest::outcome(const Job& job) {
  int status = 0x55555555;
  int snapResult = 0x55555555;
  EXPECT_EQ(job->QueryStatus(&status, &snapResult), S_OK);
  return {status, snapResult};
}

bool JobTest::noSetInProgress() { return UnixInterfaces::InlineIsNULLGUID(MirelSnapshotEngine::sUUID); }

void JobTest::forget(const _SSGUIDPLAIN& setId) {
  EXPECT_TRUE(MirelSnapshotEngine::sSnapshotSetParamsArray.RemoveSnapshotSet(setId));
}

bool JobTest::isListed(const _SSGUIDPLAIN& setId) {
  return MirelSnapshotEngine::sSnapshotSetParamsArray.GetVolumeCountInSnapshotSet(setId) != 0;
}

LockAtMessages::LockAtMessages() { QX_SetLogHandler(&LockAtMessages::look, this); }
LockAtMessages::~LockAtMessages() { QX_SetLogHandler(nullptr, nullptr); }

void LockAtMessages::look(unsigned short, const wchar_t*, void* self) {
  auto* const locks = static_cast<LockAtMessages*>(self);
  if (pthread_mutex_trylock(&MirelSnapshotEngine::sLock) != 0) {
    ++locks->mHeld;
    return;
  }
  pthread_mutex_unlock(&MirelSnapshotEngine::sLock);
  ++locks->mFree;
}

void Gate::pass() {
  mReached.release();
  mOpened.acquire();
}

bool Gate::reached() { return mReached.try_acquire_for(test::kPatience); }

}  // namespace test
