// SPDX-License-Identifier: Apache-2.0
//
// Making and unmaking the engine, and its two faces.
#include <stdexcept>

#include "EngineTest.h"
#include "engine/Boundary.h"
#include "interpose/Allocations.h"

namespace test {
namespace {

using MirelSnapSnapshotCoordinator::AtBoundary;
using Lines = std::vector<std::wstring>;

class EngineLife : public EngineTest {};

TEST_F(EngineLife, the_exported_entry_returns_the_creator) {
  EXPECT_EQ(GetCreatorFunction(), &MirelSnapshotEngine::CreateSnapshotEngine);
}

TEST_F(EngineLife, the_creator_makes_an_engine_with_exactly_one_reference) {
  create();
  ASSERT_NE(engine, nullptr);
  EXPECT_EQ(engine->AddRef(), 2u);
  EXPECT_EQ(engine->Release(), 1u);
  EXPECT_EQ(engine->Release(), 0u);
  engine = nullptr;
}

TEST_F(EngineLife, every_call_makes_another_engine) {
  create();
  IUscSnapshotEngine* other = GetCreatorFunction()();
  EXPECT_NE(other, engine);
  EXPECT_EQ(SnapDriverInterface::mReferenceCount, 2u);
  other->Release();
}

TEST_F(EngineLife, starts_without_a_set_or_a_job) {
  create();
  EXPECT_EQ(engine->mSnapshotSetParams, nullptr);
  EXPECT_EQ(engine->mDriver, SnapDriverInterface::mInstance);
  EXPECT_EQ(engine->mState, MirelSnapSnapshotCoordinator::StateUninitialized);
  EXPECT_EQ(engine->mThreadParams, nullptr);
  EXPECT_EQ(engine->mVersionString, L"scripted");
  EXPECT_TRUE(engine->mMountPointBase.empty());
  EXPECT_TRUE(engine->mMountPointQueue.empty());
  EXPECT_EQ(engine->mSnapResult, -1);
}

TEST_F(EngineLife, logs_the_drivers_version) {
  create();
  EXPECT_EQ(log.lines(), (Lines{L"MirelSnapshotEngine: MirelSnap Driver version: scripted"}));
  EXPECT_EQ(driver.calls(IOC_GET_DRIVER_VERSION).size(), 1u);
}

TEST_F(EngineLife, lives_on_when_the_driver_does_not_tell_its_version) {
  driver.fail(IOC_GET_DRIVER_VERSION, EIO);
  create();
  ASSERT_NE(engine, nullptr);
  EXPECT_EQ(log.lines(), (Lines{L"MirelSnapshotEngine: GetDriverVersionDetail() failed with result = 6"}));
  EXPECT_TRUE(engine->mVersionString.empty());
  EXPECT_NE(engine->mDriver, nullptr);
}

TEST_F(EngineLife, lives_on_without_the_driver_object) {
  {
    const FailingAllocation failing(0, sizeof(SnapDriverInterface));
    create();
  }
  ASSERT_NE(engine, nullptr);
  EXPECT_EQ(engine->mDriver, nullptr);
  EXPECT_EQ(log.lines(), (Lines{L"MirelSnapshotEngine: SnapDriverInterface::Instance() returned NULL!"}));

  int supported = 7;
  EXPECT_EQ(engine->SupportsSnapshots(&supported), S_OK);
  EXPECT_EQ(supported, 0);
  const wchar_t* version = nullptr;
  EXPECT_EQ(engine->GetVersionString(&version), S_OK);
  EXPECT_STREQ(version, L"");
  EXPECT_EQ(engine->DoReconcile(nullptr), E_UNEXPECTED);
  EXPECT_TRUE(driver.calls().empty());

  // The engine that has no driver releases none: the count of the call that failed stays.
  release();
  EXPECT_EQ(SnapDriverInterface::mReferenceCount, 1u);
  SnapDriverInterface::releaseInstance();
}

TEST_F(EngineLife, no_shortage_of_memory_leaves_the_creator) {
  const std::size_t allocations = failEveryAllocation([&] { create(); },
                                                      [&](std::size_t n) {
                                                        if (engine != nullptr && engine->mDriver == nullptr) {
                                                          SnapDriverInterface::releaseInstance();
                                                        }
                                                        release();
                                                        EXPECT_EQ(SnapDriverInterface::mReferenceCount, 0u) << n;
                                                      });
  EXPECT_GE(allocations, 3u);
  ASSERT_NE(engine, nullptr);
}

TEST_F(EngineLife, there_is_no_engine_without_memory_for_it) {
  const FailingAllocation failing(0);
  create();
  EXPECT_EQ(engine, nullptr);
}

TEST_F(EngineLife, its_end_resets_the_state_and_releases_the_driver) {
  create();
  log.clear();
  release();
  EXPECT_EQ(log.lines(),
            (Lines{L"ResetState: Current State is StateUninitialized", L"ResetState: Current SnapResult: -1",
                   L"ResetState: Nothing to be done at Current State!"}));
  EXPECT_EQ(SnapDriverInterface::mInstance, nullptr);
}

TEST_F(EngineLife, its_end_drops_its_reference_on_the_set) {
  create();
  _SSGUIDPLAIN setId{};
  ASSERT_EQ(engine->StartSnapshotSet(&setId), S_OK);
  auto* set = engine->mSnapshotSetParams;
  set->Get();
  release();
  EXPECT_TRUE(set->Done());  // the last one
  EXPECT_TRUE(UnixInterfaces::InlineIsNULLGUID(MirelSnapshotEngine::sUUID));
}

// --- QueryInterface

class QueryInterface : public EngineTest {
 protected:
  QueryInterface() { create(); }
};

TEST_F(QueryInterface, a_null_output_is_E_POINTER_whatever_the_identifier) {
  EXPECT_EQ(engine->QueryInterface(IUscSnapshotEngine::GetGUID(), nullptr), E_POINTER);
  EXPECT_EQ(engine->QueryInterface({1, 2, 3, {}}, nullptr), E_POINTER);
  EXPECT_EQ(references(), 1u);
}

TEST_F(QueryInterface, the_unknown_and_the_engine_are_the_engine_itself) {
  for (const _SSGUIDPLAIN* iid : {&UnixInterfaces::IUnknown::GetGUID(), &IUscSnapshotEngine::GetGUID()}) {
    void* out = nullptr;
    EXPECT_EQ(engine->QueryInterface(*iid, &out), S_OK);
    EXPECT_EQ(out, static_cast<IUscSnapshotEngine*>(engine));
    EXPECT_EQ(engine->Release(), 1u);
  }
}

TEST_F(QueryInterface, the_job_is_another_pointer_with_the_same_count) {
  void* out = nullptr;
  EXPECT_EQ(engine->QueryInterface(IUscAsync::GetGUID(), &out), S_OK);
  EXPECT_NE(out, static_cast<IUscSnapshotEngine*>(engine));
  auto* job = static_cast<IUscAsync*>(out);
  EXPECT_EQ(references(), 2u);
  EXPECT_EQ(job->AddRef(), 3u);
  EXPECT_EQ(job->Release(), 2u);
  EXPECT_EQ(job->Release(), 1u);
  EXPECT_EQ(references(), 1u);
}

TEST_F(QueryInterface, the_jobs_face_answers_as_the_engines) {
  void* out = nullptr;
  ASSERT_EQ(engine->QueryInterface(IUscAsync::GetGUID(), &out), S_OK);
  auto* job = static_cast<IUscAsync*>(out);
  EXPECT_EQ(job->QueryInterface(IUscSnapshotEngine::GetGUID(), nullptr), E_POINTER);
  EXPECT_EQ(job->QueryInterface({1, 2, 3, {}}, &out), E_NOINTERFACE);
  EXPECT_EQ(job->QueryInterface(UnixInterfaces::IUnknown::GetGUID(), &out), S_OK);
  EXPECT_EQ(out, static_cast<IUscSnapshotEngine*>(engine));
  EXPECT_EQ(job->QueryInterface(IUscAsync::GetGUID(), &out), S_OK);
  EXPECT_EQ(out, job);
  EXPECT_EQ(references(), 4u);
  for (int i = 0; i < 3; ++i) job->Release();
}

TEST_F(QueryInterface, an_unknown_identifier_leaves_the_output_untouched) {
  void* out = &out;
  EXPECT_EQ(engine->QueryInterface(MirelSnapshotEngine::sProviderUUID, &out), E_NOINTERFACE);
  EXPECT_EQ(out, &out);
  EXPECT_EQ(references(), 1u);
}

TEST_F(QueryInterface, the_job_can_be_the_last_reference) {
  void* out = nullptr;
  ASSERT_EQ(engine->QueryInterface(IUscAsync::GetGUID(), &out), S_OK);
  release();
  EXPECT_EQ(static_cast<IUscAsync*>(out)->Release(), 0u);
  EXPECT_EQ(SnapDriverInterface::mInstance, nullptr);
}

// --- The boundary

TEST(AtBoundary, hands_on_what_the_operation_answers) {
  EXPECT_EQ(AtBoundary([] { return 42; }), 42);
}

TEST(AtBoundary, turns_a_shortage_of_memory_into_E_OUTOFMEMORY) {
  EXPECT_EQ(AtBoundary([]() -> int { throw std::bad_alloc(); }), E_OUTOFMEMORY);
  EXPECT_EQ(AtBoundary([]() -> int { throw std::bad_array_new_length(); }, E_FAIL), E_OUTOFMEMORY);
}

TEST(AtBoundary, turns_anything_else_into_E_UNEXPECTED_or_what_is_asked_for) {
  EXPECT_EQ(AtBoundary([]() -> int { throw std::out_of_range("no number"); }), E_UNEXPECTED);
  EXPECT_EQ(AtBoundary([]() -> int { throw 5; }), E_UNEXPECTED);
  EXPECT_EQ(AtBoundary([]() -> int { throw std::out_of_range("no number"); }, E_FAIL), E_FAIL);
}

}  // namespace
}  // namespace test
