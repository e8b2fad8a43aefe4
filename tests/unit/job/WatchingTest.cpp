// SPDX-License-Identifier: Apache-2.0
//
// The job as the agent watches it: Wait, QueryStatus, Cancel.
#include <cerrno>
#include <cstring>

#include "Interposed.h"
#include "JobTest.h"
#include "OtherThread.h"

namespace test {
namespace {

using Lines = std::vector<std::wstring>;

// An engine put into a state.
class Watching : public JobTest {
 protected:
  void TearDown() override {
    engine->mState = StateUninitialized;
    engine.release();
    JobTest::TearDown();
  }
  void in(SnapshotState state, int snapResult = -1) {
    engine->mState = state;
    engine->mSnapResult = snapResult;
    log.clear();
  }

  Engine engine;
};

using Wait = Watching;
using QueryStatus = Watching;
using Cancel = Watching;

// --- Wait

TEST_F(Wait, is_finished_at_once_when_the_job_is_done) {
  in(StateSnapshotSetDone);
  const Clock unreadable(EINVAL);
  EXPECT_EQ(engine.face()->Wait(60'000), USC_S_ASYNC_FINISHED);
  EXPECT_TRUE(log.lines().empty());
}

TEST_F(Wait, without_a_job_is_E_UNEXPECTED) {
  for (const SnapshotState state : {StateUninitialized, StateSnapshotSetStarted, StateSnapshotSetUnDone}) {
    in(state);
    EXPECT_EQ(engine.face()->Wait(0), E_UNEXPECTED);
    const std::string text = SnapshotStateAsString(state);
    EXPECT_EQ(log.lines(),
              (Lines{L"WaitInternal: ERROR: Current status: " + wide(text) + L" is invalid, returning E_UNEXPECTED"}));
  }
}

TEST_F(Wait, is_pending_when_the_time_runs_out) {
  in(StateSnapshotSetInProgress);
  EXPECT_EQ(engine.face()->Wait(0), USC_S_ASYNC_PENDING);
  EXPECT_EQ(engine.face()->Wait(1), USC_S_ASYNC_PENDING);
  EXPECT_TRUE(log.lines().empty());
}

TEST_F(Wait, waits_once_for_the_jobs_condition_under_the_engines_lock) {
  in(StateSnapshotSetInProgress);
  int waits = 0;
  const TimedWait wait([&](pthread_cond_t* condition, pthread_mutex_t* mutex, const timespec&) {
    ++waits;
    EXPECT_EQ(condition, &MirelSnapshotEngine::sCond);
    EXPECT_EQ(mutex, &MirelSnapshotEngine::sLock);
    EXPECT_EQ(pthread_mutex_trylock(mutex), EBUSY);
    return 0;
  });
  // The state is not looked at again: a wake-up counts as the job's end.
  EXPECT_EQ(engine.face()->Wait(1000), USC_S_ASYNC_FINISHED);
  EXPECT_EQ(engine->mState, StateSnapshotSetInProgress);
  EXPECT_EQ(waits, 1);
}

TEST_F(Wait, which_condition_it_is_and_whether_the_state_counts_are_two_questions) {
  pthread_cond_t* waited = nullptr;
  const TimedWait wait([&](pthread_cond_t* condition, pthread_mutex_t*, const timespec&) {
    waited = condition;
    return ETIMEDOUT;
  });
  in(StateSnapshotSetStarted);
  EXPECT_EQ(engine->WaitInternal(0, true, false), E_UNEXPECTED);
  EXPECT_EQ(waited, nullptr);
  EXPECT_EQ(engine->WaitInternal(0, false, true), USC_S_ASYNC_PENDING);
  EXPECT_EQ(waited, &MirelSnapshotEngine::sCond);
  in(StateSnapshotSetInProgress);
  EXPECT_EQ(engine->WaitInternal(0, true, false), USC_S_ASYNC_PENDING);
  EXPECT_EQ(waited, &MirelSnapshotEngine::sCondNewSnapshotSet);
  in(StateSnapshotSetDone);
  EXPECT_EQ(engine->WaitInternal(0, true, false), USC_S_ASYNC_FINISHED);
  EXPECT_EQ(engine->WaitInternal(0, false, true), USC_S_ASYNC_PENDING);
}

TEST_F(Wait, the_deadline_is_the_time_in_milliseconds_from_now) {
  in(StateSnapshotSetInProgress);
  const struct {
    timespec now;
    unsigned int timeoutMs;
    timespec deadline;
  } cases[] = {{{100, 5}, 0, {100, 5}},
               {{100, 5}, 2'345, {102, 345'000'005}},
               {{100, 999'999'999}, 1, {101, 999'999}},
               {{100, 999'000'000}, 1, {100, 1'000'000'000}},  // a full second is not carried
               {{100, 1}, 4'294'967'295, {4'295'067, 295'000'001}}};
  for (const auto& each : cases) {
    timespec deadline{};
    const Clock clock(each.now);
    const TimedWait wait([&](pthread_cond_t*, pthread_mutex_t*, const timespec& until) {
      deadline = until;
      return ETIMEDOUT;
    });
    EXPECT_EQ(engine.face()->Wait(each.timeoutMs), USC_S_ASYNC_PENDING);
    EXPECT_EQ(deadline.tv_sec, each.deadline.tv_sec);
    EXPECT_EQ(deadline.tv_nsec, each.deadline.tv_nsec);
  }
}

TEST_F(Wait, a_deadline_of_a_full_second_of_nanoseconds_is_refused) {
  in(StateSnapshotSetInProgress);
  const Clock clock(timespec{100, 999'000'000});
  EXPECT_EQ(engine.face()->Wait(1), E_UNEXPECTED);
  EXPECT_EQ(log.lines(),
            (Lines{L"WaitInternal: ERROR: pthread_cond_timedwait() failed with Error: 22 (Invalid argument), "
                   L"returning E_UNEXPECTED"}));
}

TEST_F(Wait, a_clock_that_cannot_be_read_is_E_UNEXPECTED) {
  in(StateSnapshotSetInProgress);
  const Clock unreadable(EPERM);
  EXPECT_EQ(engine.face()->Wait(1), E_UNEXPECTED);
  EXPECT_EQ(log.lines(), (Lines{L"WaitInternal: ERROR: clock_gettime() failed with Error: 1 (Operation not permitted), "
                                L"returning E_UNEXPECTED"}));
}

TEST_F(Wait, leaves_the_lock_free_whatever_it_answers) {
  for (const SnapshotState state : {StateSnapshotSetInProgress, StateSnapshotSetDone, StateUninitialized}) {
    in(state);
    engine.face()->Wait(0);
    ASSERT_EQ(pthread_mutex_trylock(&MirelSnapshotEngine::sLock), 0);
    pthread_mutex_unlock(&MirelSnapshotEngine::sLock);
  }
}

// --- QueryStatus

TEST_F(QueryStatus, null_arguments_are_E_INVALIDARG_in_any_state) {
  int value = 7;
  for (const SnapshotState state : {StateUninitialized, StateSnapshotSetDone}) {
    in(state, 0);
    EXPECT_EQ(engine.face()->QueryStatus(nullptr, &value), E_INVALIDARG);
    EXPECT_EQ(engine.face()->QueryStatus(&value, nullptr), E_INVALIDARG);
    EXPECT_EQ(log.lines(), (Lines{L"QueryStatus: Invalid Input, returning E_INVALIDARG!",
                                  L"QueryStatus: Invalid Input, returning E_INVALIDARG!"}));
  }
  EXPECT_EQ(value, 7);
}

TEST_F(QueryStatus, without_a_job_is_a_bad_state_and_nothing_is_written) {
  for (const SnapshotState state : {StateUninitialized, StateSnapshotSetStarted, StateSnapshotSetUnDone}) {
    in(state, 0);
    int status = 7;
    int snapResult = 8;
    EXPECT_EQ(engine.face()->QueryStatus(&status, &snapResult), USC_E_BAD_STATE);
    EXPECT_EQ(status, 7);
    EXPECT_EQ(snapResult, 8);
    EXPECT_TRUE(log.lines().empty());
  }
}

TEST_F(QueryStatus, a_running_job_is_pending_with_minus_1_whatever_the_worker_has_written) {
  in(StateSnapshotSetInProgress, 6);
  int status = 0;
  int snapResult = 0;
  EXPECT_EQ(engine.face()->QueryStatus(&status, &snapResult), S_OK);
  EXPECT_EQ(status, USC_S_ASYNC_PENDING);
  EXPECT_EQ(snapResult, -1);
}

TEST_F(QueryStatus, a_successful_job_is_finished_with_0) {
  in(StateSnapshotSetDone, 0);
  int status = 7;
  int snapResult = 7;
  EXPECT_EQ(engine.face()->QueryStatus(&status, &snapResult), S_OK);
  EXPECT_EQ(status, USC_S_ASYNC_FINISHED);
  EXPECT_EQ(snapResult, 0);
}

TEST_F(QueryStatus, a_failed_job_has_its_failure_and_the_drivers_code) {
  const std::pair<int, int> failures[] = {{11, USC_E_VOLUME_ALREADY_SNAPPED},
                                          {12, USC_E_VOLUME_ALREADY_SNAPPED},
                                          {21, USC_E_INSUFFICIENT_STORAGE},
                                          {20, E_UNEXPECTED},
                                          {3, E_UNEXPECTED},
                                          {5, E_UNEXPECTED},
                                          {6, E_UNEXPECTED},
                                          {26, E_UNEXPECTED},
                                          {10, E_UNEXPECTED},
                                          {13, E_UNEXPECTED},
                                          {22, E_UNEXPECTED},
                                          {-1, E_UNEXPECTED}};
  for (const auto& [code, failure] : failures) {
    in(StateSnapshotSetDone, code);
    int status = 7;
    int snapResult = 7;
    EXPECT_EQ(engine.face()->QueryStatus(&status, &snapResult), S_OK);
    EXPECT_EQ(status, failure) << code;
    EXPECT_EQ(snapResult, code);
  }
}

TEST_F(QueryStatus, looks_under_the_engines_lock) {
  in(StateSnapshotSetDone, 0);
  pthread_mutex_lock(&MirelSnapshotEngine::sLock);
  test::OtherThread other([&] {
    int status = 0;
    int snapResult = 0;
    engine.face()->QueryStatus(&status, &snapResult);
    EXPECT_EQ(snapResult, 12);
  });
  EXPECT_TRUE(other.comesToWait());
  engine->mSnapResult = 12;
  pthread_mutex_unlock(&MirelSnapshotEngine::sLock);
  other.join();
}

// --- Cancel

TEST_F(Cancel, is_never_provided) {
  for (const SnapshotState state : {StateUninitialized, StateSnapshotSetStarted, StateSnapshotSetInProgress,
                                    StateSnapshotSetDone, StateSnapshotSetUnDone}) {
    in(state);
    EXPECT_EQ(engine.face()->Cancel(), E_NOTIMPL);
    EXPECT_EQ(engine->mState, state);
  }
}

}  // namespace
}  // namespace test
