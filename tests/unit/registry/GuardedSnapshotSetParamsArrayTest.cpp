// SPDX-License-Identifier: Apache-2.0
#include "engine/GuardedSnapshotSetParamsArray.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdlib>
#include <optional>

#include "Builders.h"
#include "Locale.h"
#include "OtherThread.h"
#include "Threading.h"
#include "engine/MirelSnapshotEngine.h"
#include "interpose/Allocations.h"

using test::guid;
using test::HeldSet;
using test::HeldVolume;
using test::LinuxGuardedSnapshotSetParamsArray;
using test::MirelSnapshotSetParams;
using test::newSet;
using test::SmallVolume;
using test::wide;

namespace {

HeldSet setOf(std::uint8_t id, std::initializer_list<const SmallVolume*> volumes) {
  HeldSet set = newSet(id);
  std::uint8_t next = 100;
  for (const SmallVolume* volume : volumes) {
    EXPECT_NE(set->Add(guid(next++), volume->wdevice().c_str(), volume->wfolder().c_str()), 0u);
  }
  return set;
}

// Looks for `name`; while the search stands at the first set, another thread sets about `change`, which must wait.
template <class Change>
void searchDuring(Change change, LinuxGuardedSnapshotSetParamsArray& sets, const std::string& name) {
  std::optional<test::OtherThread> changing;
  {
    const test::BeforeNextLock standing([&] {
      changing.emplace([&] { EXPECT_TRUE(change()); });
      EXPECT_TRUE(changing->comesToWait());
    });
    EXPECT_NE(HeldVolume(sets.FindVolume(name.c_str())), nullptr);
  }
  EXPECT_TRUE(changing.has_value());
}

}  // namespace

TEST(GuardedSnapshotSets, an_added_set_is_held_until_the_array_goes) {
  MirelSnapshotSetParams* const set = newSet(1).release();
  {
    LinuxGuardedSnapshotSetParamsArray sets;
    EXPECT_EQ(sets.GetSnapshotSetCount(), 0u);
    EXPECT_TRUE(sets.Add(set));
    EXPECT_EQ(sets.GetSnapshotSetCount(), 1u);
    set->Get();
    EXPECT_FALSE(set->Done());
  }
  EXPECT_TRUE(set->Done());  // the array's reference is gone
}

TEST(GuardedSnapshotSets, the_array_is_the_last_owner_of_a_set_that_nobody_else_holds) {
  LinuxGuardedSnapshotSetParamsArray sets;
  HeldSet set = newSet(1);
  EXPECT_TRUE(sets.Add(set.get()));
  set.reset();
  EXPECT_EQ(sets.GetSnapshotSetCount(), 1u);  // freed with the array: the leak check sees it
}

TEST(GuardedSnapshotSets, the_array_destroys_its_mutex_before_it_drops_its_sets_and_a_set_its_own_at_last) {
  std::optional<LinuxGuardedSnapshotSetParamsArray> sets(std::in_place);
  HeldSet set = newSet(1);
  ASSERT_TRUE(sets->Add(set.get()));
  set.reset();
  const unsigned int before = test::mutexesDestroyed();
  unsigned int whenTheSetGoes = 0;
  {
    const test::BeforeNextLock lockOfTheSet([&] { whenTheSetGoes = test::mutexesDestroyed(); });
    sets.reset();
  }
  EXPECT_EQ(whenTheSetGoes, before + 1);
  EXPECT_EQ(test::mutexesDestroyed(), before + 2);
}

TEST(GuardedSnapshotSets, null_a_listed_set_and_a_listed_identifier_are_refused) {
  LinuxGuardedSnapshotSetParamsArray sets;
  const HeldSet set = newSet(1);
  MirelSnapshotSetParams* const twin = newSet(1).release();
  EXPECT_FALSE(sets.Add(nullptr));
  EXPECT_TRUE(sets.Add(set.get()));
  EXPECT_FALSE(sets.Add(set.get()));
  EXPECT_FALSE(sets.Add(twin));
  EXPECT_EQ(sets.GetSnapshotSetCount(), 1u);
  EXPECT_TRUE(twin->Done());  // no reference was taken
}

TEST(GuardedSnapshotSets, a_set_is_refused_when_memory_is_short) {
  LinuxGuardedSnapshotSetParamsArray sets;
  MirelSnapshotSetParams* const set = newSet(1).release();
  {
    const test::FailingAllocation failing(0);
    EXPECT_FALSE(sets.Add(set));
  }
  EXPECT_EQ(sets.GetSnapshotSetCount(), 0u);
  EXPECT_TRUE(set->Done());
}

TEST(RemoveSnapshotSet, removes_the_first_set_only) {
  LinuxGuardedSnapshotSetParamsArray sets;
  MirelSnapshotSetParams* const first = newSet(1).release();
  MirelSnapshotSetParams* const second = newSet(2).release();
  ASSERT_TRUE(sets.Add(first));
  ASSERT_TRUE(sets.Add(second));
  EXPECT_FALSE(sets.RemoveSnapshotSet(guid(2)));
  EXPECT_EQ(sets.GetSnapshotSetCount(), 2u);
  EXPECT_TRUE(sets.RemoveSnapshotSet(guid(1)));
  EXPECT_EQ(sets.GetSnapshotSetCount(), 1u);
  EXPECT_TRUE(first->Done());
  // The second is the first now.
  EXPECT_TRUE(sets.RemoveSnapshotSet(guid(2)));
  EXPECT_TRUE(second->Done());
  EXPECT_EQ(sets.GetSnapshotSetCount(), 0u);
}

TEST(RemoveSnapshotSet, is_false_for_an_unknown_set_and_for_an_empty_array) {
  LinuxGuardedSnapshotSetParamsArray sets;
  EXPECT_FALSE(sets.RemoveSnapshotSet(guid(1)));
  const HeldSet set = newSet(1);
  ASSERT_TRUE(sets.Add(set.get()));
  EXPECT_FALSE(sets.RemoveSnapshotSet(guid(9)));
  EXPECT_EQ(sets.GetSnapshotSetCount(), 1u);
}

TEST(FindVolume, finds_a_device_in_any_set_by_any_path) {
  const SmallVolume a;
  const SmallVolume b;
  const SmallVolume stranger;
  const test::TempDir dir;
  std::filesystem::create_symlink(b.device(), dir / "device");
  LinuxGuardedSnapshotSetParamsArray sets;
  const HeldSet first = setOf(1, {&a});
  const HeldSet second = setOf(2, {&b});
  ASSERT_TRUE(sets.Add(first.get()));
  ASSERT_TRUE(sets.Add(second.get()));
  EXPECT_EQ(HeldVolume(sets.FindVolume(a.wdevice().c_str())), HeldVolume(first->GetAt(0)));
  EXPECT_EQ(HeldVolume(sets.FindVolume(wide(dir / "device").c_str())), HeldVolume(second->GetAt(0)));
  EXPECT_EQ(HeldVolume(sets.FindVolume((dir / "device").c_str())), HeldVolume(second->GetAt(0)));
  EXPECT_EQ(sets.FindVolume(stranger.wdevice().c_str()), nullptr);
  EXPECT_EQ(sets.FindVolume(stranger.device().c_str()), nullptr);
}

TEST(FindVolume, answers_the_first_set_that_has_the_device) {
  const SmallVolume a;
  LinuxGuardedSnapshotSetParamsArray sets;
  const HeldSet first = setOf(1, {&a});
  const HeldSet second = setOf(2, {&a});
  ASSERT_TRUE(sets.Add(second.get()));
  ASSERT_TRUE(sets.Add(first.get()));
  EXPECT_EQ(HeldVolume(sets.FindVolume(a.device().c_str())), HeldVolume(second->GetAt(0)));
}

TEST(FindVolume, finds_nothing_for_null_and_undecodable_names) {
  const test::Locale plain(test::kPlain);
  const SmallVolume a;
  LinuxGuardedSnapshotSetParamsArray sets;
  const HeldSet set = setOf(1, {&a});
  ASSERT_TRUE(sets.Add(set.get()));
  EXPECT_EQ(sets.FindVolume(static_cast<const char*>(nullptr)), nullptr);
  EXPECT_EQ(sets.FindVolume(static_cast<const wchar_t*>(nullptr)), nullptr);
  const test::TempDir dir;
  std::filesystem::create_symlink(a.device(), dir / "caf\xE9");
  EXPECT_EQ(sets.FindVolume((dir / "caf\xE9").c_str()), nullptr);
}

TEST(FindVolume, gives_a_reference_with_the_volume) {
  const SmallVolume a;
  LinuxGuardedSnapshotSetParamsArray sets;
  HeldSet set = setOf(1, {&a});
  ASSERT_TRUE(sets.Add(set.get()));
  test::MirelSnapshotVolumeParams* const volume = sets.FindVolume(a.device().c_str());
  ASSERT_TRUE(sets.RemoveSnapshotSet(guid(1)));
  set.reset();
  EXPECT_EQ(volume->GetDeviceNumber(), a.number());
  EXPECT_TRUE(volume->Done());
}

TEST(FindVolume, takes_the_sets_mutexes_but_not_the_arrays) {
  const SmallVolume a;
  const std::string name = a.device();
  LinuxGuardedSnapshotSetParamsArray sets;
  const HeldSet first = setOf(1, {});
  const HeldSet second = setOf(2, {&a});
  unsigned int before = test::locksTaken();
  EXPECT_EQ(sets.FindVolume(name.c_str()), nullptr);
  EXPECT_EQ(test::locksTaken(), before);
  ASSERT_TRUE(sets.Add(first.get()));
  ASSERT_TRUE(sets.Add(second.get()));
  before = test::locksTaken();
  HeldVolume(sets.FindVolume(name.c_str()));
  EXPECT_EQ(test::locksTaken(), before + 2);
}

TEST(FindVolume, has_its_answer_before_a_set_is_listed) {
  const SmallVolume a;
  const std::string name = a.device();
  LinuxGuardedSnapshotSetParamsArray sets;
  const HeldSet first = setOf(1, {&a});
  const HeldSet second = setOf(2, {});
  ASSERT_TRUE(sets.Add(first.get()));
  searchDuring([&] { return sets.Add(second.get()); }, sets, name);
  EXPECT_EQ(sets.GetSnapshotSetCount(), 2u);
}

TEST(FindVolume, has_its_answer_before_a_set_goes) {
  const SmallVolume a;
  const std::string name = a.device();
  LinuxGuardedSnapshotSetParamsArray sets;
  HeldSet set = setOf(1, {&a});
  ASSERT_TRUE(sets.Add(set.get()));
  set.reset();  // the array is the set's only owner
  searchDuring([&] { return sets.RemoveSnapshotSet(guid(1)); }, sets, name);
  EXPECT_EQ(sets.GetSnapshotSetCount(), 0u);
}

TEST(GuardedSnapshotSets, counts_volumes_a_set_and_over_all_sets) {
  const SmallVolume a;
  const SmallVolume b;
  LinuxGuardedSnapshotSetParamsArray sets;
  const HeldSet first = setOf(1, {&a, &b});
  const HeldSet second = setOf(2, {&b});
  EXPECT_EQ(sets.GetSnappedVolumeCount(), 0u);
  ASSERT_TRUE(sets.Add(first.get()));
  ASSERT_TRUE(sets.Add(second.get()));
  EXPECT_EQ(sets.GetVolumeCountInSnapshotSet(guid(1)), 2u);
  EXPECT_EQ(sets.GetVolumeCountInSnapshotSet(guid(2)), 1u);
  EXPECT_EQ(sets.GetVolumeCountInSnapshotSet(guid(9)), 0u);
  EXPECT_EQ(sets.GetSnappedVolumeCount(), 3u);
}

TEST(GuardedSnapshotSets, hands_out_a_volume_of_a_set_by_its_position) {
  const SmallVolume a;
  const SmallVolume b;
  LinuxGuardedSnapshotSetParamsArray sets;
  const HeldSet first = setOf(1, {&a, &b});
  const HeldSet second = setOf(2, {&b});
  ASSERT_TRUE(sets.Add(first.get()));
  ASSERT_TRUE(sets.Add(second.get()));
  EXPECT_EQ(HeldVolume(sets.GetVolume(guid(1), 1)), HeldVolume(first->GetAt(1)));
  EXPECT_EQ(HeldVolume(sets.GetVolume(guid(2), 0)), HeldVolume(second->GetAt(0)));
  EXPECT_EQ(sets.GetVolume(guid(2), 1), nullptr);
  EXPECT_EQ(sets.GetVolume(guid(9), 0), nullptr);
}

TEST(GuardedSnapshotSets, takes_its_mutex_outside_the_sets) {
  const SmallVolume a;
  LinuxGuardedSnapshotSetParamsArray sets;
  const HeldSet first = setOf(1, {&a});
  const HeldSet second = setOf(2, {});
  const auto expectLocks = [](unsigned int expected, const char* operation, auto call) {
    const unsigned int before = test::locksTaken();
    call();
    EXPECT_EQ(test::locksTaken(), before + expected) << operation;
  };
  expectLocks(1, "Add", [&] { sets.Add(first.get()); });
  expectLocks(1, "Add", [&] { sets.Add(second.get()); });
  expectLocks(1, "GetSnapshotSetCount", [&] { sets.GetSnapshotSetCount(); });
  expectLocks(2, "GetVolumeCountInSnapshotSet", [&] { sets.GetVolumeCountInSnapshotSet(guid(1)); });
  expectLocks(3, "GetSnappedVolumeCount", [&] { sets.GetSnappedVolumeCount(); });
  expectLocks(2, "GetVolume", [&] { HeldVolume(sets.GetVolume(guid(1), 0)); });
  expectLocks(1, "RemoveSnapshotSet", [&] { sets.RemoveSnapshotSet(guid(1)); });
}

namespace {

HeldSet* addedAtTheEnd = nullptr;

void addAtTheEnd() {
  if (addedAtTheEnd == nullptr) return;
  auto& sets = MirelSnapSnapshotCoordinator::MirelSnapshotEngine::sSnapshotSetParamsArray;
  _exit(sets.GetSnapshotSetCount() == 0 && sets.Add(addedAtTheEnd->get()) && sets.GetSnapshotSetCount() == 1 ? 0 : 1);
}

// Registered before the statics are made, hence called when they are destroyed.
[[gnu::constructor(101)]] void registerAddAtTheEnd() { std::atexit(&addAtTheEnd); }

}  // namespace

TEST(GuardedSnapshotSets, of_the_process_take_the_set_of_a_worker_that_outlives_the_statics) {
  const auto endProcess = [] {
    HeldSet listed = newSet(1);
    HeldSet set = newSet(2);
    MirelSnapSnapshotCoordinator::MirelSnapshotEngine::sSnapshotSetParamsArray.Add(listed.get());
    addedAtTheEnd = &set;
    std::exit(2);
  };
  EXPECT_EXIT(endProcess(), testing::ExitedWithCode(0), "");
}
