// SPDX-License-Identifier: Apache-2.0
//
// Snapshots mounted under one base directory, and taken away again.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <map>

#include "EngineLog.h"
#include "FinishedSet.h"
#include "KernelTable.h"
#include "Locale.h"
#include "LoopVolume.h"
#include "OwnWorld.h"
#include "SnapshotDevice.h"
#include "SystemCalls.h"
#include "base/Handle.h"
#include "engine/GetDoneWrapper.h"
#include "interpose/Allocations.h"
#include "interpose/FailingCopies.h"
#include "interpose/FailingMalloc.h"

using namespace MirelSnapSnapshotCoordinator;
using test::wide;

namespace {

using Lines = std::vector<std::wstring>;
using Texts = std::vector<std::string>;

bool exists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }

std::size_t mountsUnder(const std::string& folder) {
  std::ifstream table(std::string(test::kRealProc) + "/self/mounts");
  std::size_t n = 0;
  for (std::string line; std::getline(table, line);) n += line.find(" " + folder) != std::string::npos;
  return n;
}

Texts targets(const test::SystemCalls& calls) {
  Texts all;
  for (const test::MountCall& call : calls.mounts) all.push_back(call.target);
  return all;
}

std::wstring unmounted(const std::string& target) {
  return L"UnExposeSnapshotsInSnapshotSet: umount( " + wide(target) + L" ) SUCCEEDED!";
}

// The lines that tell of unmounting.
Lines unmounts(test::EngineLog& log) {
  Lines all;
  for (const std::wstring& line : log.lines()) {
    if (line.find(L": umount( ") != std::wstring::npos) all.push_back(line);
  }
  return all;
}

// A set without volumes: its exposure is the base directory alone.
class EmptyExposure : public testing::Test {
 protected:
  std::wstring wbase() const { return wide(base); }

  test::TempDir dir;
  std::string base = dir / "base";
  test::FinishedSet set;
};

// A set of one ext4 volume that stands for the root file system too: its snapshot is mounted at the base, and once more
// inside itself. Depths: the base 3, the inner target 6.
class Exposure : public EmptyExposure {
 protected:
  Exposure() {
    std::filesystem::create_directories(volume.folder() + volume.folder());
    test::writeFile(volume.folder() + "/file", "then");
  }

  // Everything but the end of the job. What is to be in the snapshot must be in the volume by now.
  void addVolume() {
    snapshot = std::make_unique<test::SnapshotDevice>(volume);
    id = set.add(volume.device(), volume.folder(), snapshot->path());
    addMountPoint(L"/");
  }
  void addMountPoint(const wchar_t* mountPoint) {
    EXPECT_GT(set->mSnapshotSetParams->Add(id, volume.wdevice().c_str(), mountPoint), 0u);
  }
  void finish() {
    addVolume();
    set.finish();
  }
  std::string inner() const { return base + volume.folder(); }
  std::wstring recorded(unsigned int volumeIndex, unsigned int mountPoint) {
    const GetDoneWrapper<MirelSnapshotVolumeParams> params(set->mSnapshotSetParams->GetAt(volumeIndex));
    return params->GetSnapVolumeMountPoint(mountPoint);
  }
  int exposed() {
    int answer = -1;
    EXPECT_EQ(set->IsSnapshotExposed(id, &answer), S_OK);
    return answer;
  }
  void expectNothingLeft() {
    EXPECT_TRUE(set->mMountPointQueue.empty());
    EXPECT_EQ(mountsUnder(base), 0u);
    EXPECT_FALSE(exists(base));
  }

  test::Volume volume{"ext4", 16 << 20};
  std::unique_ptr<test::SnapshotDevice> snapshot;
  _SSGUIDPLAIN id{};
};

// Exposures while memory is short: either everything is there, or nothing is.
class ExposureShortOfMemory : public Exposure {
 protected:
  ExposureShortOfMemory() {
    std::filesystem::create_directories(volume.folder() + live.folder());
    EXPECT_EQ(set->AddToAlternateMountSet(wide(live.folder()).c_str()), S_OK);
    finish();
  }

  // Exposes once, the n-th allocation failing as `Failing` has it; whether it did.
  template <class Failing>
  bool exposeFailing(std::size_t n) {
    const std::wstring given = wbase();
    int result;
    bool failed;
    {
      const Failing noMemory(n);
      result = set->ExposeSnapshotsInSnapshotSet(given.c_str());
      failed = noMemory.failed();
    }
    ++results[result];
    if (result == S_OK) {
      EXPECT_EQ(mountsUnder(base), 3u) << n;
      EXPECT_EQ(set->UnExposeSnapshotsInSnapshotSet(), S_OK) << n;
    }
    expectNothingLeft();
    set->mMountPointBase.clear();
    return failed;
  }

  test::TempDir liveDir;
  test::Mounted live{"tests", liveDir.path(), "tmpfs"};
  std::map<int, unsigned int> results;
};

}  // namespace

// --- Which base, and when

TEST_F(EmptyExposure, is_legal_only_when_the_job_is_done) {
  for (const SnapshotState state : {StateUninitialized, StateSnapshotSetStarted, StateSnapshotSetInProgress}) {
    set->mState = state;
    EXPECT_EQ(set->ExposeSnapshotsInSnapshotSet(wbase().c_str()), USC_E_BAD_STATE);
    EXPECT_EQ(set->ExposeSnapshotsInSnapshotSet(nullptr), USC_E_BAD_STATE);
  }
  set->mState = StateSnapshotSetUnDone;
  EXPECT_EQ(set->ExposeSnapshotsInSnapshotSet(wbase().c_str()), USC_E_BAD_STATE);
  set->mState = StateSnapshotSetStarted;
  EXPECT_TRUE(set->mMountPointBase.empty());
  EXPECT_FALSE(exists(base));
}

TEST_F(EmptyExposure, without_a_set_is_a_bad_state) {
  MirelSnapshotEngine fresh;
  fresh.mState = StateSnapshotSetDone;
  EXPECT_EQ(fresh.ExposeSnapshotsInSnapshotSet(wbase().c_str()), USC_E_BAD_STATE);
  EXPECT_TRUE(fresh.mMountPointBase.empty());
  fresh.mState = StateUninitialized;
}

TEST_F(EmptyExposure, looks_at_the_state_under_the_engines_lock) {
  set->mState = StateSnapshotSetInProgress;
  EXPECT_EQ(test::askedUnderLock([&] { return set->ExposeSnapshotsInSnapshotSet(nullptr); },
                                 [&] { set->mState = StateSnapshotSetDone; }),
            E_INVALIDARG);
  set->mState = StateSnapshotSetStarted;
}

TEST_F(EmptyExposure, without_any_base_is_an_invalid_argument) {
  set.finish();
  EXPECT_EQ(set->ExposeSnapshotsInSnapshotSet(nullptr), E_INVALIDARG);
}

TEST_F(EmptyExposure, with_a_base_beside_the_option_is_an_invalid_argument) {
  set.finish();
  ASSERT_EQ(set->SetOption({}, L"MountPointBase", wbase().c_str()), S_OK);
  EXPECT_EQ(set->ExposeSnapshotsInSnapshotSet(wbase().c_str()), E_INVALIDARG);
  EXPECT_FALSE(exists(base));
}

TEST_F(EmptyExposure, a_given_base_becomes_the_engines) {
  set.finish();
  EXPECT_EQ(set->ExposeSnapshotsInSnapshotSet(wbase().c_str()), S_OK);
  EXPECT_EQ(set->mMountPointBase, base);
  EXPECT_EQ(set->ExposeSnapshotsInSnapshotSet(wbase().c_str()), E_INVALIDARG);
}

TEST_F(EmptyExposure, a_base_that_the_locale_cannot_narrow_is_out_of_memory_and_not_kept) {
  set.finish();
  EXPECT_EQ(set->ExposeSnapshotsInSnapshotSet(L"/mnt/\x00e9"), E_OUTOFMEMORY);
  EXPECT_TRUE(set->mMountPointBase.empty());
}

TEST_F(EmptyExposure, with_a_base_beside_the_option_it_does_not_matter_whether_the_locale_can_narrow_it) {
  set.finish();
  ASSERT_EQ(set->SetOption({}, L"MountPointBase", wbase().c_str()), S_OK);
  EXPECT_EQ(set->ExposeSnapshotsInSnapshotSet(L"/mnt/\x00e9"), E_INVALIDARG);
  EXPECT_EQ(set->mMountPointBase, base);
}

TEST_F(EmptyExposure, the_base_is_made_for_owner_and_group) {
  set.finish();
  const mode_t before = umask(0);
  EXPECT_EQ(set->ExposeSnapshotsInSnapshotSet(wbase().c_str()), S_OK);
  umask(before);
  struct stat status {};
  ASSERT_EQ(stat(base.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode, static_cast<mode_t>(S_IFDIR | 0770));
}

TEST_F(EmptyExposure, with_nothing_mounted_unexposure_succeeds_and_leaves_the_base_alone) {
  set.finish();
  ASSERT_EQ(set->ExposeSnapshotsInSnapshotSet(wbase().c_str()), S_OK);
  EXPECT_EQ(set->UnExposeSnapshotsInSnapshotSet(), S_OK);
  EXPECT_TRUE(exists(base));
}

TEST_F(EmptyExposure, unexposure_is_legal_in_every_state_and_without_a_set) {
  for (const SnapshotState state : {StateUninitialized, StateSnapshotSetInProgress, StateSnapshotSetDone,
                                    StateSnapshotSetUnDone, StateSnapshotSetStarted}) {
    set->mState = state;
    EXPECT_EQ(set->UnExposeSnapshotsInSnapshotSet(), S_OK);
  }
  MirelSnapshotEngine fresh;
  EXPECT_EQ(fresh.UnExposeSnapshotsInSnapshotSet(), S_OK);
}

TEST_F(EmptyExposure, unexposure_without_a_set_works_through_the_queue_and_removes_the_base) {
  MirelSnapshotEngine engine;
  engine.mMountPointBase = base;
  std::filesystem::create_directory(base);
  ASSERT_EQ(mount("tests", base.c_str(), "tmpfs", 0, nullptr), 0);
  ASSERT_EQ(engine.InsertIntoInternalShallowFirstSortedQueue(base.c_str(), "tests", "tmpfs", 0, 0), 0);
  EXPECT_EQ(engine.UnExposeSnapshotsInSnapshotSet(), S_OK);
  EXPECT_FALSE(exists(base));
  EXPECT_TRUE(engine.mMountPointQueue.empty());
}

// --- Whole exposures

TEST_F(Exposure, a_volume_is_readable_as_it_was_at_the_base_joined_with_its_mount_points) {
  finish();
  test::writeFile(volume.folder() + "/file", "now");
  EXPECT_EQ(exposed(), 1);
  EXPECT_EQ(set->ExposeSnapshotsInSnapshotSet(wbase().c_str()), S_OK);
  EXPECT_EQ(test::readFile(base + "/file"), "then");
  EXPECT_EQ(test::readFile(inner() + "/file"), "then");
  EXPECT_EQ(exposed(), 0);
  EXPECT_EQ(set->mMountPointQueue.size(), 2u);
  EXPECT_EQ(set->UnExposeSnapshotsInSnapshotSet(), S_OK);
  expectNothingLeft();
}

TEST_F(Exposure, is_undone_where_it_was_made_although_the_option_names_another_base_since) {
  finish();
  ASSERT_EQ(set->ExposeSnapshotsInSnapshotSet(wbase().c_str()), S_OK);
  const test::TempDir other;
  std::filesystem::create_directory(other / "base");
  ASSERT_EQ(set->SetOption({}, L"MountPointBase", wide(other / "base").c_str()), S_OK);
  EXPECT_EQ(set->UnExposeSnapshotsInSnapshotSet(), S_OK);
  expectNothingLeft();
  EXPECT_TRUE(exists(other / "base")) << "nothing was exposed there";
}

TEST_F(Exposure, an_entry_carries_its_own_volume_and_mount_point) {
  const test::Volume other("ext4", 16 << 20);
  std::filesystem::create_directories(volume.folder() + other.folder());
  const test::SnapshotDevice otherSnapshot(other);
  set.add(other.device(), other.folder(), otherSnapshot.path());  // volume 0; the fixture's is volume 1
  finish();
  EXPECT_EQ(set->ExposeSnapshotsInSnapshotSet(wbase().c_str()), S_OK);
  ASSERT_EQ(set->mMountPointQueue.size(), 3u);
  for (const auto& entry : set->mMountPointQueue) {
    const bool isOther = entry.device == otherSnapshot.path();
    EXPECT_EQ(entry.volumeIndex, isOther ? 0u : 1u) << entry.target;
    EXPECT_EQ(entry.mountPointIndex, entry.target == base ? 1u : 0u) << entry.target;
  }
  EXPECT_EQ(recorded(0, 0), wide(base + other.folder()));
  EXPECT_EQ(recorded(1, 0), wide(inner()));
  EXPECT_EQ(recorded(1, 1), wbase());
  EXPECT_EQ(set->UnExposeSnapshotsInSnapshotSet(), S_OK);
}

TEST(NestedExposure, root_home_and_data_are_mounted_in_that_order_and_unmounted_in_reverse) {
  const test::TempDir dir;
  const std::string base = dir / "base";
  const test::Volume root("ext4", 16 << 20);  // mounted on a folder of its own, and taken for "/" too
  std::filesystem::create_directories(root.folder() + root.folder());
  std::filesystem::create_directory(root.folder() + "/home");
  std::filesystem::create_directories("/home");
  const test::LoopDevice home(16 << 20);
  home.mkfs("ext4", {"-b", "1024"});
  const test::Mounted homeMounted(home.path(), "/home", "ext4");
  std::filesystem::create_directories("/home/user/data");
  const test::LoopDevice data(300 << 20);
  data.mkfs("xfs");
  const test::Mounted dataMounted(data.path(), "/home/user/data", "xfs");
  test::writeFile("/home/user/file", "home then");
  test::writeFile("/home/user/data/file", "data then");

  const test::SnapshotDevice dataSnapshot(data, "/home/user/data");
  const test::SnapshotDevice homeSnapshot(home, "/home");
  const test::SnapshotDevice rootSnapshot(root);
  test::writeFile("/home/user/data/file", "data now");
  test::FinishedSet set;
  // The deepest first: the order of mounting is the exposure's own.
  set.add(data.path(), "/home/user/data", dataSnapshot.path());
  set.add(home.path(), "/home", homeSnapshot.path());
  const _SSGUIDPLAIN id = set.add(root.device(), root.folder(), rootSnapshot.path());
  ASSERT_EQ(set->mSnapshotSetParams->Add(id, root.wdevice().c_str(), L"/"), 2u);
  set.finish();

  test::EngineLog log;
  Texts mounted;
  {
    test::SystemCalls calls;
    EXPECT_EQ(set->ExposeSnapshotsInSnapshotSet(wide(base).c_str()), S_OK);
    mounted = targets(calls);
  }
  EXPECT_EQ(mounted, (Texts{base, base + "/home", base + "/home/user/data", base + root.folder()}));
  EXPECT_EQ(test::readFile(base + "/home/user/file"), "home then");
  EXPECT_EQ(test::readFile(base + "/home/user/data/file"), "data then");
  EXPECT_EQ(set->UnExposeSnapshotsInSnapshotSet(), S_OK);
  EXPECT_EQ(unmounts(log), (Lines{unmounted(base + root.folder()), unmounted(base + "/home/user/data"),
                                  unmounted(base + "/home"), unmounted(base)}));
  EXPECT_FALSE(exists(base));
}

TEST_F(Exposure, a_trailing_slash_of_the_base_does_not_reach_the_targets) {
  finish();
  test::SystemCalls calls;
  EXPECT_EQ(set->ExposeSnapshotsInSnapshotSet((wbase() + L"/").c_str()), S_OK);
  EXPECT_EQ(targets(calls), (Texts{base, inner()}));
  EXPECT_EQ(set->UnExposeSnapshotsInSnapshotSet(), S_OK);
  expectNothingLeft();
}

TEST_F(Exposure, a_base_that_is_there_already_is_used_and_removed_afterwards) {
  std::filesystem::create_directory(base);
  finish();
  EXPECT_EQ(set->ExposeSnapshotsInSnapshotSet(wbase().c_str()), S_OK);
  EXPECT_EQ(set->UnExposeSnapshotsInSnapshotSet(), S_OK);
  expectNothingLeft();
}

TEST_F(Exposure, a_failed_job_has_nothing_to_mount_and_everything_is_undone) {
  snapshot = std::make_unique<test::SnapshotDevice>(volume);
  id = set.add(volume.device(), volume.folder());
  set.finish(20);
  test::SystemCalls calls;
  EXPECT_EQ(set->ExposeSnapshotsInSnapshotSet(wbase().c_str()), E_UNEXPECTED);
  expectNothingLeft();
}

TEST_F(Exposure, unexposure_does_not_forget_where_the_snapshots_were_mounted) {
  finish();
  ASSERT_EQ(set->ExposeSnapshotsInSnapshotSet(wbase().c_str()), S_OK);
  ASSERT_EQ(set->UnExposeSnapshotsInSnapshotSet(), S_OK);
  EXPECT_EQ(exposed(), 0);
  EXPECT_EQ(recorded(0, 0), wide(inner()));
  EXPECT_EQ(recorded(0, 1), wbase());
}

TEST_F(Exposure, the_base_stays_the_engines_after_unexposure) {
  finish();
  ASSERT_EQ(set->ExposeSnapshotsInSnapshotSet(wbase().c_str()), S_OK);
  ASSERT_EQ(set->UnExposeSnapshotsInSnapshotSet(), S_OK);
  EXPECT_EQ(set->ExposeSnapshotsInSnapshotSet(wbase().c_str()), E_INVALIDARG);
}

// --- Failures

TEST_F(Exposure, with_the_option_and_a_null_base_mounts_everything_and_undoes_it_at_the_alternate_set) {
  finish();
  ASSERT_EQ(set->SetOption({}, L"MountPointBase", wbase().c_str()), S_OK);
  test::EngineLog log;
  test::SystemCalls calls;
  EXPECT_EQ(set->ExposeSnapshotsInSnapshotSet(nullptr), E_UNEXPECTED);
  EXPECT_EQ(targets(calls), (Texts{base, inner()}));
  EXPECT_TRUE(log.has(L"ExposeSnapshotsInSnapshotSet: Failed to mount one or more volumes in the alternate set"));
  EXPECT_EQ(unmounts(log), (Lines{unmounted(inner()), unmounted(base)}));
  expectNothingLeft();
}

TEST_F(Exposure, with_a_relative_base_is_out_of_memory_but_the_base_is_kept) {
  finish();
  EXPECT_EQ(set->ExposeSnapshotsInSnapshotSet(L"relative"), E_OUTOFMEMORY);
  EXPECT_TRUE(set->mMountPointQueue.empty());
  EXPECT_EQ(set->mMountPointBase, "relative");
}

TEST_F(Exposure, a_mount_point_that_is_not_absolute_is_out_of_memory_and_queues_nothing) {
  addVolume();
  addMountPoint(L"relative");
  set.finish();
  EXPECT_EQ(set->ExposeSnapshotsInSnapshotSet(wbase().c_str()), E_OUTOFMEMORY);
  expectNothingLeft();
}

TEST_F(Exposure, a_mount_point_that_the_locale_cannot_narrow_is_out_of_memory_and_queues_nothing) {
  addVolume();
  addMountPoint(L"/\x00e9");
  set.finish();
  EXPECT_EQ(set->ExposeSnapshotsInSnapshotSet(wbase().c_str()), E_OUTOFMEMORY);
  expectNothingLeft();
}

TEST_F(Exposure, a_device_that_the_locale_cannot_narrow_is_out_of_memory_and_queues_nothing) {
  finish();
  {
    const GetDoneWrapper<MirelSnapshotVolumeParams> params(set->mSnapshotSetParams->GetFor(id));
    params->GetSnapVolumeName() = L"/dev/\x00e9";
  }
  EXPECT_EQ(set->ExposeSnapshotsInSnapshotSet(wbase().c_str()), E_OUTOFMEMORY);
  expectNothingLeft();
}

TEST_F(Exposure, an_entry_that_cannot_be_queued_is_unexpected_and_clears_the_queue) {
  finish();
  {
    const test::FailingCopies noMemory(test::CopyCall::kStrdup, 3);  // the first entry's texts
    EXPECT_EQ(set->ExposeSnapshotsInSnapshotSet(wbase().c_str()), E_UNEXPECTED);
  }
  expectNothingLeft();
}

TEST_F(Exposure, targets_that_cannot_be_queued_pass_unnoticed) {
  finish();
  const test::Locale utf8(test::kUtf8);
  set->mMountPointBase = dir / "\xff";  // below it, no target has a depth
  test::EngineLog log;
  test::SystemCalls calls;
  EXPECT_EQ(set->ExposeSnapshotsInSnapshotSet(nullptr), E_UNEXPECTED);
  EXPECT_TRUE(exists(dir / "\xff"));
  EXPECT_TRUE(calls.mounts.empty());
  EXPECT_EQ(log.lines(),
            Lines{L"ExposeSnapshotsInSnapshotSet: Failed to mount one or more volumes in the alternate set"});
}

TEST_F(Exposure, a_file_system_type_that_the_locale_cannot_narrow_passes_unnoticed_and_mounts_nothing) {
  {
    const test::Locale utf8(test::kUtf8);
    const test::KernelTable table(test::tableLine(test::kNobody, "7:" + std::to_string(volume.loop().minor()),
                                                  volume.folder(), "ext4\xc3\xa9", volume.device()));
    addVolume();
  }
  set.finish();
  test::EngineLog log;
  test::SystemCalls calls;
  EXPECT_EQ(set->ExposeSnapshotsInSnapshotSet(wbase().c_str()), S_OK);
  EXPECT_TRUE(exists(base));
  EXPECT_TRUE(set->mMountPointQueue.empty());
  EXPECT_TRUE(calls.mounts.empty());
  EXPECT_EQ(log.lines(), Lines{});
  EXPECT_EQ(exposed(), 1);
}

TEST_F(Exposure, a_base_that_cannot_be_made_is_unexpected_and_clears_the_queue) {
  finish();
  test::SystemCalls calls;
  EXPECT_EQ(set->ExposeSnapshotsInSnapshotSet(wide(dir / "missing/base").c_str()), E_UNEXPECTED);
  EXPECT_TRUE(calls.mounts.empty());
  EXPECT_TRUE(set->mMountPointQueue.empty());
}

TEST_F(Exposure, the_first_mount_that_fails_ends_it_and_all_is_undone) {
  addVolume();
  addMountPoint(L"/a/missing");        // depth 5: after the base
  addMountPoint(L"/a/b/c/d/missing");  // depth 8: never tried
  set.finish();
  test::EngineLog log;
  test::SystemCalls calls;
  EXPECT_EQ(set->ExposeSnapshotsInSnapshotSet(wbase().c_str()), E_UNEXPECTED);
  EXPECT_EQ(targets(calls), Texts{base}) << "nothing is mounted where there is no folder";
  EXPECT_TRUE(log.has(L"DoMount: mount( \"" + snapshot->wpath() + L"\", \"" + wide(base + "/a/missing") +
                      L"\", \"ext4\", MS_MGC_VAL | MS_RDONLY, NULL ) FAILED! Error: #2, {No such file or directory}"));
  EXPECT_EQ(unmounts(log).back(), unmounted(base));
  EXPECT_TRUE(log.has(L"UnExposeSnapshotsInSnapshotSet: umount( " + wide(base + "/a/missing") +
                      L" ) FAILED! Error: #2, {No such file or directory}"));
  expectNothingLeft();
}

TEST_F(Exposure, a_failed_one_keeps_its_base_and_the_next_one_may_not_name_one) {
  addVolume();
  addMountPoint(L"/missing");
  set.finish();
  ASSERT_EQ(set->ExposeSnapshotsInSnapshotSet(wbase().c_str()), E_UNEXPECTED);
  EXPECT_EQ(set->mMountPointBase, base);
  EXPECT_EQ(set->ExposeSnapshotsInSnapshotSet(wbase().c_str()), E_INVALIDARG);
}

TEST_F(Exposure, only_the_base_is_made_and_a_deeper_target_must_be_there) {
  snapshot = std::make_unique<test::SnapshotDevice>(volume);
  id = set.add(volume.device(), volume.folder(), snapshot->path());
  set.finish();
  EXPECT_EQ(set->ExposeSnapshotsInSnapshotSet(wbase().c_str()), E_UNEXPECTED);
  expectNothingLeft();
}

TEST_F(Exposure, a_second_one_queues_the_same_targets_again) {
  finish();
  ASSERT_EQ(set->ExposeSnapshotsInSnapshotSet(wbase().c_str()), S_OK);
  test::EngineLog log;
  test::SystemCalls calls;
  // The kernel refuses the same file system on the same folder; with that, both exposures are undone.
  EXPECT_EQ(set->ExposeSnapshotsInSnapshotSet(nullptr), E_UNEXPECTED);
  EXPECT_EQ(targets(calls), Texts{base});
  EXPECT_EQ(unmounts(log).size(), 4u);
  expectNothingLeft();
}

TEST_F(Exposure, a_mount_in_use_stays_and_the_rest_goes_on) {
  finish();
  ASSERT_EQ(set->ExposeSnapshotsInSnapshotSet(wbase().c_str()), S_OK);
  UniqueFd user(open((inner() + "/file").c_str(), O_RDONLY | O_CLOEXEC));
  test::EngineLog log;
  EXPECT_EQ(set->UnExposeSnapshotsInSnapshotSet(), E_UNEXPECTED);
  const std::wstring busy = L" ) FAILED! Error: #16, {Device or resource busy}";
  EXPECT_EQ(log.lines(), (Lines{L"UnExposeSnapshotsInSnapshotSet: umount( " + wide(inner()) + busy,
                                L"UnExposeSnapshotsInSnapshotSet: umount( " + wbase() + busy}));
  EXPECT_TRUE(set->mMountPointQueue.empty());
  EXPECT_TRUE(exists(base));
  user.reset();
  EXPECT_EQ(set->UnExposeSnapshotsInSnapshotSet(), S_OK);  // nothing is queued any more
  EXPECT_EQ(test::unmount(inner()), 0);
  EXPECT_EQ(test::unmount(base), 0);
}

TEST_F(Exposure, a_base_with_something_in_it_cannot_be_removed_and_is_unexpected) {
  std::filesystem::create_directory(base);
  test::writeFile(base + "/file", "not ours");
  finish();
  ASSERT_EQ(set->ExposeSnapshotsInSnapshotSet(wbase().c_str()), S_OK);
  EXPECT_EQ(set->UnExposeSnapshotsInSnapshotSet(), E_UNEXPECTED);
  EXPECT_EQ(mountsUnder(base), 0u);
  EXPECT_TRUE(exists(base + "/file"));
}

TEST_F(ExposureShortOfMemory, one_failed_allocation_leaves_nothing_behind_or_only_a_mount_unrecorded) {
  for (std::size_t n = 0; exposeFailing<test::FailingAllocation>(n); ++n) ASSERT_LT(n, 100u);
  EXPECT_GT(results[E_OUTOFMEMORY], 0u);  // the base cannot be kept
  EXPECT_GT(results[E_UNEXPECTED], 0u);   // an entry cannot be queued
  EXPECT_GT(results[S_OK], 1u);           // a mount cannot be recorded; and once nothing failed
  EXPECT_EQ(results.size(), 3u);
}

TEST_F(ExposureShortOfMemory, memory_that_has_run_out_leaves_nothing_behind_or_only_a_mount_unrecorded) {
  for (std::size_t n = 0; exposeFailing<test::FailingMalloc>(n); ++n) ASSERT_LT(n, 100u);
  EXPECT_GT(results[E_OUTOFMEMORY], 3u);  // base, target, device
  EXPECT_GT(results[E_UNEXPECTED], 0u);   // the live mount cannot be bound
  EXPECT_EQ(results.size(), 3u);
}

// --- The alternate set

TEST_F(EmptyExposure, a_live_mount_point_is_bound_with_no_type_no_data_and_no_other_flag) {
  std::filesystem::create_directory(dir / "live");
  const test::Mounted live("tests", dir / "live", "tmpfs");
  ASSERT_EQ(set->AddToAlternateMountSet(wide(live.folder()).c_str()), S_OK);
  set.finish();
  std::filesystem::create_directories(base + live.folder());
  {
    test::SystemCalls calls;
    EXPECT_EQ(set->ExposeSnapshotsInSnapshotSet(wbase().c_str()), S_OK);
    ASSERT_EQ(calls.mounts.size(), 1u);
    EXPECT_EQ(calls.mounts[0].source, live.folder());
    EXPECT_EQ(calls.mounts[0].target, base + live.folder());
    EXPECT_EQ(calls.mounts[0].type, "(null)");
    EXPECT_EQ(calls.mounts[0].flags, 4096u);
    EXPECT_EQ(calls.mounts[0].data, "(null)");
  }
  EXPECT_EQ(set->UnExposeSnapshotsInSnapshotSet(), S_OK);
}

TEST_F(Exposure, binds_the_alternate_set_last_and_unbinds_it_first) {
  std::filesystem::create_directory(dir / "live");
  const test::Mounted live("tests", dir / "live", "tmpfs");
  test::writeFile(live.folder() + "/file", "live");
  std::filesystem::create_directories(volume.folder() + live.folder());
  ASSERT_EQ(set->AddToAlternateMountSet(wide(live.folder()).c_str()), S_OK);
  finish();
  test::EngineLog log;
  EXPECT_EQ(set->ExposeSnapshotsInSnapshotSet(wbase().c_str()), S_OK);
  EXPECT_EQ(test::readFile(base + live.folder() + "/file"), "live");
  EXPECT_EQ(log.lines().back().find(L"DoMount: mount( \"" + wide(live.folder())), 0u);
  log.clear();
  EXPECT_EQ(set->UnExposeSnapshotsInSnapshotSet(), S_OK);
  EXPECT_EQ(log.lines(), (Lines{L"DoDismount: umount( \"" + wide(base + live.folder()) + L"\") Succeeded",
                                unmounted(inner()), unmounted(base)}));
  expectNothingLeft();
}

TEST_F(Exposure, an_alternate_mount_that_fails_undoes_everything) {
  std::filesystem::create_directory(dir / "live");
  const test::Mounted live("tests", dir / "live", "tmpfs");
  ASSERT_EQ(set->AddToAlternateMountSet(wide(live.folder()).c_str()), S_OK);
  finish();  // the snapshot has no folder to bind it on
  test::EngineLog log;
  EXPECT_EQ(set->ExposeSnapshotsInSnapshotSet(wbase().c_str()), E_UNEXPECTED);
  const Lines lines = log.lines();
  ASSERT_GE(lines.size(), 3u);
  EXPECT_EQ(Lines(lines.end() - 3, lines.end()),
            (Lines{L"ExposeSnapshotsInSnapshotSet: Failed to mount one or more volumes in the alternate set",
                   unmounted(inner()), unmounted(base)}));
  expectNothingLeft();
}

TEST_F(Exposure, an_alternate_mount_in_use_is_told_and_the_rest_goes_on) {
  std::filesystem::create_directory(dir / "live");
  const test::Mounted live("tests", dir / "live", "tmpfs");
  std::filesystem::create_directories(volume.folder() + live.folder());
  ASSERT_EQ(set->AddToAlternateMountSet(wide(live.folder()).c_str()), S_OK);
  finish();
  ASSERT_EQ(set->ExposeSnapshotsInSnapshotSet(wbase().c_str()), S_OK);
  const std::string bound = base + live.folder();
  UniqueFd user(open(bound.c_str(), O_RDONLY | O_CLOEXEC));
  test::EngineLog log;
  EXPECT_EQ(set->UnExposeSnapshotsInSnapshotSet(), E_UNEXPECTED);
  ASSERT_EQ(log.lines().size(), 4u);
  EXPECT_EQ(log.lines()[1],
            L"UnExposeSnapshotsInSnapshotSet: Failed to dismount one or more mount points in the alternate set!");
  EXPECT_EQ(log.lines()[2], unmounted(inner()));
  user.reset();
  EXPECT_EQ(test::unmount(bound), 0);
  EXPECT_EQ(test::unmount(base), 0);
}

TEST_F(EmptyExposure, a_failure_of_the_alternate_set_alone_does_not_fail_unexposure) {
  std::filesystem::create_directory(dir / "live");
  const test::Mounted live("tests", dir / "live", "tmpfs");
  ASSERT_EQ(set->AddToAlternateMountSet(wide(live.folder()).c_str()), S_OK);
  set.finish();
  std::filesystem::create_directories(base + live.folder());
  ASSERT_EQ(set->ExposeSnapshotsInSnapshotSet(wbase().c_str()), S_OK);
  UniqueFd user(open((base + live.folder()).c_str(), O_RDONLY | O_CLOEXEC));
  EXPECT_EQ(set->UnExposeSnapshotsInSnapshotSet(), S_OK);
  user.reset();
  EXPECT_EQ(set->UnExposeSnapshotsInSnapshotSet(), S_OK);
  EXPECT_EQ(mountsUnder(base), 0u);
}

TEST_F(EmptyExposure, a_mount_point_joins_the_alternate_set_once) {
  EXPECT_EQ(set->AddToAlternateMountSet(L"/mnt"), S_OK);
  EXPECT_EQ(set->AddToAlternateMountSet(L"/dev"), S_OK);
  EXPECT_EQ(set->AddToAlternateMountSet(L"/mnt"), S_OK);
  EXPECT_EQ(set->mSnapshotSetParams->GetAlternateMountCount(), 2u);
}

TEST_F(EmptyExposure, what_is_no_mount_point_does_not_join_the_alternate_set) {
  EXPECT_EQ(set->AddToAlternateMountSet(nullptr), E_INVALIDARG);
  EXPECT_EQ(set->AddToAlternateMountSet(L"mnt"), E_INVALIDARG);
  EXPECT_EQ(set->AddToAlternateMountSet(wide(dir.path()).c_str()), E_INVALIDARG);
  EXPECT_EQ(set->mSnapshotSetParams->GetAlternateMountCount(), 0u);
}

TEST_F(EmptyExposure, the_alternate_set_is_open_only_while_the_set_is) {
  for (const SnapshotState state :
       {StateUninitialized, StateSnapshotSetInProgress, StateSnapshotSetDone, StateSnapshotSetUnDone}) {
    set->mState = state;
    EXPECT_EQ(set->AddToAlternateMountSet(L"/mnt"), USC_E_BAD_STATE);
    EXPECT_EQ(set->AddToAlternateMountSet(nullptr), USC_E_BAD_STATE);
  }
  set->mState = StateSnapshotSetStarted;
}

TEST_F(EmptyExposure, whether_the_alternate_set_is_open_is_seen_under_the_engines_lock) {
  EXPECT_EQ(test::askedUnderLock([&] { return set->AddToAlternateMountSet(L"/mnt"); },
                                 [&] { set->mState = StateSnapshotSetInProgress; }),
            USC_E_BAD_STATE);
  set->mState = StateSnapshotSetStarted;
}

TEST_F(EmptyExposure, there_is_no_alternate_set_without_a_set_or_its_identifier) {
  MirelSnapshotEngine fresh;
  fresh.mState = StateSnapshotSetStarted;
  EXPECT_EQ(fresh.AddToAlternateMountSet(L"/mnt"), USC_E_BAD_STATE);
  EXPECT_EQ(fresh.AddToAlternateMountSet(nullptr), USC_E_BAD_STATE);
  fresh.mSnapshotSetParams = MirelSnapshotSetParams::CreateSnapshotSetParams({});
  EXPECT_EQ(fresh.AddToAlternateMountSet(L"/mnt"), USC_E_BAD_STATE);
  fresh.mState = StateUninitialized;
}

// --- IsSnapshotExposed

TEST_F(EmptyExposure, asking_without_an_output_is_an_invalid_argument_even_without_a_set) {
  MirelSnapshotEngine fresh;
  EXPECT_EQ(fresh.IsSnapshotExposed({}, nullptr), E_INVALIDARG);
  EXPECT_EQ(set->IsSnapshotExposed({}, nullptr), E_INVALIDARG);
}

TEST_F(EmptyExposure, a_snapshot_outside_the_set_is_not_found) {
  int answer = 7;
  EXPECT_EQ(set->IsSnapshotExposed({1, 2, 3, {}}, &answer), USC_E_OBJECT_NOT_FOUND);
  MirelSnapshotEngine fresh;
  EXPECT_EQ(fresh.IsSnapshotExposed({}, &answer), USC_E_OBJECT_NOT_FOUND);
  EXPECT_EQ(answer, 7);
}

TEST_F(Exposure, only_the_first_mount_point_tells_whether_a_snapshot_is_exposed) {
  finish();
  const GetDoneWrapper<MirelSnapshotVolumeParams> params(set->mSnapshotSetParams->GetFor(id));
  params->SetSnapVolumeMountPoint(1, L"/somewhere");
  EXPECT_EQ(exposed(), 1);
  params->SetSnapVolumeMountPoint(0, L"/somewhere");
  EXPECT_EQ(exposed(), 0);
}

// --- Links that a user planted

TEST_F(Exposure, a_link_in_a_snapshot_is_a_mount_that_fails_with_ELOOP) {
  const test::TempDir victim;
  std::filesystem::create_directory_symlink(victim.path(), volume.folder() + "/link");
  std::filesystem::create_directory(victim / "inner");
  addVolume();
  addMountPoint(L"/link/inner");
  set.finish();
  test::EngineLog log;
  EXPECT_EQ(set->ExposeSnapshotsInSnapshotSet(wbase().c_str()), E_UNEXPECTED);
  EXPECT_TRUE(log.has(L"DoMount: mount( \"" + snapshot->wpath() + L"\", \"" + wide(base + "/link/inner") +
                      L"\", \"ext4\", MS_MGC_VAL | MS_RDONLY, NULL ) FAILED! Error: #40, {Too many levels of symbolic "
                      L"links}"));
  EXPECT_TRUE(log.has(L"UnExposeSnapshotsInSnapshotSet: umount( " + wide(base + "/link/inner") +
                      L" ) FAILED! Error: #40, {Too many levels of symbolic links}"));
  EXPECT_EQ(mountsUnder(victim.path()), 0u);
  expectNothingLeft();
}

TEST_F(Exposure, no_link_leads_a_bind_out_of_the_base) {
  const test::TempDir victim;
  std::filesystem::create_directories(dir / "live/inner");
  std::filesystem::create_directory(victim / "inner");
  const test::Mounted live("tests", dir / "live/inner", "tmpfs");
  std::filesystem::create_directories(volume.folder() + dir.path());
  std::filesystem::create_directory_symlink(victim.path(), volume.folder() + dir / "live");
  ASSERT_EQ(set->AddToAlternateMountSet(wide(live.folder()).c_str()), S_OK);
  finish();
  test::EngineLog log;
  EXPECT_EQ(set->ExposeSnapshotsInSnapshotSet(wbase().c_str()), E_UNEXPECTED);
  EXPECT_TRUE(log.has(L"DoMount: mount( \"" + wide(live.folder()) +
                      L"\", \"(null)\", NULL, MS_BIND, NULL ) failed, Error: 40, {Too many levels of symbolic links}"));
  EXPECT_EQ(mountsUnder(victim.path()), 0u);
  expectNothingLeft();
}

TEST_F(Exposure, a_base_may_be_reached_by_a_link_of_the_agents_own) {
  std::filesystem::create_directory(dir / "real");
  std::filesystem::create_directory_symlink(dir / "real", dir / "link");
  finish();
  const std::wstring linked = wide(dir / "link/base");
  EXPECT_EQ(set->ExposeSnapshotsInSnapshotSet(linked.c_str()), S_OK);
  EXPECT_EQ(mountsUnder(dir / "real/base"), 2u);
  EXPECT_EQ(set->UnExposeSnapshotsInSnapshotSet(), S_OK);
  EXPECT_EQ(mountsUnder(dir / "real"), 0u);
  EXPECT_FALSE(exists(dir / "real/base"));
}
