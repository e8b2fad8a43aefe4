// SPDX-License-Identifier: Apache-2.0
//
// What the agent can ask about its set.
#include <gtest/gtest.h>

#include <cstring>

#include "FinishedSet.h"
#include "LoopVolume.h"
#include "engine/GetDoneWrapper.h"
#include "interpose/FailingCopies.h"

using namespace MirelSnapSnapshotCoordinator;
using UnixSnapshotCoordinator::_USC_SNAPSHOT_PROP;
using UnixSnapshotCoordinator::UscFreeSnapshotProperties;

namespace {

constexpr _SSGUIDPLAIN kUnknown = {1, 2, 3, {4}};

bool same(const _SSGUIDPLAIN& a, const _SSGUIDPLAIN& b) { return std::memcmp(&a, &b, sizeof a) == 0; }

// A record full of what an agent's stack may hold.
_USC_SNAPSHOT_PROP dirtyRecord() {
  _USC_SNAPSHOT_PROP props;
  std::memset(static_cast<void*>(&props), 0xAA, sizeof props);
  return props;
}

bool untouched(const _USC_SNAPSHOT_PROP& props) {
  const _USC_SNAPSHOT_PROP dirty = dirtyRecord();
  return std::memcmp(&props, &dirty, sizeof props) == 0;
}

// A set of two volumes; the first has two mount points.
class Properties : public testing::Test {
 protected:
  Properties() {
    firstId = set.add(first.device(), first.folder(), "/dev/snap7_100");
    secondId = set.add(second.device(), second.folder(), "/dev/snap7_101");
    set->mSnapshotSetParams->Add(firstId, first.wdevice().c_str(), L"/second/mount/point");
    const GetDoneWrapper<MirelSnapshotVolumeParams> params(set->mSnapshotSetParams->GetFor(firstId));
    params->SetRelocationFileName(L"/mnt/.verrelocarea/loop");
  }

  test::Volume first{"ext4", 16 << 20};
  test::Volume second{"ext4", 16 << 20};
  test::FinishedSet set;
  _SSGUIDPLAIN firstId{};
  _SSGUIDPLAIN secondId{};
};

// Engines whose set is missing or has no identifier.
class WithoutSet : public testing::Test {
 protected:
  WithoutSet() { nameless.mSnapshotSetParams = MirelSnapshotSetParams::CreateSnapshotSetParams({}); }

  test::ScriptedDriver driver;
  MirelSnapshotEngine fresh;
  MirelSnapshotEngine nameless;
};

}  // namespace

TEST_F(WithoutSet, every_query_is_a_bad_state_even_without_an_output) {
  for (MirelSnapshotEngine* engine : {&fresh, &nameless}) {
    EXPECT_EQ(engine->GetCountOfVolumesInSnapshotSet(nullptr), USC_E_BAD_STATE);
    EXPECT_EQ(engine->GetVolumeInSnapshotSet(0, nullptr), USC_E_BAD_STATE);
    EXPECT_EQ(engine->GetVolumeSnapshotGUID(0, nullptr), USC_E_BAD_STATE);
    EXPECT_EQ(engine->GetVolumeInSnapshotSetByGUID({}, nullptr), USC_E_BAD_STATE);
    EXPECT_EQ(engine->GetSnapshotProperties({}, nullptr), USC_E_BAD_STATE);
  }
}

TEST_F(WithoutSet, a_query_writes_nothing) {
  unsigned int count = 7;
  wchar_t* volume = nullptr;
  _SSGUIDPLAIN id = kUnknown;
  _USC_SNAPSHOT_PROP props = dirtyRecord();
  EXPECT_EQ(fresh.GetCountOfVolumesInSnapshotSet(&count), USC_E_BAD_STATE);
  EXPECT_EQ(fresh.GetVolumeInSnapshotSet(0, &volume), USC_E_BAD_STATE);
  EXPECT_EQ(fresh.GetVolumeSnapshotGUID(0, &id), USC_E_BAD_STATE);
  EXPECT_EQ(fresh.GetVolumeInSnapshotSetByGUID({}, &volume), USC_E_BAD_STATE);
  EXPECT_EQ(fresh.GetSnapshotProperties({}, &props), USC_E_BAD_STATE);
  EXPECT_EQ(count, 7u);
  EXPECT_EQ(volume, nullptr);
  EXPECT_TRUE(same(id, kUnknown));
  EXPECT_TRUE(untouched(props));
}

// --- Volumes

TEST_F(Properties, the_volumes_are_counted_in_any_state) {
  unsigned int count = 0;
  EXPECT_EQ(set->GetCountOfVolumesInSnapshotSet(&count), S_OK);
  EXPECT_EQ(count, 2u);
  EXPECT_EQ(set->GetCountOfVolumesInSnapshotSet(nullptr), E_POINTER);
  set.finish();
  count = 0;
  EXPECT_EQ(set->GetCountOfVolumesInSnapshotSet(&count), S_OK);
  EXPECT_EQ(count, 2u);
}

TEST_F(Properties, a_volume_is_named_as_it_was_added_by_the_engines_own_text) {
  wchar_t* name = nullptr;
  EXPECT_EQ(set->GetVolumeInSnapshotSet(0, &name), S_OK);
  EXPECT_EQ(std::wstring(name), first.wdevice());
  const wchar_t* again = name;
  EXPECT_EQ(set->GetVolumeInSnapshotSet(0, &name), S_OK);
  EXPECT_EQ(name, again);
  EXPECT_EQ(set->GetVolumeInSnapshotSet(1, &name), S_OK);
  EXPECT_EQ(std::wstring(name), second.wdevice());
}

TEST_F(Properties, an_index_out_of_range_is_an_invalid_argument_before_a_missing_output) {
  wchar_t* name = nullptr;
  EXPECT_EQ(set->GetVolumeInSnapshotSet(2, &name), E_INVALIDARG);
  EXPECT_EQ(set->GetVolumeInSnapshotSet(2, nullptr), E_INVALIDARG);
  EXPECT_EQ(set->GetVolumeInSnapshotSet(0xFFFFFFFF, nullptr), E_INVALIDARG);
  EXPECT_EQ(set->GetVolumeInSnapshotSet(1, nullptr), E_POINTER);
  EXPECT_EQ(name, nullptr);
}

TEST_F(Properties, a_snapshot_identifier_is_found_by_index) {
  _SSGUIDPLAIN id = {};
  EXPECT_EQ(set->GetVolumeSnapshotGUID(1, &id), S_OK);
  EXPECT_TRUE(same(id, secondId));
  EXPECT_EQ(set->GetVolumeSnapshotGUID(0, &id), S_OK);
  EXPECT_TRUE(same(id, firstId));
  EXPECT_EQ(set->GetVolumeSnapshotGUID(2, nullptr), E_INVALIDARG);
  EXPECT_EQ(set->GetVolumeSnapshotGUID(1, nullptr), E_POINTER);
}

TEST_F(Properties, a_volume_is_found_by_its_snapshot_when_the_output_was_set_before) {
  wchar_t something[] = L"something";
  wchar_t* name = something;
  EXPECT_EQ(set->GetVolumeInSnapshotSetByGUID(secondId, &name), S_OK);
  EXPECT_EQ(std::wstring(name), second.wdevice());
  wchar_t* engines = nullptr;
  EXPECT_EQ(set->GetVolumeInSnapshotSet(1, &engines), S_OK);
  EXPECT_EQ(name, engines);
}

TEST_F(Properties, an_output_pre_set_to_null_stays_null) {
  wchar_t* name = nullptr;
  EXPECT_EQ(set->GetVolumeInSnapshotSetByGUID(secondId, &name), S_OK);
  EXPECT_EQ(name, nullptr);
}

TEST_F(Properties, an_unknown_snapshot_is_not_found_before_a_missing_output) {
  wchar_t something[] = L"something";
  wchar_t* name = something;
  EXPECT_EQ(set->GetVolumeInSnapshotSetByGUID(kUnknown, &name), USC_E_OBJECT_NOT_FOUND);
  EXPECT_EQ(name, something);
  EXPECT_EQ(set->GetVolumeInSnapshotSetByGUID(kUnknown, nullptr), USC_E_OBJECT_NOT_FOUND);
  EXPECT_EQ(set->GetVolumeInSnapshotSetByGUID(secondId, nullptr), E_POINTER);
}

// --- The record

TEST_F(Properties, the_record_tells_everything_of_one_snapshot) {
  set.finish();
  _USC_SNAPSHOT_PROP props = dirtyRecord();
  ASSERT_EQ(set->GetSnapshotProperties(firstId, &props), S_OK);
  EXPECT_TRUE(same(props.SnapshotId, firstId));
  EXPECT_TRUE(same(props.SnapshotSetId, set.id()));
  EXPECT_EQ(props.SnapshotsCount, 2);
  EXPECT_EQ(std::wstring(props.SnapshotDeviceName), L"/dev/snap7_100");
  EXPECT_EQ(std::wstring(props.OriginalVolumeName), first.wdevice());
  ASSERT_EQ(props.MountPointCount, 2);
  EXPECT_EQ(std::wstring(props.MountPoints[0]), first.wfolder());
  EXPECT_EQ(std::wstring(props.MountPoints[1]), L"/second/mount/point");
  EXPECT_TRUE(same(props.ProviderId, {0x862B8DDD, 0x8146, 0x46A1, {0x98, 0x85, 0xEA, 0x7F, 0x74, 0xC1, 0x5B, 0xA7}}));
  EXPECT_EQ(props.CreationTimestamp, 0);
  EXPECT_EQ(props.SnapshotAttributes, 0u);
  EXPECT_EQ(std::wstring(props.RelocationFileName), L"/mnt/.verrelocarea/loop");
  UscFreeSnapshotProperties(&props);
}

TEST_F(Properties, the_records_texts_are_copies_that_outlive_the_set) {
  set.finish();
  _USC_SNAPSHOT_PROP props = {};
  ASSERT_EQ(set->GetSnapshotProperties(firstId, &props), S_OK);
  ASSERT_EQ(set->DeleteSnapshots(firstId, UnixSnapshotCoordinator::USC_OBJECT_SNAPSHOT), S_OK);
  EXPECT_EQ(std::wstring(props.OriginalVolumeName), first.wdevice());
  EXPECT_EQ(std::wstring(props.MountPoints[0]), first.wfolder());
  UscFreeSnapshotProperties(&props);
}

TEST_F(Properties, a_snapshot_without_a_relocation_file_has_no_name_for_it) {
  set.finish();
  _USC_SNAPSHOT_PROP props = dirtyRecord();
  ASSERT_EQ(set->GetSnapshotProperties(secondId, &props), S_OK);
  EXPECT_EQ(props.RelocationFileName, nullptr);
  EXPECT_EQ(props.MountPointCount, 1);
  UscFreeSnapshotProperties(&props);
}

TEST_F(Properties, a_missing_record_comes_before_the_state) {
  EXPECT_EQ(set->GetSnapshotProperties(firstId, nullptr), E_POINTER);
  set.finish();
  EXPECT_EQ(set->GetSnapshotProperties(kUnknown, nullptr), E_POINTER);
}

TEST_F(Properties, the_record_is_filled_only_when_the_job_is_done) {
  _USC_SNAPSHOT_PROP props = dirtyRecord();
  for (const SnapshotState state :
       {StateUninitialized, StateSnapshotSetInProgress, StateSnapshotSetUnDone, StateSnapshotSetStarted}) {
    set->mState = state;
    EXPECT_EQ(set->GetSnapshotProperties(firstId, &props), USC_E_BAD_STATE);
    EXPECT_EQ(set->GetSnapshotProperties(kUnknown, &props), USC_E_BAD_STATE);
  }
  EXPECT_TRUE(untouched(props));
}

TEST_F(Properties, the_record_waits_for_the_engines_lock_to_see_the_state) {
  set->mState = StateSnapshotSetInProgress;
  _USC_SNAPSHOT_PROP props = dirtyRecord();
  EXPECT_EQ(test::askedUnderLock([&] { return set->GetSnapshotProperties(kUnknown, &props); },
                                 [&] { set->mState = StateSnapshotSetDone; }),
            USC_E_OBJECT_NOT_FOUND);
  set->mState = StateSnapshotSetStarted;
}

TEST_F(Properties, a_snapshot_outside_the_set_is_not_found) {
  set.finish();
  _USC_SNAPSHOT_PROP props = dirtyRecord();
  EXPECT_EQ(set->GetSnapshotProperties(kUnknown, &props), USC_E_OBJECT_NOT_FOUND);
  EXPECT_TRUE(untouched(props));
}

TEST_F(Properties, a_failed_job_that_is_done_has_properties_too) {
  set.finish(20);
  _USC_SNAPSHOT_PROP props = {};
  EXPECT_EQ(set->GetSnapshotProperties(firstId, &props), S_OK);
  UscFreeSnapshotProperties(&props);
}

TEST_F(Properties, without_memory_for_the_array_the_texts_copied_so_far_stay_for_the_agent_to_free) {
  set.finish();
  _USC_SNAPSHOT_PROP props = dirtyRecord();
  {
    const test::FailingCopies noMemory(test::CopyCall::kCalloc);
    EXPECT_EQ(set->GetSnapshotProperties(firstId, &props), E_OUTOFMEMORY);
  }
  EXPECT_TRUE(same(props.SnapshotId, firstId));
  EXPECT_TRUE(same(props.SnapshotSetId, set.id()));
  EXPECT_EQ(props.SnapshotsCount, 2);
  EXPECT_EQ(std::wstring(props.SnapshotDeviceName), L"/dev/snap7_100");
  EXPECT_EQ(std::wstring(props.OriginalVolumeName), first.wdevice());
  EXPECT_EQ(props.MountPointCount, 2);
  EXPECT_EQ(props.MountPoints, nullptr);
  EXPECT_EQ(props.RelocationFileName, nullptr);
  UscFreeSnapshotProperties(&props);
}

TEST_F(Properties, without_memory_for_any_text_the_whole_record_is_freed) {
  set.finish();
  // Device, volume, two mount points, relocation file.
  for (int allowed = 0; allowed < 5; ++allowed) {
    _USC_SNAPSHOT_PROP props = dirtyRecord();
    const test::FailingCopies noMemory(test::CopyCall::kWcsdup, allowed);
    EXPECT_EQ(set->GetSnapshotProperties(firstId, &props), E_OUTOFMEMORY);
    EXPECT_EQ(props.SnapshotDeviceName, nullptr) << allowed;
    EXPECT_EQ(props.OriginalVolumeName, nullptr) << allowed;
    EXPECT_EQ(props.MountPoints, nullptr) << allowed;
    EXPECT_EQ(props.RelocationFileName, nullptr) << allowed;
  }
  _USC_SNAPSHOT_PROP props = {};
  const test::FailingCopies justEnough(test::CopyCall::kWcsdup, 5);
  EXPECT_EQ(set->GetSnapshotProperties(firstId, &props), S_OK);
  UscFreeSnapshotProperties(&props);
}
