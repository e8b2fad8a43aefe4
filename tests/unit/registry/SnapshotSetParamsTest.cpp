// SPDX-License-Identifier: Apache-2.0
#include "engine/SnapshotSetParams.h"

#include <gtest/gtest.h>

#include <optional>
#include <thread>

#include "Builders.h"
#include "Threading.h"
#include "interpose/Allocations.h"

using test::guid;
using test::HeldSet;
using test::HeldVolume;
using test::MirelSnapshotSetParams;
using test::MirelSnapshotVolumeParams;
using test::newSet;
using test::SmallVolume;
using test::wide;

namespace {

unsigned int add(const HeldSet& set, std::uint8_t id, const SmallVolume& volume) {
  return set->Add(guid(id), volume.wdevice().c_str(), volume.wfolder().c_str());
}

}  // namespace

TEST(CreateSnapshotSetParams, gives_an_empty_set_with_one_reference) {
  MirelSnapshotSetParams* set = MirelSnapshotSetParams::CreateSnapshotSetParams(guid(7));
  ASSERT_NE(set, nullptr);
  EXPECT_TRUE(UnixInterfaces::IsEqualGUID(set->GetSnapshotSetGUID(), guid(7)));
  EXPECT_EQ(set->GetVolumeCount(), 0u);
  EXPECT_EQ(set->GetAlternateMountCount(), 0u);
  set->Get();
  EXPECT_FALSE(set->Done());
  EXPECT_TRUE(set->Done());
}

TEST(CreateSnapshotSetParams, is_null_and_leaves_nothing_when_memory_or_the_mutex_fails) {
  const std::ptrdiff_t before = test::heldBytes();
  for (std::size_t n = 0; n < 2; ++n) {
    const test::FailingAllocation failing(n);
    EXPECT_EQ(MirelSnapshotSetParams::CreateSnapshotSetParams(guid(1)), nullptr) << n;
    EXPECT_TRUE(failing.failed());
  }
  {
    const test::FailingMutexInit failing;
    EXPECT_EQ(MirelSnapshotSetParams::CreateSnapshotSetParams(guid(1)), nullptr);
  }
  EXPECT_EQ(test::heldBytes(), before);
}

TEST(Add, appends_new_volumes_and_returns_their_count) {
  const SmallVolume a;
  const SmallVolume b;
  const HeldSet set = newSet();
  EXPECT_EQ(add(set, 1, a), 1u);
  EXPECT_EQ(add(set, 2, b), 2u);
  EXPECT_EQ(set->GetVolumeCount(), 2u);
  EXPECT_EQ(HeldVolume(set->GetAt(0))->GetDeviceNumber(), a.number());
  EXPECT_EQ(HeldVolume(set->GetAt(1))->GetDeviceNumber(), b.number());
}

TEST(Add, a_link_to_a_volumes_device_under_another_mount_point_joins_that_volume) {
  const SmallVolume a;
  const test::TempDir dir;
  const test::Mounted second(a.device(), test::directory(dir / "second"), "ext4");
  std::filesystem::create_symlink(a.device(), dir / "device");
  const HeldSet set = newSet();
  ASSERT_EQ(add(set, 1, a), 1u);
  EXPECT_EQ(set->Add(guid(1), wide(dir / "device").c_str(), wide(second.folder()).c_str()), 2u);
  EXPECT_EQ(set->GetVolumeCount(), 1u);
  const HeldVolume volume(set->GetAt(0));
  EXPECT_TRUE(UnixInterfaces::IsEqualGUID(volume->GetSnapshotGUID(), guid(1)));
  EXPECT_EQ(volume->GetOriginalVolumeName(), a.wdevice());
  ASSERT_EQ(volume->GetMountPointCount(), 2u);
  EXPECT_EQ(volume->GetOriginalMountPoint(0), a.wfolder());
  EXPECT_EQ(volume->GetOriginalMountPoint(1), wide(second.folder()));
}

TEST(Add, a_further_mount_point_is_taken_as_it_is_written) {
  const SmallVolume a;
  const HeldSet set = newSet();
  ASSERT_EQ(add(set, 1, a), 1u);
  EXPECT_EQ(set->Add(guid(1), a.wdevice().c_str(), L"no mount point at all"), 2u);
  EXPECT_EQ(set->Add(guid(1), a.wdevice().c_str(), nullptr), 0u);
  EXPECT_EQ(HeldVolume(set->GetAt(0))->GetOriginalMountPoint(1), std::wstring(L"no mount point at all"));
}

TEST(Add, refuses_an_identifier_and_a_name_that_disagree) {
  const SmallVolume a;
  const SmallVolume b;
  const SmallVolume stranger;
  const HeldSet set = newSet();
  ASSERT_EQ(add(set, 1, a), 1u);
  ASSERT_EQ(add(set, 2, b), 2u);
  EXPECT_EQ(add(set, 1, b), 0u);         // A's identifier, B's name
  EXPECT_EQ(add(set, 1, stranger), 0u);  // A's identifier, a name that is not there
  EXPECT_EQ(add(set, 3, a), 0u);         // an identifier that is not there, A's name
  EXPECT_EQ(set->Add(guid(1), nullptr, a.wfolder().c_str()), 0u);
  EXPECT_EQ(set->GetVolumeCount(), 2u);
  EXPECT_EQ(HeldVolume(set->GetAt(0))->GetMountPointCount(), 1u);
  EXPECT_EQ(HeldVolume(set->GetAt(1))->GetMountPointCount(), 1u);
}

TEST(Add, refuses_a_volume_that_cannot_be_made) {
  const SmallVolume a;
  const HeldSet set = newSet();
  EXPECT_EQ(set->Add(guid(1), a.wdevice().c_str(), L"/mnt/missing"), 0u);
  EXPECT_EQ(set->Add(guid(1), a.wdevice().c_str(), nullptr), 0u);
  EXPECT_EQ(set->Add(guid(1), nullptr, a.wfolder().c_str()), 0u);
  EXPECT_EQ(set->Add(_SSGUIDPLAIN{}, a.wdevice().c_str(), a.wfolder().c_str()), 0u);
  EXPECT_EQ(set->GetVolumeCount(), 0u);
}

TEST(Add, refuses_a_volume_when_memory_is_short_and_leaves_nothing) {
  const SmallVolume a;
  const HeldSet set = newSet();
  const std::wstring name = a.wdevice();
  const std::wstring folder = a.wfolder();
  const std::ptrdiff_t before = test::heldBytes();
  std::size_t allocations = 0;
  for (unsigned int count = 0; count == 0; ++allocations) {
    const test::FailingAllocation failing(allocations);
    count = set->Add(guid(1), name.c_str(), folder.c_str());
    if (count != 0) break;
    EXPECT_TRUE(failing.failed());
    EXPECT_EQ(test::heldBytes(), before);
    ASSERT_LT(allocations, 1000u);
  }
  EXPECT_GT(allocations, 5u);
  EXPECT_EQ(set->GetVolumeCount(), 1u);
  const std::wstring longer(100, L'x');
  for (std::size_t n = 0; n < 3; ++n) {
    const test::FailingAllocation failing(n);
    EXPECT_EQ(set->Add(guid(1), name.c_str(), longer.c_str()), 0u) << n;
  }
  EXPECT_EQ(HeldVolume(set->GetAt(0))->GetMountPointCount(), 1u);
}

TEST(MirelSnapshotSetParams, finds_volumes_by_identifier_and_by_device) {
  const SmallVolume a;
  const SmallVolume b;
  const test::TempDir dir;
  const std::string link = dir / "device";
  std::filesystem::create_symlink(b.device(), link);
  const HeldSet set = newSet();
  ASSERT_EQ(add(set, 1, a), 1u);
  ASSERT_EQ(add(set, 2, b), 2u);
  const HeldVolume first(set->GetAt(0));
  const HeldVolume second(set->GetAt(1));
  EXPECT_EQ(HeldVolume(set->GetFor(guid(1))), first);
  EXPECT_EQ(HeldVolume(set->GetFor(guid(2))), second);
  EXPECT_EQ(HeldVolume(set->GetFor(a.wdevice().c_str())), first);
  EXPECT_EQ(HeldVolume(set->GetFor(wide(link).c_str())), second);
  EXPECT_EQ(set->InternalGet(guid(2)), second.get());
  EXPECT_EQ(set->InternalGet(wide(link).c_str()), second.get());
  EXPECT_TRUE(set->Exists(guid(1)));
  EXPECT_TRUE(set->Exists(wide(link).c_str()));
}

TEST(MirelSnapshotSetParams, finds_nothing_for_strangers_and_for_names_that_are_no_block_device) {
  const SmallVolume a;
  const SmallVolume stranger;
  const HeldSet set = newSet();
  ASSERT_EQ(add(set, 1, a), 1u);
  EXPECT_EQ(set->GetFor(guid(9)), nullptr);
  EXPECT_EQ(set->InternalGet(guid(9)), nullptr);
  EXPECT_FALSE(set->Exists(guid(9)));
  const wchar_t* const nothing = nullptr;
  for (const wchar_t* name : {stranger.wdevice().c_str(), L"/dev/null", L"/mnt", L"/dev/missing", L"", nothing}) {
    EXPECT_EQ(set->GetFor(name), nullptr);
    EXPECT_EQ(set->InternalGet(name), nullptr);
    EXPECT_FALSE(set->Exists(name));
  }
}

TEST(InternalExists, is_true_when_the_identifier_or_the_name_is_there) {
  const SmallVolume a;
  const SmallVolume stranger;
  const HeldSet set = newSet();
  ASSERT_EQ(add(set, 1, a), 1u);
  EXPECT_TRUE(set->InternalExists(guid(1), a.wdevice().c_str()));
  EXPECT_TRUE(set->InternalExists(guid(1), stranger.wdevice().c_str()));
  EXPECT_TRUE(set->InternalExists(guid(9), a.wdevice().c_str()));
  EXPECT_FALSE(set->InternalExists(guid(9), stranger.wdevice().c_str()));
}

TEST(MirelSnapshotSetParams, hands_out_volumes_with_a_reference_and_finds_their_positions) {
  const SmallVolume a;
  const SmallVolume b;
  HeldSet set = newSet();
  ASSERT_EQ(add(set, 1, a), 1u);
  ASSERT_EQ(add(set, 2, b), 2u);
  EXPECT_EQ(set->GetAt(2), nullptr);
  EXPECT_EQ(set->GetAt(0xFFFFFFFF), nullptr);
  MirelSnapshotVolumeParams* const byPosition = set->GetAt(1);
  MirelSnapshotVolumeParams* const byIdentifier = set->GetFor(guid(2));
  MirelSnapshotVolumeParams* const byName = set->GetFor(b.wdevice().c_str());
  EXPECT_EQ(set->GetIndex(byPosition), 1u);
  set.reset();
  EXPECT_FALSE(byPosition->Done());
  EXPECT_FALSE(byIdentifier->Done());
  EXPECT_EQ(byName->GetDeviceNumber(), b.number());
  EXPECT_TRUE(byName->Done());
}

TEST(GetIndex, is_all_ones_for_an_object_that_is_not_in_the_set) {
  const SmallVolume a;
  const SmallVolume b;
  const HeldSet set = newSet();
  const HeldSet other = newSet(2);
  ASSERT_EQ(add(set, 1, a), 1u);
  ASSERT_EQ(add(other, 1, a), 1u);
  const HeldVolume twin(other->GetAt(0));  // the same identifier and device, another object
  EXPECT_EQ(set->GetIndex(twin.get()), 0xFFFFFFFFu);
  EXPECT_EQ(set->GetIndex(nullptr), 0xFFFFFFFFu);
}

TEST(RemoveAt, drops_the_volume_and_closes_the_gap) {
  const SmallVolume a;
  const SmallVolume b;
  const HeldSet set = newSet();
  ASSERT_EQ(add(set, 1, a), 1u);
  ASSERT_EQ(add(set, 2, b), 2u);
  MirelSnapshotVolumeParams* const first = set->GetAt(0);
  EXPECT_FALSE(set->RemoveAt(2));
  EXPECT_TRUE(set->RemoveAt(0));
  EXPECT_TRUE(first->Done());  // ours was the last reference
  EXPECT_EQ(set->GetVolumeCount(), 1u);
  EXPECT_EQ(HeldVolume(set->GetAt(0))->GetDeviceNumber(), b.number());
  EXPECT_FALSE(set->RemoveAt(1));
  EXPECT_FALSE(set->RemoveAt(0xFFFFFFFF));
}

TEST(Remove, drops_that_very_volume) {
  const SmallVolume a;
  const SmallVolume b;
  const HeldSet set = newSet();
  ASSERT_EQ(add(set, 1, a), 1u);
  ASSERT_EQ(add(set, 2, b), 2u);
  const HeldVolume second(set->GetAt(1));
  EXPECT_FALSE(set->Remove(nullptr));
  EXPECT_TRUE(set->Remove(second.get()));
  EXPECT_FALSE(set->Remove(second.get()));
  EXPECT_EQ(set->GetVolumeCount(), 1u);
  EXPECT_TRUE(set->Exists(guid(1)));
  EXPECT_FALSE(set->Exists(guid(2)));
}

TEST(MirelSnapshotSetParams, takes_its_mutex_once_in_every_operation) {
  const SmallVolume a;
  const HeldSet set = newSet();
  const std::wstring name = a.wdevice();
  const std::wstring folder = a.wfolder();
  const auto expectOneLock = [](const char* operation, auto call) {
    const unsigned int before = test::locksTaken();
    call();
    EXPECT_EQ(test::locksTaken(), before + 1) << operation;
  };
  expectOneLock("Add", [&] { set->Add(guid(1), name.c_str(), folder.c_str()); });
  expectOneLock("GetVolumeCount", [&] { set->GetVolumeCount(); });
  expectOneLock("Exists id", [&] { set->Exists(guid(1)); });
  expectOneLock("Exists name", [&] { set->Exists(name.c_str()); });
  expectOneLock("InternalExists", [&] { set->InternalExists(guid(1), name.c_str()); });
  expectOneLock("InternalGet id", [&] { set->InternalGet(guid(1)); });
  expectOneLock("InternalGet name", [&] { set->InternalGet(name.c_str()); });
  expectOneLock("GetFor id", [&] { HeldVolume(set->GetFor(guid(1))); });
  expectOneLock("GetFor name", [&] { HeldVolume(set->GetFor(name.c_str())); });
  expectOneLock("GetAt", [&] { HeldVolume(set->GetAt(0)); });
  expectOneLock("GetIndex", [&] { set->GetIndex(nullptr); });
  expectOneLock("Remove", [&] { set->Remove(nullptr); });
  expectOneLock("RemoveAt", [&] { set->RemoveAt(0); });
  expectOneLock("AddToAlternateMountSet", [&] { set->AddToAlternateMountSet(L"/mnt"); });
  expectOneLock("DoMountAlternateSet", [&] { set->DoMountAlternateSet(L"/mnt/missing"); });
  expectOneLock("DoDismountAlternateSet", [&] { set->DoDismountAlternateSet(); });
  MirelSnapshotSetParams* const last = newSet(2).release();
  expectOneLock("the destructor", [&] { last->Done(); });
}

TEST(MirelSnapshotSetParams, counts_and_hands_out_alternate_mounts_without_its_mutex) {
  const HeldSet set = newSet();
  ASSERT_EQ(set->AddToAlternateMountSet(L"/mnt"), 1u);
  const unsigned int before = test::locksTaken();
  EXPECT_EQ(set->GetAlternateMountCount(), 1u);
  EXPECT_NE(set->GetAlternateMount(0), nullptr);
  EXPECT_EQ(test::locksTaken(), before);
}

TEST(MirelSnapshotSetParams, many_threads_may_use_one_set) {
  const SmallVolume a;
  const SmallVolume b;
  const HeldSet set = newSet();
  ASSERT_EQ(add(set, 1, a), 1u);
  const std::wstring name = b.wdevice();
  const std::wstring folder = b.wfolder();
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 25; ++i) {
        set->Add(guid(2), name.c_str(), folder.c_str());
        const HeldVolume volume(set->GetFor(guid(2)));
        if (volume != nullptr) {
          EXPECT_EQ(volume->GetDeviceNumber(), b.number());
          set->Remove(volume.get());
        }
        EXPECT_TRUE(set->Exists(guid(1)));
        EXPECT_LE(set->GetVolumeCount(), 2u);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(set->GetVolumeCount(), 1u);
}
