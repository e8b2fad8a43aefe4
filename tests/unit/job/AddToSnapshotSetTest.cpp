// SPDX-License-Identifier: Apache-2.0
#include "Interposed.h"
#include "JobTest.h"
#include "engine/GetDoneWrapper.h"
#include "interpose/Allocations.h"

namespace test {
namespace {

using Lines = std::vector<std::wstring>;

bool same(const _SSGUIDPLAIN& a, const _SSGUIDPLAIN& b) { return UnixInterfaces::IsEqualGUID(a, b); }

class AddToSnapshotSet : public JobTest {
 protected:
  Volume volume{"ext4", 16 << 20};
  _SSGUIDPLAIN id{};
};

TEST_F(AddToSnapshotSet, writes_a_new_identifier_and_adds_the_volume) {
  const Engine engine;
  engine.start();
  log.clear();
  EXPECT_EQ(engine->AddToSnapshotSet(volume.wdevice().c_str(), volume.wfolder().c_str(), &id), S_OK);
  EXPECT_FALSE(UnixInterfaces::InlineIsNULLGUID(id));
  EXPECT_EQ(engine->mSnapshotSetParams->GetVolumeCount(), 1u);
  const GetDoneWrapper<MirelSnapshotVolumeParams> added(engine->mSnapshotSetParams->GetFor(id));
  ASSERT_FALSE(!added);
  EXPECT_EQ(added->GetOriginalVolumeName(), volume.wdevice());
  EXPECT_EQ(added->GetOriginalMountPoint(0), volume.wfolder());
  EXPECT_TRUE(log.lines().empty());
}

TEST_F(AddToSnapshotSet, the_same_volume_under_two_mount_points_is_one_volume) {
  const TempDir folder;
  const Mounted again(volume.device(), folder.path(), "ext4");
  const Engine engine;
  engine.start();
  _SSGUIDPLAIN second{};
  EXPECT_EQ(engine->AddToSnapshotSet(volume.wdevice().c_str(), volume.wfolder().c_str(), &id), S_OK);
  EXPECT_EQ(engine->AddToSnapshotSet(volume.wdevice().c_str(), wide(folder.path()).c_str(), &second), S_OK);
  EXPECT_TRUE(same(id, second));
  EXPECT_EQ(engine->mSnapshotSetParams->GetVolumeCount(), 1u);
  const GetDoneWrapper<MirelSnapshotVolumeParams> added(engine->mSnapshotSetParams->GetAt(0));
  EXPECT_EQ(added->GetMountPointCount(), 2u);
}

TEST_F(AddToSnapshotSet, two_volumes_have_two_identifiers) {
  const Volume other("ext4", 16 << 20);
  const Engine engine;
  engine.start();
  EXPECT_FALSE(same(engine.add(volume), engine.add(other)));
  EXPECT_EQ(engine->mSnapshotSetParams->GetVolumeCount(), 2u);
}

TEST_F(AddToSnapshotSet, without_a_set_is_a_bad_state) {
  const Engine engine;
  EXPECT_EQ(engine->AddToSnapshotSet(volume.wdevice().c_str(), volume.wfolder().c_str(), &id), USC_E_BAD_STATE);
  EXPECT_TRUE(
      log.has(L"AddToSnapshotSet: ERROR: ISNULL( mSnapshotSetParams )   ||  UnixInterfaces::InlineIsNULLGUID( "
              L"mSnapshotSetParams->GetSnapshotSetGUID() ), returning USC_E_BAD_STATE"));
}

TEST_F(AddToSnapshotSet, a_set_without_an_identifier_is_a_bad_state) {
  const Engine engine;
  engine->mSnapshotSetParams = MirelSnapshotSetParams::CreateSnapshotSetParams({});
  engine->mState = StateSnapshotSetStarted;
  EXPECT_EQ(engine->AddToSnapshotSet(nullptr, nullptr, nullptr), USC_E_BAD_STATE);
  EXPECT_TRUE(
      log.has(L"AddToSnapshotSet: ERROR: ISNULL( mSnapshotSetParams )   ||  UnixInterfaces::InlineIsNULLGUID( "
              L"mSnapshotSetParams->GetSnapshotSetGUID() ), returning USC_E_BAD_STATE"));
}

TEST_F(AddToSnapshotSet, is_legal_only_while_the_set_is_open) {
  const Engine engine;
  engine.start();
  for (const SnapshotState state :
       {StateUninitialized, StateSnapshotSetInProgress, StateSnapshotSetDone, StateSnapshotSetUnDone}) {
    engine->mState = state;
    log.clear();
    EXPECT_EQ(engine->AddToSnapshotSet(nullptr, nullptr, nullptr), USC_E_BAD_STATE);
    const std::string text = SnapshotStateAsString(state);
    EXPECT_EQ(log.lines(), (Lines{L"AddToSnapshotSet: ERROR: Bad state of state machine: " + wide(text) +
                                  L", Expected: StateSnapshotSetStarted, returning USC_E_BAD_STATE"}));
  }
  engine->mState = StateSnapshotSetStarted;
}

TEST_F(AddToSnapshotSet, a_null_volume_is_E_INVALIDARG) {
  const Engine engine;
  engine.start();
  log.clear();
  EXPECT_EQ(engine->AddToSnapshotSet(nullptr, volume.wfolder().c_str(), nullptr), E_INVALIDARG);
  EXPECT_EQ(log.lines(), (Lines{L"AddToSnapshotSet: ERROR: NULL cwstrVolumeName, returning E_INVALIDARG"}));
}

// Supports nothing.
class Unsupporting : public MirelSnapshotEngine {
 public:
  int IsVolumeSupported(const wchar_t*, int* supported) override {
    *supported = 0;
    return S_OK;
  }
};

TEST_F(AddToSnapshotSet, a_volume_of_a_set_taken_in_this_process_is_already_there) {
  _SSGUIDPLAIN taken{};
  {
    Engine first;
    taken = first.start();
    first.addWithRelocation(volume);
    Job job(first);
    awaitEnd(first, job);
    ASSERT_EQ(outcome(job).second, 0);
  }
  const Engine engine;
  engine.start();
  log.clear();
  // Told before the null output is.
  EXPECT_EQ(engine->AddToSnapshotSet(volume.wdevice().c_str(), volume.wfolder().c_str(), nullptr),
            USC_E_OBJECT_ALREADY_EXISTS);
  EXPECT_EQ(log.lines(), (Lines{L"AddToSnapshotSet: ERROR: Volume " + volume.wdevice() +
                                L" already being snapped, returning USC_E_OBJECT_ALREADY_EXISTS!!!"}));
  // And before it is asked whether the volume is supported.
  auto* const unsupporting = new Unsupporting;
  unsupporting->mState = StateSnapshotSetStarted;
  unsupporting->mSnapshotSetParams = MirelSnapshotSetParams::CreateSnapshotSetParams({1, 2, 3, {}});
  EXPECT_EQ(unsupporting->AddToSnapshotSet(volume.wdevice().c_str(), volume.wfolder().c_str(), &id),
            USC_E_OBJECT_ALREADY_EXISTS);
  unsupporting->mState = StateUninitialized;
  unsupporting->Release();
  // The reference of the look-up was given back: without the list's set the test's own is the last one.
  MirelSnapshotVolumeParams* found = MirelSnapshotEngine::sSnapshotSetParamsArray.FindVolume(volume.wdevice().c_str());
  ASSERT_NE(found, nullptr);
  forget(taken);
  EXPECT_TRUE(found->Done());
}

TEST_F(AddToSnapshotSet, a_volume_that_cannot_be_snapped_is_told_before_the_null_output) {
  const TempDir folder;
  const std::string file = folder / "file";
  writeFile(file, "no block device");
  const Engine engine;
  engine.start();
  for (const std::string& name : {file, folder / "missing", std::string("/dev/null")}) {
    log.clear();
    EXPECT_EQ(engine->AddToSnapshotSet(wide(name).c_str(), volume.wfolder().c_str(), nullptr),
              USC_E_VOLUME_NOT_SUPPORTED);
    EXPECT_EQ(log.lines(), (Lines{L"AddToSnapshotSet: ERROR: Volume " + wide(name) +
                                  L" is not supported, returning USC_E_VOLUME_NOT_SUPPORTED!!!"}));
  }
}

// Says that it supports everything, and fails to say so.
class FailingSupport : public MirelSnapshotEngine {
 public:
  int IsVolumeSupported(const wchar_t*, int* supported) override {
    *supported = 1;
    return E_OUTOFMEMORY;
  }
};

TEST_F(AddToSnapshotSet, an_engine_that_cannot_tell_counts_as_not_supported) {
  auto* const engine = new FailingSupport;
  ASSERT_EQ(engine->StartSnapshotSet(&id), S_OK);
  EXPECT_EQ(engine->AddToSnapshotSet(volume.wdevice().c_str(), volume.wfolder().c_str(), &id),
            USC_E_VOLUME_NOT_SUPPORTED);
  engine->Release();
}

TEST_F(AddToSnapshotSet, a_null_output_is_E_POINTER) {
  const Engine engine;
  engine.start();
  log.clear();
  EXPECT_EQ(engine->AddToSnapshotSet(volume.wdevice().c_str(), volume.wfolder().c_str(), nullptr), E_POINTER);
  EXPECT_EQ(log.lines(), (Lines{L"AddToSnapshotSet: ERROR: ptrGuidSnapshotID is NULL, returning E_POINTER!!!"}));
  EXPECT_EQ(engine->mSnapshotSetParams->GetVolumeCount(), 0u);
}

TEST_F(AddToSnapshotSet, a_volume_that_the_set_refuses_is_E_OUTOFMEMORY) {
  const Engine engine;
  engine.start();
  const std::wstring text =
      L"AddToSnapshotSet: Volume " + volume.wdevice() + L" could not be added to the snapshotset params!!!";
  for (const wchar_t* mountPoint : {static_cast<const wchar_t*>(nullptr), L"/mnt/nothing/is/there"}) {
    log.clear();
    id = {};
    EXPECT_EQ(engine->AddToSnapshotSet(volume.wdevice().c_str(), mountPoint, &id), E_OUTOFMEMORY);
    EXPECT_EQ(log.lines(), (Lines{text}));
    EXPECT_FALSE(UnixInterfaces::InlineIsNULLGUID(id));  // written before the volume is added
  }
  EXPECT_EQ(engine->mSnapshotSetParams->GetVolumeCount(), 0u);
}

TEST_F(AddToSnapshotSet, a_further_mount_point_that_is_refused_is_already_there) {
  const Engine engine;
  engine.start();
  const _SSGUIDPLAIN known = engine.add(volume);
  log.clear();
  EXPECT_EQ(engine->AddToSnapshotSet(volume.wdevice().c_str(), nullptr, &id), USC_E_OBJECT_ALREADY_EXISTS);
  EXPECT_EQ(
      log.lines(),
      (Lines{L"AddToSnapshotSet: Snapshot GUID already exists, unable to add " + volume.wdevice() + L" to set",
             L"AddToSnapshotSet: Volume " + volume.wdevice() + L" could not be added to the snapshotset params!!!"}));
  EXPECT_TRUE(same(id, known));
}

TEST_F(AddToSnapshotSet, no_shortage_of_memory_leaves_the_engine) {
  const std::wstring device = volume.wdevice();
  const std::wstring folder = volume.wfolder();
  for (std::size_t n = 0;; ++n) {
    const Engine engine;
    engine.start();
    int result = S_OK;
    bool failed = false;
    {
      const FailingAllocation failing(n);
      result = engine->AddToSnapshotSet(device.c_str(), folder.c_str(), &id);
      failed = failing.failed();
    }
    if (!failed) {
      EXPECT_EQ(result, S_OK);
      EXPECT_GT(n, 3u);
      break;
    }
    EXPECT_EQ(engine->mState, StateSnapshotSetStarted);
    // Some shortages are borne, most end the call; either way the set tells what the call told.
    EXPECT_TRUE(result == S_OK || result == E_OUTOFMEMORY) << std::hex << result;
    EXPECT_EQ(engine->mSnapshotSetParams->GetVolumeCount(), result == S_OK ? 1u : 0u) << n;
  }
}

}  // namespace
}  // namespace test
