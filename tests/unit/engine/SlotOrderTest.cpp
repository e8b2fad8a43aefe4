// SPDX-License-Identifier: Apache-2.0
//
// The binary interface: which operation stands in which slot. The slots are called by number, past the compiler.
#include <string>
#include <type_traits>

#include "EngineTest.h"

namespace test {
namespace {

using UnixSnapshotCoordinator::_USC_OBJECT_TYPE;
using UnixSnapshotCoordinator::_USC_SNAPSHOT_PROP;

// The function in slot `slot` of the object's table.
template <class... Arguments>
auto slot(void* object, int number) {
  using Operation = int(void*, Arguments...);
  return reinterpret_cast<Operation*>((*static_cast<void***>(object))[number]);
}

// An engine whose operations only tell their names.
class NamedEngine : public IUscSnapshotEngine {
 public:
  std::string called;

  int QueryInterface(const _SSGUIDPLAIN&, void**) override { return name("QueryInterface"); }
  unsigned int AddRef() override { return static_cast<unsigned int>(name("AddRef")); }
  unsigned int Release() override { return static_cast<unsigned int>(name("Release")); }
  int GetVersionString(const wchar_t**) override { return name("GetVersionString"); }
  int SupportsSnapshots(int*) override { return name("SupportsSnapshots"); }
  int SupportsPITMultiVolumeSnaps(int*) override { return name("SupportsPITMultiVolumeSnaps"); }
  int IsVolumeSupported(const wchar_t*, int*) override { return name("IsVolumeSupported"); }
  int DoReconcile(const wchar_t*) override { return name("DoReconcile"); }
  int StartSnapshotSet(_SSGUIDPLAIN*) override { return name("StartSnapshotSet"); }
  int WaitForNewSnapshotSet(unsigned int) override { return name("WaitForNewSnapshotSet"); }
  int AddToSnapshotSet(const wchar_t*, const wchar_t*, _SSGUIDPLAIN*) override { return name("AddToSnapshotSet"); }
  int AddToAlternateMountSet(const wchar_t*) override { return name("AddToAlternateMountSet"); }
  int GetCountOfVolumesInSnapshotSet(unsigned int*) override { return name("GetCountOfVolumesInSnapshotSet"); }
  int GetVolumeInSnapshotSet(unsigned int, wchar_t**) override { return name("GetVolumeInSnapshotSet"); }
  int GetVolumeSnapshotGUID(unsigned int, _SSGUIDPLAIN*) override { return name("GetVolumeSnapshotGUID"); }
  int GetVolumeInSnapshotSetByGUID(const _SSGUIDPLAIN&, wchar_t**) override {
    return name("GetVolumeInSnapshotSetByGUID");
  }
  int SetOption(const _SSGUIDPLAIN&, const wchar_t*, const wchar_t*) override { return name("SetOption"); }
  int PrepareForBackup(IUscAsync**) override { return name("PrepareForBackup"); }
  int DoSnapshotSet(IUscAsync**) override { return name("DoSnapshotSet"); }
  int GetSnapshotProperties(const _SSGUIDPLAIN&, _USC_SNAPSHOT_PROP*) override { return name("GetSnapshotProperties"); }
  int ExposeSnapshot(const _SSGUIDPLAIN&, const wchar_t*, const wchar_t**) override { return name("ExposeSnapshot"); }
  int ExposeSnapshotsInSnapshotSet(const wchar_t*) override { return name("ExposeSnapshotsInSnapshotSet"); }
  int IsSnapshotExposed(const _SSGUIDPLAIN&, int*) override { return name("IsSnapshotExposed"); }
  int UnExposeSnapshot(const _SSGUIDPLAIN&) override { return name("UnExposeSnapshot"); }
  int UnExposeSnapshotsInSnapshotSet() override { return name("UnExposeSnapshotsInSnapshotSet"); }
  int DeleteSnapshots(const _SSGUIDPLAIN&, _USC_OBJECT_TYPE) override { return name("DeleteSnapshots"); }

 private:
  int name(const char* operation) {
    called = operation;
    return 0;
  }
};

class NamedJob : public IAsyncDoSnapshot {
 public:
  std::string called;

  int QueryInterface(const _SSGUIDPLAIN&, void**) override { return name("QueryInterface"); }
  unsigned int AddRef() override { return static_cast<unsigned int>(name("AddRef")); }
  unsigned int Release() override { return static_cast<unsigned int>(name("Release")); }
  int Cancel() override { return name("Cancel"); }
  int Wait(unsigned int) override { return name("Wait"); }
  int QueryStatus(int*, int*) override { return name("QueryStatus"); }
  int DoSnapshotOnSeparateThread(void*) override { return name("DoSnapshotOnSeparateThread"); }

 private:
  int name(const char* operation) {
    called = operation;
    return 0;
  }
};

TEST(Slots, of_the_engines_interface) {
  const char* const operations[] = {"QueryInterface",
                                    "AddRef",
                                    "Release",
                                    "GetVersionString",
                                    "SupportsSnapshots",
                                    "SupportsPITMultiVolumeSnaps",
                                    "IsVolumeSupported",
                                    "DoReconcile",
                                    "StartSnapshotSet",
                                    "WaitForNewSnapshotSet",
                                    "AddToSnapshotSet",
                                    "AddToAlternateMountSet",
                                    "GetCountOfVolumesInSnapshotSet",
                                    "GetVolumeInSnapshotSet",
                                    "GetVolumeSnapshotGUID",
                                    "GetVolumeInSnapshotSetByGUID",
                                    "SetOption",
                                    "PrepareForBackup",
                                    "DoSnapshotSet",
                                    "GetSnapshotProperties",
                                    "ExposeSnapshot",
                                    "ExposeSnapshotsInSnapshotSet",
                                    "IsSnapshotExposed",
                                    "UnExposeSnapshot",
                                    "UnExposeSnapshotsInSnapshotSet",
                                    "DeleteSnapshots"};
  NamedEngine engine;
  IUscSnapshotEngine* face = &engine;
  for (int i = 0; i < 26; ++i) {
    slot<void*, void*, void*>(face, i)(face, nullptr, nullptr, nullptr);
    EXPECT_EQ(engine.called, operations[i]) << i;
  }
}

TEST(Slots, of_the_jobs_interface) {
  const char* const operations[] = {
      "QueryInterface", "AddRef", "Release", "Cancel", "Wait", "QueryStatus", "DoSnapshotOnSeparateThread"};
  NamedJob job;
  IUscAsync* face = &job;
  for (int i = 0; i < 7; ++i) {
    slot<void*, void*>(face, i)(face, nullptr, nullptr);
    EXPECT_EQ(job.called, operations[i]) << i;
  }
}

// The slots of the engine itself, and what stands behind them.
class EngineSlots : public EngineTest {
 protected:
  EngineSlots() { create(); }
  void* face() { return static_cast<IUscSnapshotEngine*>(engine); }
};

TEST_F(EngineSlots, begin_where_the_engine_begins) {
  EXPECT_EQ(face(), static_cast<void*>(engine));
  static_assert(!std::has_virtual_destructor_v<IUscSnapshotEngine> && !std::has_virtual_destructor_v<IUscAsync>);
  // The job is a base that only QueryInterface leads to.
  static_assert(std::is_base_of_v<IAsyncDoSnapshot, MirelSnapshotEngine>);
  static_assert(!std::is_convertible_v<MirelSnapshotEngine*, IUscAsync*>);
}

TEST_F(EngineSlots, hold_the_engines_operations) {
  EXPECT_EQ(slot(face(), 1)(face()), 2);
  EXPECT_EQ(slot(face(), 2)(face()), 1);
  int supported = 7;
  EXPECT_EQ(slot<int*>(face(), 5)(face(), &supported), S_OK);
  EXPECT_EQ(supported, 1);
  EXPECT_EQ((slot<void*, void*, void*>(face(), 20)(face(), nullptr, nullptr, nullptr)), E_NOTIMPL);
  _SSGUIDPLAIN setId{};
  EXPECT_EQ(slot<_SSGUIDPLAIN*>(face(), 8)(face(), &setId), S_OK);
  EXPECT_TRUE(UnixInterfaces::IsEqualGUID(setId, MirelSnapshotEngine::sUUID));
  unsigned int count = 7;
  EXPECT_EQ(slot<unsigned int*>(face(), 12)(face(), &count), S_OK);
  EXPECT_EQ(count, 0u);
  EXPECT_EQ((slot<const _SSGUIDPLAIN&, int>(face(), 25)(face(), setId, 0)), USC_E_BAD_STATE);
}

TEST_F(EngineSlots, have_the_destructors_behind_the_interface) {
  // 26 destroys, 27 destroys and frees.
  slot(face(), 27)(face());
  engine = nullptr;
  EXPECT_TRUE(log.has(L"ResetState: Nothing to be done at Current State!"));
  EXPECT_EQ(SnapDriverInterface::mInstance, nullptr);
}

TEST_F(EngineSlots, of_the_jobs_face_reach_the_same_engine) {
  void* job = nullptr;
  ASSERT_EQ((slot<const _SSGUIDPLAIN&, void**>(face(), 0)(face(), IUscAsync::GetGUID(), &job)), S_OK);
  EXPECT_EQ(slot(job, 1)(job), 3);
  EXPECT_EQ(slot(job, 2)(job), 2);
  EXPECT_EQ(slot(job, 3)(job), E_NOTIMPL);
  EXPECT_EQ(slot<unsigned int>(job, 4)(job, 0), E_UNEXPECTED);
  int status = 0;
  int snapResult = 0;
  EXPECT_EQ((slot<int*, int*>(job, 5)(job, &status, &snapResult)), USC_E_BAD_STATE);
  EXPECT_EQ(slot<void*>(job, 6)(job, nullptr), USC_E_BAD_STATE);
  EXPECT_EQ(slot(job, 2)(job), 1);
}

}  // namespace
}  // namespace test
