// SPDX-License-Identifier: Apache-2.0
//
// The hand-over between DoSnapshotSet and the worker.
#include <cerrno>
#include <future>
#include <memory>

#include "Interposed.h"
#include "JobTest.h"
#include "OtherThread.h"
#include "interpose/Allocations.h"

namespace test {
namespace {

using Params = MirelSnapshotEngine::SnapshotThreadParams;

class SnapshotThreadParams : public JobTest {
 protected:
  void TearDown() override {
    engine.release();
    JobTest::TearDown();
  }
  Params* create() { return Params::CreateSnapshotThreadParams(engine.face(), &requests); }

  Engine engine;
  std::list<SnapVolumeInformation> requests;
};

TEST_F(SnapshotThreadParams, hold_the_job_with_a_reference_and_the_list) {
  Params* params = create();
  ASSERT_NE(params, nullptr);
  EXPECT_EQ(params->GetAsyncSnapshot(), engine.face());
  EXPECT_EQ(params->GetVolumeInformationList(), &requests);
  EXPECT_EQ(engine.references(), 2u);
  params->Done();
  engine->Release();
}

TEST_F(SnapshotThreadParams, deleting_them_keeps_the_reference_and_the_list) {
  create()->Done();
  EXPECT_EQ(engine.references(), 2u);
  requests.emplace_back(512u, 1ul, L"/dev/alive", false, true, 0u);
  EXPECT_EQ(requests.size(), 1u);
  engine->Release();
}

TEST_F(SnapshotThreadParams, a_missing_job_or_list_gives_none) {
  EXPECT_EQ(Params::CreateSnapshotThreadParams(nullptr, &requests), nullptr);
  EXPECT_EQ(Params::CreateSnapshotThreadParams(engine.face(), nullptr), nullptr);
  EXPECT_EQ(engine.references(), 1u);
}

TEST_F(SnapshotThreadParams, a_mutex_or_condition_that_cannot_be_made_gives_none_and_keeps_no_reference) {
  for (const FailingCall::Call call : {FailingCall::kMutexInit, FailingCall::kConditionInit}) {
    const FailingCall failing(call, EAGAIN);
    EXPECT_EQ(create(), nullptr);
    EXPECT_EQ(engine.references(), 1u);
  }
}

TEST_F(SnapshotThreadParams, a_shortage_of_memory_gives_none_and_keeps_no_reference) {
  IAsyncDoSnapshot* const face = engine.face();
  const FailingAllocation failing(0);
  EXPECT_EQ(Params::CreateSnapshotThreadParams(face, &requests), nullptr);
  EXPECT_EQ(engine.references(), 1u);
}

TEST_F(SnapshotThreadParams, a_wait_behind_the_signal_ends_at_once) {
  Params* params = create();
  params->Signal();
  EXPECT_EQ(params->Wait(), 0);
  EXPECT_EQ(params->Wait(), 0);
  params->Done();
  engine->Release();
}

TEST_F(SnapshotThreadParams, a_signal_is_given_under_the_mutex) {
  Params* params = create();
  bool unlocked = false;
  const AfterUnlock given(0, [&] {
    unlocked = true;
    const SpuriousWakeUp wakeUp;
    EXPECT_EQ(params->Wait(), 0);
    EXPECT_EQ(wakeUp.waits(), 0);  // the flag is set already
  });
  params->Signal();
  EXPECT_TRUE(unlocked);
  params->Done();
  engine->Release();
}

TEST_F(SnapshotThreadParams, a_wait_before_the_signal_ends_with_it) {
  Params* params = create();
  test::OtherThread waiter([&] { EXPECT_EQ(params->Wait(), 0); });
  EXPECT_TRUE(waiter.comesToWait());
  params->Signal();
  waiter.join();
  params->Done();
  engine->Release();
}

TEST_F(SnapshotThreadParams, a_wait_waits_once_and_takes_any_wake_up) {
  Params* params = create();
  {
    const SpuriousWakeUp wakeUp;
    EXPECT_EQ(params->Wait(), 0);
    EXPECT_EQ(wakeUp.waits(), 1);
    params->Signal();
    EXPECT_EQ(params->Wait(), 0);
    EXPECT_EQ(wakeUp.waits(), 1);
  }
  params->Done();
  engine->Release();
}

TEST_F(SnapshotThreadParams, a_wait_tells_what_the_lock_or_the_unlock_answered) {
  Params* params = create();
  {
    const SpuriousWakeUp wakeUp;
    int result = 0;
    {
      const FailingCall failing(FailingCall::kMutexLock, EDEADLK);
      result = params->Wait();
    }
    EXPECT_EQ(result, EDEADLK);
    EXPECT_EQ(wakeUp.waits(), 0);
    {
      const FailingCall failing(FailingCall::kMutexUnlock, EPERM);
      result = params->Wait();
    }
    EXPECT_EQ(result, EPERM);
    EXPECT_EQ(wakeUp.waits(), 1);
  }
  params->Done();
  engine->Release();
}

}  // namespace
}  // namespace test
