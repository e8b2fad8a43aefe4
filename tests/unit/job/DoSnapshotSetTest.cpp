// SPDX-License-Identifier: Apache-2.0
//
// Starting the job.

#include <cerrno>
#include <future>
#include <memory>

#include "Interposed.h"
#include "JobTest.h"
#include "Waiting.h"
#include "engine/GetDoneWrapper.h"
#include "interpose/Allocations.h"

namespace test {
namespace {

using Lines = std::vector<std::wstring>;
using Params = MirelSnapshotEngine::SnapshotThreadParams;
using Requests = std::list<SnapVolumeInformation>;

class DoSnapshotSet : public JobTest {
 protected:
  // Builds the job's requests without running it: the thread does not start, and what stays is taken.
  std::unique_ptr<Requests> requestsOf(const Engine& engine) {
    const FailingCall failing(FailingCall::kThreadCreate, EAGAIN);
    EXPECT_EQ(engine->DoSnapshotSet(&job), E_UNEXPECTED);
    return takeUnstarted(engine);
  }
  // Frees what a thread that did not start leaves: the parameters and their reference. Their list is the caller's.
  static std::unique_ptr<Requests> takeUnstarted(const Engine& engine) {
    auto* params = static_cast<Params*>(lastThreadStart().argument);
    std::unique_ptr<Requests> requests(params->GetVolumeInformationList());
    params->Done();
    engine->Release();
    return requests;
  }

  IUscAsync* job = nullptr;
};

TEST_F(DoSnapshotSet, is_legal_only_while_the_set_is_open) {
  const Engine engine;
  for (const SnapshotState state :
       {StateUninitialized, StateSnapshotSetInProgress, StateSnapshotSetDone, StateSnapshotSetUnDone}) {
    engine->mState = state;
    log.clear();
    EXPECT_EQ(engine->DoSnapshotSet(nullptr), USC_E_BAD_STATE);  // told before the null output is
    const std::string text = SnapshotStateAsString(state);
    EXPECT_EQ(log.lines(), (Lines{L"DoSnapshotSet: ERROR: Bad State of state machine: " + wide(text) +
                                  L", Expected: StateSnapshotSetStarted"}));
  }
  engine->mState = StateUninitialized;
}

TEST_F(DoSnapshotSet, a_null_output_is_E_POINTER_before_the_empty_set_is_told) {
  const Engine engine;
  engine.start();
  log.clear();
  EXPECT_EQ(engine->DoSnapshotSet(nullptr), E_POINTER);
  EXPECT_EQ(log.lines(), (Lines{L"DoSnapshotSet: ERROR: ptrpAsnyc = NULL, returning E_POINTER"}));
}

TEST_F(DoSnapshotSet, an_empty_or_missing_set_is_a_bad_state) {
  const std::wstring text =
      L"DoSnapshotSet: ERROR: mSnapshotSetParams == NULL || 0  == mSnapshotSetParams->GetVolumeCount(), returning "
      L"USC_E_BAD_STATE";
  Engine engine;
  engine.start();
  log.clear();
  EXPECT_EQ(engine->DoSnapshotSet(&job), USC_E_BAD_STATE);
  EXPECT_EQ(log.lines(), Lines{text});
  engine.release();

  const Engine bare;
  bare->mState = StateSnapshotSetStarted;
  log.clear();
  EXPECT_EQ(bare->DoSnapshotSet(&job), USC_E_BAD_STATE);
  EXPECT_EQ(log.lines(), Lines{text});
  EXPECT_EQ(job, nullptr);
}

TEST_F(DoSnapshotSet, an_engine_without_a_driver_tries_once_more) {
  const Volume volume("ext4", 16 << 20);
  const Engine engine;
  engine.start();
  engine.addWithRelocation(volume);
  SnapDriverInterface::releaseInstance();
  engine->mDriver = nullptr;
  log.clear();
  {
    const FailingAllocation failing(0);
    EXPECT_EQ(engine->DoSnapshotSet(&job), E_OUTOFMEMORY);
  }
  EXPECT_EQ(log.lines(), (Lines{L"DoSnapshotSet: ERROR: mDriver == NULL, Out of Memory!"}));
  EXPECT_EQ(engine->mState, StateSnapshotSetStarted);
  EXPECT_EQ(SnapDriverInterface::mReferenceCount, 1u);  // a call that finds no memory counts too
  SnapDriverInterface::releaseInstance();

  Job second(engine);
  EXPECT_NE(engine->mDriver, nullptr);
  awaitEnd(engine, second);
  EXPECT_EQ(outcome(second).second, 0);
  forget(MirelSnapshotEngine::sUUID);
}

TEST_F(DoSnapshotSet, the_driver_is_sought_behind_the_empty_set_and_before_the_options) {
  const Volume volume("ext4", 16 << 20);
  const Engine engine;
  engine.start();
  SnapDriverInterface::releaseInstance();
  engine->mDriver = nullptr;
  EXPECT_EQ(engine->DoSnapshotSet(&job), USC_E_BAD_STATE);
  EXPECT_EQ(engine->mDriver, nullptr);

  ASSERT_EQ(engine->SetOption(engine.add(volume), L"RelocationFileSize", L"16"), S_OK);
  EXPECT_EQ(engine->DoSnapshotSet(&job), USC_E_BAD_STATE);
  EXPECT_NE(engine->mDriver, nullptr);
}

TEST_F(DoSnapshotSet, the_relocation_options_go_together) {
  const Volume volume("ext4", 16 << 20);
  const Engine engine;
  engine.start();
  const _SSGUIDPLAIN id = engine.add(volume);

  ASSERT_EQ(engine->SetOption(id, L"RelocationFileMountPoint", volume.wfolder().c_str()), S_OK);
  log.clear();
  EXPECT_EQ(engine->DoSnapshotSet(&job), USC_E_BAD_STATE);
  EXPECT_EQ(log.lines(),
            (Lines{L"DoSnapshotSet: ERROR: (UnExpected) VolParams->GetRelocationFileSizeInBlocks() == 0 && "
                   L"!VolParams->GetRelocationFileMountName().empty(), returning USC_E_BAD_STATE"}));
  EXPECT_EQ(engine->mState, StateSnapshotSetStarted);
  EXPECT_EQ(engine->mSnapshotSetParams->GetVolumeCount(), 1u);

  // The agent mends it and tries again.
  ASSERT_EQ(engine->SetOption(id, L"RelocationFileSize", L"16"), S_OK);
  Job mended(engine);
  awaitEnd(engine, mended);
  EXPECT_EQ(outcome(mended), std::make_pair(USC_S_ASYNC_FINISHED, 0));
  forget(MirelSnapshotEngine::sUUID);
}

TEST_F(DoSnapshotSet, a_relocation_size_without_a_place_is_a_bad_state) {
  const Volume good("ext4", 16 << 20);
  const Volume bad("ext4", 16 << 20);
  const Engine engine;
  engine.start();
  engine.addWithRelocation(good);
  ASSERT_EQ(engine->SetOption(engine.add(bad), L"RelocationFileSize", L"16"), S_OK);
  log.clear();
  EXPECT_EQ(engine->DoSnapshotSet(&job), USC_E_BAD_STATE);
  EXPECT_EQ(log.lines(),
            (Lines{L"DoSnapshotSet: ERROR: (UnExpected) VolParams->GetRelocationFileSizeInBlocks() != 0 && "
                   L"VolParams->GetRelocationFileMountName().empty(), returning USC_E_BAD_STATE"}));
  EXPECT_EQ(job, nullptr);
  EXPECT_EQ(engine.references(), 1u);
}

TEST_F(DoSnapshotSet, the_first_volume_with_only_one_relocation_option_ends_the_call) {
  const Volume sized("ext4", 16 << 20);
  const Volume placed("ext4", 16 << 20);
  const Engine engine;
  engine.start();
  ASSERT_EQ(engine->SetOption(engine.add(sized), L"RelocationFileSize", L"16"), S_OK);
  ASSERT_EQ(engine->SetOption(engine.add(placed), L"RelocationFileMountPoint", placed.wfolder().c_str()), S_OK);
  log.clear();
  EXPECT_EQ(engine->DoSnapshotSet(&job), USC_E_BAD_STATE);
  EXPECT_EQ(log.lines(),
            (Lines{L"DoSnapshotSet: ERROR: (UnExpected) VolParams->GetRelocationFileSizeInBlocks() != 0 && "
                   L"VolParams->GetRelocationFileMountName().empty(), returning USC_E_BAD_STATE"}));
}

TEST_F(DoSnapshotSet, each_volume_becomes_one_request_in_the_sets_order) {
  const Volume first("ext4", 16 << 20, {"-b", "1024"});
  const Volume second("ext4", 20 << 20, {"-b", "4096"});
  const Engine engine;
  engine.start();
  engine.add(first);
  engine.addWithRelocation(second);
  const std::unique_ptr<Requests> requests = requestsOf(engine);
  ASSERT_EQ(requests->size(), 2u);

  SnapVolumeInformation& one = requests->front();
  EXPECT_EQ(one.getSnapVolumeName(), first.wdevice());
  EXPECT_EQ(one.getBlockSize(), 1024u);
  EXPECT_EQ(one.getNumBlocks(), (16u << 20) / 1024u);
  EXPECT_EQ(one.getRelocFileSize(), 0u);
  EXPECT_EQ(one.getRelocMountName(), L"");
  SnapVolumeInformation& two = requests->back();
  EXPECT_EQ(two.getSnapVolumeName(), second.wdevice());
  EXPECT_EQ(two.getBlockSize(), 4096u);
  EXPECT_EQ(two.getNumBlocks(), (20u << 20) / 4096u);
  EXPECT_EQ(two.getRelocFileSize(), 16u);
  EXPECT_EQ(two.getRelocMountName(), second.wfolder());
  for (SnapVolumeInformation& request : *requests) {
    EXPECT_FALSE(request.getVtrackReqState());
    EXPECT_TRUE(request.getIndSnapshotReqState());
    EXPECT_EQ(request.getSnapUsageType(), 0u);
    EXPECT_EQ(request.getRelocFileName(), "");
  }
}

TEST_F(DoSnapshotSet, the_worker_is_detached) {
  const Volume volume("ext4", 16 << 20);
  const Engine engine;
  engine.start();
  engine.addWithRelocation(volume);
  requestsOf(engine);
  EXPECT_EQ(lastThreadStart().routine, &MirelSnapshotEngine::DoSnapshotRoutine);
  EXPECT_TRUE(lastThreadStart().detached);
}

TEST_F(DoSnapshotSet, parameters_that_cannot_be_made_are_E_UNEXPECTED_and_nothing_stays) {
  const Volume volume("ext4", 16 << 20);
  const Engine engine;
  engine.start();
  engine.addWithRelocation(volume);
  for (const FailingCall::Call call : {FailingCall::kMutexInit, FailingCall::kConditionInit}) {
    log.clear();
    const FailingCall failing(call, EAGAIN);
    EXPECT_EQ(engine->DoSnapshotSet(&job), E_UNEXPECTED);
    EXPECT_EQ(log.lines(), (Lines{L"DoSnapshotSet: ERROR: SnapshotThreadParams::CreateSnapshotThreadParams() returned "
                                  L"NULL, returning E_UNEXPECTED!"}));
    EXPECT_EQ(engine.references(), 1u);
    EXPECT_EQ(engine->mState, StateSnapshotSetStarted);
  }
  EXPECT_EQ(job, nullptr);
}

TEST_F(DoSnapshotSet, a_thread_that_cannot_start_keeps_the_parameters_and_their_reference) {
  const Volume volume("ext4", 16 << 20);
  const Engine engine;
  engine.start();
  engine.addWithRelocation(volume);
  log.clear();
  {
    const FailingCall failing(FailingCall::kThreadCreate, EAGAIN);
    EXPECT_EQ(engine->DoSnapshotSet(&job), E_UNEXPECTED);
  }
  EXPECT_EQ(log.lines(), (Lines{L"DoSnapshotSet: ERROR: pthread_create() failed, returning E_UNEXPECTED!"}));
  EXPECT_EQ(job, nullptr);
  EXPECT_EQ(engine.references(), 2u);  // the agent's and the parameters'
  EXPECT_EQ(engine->mState, StateSnapshotSetStarted);
  EXPECT_EQ(engine->mThreadParams, nullptr);
  const auto* params = static_cast<Params*>(lastThreadStart().argument);
  EXPECT_EQ(params->GetAsyncSnapshot(), engine.face());
  EXPECT_EQ(params->GetVolumeInformationList()->size(), 1u);
  takeUnstarted(engine);
}

TEST_F(DoSnapshotSet, hands_out_the_engines_job_face_with_a_reference) {
  const Volume volume("ext4", 16 << 20);
  Gate gate;
  driver.on(IOC_SNAP, [&](std::byte*, std::size_t) {
    gate.pass();
    return 0;
  });
  const Engine engine;
  engine.start();
  engine.addWithRelocation(volume);
  ASSERT_EQ(engine->DoSnapshotSet(&job), S_OK);
  EXPECT_EQ(job, static_cast<IUscAsync*>(engine.face()));
  EXPECT_EQ(engine->mState, StateSnapshotSetInProgress);
  ASSERT_TRUE(gate.reached());
  EXPECT_EQ(engine.references(), 3u);  // the agent's two and the worker's
  EXPECT_EQ(job->Wait(0), USC_S_ASYNC_PENDING);
  gate.open();
  EXPECT_EQ(job->Wait(20'000), USC_S_ASYNC_FINISHED);
  job->Release();
  forget(MirelSnapshotEngine::sUUID);
  ASSERT_TRUE(detachedThreadsEnded());
  EXPECT_EQ(engine.references(), 1u);
}

TEST_F(DoSnapshotSet, from_the_first_volume_to_the_last_result_nobody_needs_the_engines_lock) {
  const Volume volume("ext4", 16 << 20);
  const Engine engine;
  const _SSGUIDPLAIN setId = engine.start();
  pthread_mutex_lock(&MirelSnapshotEngine::sLock);
  auto started = std::async(std::launch::async, [&] {
    engine.addWithRelocation(volume);
    return engine->DoSnapshotSet(&job);
  });
  const bool answered = started.wait_for(test::kPatience) == std::future_status::ready;
  // The worker needs it only to end the job.
  const bool listed = answered && test::comesTrue([&] { return isListed(setId); });
  const SnapshotState state = engine->mState;
  const int snapResult = engine->mSnapResult;
  pthread_mutex_unlock(&MirelSnapshotEngine::sLock);
  EXPECT_TRUE(answered);
  EXPECT_TRUE(listed);
  EXPECT_EQ(state, StateSnapshotSetInProgress);
  EXPECT_EQ(snapResult, 0);
  ASSERT_EQ(started.get(), S_OK);
  EXPECT_EQ(job->Wait(20'000), USC_S_ASYNC_FINISHED);
  job->Release();
  ASSERT_TRUE(detachedThreadsEnded());
  forget(setId);
}

TEST_F(DoSnapshotSet, no_shortage_of_memory_leaves_the_engine) {
  const Volume volume("ext4", 16 << 20);
  const Engine engine;
  engine.start();
  engine.addWithRelocation(volume);
  // The thread never starts, so that every allocation is the call's own.
  const FailingCall noThread(FailingCall::kThreadCreate, EAGAIN);
  const std::wstring reachedTheThread = L"DoSnapshotSet: ERROR: pthread_create() failed, returning E_UNEXPECTED!";
  std::size_t n = 0;
  for (bool failed = true; failed; ++n) {
    log.clear();
    int result = S_OK;
    {
      const FailingAllocation shortage(n);
      result = engine->DoSnapshotSet(&job);
      failed = shortage.failed();
    }
    if (log.has(reachedTheThread)) {
      takeUnstarted(engine);
    } else {
      // E_UNEXPECTED when it is the parameters that cannot be made.
      EXPECT_TRUE(result == E_OUTOFMEMORY || result == E_UNEXPECTED) << std::hex << result;
    }
    EXPECT_EQ(engine.references(), 1u) << n;
    EXPECT_EQ(engine->mState, StateSnapshotSetStarted);
  }
  EXPECT_GE(n, 3u);
}

TEST_F(DoSnapshotSet, a_volume_that_vanishes_while_the_set_is_validated_is_a_bad_state) {
  const Volume first("ext4", 16 << 20);
  const Volume second("ext4", 16 << 20);
  const Engine engine;
  engine.start();
  engine.addWithRelocation(first);
  engine.addWithRelocation(second);
  log.clear();
  // The set unlocks once for the count that shows it is not empty and once for the count that is walked.
  const AfterUnlock takeAway(1, [&] { engine->mSnapshotSetParams->RemoveAt(1); });
  EXPECT_EQ(engine->DoSnapshotSet(&job), USC_E_BAD_STATE);
  EXPECT_EQ(log.lines(),
            (Lines{L"DoSnapshotSet: ERROR: (UnExpected) NULL VolParams at 2/2, returning USC_E_BAD_STATE"}));
}

TEST_F(DoSnapshotSet, a_volume_that_vanishes_once_the_set_is_validated_gets_no_request) {
  const Volume first("ext4", 16 << 20);
  const Volume second("ext4", 16 << 20);
  const Engine engine;
  engine.start();
  engine.addWithRelocation(first);
  engine.addWithRelocation(second);
  // Two counts, the two volumes that are validated, and the count of the requests that are built.
  const AfterUnlock takeAway(4, [&] { engine->mSnapshotSetParams->RemoveAt(1); });
  const std::unique_ptr<Requests> requests = requestsOf(engine);
  ASSERT_EQ(requests->size(), 1u);
  EXPECT_EQ(requests->front().getSnapVolumeName(), first.wdevice());
}

}  // namespace
}  // namespace test
