// SPDX-License-Identifier: Apache-2.0
#include <cerrno>
#include <future>
#include <semaphore>

#include "Interposed.h"
#include "JobTest.h"
#include "OtherThread.h"
#include "Waiting.h"
#include "interpose/Allocations.h"

namespace test {
namespace {

class StartSnapshotSet : public JobTest {};

bool same(const _SSGUIDPLAIN& a, const _SSGUIDPLAIN& b) { return UnixInterfaces::IsEqualGUID(a, b); }

TEST_F(StartSnapshotSet, opens_a_set_under_a_new_identifier) {
  const Engine engine;
  log.clear();
  _SSGUIDPLAIN setId{};
  EXPECT_EQ(engine->StartSnapshotSet(&setId), S_OK);
  EXPECT_FALSE(UnixInterfaces::InlineIsNULLGUID(setId));
  EXPECT_TRUE(same(MirelSnapshotEngine::sUUID, setId));
  ASSERT_NE(engine->mSnapshotSetParams, nullptr);
  EXPECT_TRUE(same(engine->mSnapshotSetParams->GetSnapshotSetGUID(), setId));
  EXPECT_EQ(engine->mSnapshotSetParams->GetVolumeCount(), 0u);
  EXPECT_EQ(engine->mState, StateSnapshotSetStarted);
  EXPECT_TRUE(log.lines().empty());
}

TEST_F(StartSnapshotSet, every_set_has_an_identifier_of_its_own) {
  _SSGUIDPLAIN first{};
  {
    const Engine engine;
    first = engine.start();
  }
  const Engine engine;
  EXPECT_FALSE(same(engine.start(), first));
}

TEST_F(StartSnapshotSet, a_second_call_is_a_bad_state) {
  const Engine engine;
  const _SSGUIDPLAIN setId = engine.start();
  _SSGUIDPLAIN second{};
  EXPECT_EQ(engine->StartSnapshotSet(&second), USC_E_BAD_STATE);
  EXPECT_TRUE(
      log.has(L"StartSnapshotSet: ERROR: (UnExpected) Current state: StateSnapshotSetStarted, is invalid to "
              L"start a snapshot set, returning USC_E_BAD_STATE!"));
  EXPECT_TRUE(UnixInterfaces::InlineIsNULLGUID(second));
  EXPECT_TRUE(same(MirelSnapshotEngine::sUUID, setId));
}

TEST_F(StartSnapshotSet, the_state_comes_before_the_null_argument) {
  const Engine engine;
  engine->mState = StateSnapshotSetUnDone;
  EXPECT_EQ(engine->StartSnapshotSet(nullptr), USC_E_BAD_STATE);
  EXPECT_TRUE(
      log.has(L"StartSnapshotSet: ERROR: (UnExpected) Current state: StateSnapshotSetUnDone, is invalid to "
              L"start a snapshot set, returning USC_E_BAD_STATE!"));
}

TEST_F(StartSnapshotSet, the_state_is_tested_without_the_lock) {
  const Engine engine;
  engine.start();
  pthread_mutex_lock(&MirelSnapshotEngine::sLock);
  _SSGUIDPLAIN setId{};
  auto answer = std::async(std::launch::async, [&] { return engine->StartSnapshotSet(&setId); });
  const bool answered = answer.wait_for(test::kPatience) == std::future_status::ready;
  pthread_mutex_unlock(&MirelSnapshotEngine::sLock);
  EXPECT_TRUE(answered);
  EXPECT_EQ(answer.get(), USC_E_BAD_STATE);
}

TEST_F(StartSnapshotSet, everything_behind_the_state_is_tested_and_made_under_the_lock) {
  const Engine engine;
  {
    const LockAtMessages locks;
    EXPECT_EQ(engine->StartSnapshotSet(nullptr), E_POINTER);
    EXPECT_EQ(locks.held(), 1);
    const FailingAllocation failing(0);
    _SSGUIDPLAIN setId{};
    EXPECT_EQ(engine->StartSnapshotSet(&setId), E_OUTOFMEMORY);
    EXPECT_EQ(locks.held(), 2);
    EXPECT_EQ(locks.free(), 0);
  }
}

TEST_F(StartSnapshotSet, looks_for_the_set_in_progress_under_the_lock) {
  const Engine engine;
  pthread_mutex_lock(&MirelSnapshotEngine::sLock);
  MirelSnapshotEngine::sUUID = {1, 2, 3, {}};
  _SSGUIDPLAIN setId{};
  test::OtherThread other([&] { EXPECT_EQ(engine->StartSnapshotSet(&setId), S_OK); });
  EXPECT_TRUE(other.comesToWait());
  MirelSnapshotEngine::sUUID = {};
  pthread_mutex_unlock(&MirelSnapshotEngine::sLock);
}

TEST_F(StartSnapshotSet, while_another_engine_has_a_set_there_is_no_message) {
  const Engine first;
  const _SSGUIDPLAIN setId = first.start();
  const Engine second;
  log.clear();
  _SSGUIDPLAIN other{};
  EXPECT_EQ(second->StartSnapshotSet(&other), USC_E_SNAPSHOT_SET_IN_PROGRESS);
  EXPECT_TRUE(log.lines().empty());
  EXPECT_TRUE(UnixInterfaces::InlineIsNULLGUID(other));
  EXPECT_EQ(second->mState, StateUninitialized);
  EXPECT_EQ(second->mSnapshotSetParams, nullptr);
  EXPECT_TRUE(same(MirelSnapshotEngine::sUUID, setId));
}

TEST_F(StartSnapshotSet, the_set_in_progress_comes_before_the_null_argument) {
  const Engine first;
  first.start();
  const Engine second;
  EXPECT_EQ(second->StartSnapshotSet(nullptr), USC_E_SNAPSHOT_SET_IN_PROGRESS);
}

TEST_F(StartSnapshotSet, a_null_argument_is_E_POINTER) {
  const Engine engine;
  EXPECT_EQ(engine->StartSnapshotSet(nullptr), E_POINTER);
  EXPECT_TRUE(log.has(L"StartSnapshotSet: ERROR: ptrGuidSetID is NULL, returning E_POINTER!"));
  EXPECT_EQ(engine->mState, StateUninitialized);
  EXPECT_TRUE(noSetInProgress());
}

TEST_F(StartSnapshotSet, the_null_argument_comes_before_a_set_that_is_there_already) {
  const Engine engine;
  engine->mSnapshotSetParams = MirelSnapshotSetParams::CreateSnapshotSetParams({1, 2, 3, {}});
  EXPECT_EQ(engine->StartSnapshotSet(nullptr), E_POINTER);
}

TEST_F(StartSnapshotSet, a_set_that_is_there_already_is_a_bad_state) {
  const Engine engine;
  engine->mSnapshotSetParams = MirelSnapshotSetParams::CreateSnapshotSetParams({1, 2, 3, {}});
  _SSGUIDPLAIN setId{};
  EXPECT_EQ(engine->StartSnapshotSet(&setId), USC_E_BAD_STATE);
  EXPECT_TRUE(
      log.has(L"StartSnapshotSet: ERROR: (UnExpected) mSnapshotSetParams is NON NULL, returning USC_E_BAD_STATE!"));
  EXPECT_TRUE(UnixInterfaces::InlineIsNULLGUID(setId));
  EXPECT_TRUE(noSetInProgress());
}

TEST_F(StartSnapshotSet, when_the_set_cannot_be_made_no_set_is_in_progress_and_nobody_is_woken) {
  const Engine engine;
  _SSGUIDPLAIN setId{};
  const SignalCount ends(MirelSnapshotEngine::sCondNewSnapshotSet);
  {
    const FailingAllocation failing(0);
    EXPECT_EQ(engine->StartSnapshotSet(&setId), E_OUTOFMEMORY);
  }
  EXPECT_TRUE(
      log.has(L"StartSnapshotSet: ERROR: (UnExpected) CreateSnapshotSetParams failed, returning E_OUTOFMEMORY!"));
  EXPECT_FALSE(UnixInterfaces::InlineIsNULLGUID(setId));  // written before the set is made
  EXPECT_TRUE(noSetInProgress());
  EXPECT_EQ(ends.signals(), 0);
  EXPECT_EQ(engine->mState, StateUninitialized);
  EXPECT_EQ(engine->StartSnapshotSet(&setId), S_OK);  // and the engine may try again
}

TEST_F(StartSnapshotSet, succeeds_after_the_engine_with_the_set_is_gone) {
  const Volume volume("ext4", 16 << 20);
  Engine first;
  const _SSGUIDPLAIN setId = first.start();
  first.addWithRelocation(volume);
  {
    Job job(first);
    awaitEnd(first, job);
    EXPECT_EQ(outcome(job), std::make_pair(USC_S_ASYNC_FINISHED, 0));
  }
  const Engine second;
  _SSGUIDPLAIN other{};
  EXPECT_EQ(second->StartSnapshotSet(&other), USC_E_SNAPSHOT_SET_IN_PROGRESS);
  EXPECT_EQ(second->WaitForNewSnapshotSet(0), USC_S_ASYNC_PENDING);
  first.release();
  EXPECT_EQ(second->WaitForNewSnapshotSet(0), USC_S_ASYNC_FINISHED);
  EXPECT_EQ(second->StartSnapshotSet(&other), S_OK);
  forget(setId);
}

TEST_F(StartSnapshotSet, an_engine_whose_job_failed_ends_the_next_engines_set_when_it_goes) {
  const Volume volume("ext4", 16 << 20);
  driver.status(IOC_CHECK_VOLUME_SNAPPED, -2);
  Engine first;
  first.start();
  first.addWithRelocation(volume);
  {
    Job job(first);
    awaitEnd(first, job);
    EXPECT_EQ(outcome(job), std::make_pair(USC_E_VOLUME_ALREADY_SNAPPED, 11));
  }
  const Engine second;
  second.start();
  first.release();
  EXPECT_TRUE(noSetInProgress());
}

class WaitForNewSnapshotSet : public JobTest {};

TEST_F(WaitForNewSnapshotSet, is_legal_only_before_the_engine_has_a_set) {
  const Engine engine;
  engine.start();
  log.clear();
  EXPECT_EQ(engine->WaitForNewSnapshotSet(0), USC_E_BAD_STATE);
  EXPECT_TRUE(log.lines().empty());
}

TEST_F(WaitForNewSnapshotSet, without_a_set_in_progress_there_is_nothing_to_wait_for) {
  const Engine engine;
  const Clock unreadable(EINVAL);  // the clock is not even asked
  EXPECT_EQ(engine->WaitForNewSnapshotSet(60'000), USC_S_ASYNC_FINISHED);
}

TEST_F(WaitForNewSnapshotSet, looks_for_the_set_in_progress_under_the_lock) {
  const Engine engine;
  pthread_mutex_lock(&MirelSnapshotEngine::sLock);
  MirelSnapshotEngine::sUUID = {1, 2, 3, {}};
  test::OtherThread other([&] { EXPECT_EQ(engine->WaitForNewSnapshotSet(0), USC_S_ASYNC_FINISHED); });
  EXPECT_TRUE(other.comesToWait());
  MirelSnapshotEngine::sUUID = {};
  pthread_mutex_unlock(&MirelSnapshotEngine::sLock);
}

TEST_F(WaitForNewSnapshotSet, the_time_runs_out_while_the_set_is_in_progress) {
  const Engine first;
  first.start();
  const Engine second;
  EXPECT_EQ(second->WaitForNewSnapshotSet(1), USC_S_ASYNC_PENDING);
}

TEST_F(WaitForNewSnapshotSet, waits_on_its_own_condition_in_any_state) {
  const Engine first;
  first.start();
  const Engine second;
  pthread_cond_t* condition = nullptr;
  const TimedWait wait([&](pthread_cond_t* waited, pthread_mutex_t* mutex, const timespec&) {
    condition = waited;
    EXPECT_EQ(mutex, &MirelSnapshotEngine::sLock);
    return 0;
  });
  EXPECT_EQ(second->WaitForNewSnapshotSet(1000), USC_S_ASYNC_FINISHED);
  EXPECT_EQ(condition, &MirelSnapshotEngine::sCondNewSnapshotSet);
}

TEST_F(WaitForNewSnapshotSet, a_set_that_ends_between_the_look_and_the_wait_is_waited_for_in_vain) {
  Engine first;
  first.start();
  const Engine second;
  int waits = 0;
  const AfterUnlock between(0, [&] { first.release(); });
  const TimedWait wait([&](pthread_cond_t*, pthread_mutex_t*, const timespec&) {
    ++waits;
    EXPECT_TRUE(noSetInProgress());
    return ETIMEDOUT;
  });
  EXPECT_EQ(second->WaitForNewSnapshotSet(1000), USC_S_ASYNC_PENDING);
  EXPECT_EQ(waits, 1);
}

TEST_F(WaitForNewSnapshotSet, is_woken_when_the_other_engine_goes) {
  Engine first;
  first.start();
  const Engine second;
  std::binary_semaphore waiting{0};
  auto answer = std::async(std::launch::async, [&] {
    // Tells that it waits while it holds the lock, which the other engine needs to go.
    const TimedWait wait([&](pthread_cond_t* condition, pthread_mutex_t* mutex, const timespec& deadline) {
      waiting.release();
      return pthread_cond_clockwait(condition, mutex, CLOCK_REALTIME, &deadline);
    });
    return second->WaitForNewSnapshotSet(20'000);
  });
  waiting.acquire();
  first.release();
  EXPECT_EQ(answer.get(), USC_S_ASYNC_FINISHED);
}

}  // namespace
}  // namespace test
