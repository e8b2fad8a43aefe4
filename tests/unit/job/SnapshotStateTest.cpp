// SPDX-License-Identifier: Apache-2.0
//
// The states, their texts, and the one place where they change at the end of a job or of an engine.
#include "Interposed.h"
#include "JobTest.h"

namespace test {
namespace {

using Lines = std::vector<std::wstring>;

const _SSGUIDPLAIN kSet = {0x44332211, 0x6655, 0x8877, {0x99, 0xAA, 0xBB, 0xCC, 0xDD, 0xEE, 0xFF, 0x00}};
const wchar_t kSetNullified[] = L"ResetState: Nullifying sUUID, current value: 11223344-5566-7788-99aa-bbccddeeff00!";

TEST(SnapshotState, the_values_are_bit_like) {
  EXPECT_EQ(StateUninitialized, 0u);
  EXPECT_EQ(StateSnapshotSetStarted, 2u);
  EXPECT_EQ(StateSnapshotSetInProgress, 4u);
  EXPECT_EQ(StateSnapshotSetDone, 8u);
  EXPECT_EQ(StateSnapshotSetUnDone, 16u);
  EXPECT_EQ(sizeof(SnapshotState), 4u);
}

TEST(SnapshotStateAsString, every_state_has_its_text) {
  EXPECT_STREQ(SnapshotStateAsString(StateUninitialized), "StateUninitialized");
  EXPECT_STREQ(SnapshotStateAsString(StateSnapshotSetStarted), "StateSnapshotSetStarted");
  EXPECT_STREQ(SnapshotStateAsString(StateSnapshotSetInProgress), "StateSnapshotSetInProgress");
  EXPECT_STREQ(SnapshotStateAsString(StateSnapshotSetDone), "StateSnapshotSetDone");
  EXPECT_STREQ(SnapshotStateAsString(StateSnapshotSetUnDone), "StateSnapshotSetUnDone");
}

TEST(SnapshotStateAsString, any_other_value_is_unnknown) {
  for (const unsigned int value : {1u, 3u, 6u, 32u, 0xFFFFFFFFu}) {
    EXPECT_STREQ(SnapshotStateAsString(static_cast<SnapshotState>(value)), "<StateSnapshotSetUnnknown>") << value;
  }
}

// An engine put into a state, with a set in progress in the process.
class ResetState : public JobTest {
 protected:
  void resetFrom(SnapshotState state, int snapResult) {
    MirelSnapshotEngine::sUUID = kSet;
    engine->mState = state;
    engine->mSnapResult = snapResult;
    log.clear();
    const SignalCount jobs(MirelSnapshotEngine::sCond);
    engine->ResetState();
    jobSignals = jobs.signals();
    EXPECT_EQ(jobs.broadcasts(), 0);
  }
  void TearDown() override {
    MirelSnapshotEngine::sUUID = {};
    engine->mState = StateUninitialized;
    engine.release();
    JobTest::TearDown();
  }

  Engine engine;
  int jobSignals = 0;
};

TEST_F(ResetState, a_successful_job_is_done_and_its_set_stays_in_progress) {
  resetFrom(StateSnapshotSetInProgress, 0);
  EXPECT_EQ(engine->mState, StateSnapshotSetDone);
  EXPECT_FALSE(noSetInProgress());
  EXPECT_EQ(jobSignals, 1);
  EXPECT_EQ(log.lines(),
            (Lines{L"ResetState: Current State is StateSnapshotSetInProgress", L"ResetState: Current SnapResult: 0",
                   L"ResetState: New State is now: StateSnapshotSetDone"}));
}

TEST_F(ResetState, a_failed_job_is_done_and_its_set_ends_at_once) {
  resetFrom(StateSnapshotSetInProgress, 12);
  EXPECT_EQ(engine->mState, StateSnapshotSetDone);
  EXPECT_TRUE(noSetInProgress());
  EXPECT_EQ(jobSignals, 1);
  EXPECT_EQ(log.lines(),
            (Lines{L"ResetState: Current State is StateSnapshotSetInProgress", L"ResetState: Current SnapResult: 12",
                   kSetNullified, L"ResetState: New State is now: StateSnapshotSetDone"}));
}

TEST_F(ResetState, a_job_that_never_called_the_driver_counts_as_failed) {
  resetFrom(StateSnapshotSetInProgress, -1);
  EXPECT_EQ(engine->mState, StateSnapshotSetDone);
  EXPECT_TRUE(noSetInProgress());
  EXPECT_TRUE(log.has(L"ResetState: Current SnapResult: -1"));
}

TEST_F(ResetState, a_done_successful_job_becomes_undone_and_its_set_ends) {
  resetFrom(StateSnapshotSetDone, 0);
  EXPECT_EQ(engine->mState, StateSnapshotSetUnDone);
  EXPECT_TRUE(noSetInProgress());
  EXPECT_EQ(jobSignals, 0);
  EXPECT_EQ(log.lines(),
            (Lines{L"ResetState: Current State is StateSnapshotSetDone", L"ResetState: Current SnapResult: 0",
                   kSetNullified, L"ResetState: New State is now: StateSnapshotSetUnDone"}));
}

TEST_F(ResetState, a_done_failed_job_stays_done_and_ends_whatever_set_is_in_progress) {
  resetFrom(StateSnapshotSetDone, 6);
  EXPECT_EQ(engine->mState, StateSnapshotSetDone);
  EXPECT_TRUE(noSetInProgress());
  EXPECT_EQ(jobSignals, 0);
  EXPECT_EQ(log.lines(), (Lines{L"ResetState: Current State is StateSnapshotSetDone",
                                L"ResetState: Current SnapResult: 6", kSetNullified}));
}

TEST_F(ResetState, a_started_set_ends_and_the_state_stays) {
  resetFrom(StateSnapshotSetStarted, -1);
  EXPECT_EQ(engine->mState, StateSnapshotSetStarted);
  EXPECT_TRUE(noSetInProgress());
  EXPECT_EQ(jobSignals, 0);
  EXPECT_EQ(log.lines(), (Lines{L"ResetState: Current State is StateSnapshotSetStarted",
                                L"ResetState: Current SnapResult: -1", kSetNullified}));
}

TEST_F(ResetState, an_unused_engine_leaves_the_set_of_another_alone) {
  resetFrom(StateUninitialized, -1);
  EXPECT_EQ(engine->mState, StateUninitialized);
  EXPECT_FALSE(noSetInProgress());
  EXPECT_EQ(log.lines(),
            (Lines{L"ResetState: Current State is StateUninitialized", L"ResetState: Current SnapResult: -1",
                   L"ResetState: Nothing to be done at Current State!"}));
}

TEST_F(ResetState, an_undone_engine_leaves_the_set_of_another_alone) {
  resetFrom(StateSnapshotSetUnDone, 0);
  EXPECT_EQ(engine->mState, StateSnapshotSetUnDone);
  EXPECT_FALSE(noSetInProgress());
  EXPECT_EQ(log.lines(),
            (Lines{L"ResetState: Current State is StateSnapshotSetUnDone", L"ResetState: Current SnapResult: 0",
                   L"ResetState: Nothing to be done at Current State!"}));
}

TEST_F(ResetState, a_set_that_has_ended_already_is_told) {
  engine->mState = StateSnapshotSetStarted;
  log.clear();
  const SignalCount ends(MirelSnapshotEngine::sCondNewSnapshotSet);
  engine->ResetState();
  EXPECT_EQ(log.lines(), (Lines{L"ResetState: Current State is StateSnapshotSetStarted",
                                L"ResetState: Current SnapResult: -1", L"ResetState: sUUID is already NULL UUID!"}));
  EXPECT_EQ(ends.signals(), 0);
}

TEST_F(ResetState, one_waiter_is_woken_when_the_set_ends) {
  MirelSnapshotEngine::sUUID = kSet;
  engine->mState = StateSnapshotSetStarted;
  const SignalCount ends(MirelSnapshotEngine::sCondNewSnapshotSet);
  engine->ResetState();
  EXPECT_EQ(ends.signals(), 1);
  EXPECT_EQ(ends.broadcasts(), 0);
}

TEST_F(ResetState, is_done_under_the_engines_lock_from_the_first_message_to_the_last) {
  MirelSnapshotEngine::sUUID = kSet;
  engine->mState = StateSnapshotSetDone;
  engine->mSnapResult = 0;
  const LockAtMessages locks;
  engine->ResetState();
  EXPECT_EQ(locks.held(), 4);
  EXPECT_EQ(locks.free(), 0);
}

}  // namespace
}  // namespace test
