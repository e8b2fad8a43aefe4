// SPDX-License-Identifier: Apache-2.0
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "Builders.h"
#include "EngineLog.h"
#include "Locale.h"
#include "OwnRoot.h"
#include "base/Handle.h"
#include "engine/MountVolumeParams.h"
#include "interpose/Allocations.h"
#include "interpose/FailingMalloc.h"

using test::directory;
using test::HeldSet;
using test::MirelMountVolumeParams;
using test::newSet;
using test::wide;

namespace {

using Entry = std::unique_ptr<MirelMountVolumeParams>;

struct Created {
  Entry entry;
  int error = -1;
};

Created create(const wchar_t* original, const wchar_t* newBound = nullptr) {
  Created created;
  created.entry.reset(MirelMountVolumeParams::CreateMountVolumeParams(original, newBound, created.error));
  return created;
}

int errorOf(const wchar_t* original, const wchar_t* newBound = nullptr) {
  const Created created = create(original, newBound);
  EXPECT_EQ(created.entry, nullptr);
  return created.error;
}

// A live mount point with a file in it, and an empty base whose tree has the directory to bind it to.
struct LiveMount {
  LiveMount()
      : mounted("live", directory(dir / "live"), "tmpfs"),
        point(wide(mounted.folder())),
        base(directory(dir / "base")),
        target(directory(base + mounted.folder())) {
    test::writeFile(mounted.folder() + "/file", "live");
  }

  test::TempDir dir;
  test::Mounted mounted;
  std::wstring point;
  std::string base;
  std::string target;
};

bool isBound(const std::string& target) { return access((target + "/file").c_str(), F_OK) == 0; }

}  // namespace

TEST(CreateMountVolumeParams, takes_a_mount_point) {
  const LiveMount live;
  const Created created = create(live.point.c_str());
  ASSERT_NE(created.entry, nullptr);
  EXPECT_EQ(created.error, 0);
  EXPECT_EQ(created.entry->OriginalMountPoint(), live.mounted.folder());
  EXPECT_EQ(created.entry->NewBoundMountPoint(), nullptr);
  EXPECT_FALSE(created.entry->IsMounted());
  EXPECT_EQ(created.entry->MountError(), 0);
}

TEST(CreateMountVolumeParams, takes_a_directory_to_bind_to) {
  const LiveMount live;
  const Created created = create(live.point.c_str(), wide(live.base).c_str());
  ASSERT_NE(created.entry, nullptr);
  EXPECT_EQ(created.error, 0);
  EXPECT_EQ(created.entry->NewBoundMountPoint(), live.base);
}

TEST(CreateMountVolumeParams, refuses_paths_that_are_not_absolute) {
  EXPECT_EQ(errorOf(nullptr), EINVAL);
  EXPECT_EQ(errorOf(L""), EINVAL);
  EXPECT_EQ(errorOf(L"mnt"), EINVAL);
  EXPECT_EQ(errorOf(L"/mnt", L"mnt"), EINVAL);
  EXPECT_EQ(errorOf(L"/mnt", L""), EINVAL);
}

TEST(CreateMountVolumeParams, refuses_paths_that_cannot_be_narrowed) {
  const test::Locale plain(test::kPlain);
  EXPECT_EQ(errorOf(L"/mnt/caf\u00E9"), ENOMEM);
  EXPECT_EQ(errorOf(L"/mnt", L"/mnt/caf\u00E9"), ENOMEM);
  // Absolute comes first, narrow second, mounted third.
  EXPECT_EQ(errorOf(L"mnt/caf\u00E9"), EINVAL);
  EXPECT_EQ(errorOf(L"/mnt/missing", L"/mnt/caf\u00E9"), ENOMEM);
}

TEST(CreateMountVolumeParams, refuses_what_is_not_a_mount_point_itself) {
  const LiveMount live;
  directory(live.mounted.folder() + "/sub");
  std::filesystem::create_directory_symlink(live.mounted.folder(), live.dir / "link");
  EXPECT_EQ(errorOf((live.point + L"/sub").c_str()), EINVAL);
  EXPECT_EQ(errorOf((live.point + L"/").c_str()), EINVAL);
  EXPECT_EQ(errorOf(wide(live.dir / "link").c_str()), EINVAL);
  EXPECT_EQ(errorOf(L"/mnt/missing"), EINVAL);
}

TEST(CreateMountVolumeParams, refuses_a_bound_mount_point_that_is_no_directory) {
  const LiveMount live;
  test::writeFile(live.dir / "file", "");
  EXPECT_EQ(errorOf(live.point.c_str(), wide(live.dir / "file").c_str()), EINVAL);
  EXPECT_EQ(errorOf(live.point.c_str(), wide(live.dir / "missing").c_str()), EINVAL);
}

TEST(CreateMountVolumeParams, answers_12_when_a_name_or_the_entry_finds_no_memory) {
  {
    const test::FailingMalloc failing;
    EXPECT_EQ(errorOf(L"/mnt"), ENOMEM);
  }
  {
    const test::FailingMalloc failing(1);
    EXPECT_EQ(errorOf(L"/mnt", L"/mnt"), ENOMEM);
  }
  const std::ptrdiff_t before = test::heldBytes();
  int last = -1;
  std::size_t allocations = 0;
  for (Entry entry; entry == nullptr; ++allocations) {
    const test::FailingAllocation failing(allocations);
    int error = -1;
    entry.reset(MirelMountVolumeParams::CreateMountVolumeParams(L"/mnt", nullptr, error));
    if (entry != nullptr) break;
    // Without memory for the mount table nothing is found to be mounted; the entry's own allocation is the last.
    EXPECT_TRUE(error == EINVAL || error == ENOMEM) << error;
    EXPECT_EQ(test::heldBytes(), before);
    last = error;
    ASSERT_LT(allocations, 1000u);
  }
  EXPECT_GT(allocations, 5u);
  EXPECT_EQ(last, ENOMEM);
}

TEST(AlternateMount, is_bound_at_the_base_joined_with_its_own_path) {
  const LiveMount live;
  const Entry entry = create(live.point.c_str()).entry;
  test::EngineLog log;
  EXPECT_TRUE(entry->DoMount(wide(live.base).c_str()));
  EXPECT_TRUE(isBound(live.target));
  EXPECT_TRUE(entry->IsMounted());
  EXPECT_EQ(entry->NewBoundMountPoint(), live.target);
  EXPECT_EQ(entry->MountError(), 0);
  EXPECT_EQ(log.lines(), (std::vector<std::wstring>{L"DoMount: mount( \"" + live.point + L"\", \"" + wide(live.target) +
                                                    L"\", NULL, MS_BIND, NULL ) Succeeded!"}));
  EXPECT_TRUE(entry->DoDismount());
}

TEST(AlternateMount, bound_once_stays_where_it_is) {
  const LiveMount live;
  const Entry entry = create(live.point.c_str()).entry;
  ASSERT_TRUE(entry->DoMount(wide(live.base).c_str()));
  test::EngineLog log;
  EXPECT_TRUE(entry->DoMount(L"/mnt/missing"));
  EXPECT_TRUE(entry->DoMount(nullptr));
  EXPECT_TRUE(log.lines().empty());
  EXPECT_EQ(entry->NewBoundMountPoint(), live.target);
  EXPECT_TRUE(entry->DoDismount());
  EXPECT_FALSE(isBound(live.target));
}

TEST(AlternateMount, a_trailing_slash_of_the_base_makes_no_double_slash) {
  const LiveMount live;
  const Entry entry = create(live.point.c_str()).entry;
  ASSERT_TRUE(entry->DoMount((wide(live.base) + L"/").c_str()));
  EXPECT_EQ(entry->NewBoundMountPoint(), live.target);
  EXPECT_TRUE(entry->DoDismount());
}

TEST(AlternateMount, the_root_is_bound_at_the_base_itself) {
  const test::OwnRoot root;
  const std::string base = directory("/mnt/snaps");
  test::writeFile("/letter", "live");
  const Entry entry = create(L"/").entry;
  ASSERT_NE(entry, nullptr);
  test::EngineLog log;
  ASSERT_TRUE(entry->DoMount((wide(base) + L"/").c_str()));
  EXPECT_EQ(entry->NewBoundMountPoint(), base);
  EXPECT_EQ(test::readFile(base + "/letter"), "live");
  EXPECT_TRUE(entry->DoDismount());
  EXPECT_EQ(log.lines(), (std::vector<std::wstring>{
                             L"DoMount: mount( \"/\", \"" + wide(base) + L"\", NULL, MS_BIND, NULL ) Succeeded!",
                             L"DoDismount: umount( \"" + wide(base) + L"\") Succeeded"}));
}

TEST(AlternateMount, without_a_base_is_bound_below_the_bound_mount_point_it_was_given) {
  const LiveMount live;
  const Entry entry = create(live.point.c_str(), wide(live.base).c_str()).entry;
  ASSERT_NE(entry, nullptr);
  EXPECT_TRUE(entry->DoMount(nullptr));
  EXPECT_TRUE(isBound(live.target));
  EXPECT_EQ(entry->NewBoundMountPoint(), live.target);
  EXPECT_TRUE(entry->DoDismount());
}

TEST(AlternateMount, a_given_base_comes_before_the_bound_mount_point_that_it_has) {
  const LiveMount live;
  const std::string other = directory(live.dir / "other");
  directory(other + live.mounted.folder());
  const Entry entry = create(live.point.c_str(), wide(other).c_str()).entry;
  ASSERT_NE(entry, nullptr);
  EXPECT_TRUE(entry->DoMount(wide(live.base).c_str()));
  EXPECT_EQ(entry->NewBoundMountPoint(), live.target);
  EXPECT_TRUE(entry->DoDismount());
  EXPECT_TRUE(entry->DoMount(wide(other).c_str()));  // bound again, elsewhere
  EXPECT_EQ(entry->NewBoundMountPoint(), other + live.mounted.folder());
  EXPECT_FALSE(isBound(live.target));
  EXPECT_TRUE(entry->DoDismount());
}

TEST(AlternateMount, without_any_base_is_refused_with_22) {
  const Entry entry = create(L"/mnt").entry;
  test::EngineLog log;
  EXPECT_FALSE(entry->DoMount(nullptr));
  EXPECT_EQ(entry->MountError(), EINVAL);
  EXPECT_FALSE(entry->IsMounted());
  EXPECT_EQ(log.lines(), (std::vector<std::wstring>{L"DoMount: Unable to obtain the target mount directory, cannot "
                                                    L"mount \"/mnt\", Error: 22, {Invalid argument}"}));
}

TEST(AlternateMount, with_a_base_that_cannot_be_narrowed_is_refused_with_12) {
  const test::Locale plain(test::kPlain);
  const Entry entry = create(L"/mnt").entry;
  test::EngineLog log;
  EXPECT_FALSE(entry->DoMount(L"/mnt/caf\u00E9"));
  EXPECT_EQ(entry->MountError(), ENOMEM);
  EXPECT_EQ(log.lines(), (std::vector<std::wstring>{L"DoMount: Unable to obtain the target mount directory, cannot "
                                                    L"mount \"/mnt\", Error: 12, {Cannot allocate memory}"}));
}

TEST(AlternateMount, with_a_base_that_cannot_be_narrowed_falls_back_on_the_bound_mount_point) {
  const test::Locale plain(test::kPlain);
  const LiveMount live;
  const Entry entry = create(live.point.c_str(), wide(live.base).c_str()).entry;
  EXPECT_TRUE(entry->DoMount(L"/mnt/caf\u00E9"));
  EXPECT_EQ(entry->NewBoundMountPoint(), live.target);
  EXPECT_TRUE(entry->DoDismount());
}

TEST(AlternateMount, whose_paths_cannot_be_joined_is_bound_all_the_same_and_fails_in_the_kernel) {
  const Entry entry = create(L"/mnt").entry;
  test::EngineLog log;
  EXPECT_FALSE(entry->DoMount(L"relative"));
  EXPECT_EQ(entry->MountError(), EFAULT);
  EXPECT_FALSE(entry->IsMounted());
  EXPECT_EQ(log.lines(),
            (std::vector<std::wstring>{
                L"DoMount: Unable to obtain the target mount directory, cannot mount \"/mnt\", Error: 12, {Cannot "
                L"allocate memory}",
                L"DoMount: mount( \"/mnt\", \"(null)\", NULL, MS_BIND, NULL ) failed, Error: 14, {Bad address}"}));
}

TEST(AlternateMount, that_the_kernel_refuses_logs_the_stored_bound_mount_point_not_the_target) {
  const LiveMount live;
  std::filesystem::remove(live.target);
  const std::wstring base = wide(live.base);
  const Entry entry = create(live.point.c_str(), base.c_str()).entry;
  test::EngineLog log;
  EXPECT_FALSE(entry->DoMount(base.c_str()));
  EXPECT_EQ(entry->MountError(), ENOENT);
  EXPECT_FALSE(entry->IsMounted());
  EXPECT_EQ(entry->NewBoundMountPoint(), live.base);
  EXPECT_EQ(log.lines(), (std::vector<std::wstring>{L"DoMount: mount( \"" + live.point + L"\", \"" + base +
                                                    L"\", NULL, MS_BIND, NULL ) failed, Error: 2, {No such file or "
                                                    L"directory}"}));
}

TEST(AlternateMount, that_is_another_mount_by_now_is_not_bound) {
  const LiveMount live;
  const Entry entry = create(live.point.c_str()).entry;
  const test::Mounted other("other", live.mounted.folder(), "tmpfs");
  EXPECT_FALSE(entry->DoMount(wide(live.base).c_str()));
  EXPECT_EQ(entry->MountError(), EINVAL);
}

TEST(AlternateMount, a_link_above_the_live_mount_point_leads_to_no_other_folder) {
  const test::TempDir dir;
  const test::Mounted mounted("live", directory(dir / "theirs/live"), "tmpfs");
  const std::string base = directory(dir / "base");
  directory(base + mounted.folder());
  const Entry entry = create(wide(mounted.folder()).c_str()).entry;
  std::filesystem::rename(dir / "theirs", dir / "moved");
  std::filesystem::create_directory_symlink(dir / "moved", dir / "theirs");
  EXPECT_FALSE(entry->DoMount(wide(base).c_str()));
  EXPECT_EQ(entry->MountError(), ELOOP);
  std::filesystem::remove(dir / "theirs");
  std::filesystem::rename(dir / "moved", dir / "theirs");
}

TEST(AlternateMount, a_link_above_the_bound_mount_point_leads_to_no_other_mount) {
  const LiveMount live;
  const Entry entry = create(live.point.c_str()).entry;
  ASSERT_TRUE(entry->DoMount(wide(live.base).c_str()));
  const std::string above = std::filesystem::path(live.target).parent_path();
  std::filesystem::rename(above, live.dir / "moved");
  const test::Mounted victim("victim", directory(live.dir / "victim/live"), "tmpfs");
  std::filesystem::create_directory_symlink(live.dir / "victim", above);
  EXPECT_FALSE(entry->DoDismount());
  EXPECT_EQ(entry->MountError(), ELOOP);
  std::filesystem::remove(above);
  std::filesystem::rename(live.dir / "moved", above);
  EXPECT_TRUE(entry->DoDismount());
}

TEST(AlternateMount, not_bound_is_unbound_without_a_word) {
  const Entry entry = create(L"/mnt").entry;
  test::EngineLog log;
  EXPECT_TRUE(entry->DoDismount());
  EXPECT_TRUE(log.lines().empty());
}

TEST(AlternateMount, in_use_stays_bound_until_it_is_free) {
  const LiveMount live;
  const Entry entry = create(live.point.c_str()).entry;
  ASSERT_TRUE(entry->DoMount(wide(live.base).c_str()));
  test::EngineLog log;
  {
    const UniqueFd user(open((live.target + "/file").c_str(), O_RDONLY | O_CLOEXEC));
    EXPECT_FALSE(entry->DoDismount());
  }
  EXPECT_TRUE(entry->IsMounted());
  EXPECT_EQ(entry->MountError(), EBUSY);
  EXPECT_TRUE(entry->DoDismount());
  EXPECT_FALSE(entry->IsMounted());
  EXPECT_FALSE(isBound(live.target));
  EXPECT_EQ(entry->MountError(), EBUSY);  // the last failure's
  EXPECT_EQ(entry->NewBoundMountPoint(), live.target);
  EXPECT_EQ(log.lines(), (std::vector<std::wstring>{L"DoDismount: umount( \"" + wide(live.target) +
                                                        L"\") failed, Error: 16, {Device or resource busy}",
                                                    L"DoDismount: umount( \"" + wide(live.target) + L"\") Succeeded"}));
}

TEST(AlternateMountSet, keeps_one_entry_for_a_mount_point_that_is_added_twice) {
  const LiveMount live;
  const HeldSet set = newSet();
  EXPECT_EQ(set->AddToAlternateMountSet(L"/mnt"), 1u);
  EXPECT_EQ(set->AddToAlternateMountSet(live.point.c_str()), 2u);
  EXPECT_EQ(set->AddToAlternateMountSet(L"/mnt"), 2u);
  EXPECT_EQ(set->AddToAlternateMountSet(live.point.c_str()), 2u);
  EXPECT_EQ(set->GetAlternateMountCount(), 2u);
  EXPECT_STREQ(set->GetAlternateMount(0)->OriginalMountPoint(), "/mnt");
  EXPECT_EQ(set->GetAlternateMount(1)->OriginalMountPoint(), live.mounted.folder());
  EXPECT_EQ(set->GetAlternateMount(2), nullptr);
}

TEST(AlternateMountSet, answers_the_count_for_a_known_mount_point_even_when_it_is_gone) {
  const HeldSet set = newSet();
  const test::TempDir dir;
  const std::wstring folder = wide(directory(dir / "data"));
  {
    const test::Mounted mounted("a", dir / "data", "tmpfs");
    ASSERT_EQ(set->AddToAlternateMountSet(folder.c_str()), 1u);
  }
  EXPECT_EQ(set->AddToAlternateMountSet(folder.c_str()), 1u);
}

TEST(AlternateMountSet, refuses_what_is_no_mount_point) {
  const test::Locale plain(test::kPlain);
  const LiveMount live;
  directory(live.mounted.folder() + "/sub");
  const HeldSet set = newSet();
  EXPECT_EQ(set->AddToAlternateMountSet((live.point + L"/sub").c_str()), 0u);
  EXPECT_EQ(set->AddToAlternateMountSet(nullptr), 0u);
  EXPECT_EQ(set->AddToAlternateMountSet(L""), 0u);
  EXPECT_EQ(set->AddToAlternateMountSet(L"/mnt/caf\u00E9"), 0u);
  EXPECT_EQ(set->GetAlternateMountCount(), 0u);
  EXPECT_EQ(set->GetAlternateMount(0), nullptr);
}

TEST(AlternateMountSet, refuses_a_mount_point_when_memory_is_short_and_leaves_nothing) {
  const LiveMount live;
  const std::ptrdiff_t before = test::heldBytes();
  {
    const HeldSet set = newSet();
    std::size_t allocations = 0;
    for (;; ++allocations) {
      const test::FailingAllocation failing(allocations);
      if (set->AddToAlternateMountSet(live.point.c_str()) != 0) break;
      EXPECT_TRUE(failing.failed());
      ASSERT_EQ(set->GetAlternateMountCount(), 0u);
      ASSERT_LT(allocations, 1000u);
    }
    EXPECT_GT(allocations, 5u);
    EXPECT_EQ(set->GetAlternateMountCount(), 1u);
  }
  EXPECT_EQ(test::heldBytes(), before);
}

TEST(AlternateMountSet, refuses_a_null_base_even_without_entries) {
  const HeldSet set = newSet();
  EXPECT_EQ(set->DoMountAlternateSet(nullptr), E_INVALIDARG);
  EXPECT_EQ(set->DoMountAlternateSet(L"/mnt"), S_OK);
  EXPECT_EQ(set->DoDismountAlternateSet(), S_OK);
  ASSERT_EQ(set->AddToAlternateMountSet(L"/mnt"), 1u);
  EXPECT_EQ(set->DoMountAlternateSet(nullptr), E_INVALIDARG);
  EXPECT_FALSE(set->GetAlternateMount(0)->IsMounted());
}

TEST(AlternateMountSet, binds_and_unbinds_every_entry) {
  const LiveMount first;
  const LiveMount second;
  directory(first.base + second.mounted.folder());
  const HeldSet set = newSet();
  ASSERT_EQ(set->AddToAlternateMountSet(first.point.c_str()), 1u);
  ASSERT_EQ(set->AddToAlternateMountSet(second.point.c_str()), 2u);
  EXPECT_EQ(set->DoMountAlternateSet(wide(first.base).c_str()), S_OK);
  EXPECT_TRUE(isBound(first.base + first.mounted.folder()));
  EXPECT_TRUE(isBound(first.base + second.mounted.folder()));
  EXPECT_EQ(set->DoDismountAlternateSet(), S_OK);
  EXPECT_FALSE(isBound(first.base + first.mounted.folder()));
  EXPECT_FALSE(isBound(first.base + second.mounted.folder()));
}

TEST(AlternateMountSet, stops_at_the_first_entry_that_fails_and_leaves_the_earlier_ones_bound) {
  const LiveMount first;
  const LiveMount failing;  // its directory under the base is missing
  const LiveMount last;
  directory(first.base + last.mounted.folder());
  const HeldSet set = newSet();
  for (const LiveMount* live : {&first, &failing, &last}) set->AddToAlternateMountSet(live->point.c_str());
  EXPECT_EQ(set->DoMountAlternateSet(wide(first.base).c_str()), E_FAIL);
  EXPECT_TRUE(set->GetAlternateMount(0)->IsMounted());
  EXPECT_FALSE(set->GetAlternateMount(1)->IsMounted());
  EXPECT_EQ(set->GetAlternateMount(1)->MountError(), ENOENT);
  EXPECT_FALSE(set->GetAlternateMount(2)->IsMounted());
  EXPECT_EQ(set->GetAlternateMount(2)->MountError(), 0);
  EXPECT_EQ(set->DoDismountAlternateSet(), S_OK);
}

TEST(AlternateMountSet, unbinds_an_entry_before_the_earlier_one_that_it_lies_in) {
  const LiveMount outer;
  const test::Mounted inner("inner", directory(outer.mounted.folder() + "/inner"), "tmpfs");
  const HeldSet set = newSet();
  ASSERT_EQ(set->AddToAlternateMountSet(outer.point.c_str()), 1u);
  ASSERT_EQ(set->AddToAlternateMountSet(wide(inner.folder()).c_str()), 2u);
  ASSERT_EQ(set->DoMountAlternateSet(wide(outer.base).c_str()), S_OK);
  EXPECT_EQ(set->DoDismountAlternateSet(), S_OK);
  EXPECT_FALSE(isBound(outer.target));
}

TEST(AlternateMountSet, unbinds_all_it_can_when_one_entry_is_in_use) {
  const LiveMount busy;
  const LiveMount idle;
  directory(busy.base + idle.mounted.folder());
  const HeldSet set = newSet();
  for (const LiveMount* live : {&busy, &idle}) set->AddToAlternateMountSet(live->point.c_str());
  ASSERT_EQ(set->DoMountAlternateSet(wide(busy.base).c_str()), S_OK);
  {
    const UniqueFd user(open((busy.target + "/file").c_str(), O_RDONLY | O_CLOEXEC));
    EXPECT_EQ(set->DoDismountAlternateSet(), E_FAIL);
  }
  EXPECT_TRUE(set->GetAlternateMount(0)->IsMounted());
  EXPECT_FALSE(set->GetAlternateMount(1)->IsMounted());
  EXPECT_EQ(set->DoDismountAlternateSet(), S_OK);
}
