// SPDX-License-Identifier: Apache-2.0
//
// The end of a set, and of what dead processes left.
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <map>

#include "EngineLog.h"
#include "FinishedSet.h"
#include "LoopVolume.h"
#include "OwnWorld.h"
#include "SnapshotDevice.h"
#include "driver/DriverProtocol.h"
#include "engine/GetDoneWrapper.h"
#include "interpose/Allocations.h"

using namespace MirelSnapSnapshotCoordinator;
using test::wide;
using UnixSnapshotCoordinator::_USC_OBJECT_TYPE;
using UnixSnapshotCoordinator::USC_OBJECT_SNAPSHOT;
using UnixSnapshotCoordinator::USC_OBJECT_SNAPSHOT_SET;

namespace {

// The agent passes the numbers.
static_assert(USC_OBJECT_SNAPSHOT_SET == 0 && USC_OBJECT_SNAPSHOT == 1 && sizeof(_USC_OBJECT_TYPE) == 4);

constexpr _SSGUIDPLAIN kUnknown = {1, 2, 3, {4}};

bool exists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }

void mountTmpfs(const std::string& folder) {
  std::filesystem::create_directories(folder);
  ASSERT_EQ(mount("tests", folder.c_str(), "tmpfs", 0, nullptr), 0) << folder;
}

class Deletion : public testing::Test {
 protected:
  Deletion() {
    firstId = set.add(first.device(), first.folder(), "/dev/snap7_100");
    secondId = set.add(second.device(), second.folder(), "/dev/snap7_101");
  }
  unsigned int volumeCount() {
    unsigned int count = 0;
    EXPECT_EQ(set->GetCountOfVolumesInSnapshotSet(&count), S_OK);
    return count;
  }
  // Minor numbers of the discarded volumes, in order.
  std::vector<unsigned int> discarded() {
    std::vector<unsigned int> minors;
    for (const test::DriverCall& call : set.driver().calls(IOC_SNAP_DISCARD)) {
      for (unsigned int i = 0; i < call.header().requestValue; ++i) {
        const auto entry = call.get<DiscardEntry>(sizeof(_ioctlCmd) + i * sizeof(DiscardEntry));
        EXPECT_EQ(entry.majorNum, 7u);
        EXPECT_EQ(entry.flag, 0u);
        minors.push_back(entry.minorNum);
      }
    }
    return minors;
  }
  std::vector<unsigned int> bothVolumes() const { return {first.loop().minor(), second.loop().minor()}; }

  test::Volume first{"ext4", 16 << 20};
  test::Volume second{"ext4", 16 << 20};
  test::FinishedSet set;
  _SSGUIDPLAIN firstId{};
  _SSGUIDPLAIN secondId{};
};

}  // namespace

TEST_F(Deletion, is_legal_only_when_the_job_is_done_and_succeeded) {
  for (const SnapshotState state :
       {StateUninitialized, StateSnapshotSetInProgress, StateSnapshotSetUnDone, StateSnapshotSetStarted}) {
    set->mState = state;
    set->mSnapResult = 0;
    EXPECT_EQ(set->DeleteSnapshots(set.id(), USC_OBJECT_SNAPSHOT_SET), USC_E_BAD_STATE);
    EXPECT_EQ(set->DeleteSnapshots(firstId, USC_OBJECT_SNAPSHOT), USC_E_BAD_STATE);
    EXPECT_EQ(set->DeleteSnapshots(firstId, static_cast<_USC_OBJECT_TYPE>(2)), USC_E_BAD_STATE);
  }
  set.finish(11);
  EXPECT_EQ(set->DeleteSnapshots(set.id(), USC_OBJECT_SNAPSHOT_SET), USC_E_BAD_STATE);
  EXPECT_EQ(set->DeleteSnapshots(firstId, USC_OBJECT_SNAPSHOT), USC_E_BAD_STATE);
  EXPECT_TRUE(discarded().empty());
}

TEST_F(Deletion, without_a_set_or_its_identifier_is_a_bad_state) {
  MirelSnapshotEngine fresh;
  MirelSnapshotEngine nameless;
  nameless.mSnapshotSetParams = MirelSnapshotSetParams::CreateSnapshotSetParams({});
  for (MirelSnapshotEngine* engine : {&fresh, &nameless}) {
    engine->mSnapResult = 0;
    engine->mState = StateSnapshotSetDone;
    EXPECT_EQ(engine->DeleteSnapshots({}, USC_OBJECT_SNAPSHOT_SET), USC_E_BAD_STATE);
    EXPECT_EQ(engine->DeleteSnapshots({}, USC_OBJECT_SNAPSHOT), USC_E_BAD_STATE);
    EXPECT_EQ(engine->DeleteSnapshots({}, static_cast<_USC_OBJECT_TYPE>(2)), USC_E_BAD_STATE);
    engine->mState = StateUninitialized;
  }
}

TEST_F(Deletion, looks_at_the_job_under_the_engines_lock) {
  set->mState = StateSnapshotSetInProgress;
  EXPECT_EQ(test::askedUnderLock([&] { return set->DeleteSnapshots(set.id(), static_cast<_USC_OBJECT_TYPE>(2)); },
                                 [&] {
                                   set->mState = StateSnapshotSetDone;
                                   set->mSnapResult = 0;
                                 }),
            E_INVALIDARG);
  set->mState = StateSnapshotSetStarted;
}

TEST_F(Deletion, another_type_is_an_invalid_argument) {
  set.finish();
  EXPECT_EQ(set->DeleteSnapshots(set.id(), static_cast<_USC_OBJECT_TYPE>(2)), E_INVALIDARG);
  EXPECT_EQ(set->DeleteSnapshots(firstId, static_cast<_USC_OBJECT_TYPE>(-1)), E_INVALIDARG);
}

TEST_F(Deletion, a_set_is_deleted_by_its_own_identifier_only) {
  set.finish();
  EXPECT_EQ(set->DeleteSnapshots(firstId, USC_OBJECT_SNAPSHOT_SET), USC_E_OBJECT_NOT_FOUND);
  EXPECT_EQ(set->DeleteSnapshots({}, USC_OBJECT_SNAPSHOT_SET), USC_E_OBJECT_NOT_FOUND);
  EXPECT_TRUE(discarded().empty());
  EXPECT_EQ(volumeCount(), 2u);
}

TEST_F(Deletion, a_set_is_discarded_in_order_and_forgotten_and_the_next_one_may_start) {
  set.finish();
  ASSERT_NE(MirelSnapshotEngine::sSnapshotSetParamsArray.GetSnapshotSetCount(), 0u);
  EXPECT_EQ(set->DeleteSnapshots(set.id(), USC_OBJECT_SNAPSHOT_SET), S_OK);
  EXPECT_EQ(discarded(), bothVolumes());
  EXPECT_EQ(set->mUnSnapResult, 0u);
  EXPECT_EQ(set->mSnapshotSetParams, nullptr);
  EXPECT_EQ(set->mThreadParams, nullptr);
  EXPECT_EQ(set->mState, StateSnapshotSetUnDone);
  EXPECT_EQ(MirelSnapshotEngine::sSnapshotSetParamsArray.GetSnapshotSetCount(), 0u);
  MirelSnapshotEngine next;
  _SSGUIDPLAIN id{};
  EXPECT_EQ(next.StartSnapshotSet(&id), S_OK);
}

TEST_F(Deletion, a_set_stays_listed_and_in_progress_until_the_driver_has_discarded_it) {
  set.finish();
  bool whole = false;
  set.driver().on(IOC_SNAP_DISCARD, [&](std::byte*, std::size_t) {
    whole = test::lockIsFree() && set->mState == StateSnapshotSetDone &&
            UnixInterfaces::IsEqualGUID(MirelSnapshotEngine::sUUID, set.id()) &&
            MirelSnapshotEngine::sSnapshotSetParamsArray.GetVolumeCountInSnapshotSet(set.id()) == 2;
    return 0;
  });
  EXPECT_EQ(set->DeleteSnapshots(set.id(), USC_OBJECT_SNAPSHOT_SET), S_OK);
  EXPECT_TRUE(whole);
}

TEST_F(Deletion, a_deleted_set_cannot_be_deleted_again) {
  set.finish();
  ASSERT_EQ(set->DeleteSnapshots(set.id(), USC_OBJECT_SNAPSHOT_SET), S_OK);
  EXPECT_EQ(set->DeleteSnapshots(set.id(), USC_OBJECT_SNAPSHOT_SET), USC_E_BAD_STATE);
}

TEST_F(Deletion, a_set_that_is_not_the_first_listed_is_discarded_but_stays_listed) {
  auto& listed = MirelSnapshotEngine::sSnapshotSetParamsArray;
  constexpr _SSGUIDPLAIN kEarlier = {9, 9, 9, {9}};
  MirelSnapshotSetParams* const earlier = MirelSnapshotSetParams::CreateSnapshotSetParams(kEarlier);
  ASSERT_TRUE(listed.Add(earlier));
  earlier->Done();
  set.finish();
  EXPECT_EQ(set->DeleteSnapshots(set.id(), USC_OBJECT_SNAPSHOT_SET), S_OK);
  EXPECT_EQ(discarded(), bothVolumes());
  EXPECT_EQ(listed.GetSnapshotSetCount(), 2u);
  {
    MirelSnapshotEngine next;
    _SSGUIDPLAIN id{};
    ASSERT_EQ(next.StartSnapshotSet(&id), S_OK);
    EXPECT_EQ(next.AddToSnapshotSet(first.wdevice().c_str(), first.wfolder().c_str(), &id),
              USC_E_OBJECT_ALREADY_EXISTS);
  }
  EXPECT_TRUE(listed.RemoveSnapshotSet(kEarlier));
}

TEST_F(Deletion, the_drivers_refusal_is_kept_but_not_reported) {
  set.finish();
  set.driver().fail(IOC_SNAP_DISCARD, EINVAL, -5);
  EXPECT_EQ(set->DeleteSnapshots(set.id(), USC_OBJECT_SNAPSHOT_SET), S_OK);
  EXPECT_EQ(set->mUnSnapResult, 14u);
  EXPECT_EQ(set->mState, StateSnapshotSetUnDone);
  EXPECT_EQ(set->mSnapshotSetParams, nullptr);
}

TEST_F(Deletion, a_single_snapshot_leaves_the_list_but_its_volume_stays_snapped) {
  set.finish();
  EXPECT_EQ(set->DeleteSnapshots(firstId, USC_OBJECT_SNAPSHOT), S_OK);
  EXPECT_EQ(volumeCount(), 1u);
  _SSGUIDPLAIN left{};
  EXPECT_EQ(set->GetVolumeSnapshotGUID(0, &left), S_OK);
  EXPECT_TRUE(UnixInterfaces::IsEqualGUID(left, secondId));
  UnixSnapshotCoordinator::_USC_SNAPSHOT_PROP props{};
  EXPECT_EQ(set->GetSnapshotProperties(secondId, &props), S_OK);
  EXPECT_EQ(props.SnapshotsCount, 1);
  UnixSnapshotCoordinator::UscFreeSnapshotProperties(&props);
  EXPECT_TRUE(discarded().empty());
  EXPECT_EQ(set->mState, StateSnapshotSetDone);
  EXPECT_EQ(set->DeleteSnapshots(firstId, USC_OBJECT_SNAPSHOT), USC_E_OBJECT_NOT_FOUND);
}

TEST_F(Deletion, a_volume_that_left_the_list_is_discarded_with_its_set) {
  set.finish();
  ASSERT_EQ(set->DeleteSnapshots(firstId, USC_OBJECT_SNAPSHOT), S_OK);
  EXPECT_EQ(set->DeleteSnapshots(set.id(), USC_OBJECT_SNAPSHOT_SET), S_OK);
  EXPECT_EQ(discarded(), bothVolumes());
}

TEST_F(Deletion, the_sets_identifier_is_no_snapshot) {
  set.finish();
  EXPECT_EQ(set->DeleteSnapshots(set.id(), USC_OBJECT_SNAPSHOT), USC_E_OBJECT_NOT_FOUND);
  EXPECT_EQ(set->DeleteSnapshots(kUnknown, USC_OBJECT_SNAPSHOT), USC_E_OBJECT_NOT_FOUND);
  EXPECT_EQ(volumeCount(), 2u);
}

TEST_F(Deletion, what_is_still_mounted_under_the_base_is_swept_after_the_discard) {
  const test::TempDir dir;
  set.finish();
  ASSERT_EQ(set->SetOption({}, L"MountPointBase", wide(dir / "base").c_str()), S_OK);
  mountTmpfs(dir / "base");
  mountTmpfs(dir / "base/a");
  bool mountedAtDiscard = false;
  set.driver().on(IOC_SNAP_DISCARD, [&](std::byte*, std::size_t) {
    mountedAtDiscard = exists(dir / "base/a");
    return 0;
  });
  EXPECT_EQ(set->DeleteSnapshots(set.id(), USC_OBJECT_SNAPSHOT_SET), S_OK);
  EXPECT_TRUE(mountedAtDiscard);
  EXPECT_FALSE(exists(dir / "base"));
}

TEST_F(Deletion, of_an_exposed_set_unmounts_it_and_a_later_unexposure_finds_it_gone) {
  const test::TempDir dir;
  const std::string base = dir / "base";
  std::filesystem::create_directories(first.folder() + first.folder());
  const test::SnapshotDevice snapshot(first);
  ASSERT_EQ(set->DeleteSnapshots(secondId, USC_OBJECT_SNAPSHOT), USC_E_BAD_STATE);
  ASSERT_TRUE(set->mSnapshotSetParams->RemoveAt(1));
  ASSERT_EQ(set->mSnapshotSetParams->Add(firstId, first.wdevice().c_str(), L"/"), 2u);
  {
    const GetDoneWrapper<MirelSnapshotVolumeParams> params(set->mSnapshotSetParams->GetFor(firstId));
    params->GetSnapVolumeName() = snapshot.wpath();
  }
  set.finish();
  ASSERT_EQ(set->ExposeSnapshotsInSnapshotSet(wide(base).c_str()), S_OK);
  test::EngineLog log;
  EXPECT_EQ(set->DeleteSnapshots(set.id(), USC_OBJECT_SNAPSHOT_SET), S_OK);
  EXPECT_FALSE(exists(base));
  // The folder inside the snapshot is on a read-only file system: it is unmounted but cannot be removed.
  EXPECT_TRUE(log.has(L"DismountAndDeleteDirectory: 0  : Failed to remove directory '" + wide(base + first.folder()) +
                      L"', Error: 30, {Read-only file system}"));
  EXPECT_TRUE(log.has(L"DismountAndDeleteDirectory: 1  : Successfully deleted '" + wide(base) + L"'"));
  EXPECT_EQ(set->UnExposeSnapshotsInSnapshotSet(), E_UNEXPECTED);
  EXPECT_TRUE(set->mMountPointQueue.empty());
  int exposed = 7;
  EXPECT_EQ(set->IsSnapshotExposed(firstId, &exposed), USC_E_OBJECT_NOT_FOUND);
}

TEST_F(Deletion, without_a_base_nothing_is_swept) {
  test::EngineLog log;
  set.finish();
  EXPECT_EQ(set->DeleteSnapshots(set.id(), USC_OBJECT_SNAPSHOT_SET), S_OK);
  for (const std::wstring& line : log.lines())
    EXPECT_EQ(line.find(L"DismountAndDelete"), std::wstring::npos) << line.c_str();
}

TEST(DeletionShortOfMemory, deletes_the_set_or_leaves_it_to_a_second_call) {
  const test::TempDir dir;
  const std::string folder = dir / "a";
  const test::Volume volume("ext4", 16 << 20);
  std::map<int, unsigned int> results;
  for (std::size_t n = 0;; ++n) {
    ASSERT_LT(n, 1000u);
    test::FinishedSet set;
    set.add(volume.device(), volume.folder(), "/dev/snap7_100");
    set.finish();
    ASSERT_EQ(set->SetOption({}, L"MountPointBase", wide(dir.path()).c_str()), S_OK);
    if (!exists(folder)) mountTmpfs(folder);
    int result;
    bool failed;
    {
      const test::FailingAllocation noMemory(n);
      result = set->DeleteSnapshots(set.id(), USC_OBJECT_SNAPSHOT_SET);
      failed = noMemory.failed();
    }
    ++results[result];
    if (result == E_OUTOFMEMORY) {
      EXPECT_TRUE(exists(folder)) << n;
      EXPECT_EQ(set->mState, StateSnapshotSetDone) << n;
      EXPECT_EQ(set->DeleteSnapshots(set.id(), USC_OBJECT_SNAPSHOT_SET), S_OK) << n;
      EXPECT_FALSE(exists(folder)) << n;
    }
    EXPECT_FALSE(set.driver().calls(IOC_SNAP_DISCARD).empty() && set->mUnSnapResult == 0) << n;
    EXPECT_EQ(set->mState, StateSnapshotSetUnDone) << n;
    EXPECT_EQ(set->mSnapshotSetParams, nullptr) << n;
    EXPECT_EQ(set->mThreadParams, nullptr) << n;
    EXPECT_EQ(MirelSnapshotEngine::sSnapshotSetParamsArray.GetSnapshotSetCount(), 0u) << n;
    if (!failed) break;
  }
  EXPECT_FALSE(exists(folder));
  EXPECT_GT(results[E_OUTOFMEMORY], 0u);
  EXPECT_GT(results[S_OK], 1u);  // without memory for the sweep the set goes all the same
  EXPECT_EQ(results.size(), 2u);
}

TEST(DeletionShortOfMemory, a_single_snapshot_is_dropped_without_any) {
  const test::Volume volume("ext4", 16 << 20);
  test::FinishedSet set;
  const _SSGUIDPLAIN id = set.add(volume.device(), volume.folder(), "/dev/snap7_100");
  set.finish();
  const test::FailingAllocation noMemory(0);
  EXPECT_EQ(set->DeleteSnapshots(id, USC_OBJECT_SNAPSHOT), S_OK);
  EXPECT_FALSE(noMemory.failed());
}

TEST(DeletionForgotten, leaves_the_set_listed_and_its_volume_taken_when_the_engine_is_gone) {
  auto& listed = MirelSnapshotEngine::sSnapshotSetParamsArray;
  const test::Volume volume("ext4", 16 << 20);
  const test::ScriptedDriver driver;
  _SSGUIDPLAIN setId{};
  _SSGUIDPLAIN id{};
  {
    MirelSnapshotEngine engine;
    ASSERT_EQ(engine.StartSnapshotSet(&setId), S_OK);
    ASSERT_EQ(engine.AddToSnapshotSet(volume.wdevice().c_str(), volume.wfolder().c_str(), &id), S_OK);
    ASSERT_TRUE(listed.Add(engine.mSnapshotSetParams));
    engine.mSnapResult = 0;
    engine.mState = StateSnapshotSetDone;
  }
  EXPECT_EQ(listed.GetVolumeCountInSnapshotSet(setId), 1u);
  {
    MirelSnapshotEngine next;
    _SSGUIDPLAIN nextId{};
    ASSERT_EQ(next.StartSnapshotSet(&nextId), S_OK);
    EXPECT_EQ(next.AddToSnapshotSet(volume.wdevice().c_str(), volume.wfolder().c_str(), &id),
              USC_E_OBJECT_ALREADY_EXISTS);
  }
  EXPECT_TRUE(listed.RemoveSnapshotSet(setId));
}

// --- Reconciliation

class Reconciliation : public testing::Test {
 protected:
  test::TempDir dir;
  test::ScriptedDriver driver;
  MirelSnapshotEngine engine;
};

TEST_F(Reconciliation, asks_the_driver_and_needs_neither_a_set_nor_a_base) {
  test::EngineLog log;
  EXPECT_EQ(engine.DoReconcile(nullptr), S_OK);
  EXPECT_TRUE(log.lines().empty());
  EXPECT_EQ(driver.calls(IOC_VERIFY_AND_CLEAN_VOLUMES).size(), 1u);
}

TEST_F(Reconciliation, without_a_driver_is_unexpected_and_sweeps_nothing) {
  mountTmpfs(dir / "a");
  SnapDriverInterface* const taken = engine.mDriver;
  engine.mDriver = nullptr;
  EXPECT_EQ(engine.DoReconcile(wide(dir.path()).c_str()), E_UNEXPECTED);
  engine.mDriver = taken;
  EXPECT_EQ(test::unmount(dir / "a"), 0);
}

TEST_F(Reconciliation, a_failure_of_the_drivers_is_answered_and_the_base_is_swept_all_the_same) {
  driver.fail(IOC_GET_NUM_OF_SNAPPED_VOLUMES, EIO);
  mountTmpfs(dir / "a");
  EXPECT_EQ(engine.DoReconcile(nullptr), E_FAIL);
  EXPECT_TRUE(exists(dir / "a"));
  EXPECT_EQ(engine.DoReconcile(wide(dir.path()).c_str()), E_FAIL);
  EXPECT_FALSE(exists(dir / "a"));
}

TEST_F(Reconciliation, asks_the_driver_before_it_sweeps_and_without_the_engines_lock) {
  mountTmpfs(dir / "a");
  bool mounted = false;
  bool lockIsFree = false;
  driver.on(IOC_VERIFY_AND_CLEAN_VOLUMES, [&](std::byte*, std::size_t) {
    mounted = exists(dir / "a");
    lockIsFree = test::lockIsFree();
    return 0;
  });
  EXPECT_EQ(engine.DoReconcile(wide(dir.path()).c_str()), S_OK);
  EXPECT_TRUE(mounted);
  EXPECT_TRUE(lockIsFree);
  EXPECT_FALSE(exists(dir / "a"));
}

TEST_F(Reconciliation, sweeps_the_base_deepest_first) {
  mountTmpfs(dir / "base");
  mountTmpfs(dir / "base/home");
  EXPECT_EQ(engine.DoReconcile(wide(dir / "base").c_str()), S_OK);
  EXPECT_FALSE(exists(dir / "base"));
}

TEST_F(Reconciliation, an_unusable_base_is_told_and_does_not_change_the_result) {
  for (const wchar_t* base : {L"", L"relative/path"}) {
    test::EngineLog log;
    EXPECT_EQ(engine.DoReconcile(base), S_OK);
    EXPECT_TRUE(
        log.has(std::wstring(L"DoReconcile: UnixUtils::ValidatePathAndConvertToANSI( ") + base + L" ) returned NULL!"));
  }
}

TEST_F(Reconciliation, a_base_that_is_not_there_is_no_failure) { EXPECT_EQ(engine.DoReconcile(L"/mnt/nowhere"), S_OK); }

TEST_F(Reconciliation, a_shortage_of_memory_is_a_failure_of_the_drivers) {
  const std::wstring base = L"/mnt/nowhere";
  bool someFailed = false;
  test::failEveryAllocation(
      [&] {
        const int result = engine.DoReconcile(base.c_str());
        EXPECT_TRUE(result == S_OK || result == E_FAIL) << result;
        someFailed |= result == E_FAIL;
      },
      [](std::size_t) {});
  EXPECT_TRUE(someFailed);
}
