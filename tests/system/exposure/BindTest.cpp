// SPDX-License-Identifier: Apache-2.0
//
// A live mount below a user's folder is to be bound below a base, and the user puts links in its place, or in the place
// of the target, before that is done: no mount is made outside of the base, and the run says what could not be bound.
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <filesystem>
#include <optional>

#include "MountList.h"
#include "Run.h"
#include "StoppedProcess.h"
#include "User.h"

namespace fs = std::filesystem;

namespace {

using test::asUser;
using test::kUser;
using test::LoopDevice;
using test::Mounted;
using test::Session;
using test::StoppedProcess;
using test::TempDir;
using test::Volume;

using Texts = std::vector<std::string>;

struct Place {
  const char* name;
  const char* type;
  std::uint64_t bytes;
  bool bound;  // the user's volume is reached by a bind mount
};

void PrintTo(const Place& place, std::ostream* out) { *out << place.name; }

// A user's volume with a live mount at .../theirs/inner, a volume that is snapped, and a directory of root's that has
// an "inner" too.
class SwappedBind : public testing::TestWithParam<Place> {
 protected:
  SwappedBind() {
    for (const TempDir* folder : {&elsewhere, &victim}) EXPECT_EQ(chmod(folder->path().c_str(), 0755), 0);
    EXPECT_EQ(chmod(fs::path(outer.folder()).parent_path().c_str(), 0755), 0);
    EXPECT_EQ(chown(top.c_str(), kUser, kUser), 0);
    fs::create_directories(top + "/theirs/inner");
    fs::create_directory(victim / "inner");
    test::writeFile(victim / "inner/file", "root's");
    innerLoop.mkfs("ext4");
    inner.emplace(innerLoop.path(), top + "/theirs/inner", "ext4");
  }
  ~SwappedBind() override { inner.reset(); }

  void swap() const {
    ASSERT_TRUE(asUser([&] {
      return rename((top + "/theirs").c_str(), (top + "/moved").c_str()) == 0 &&
             symlink(victim.path().c_str(), (top + "/theirs").c_str()) == 0;
    }));
  }
  void swapBack() const {
    fs::remove(top + "/theirs");
    fs::rename(top + "/moved", top + "/theirs");
  }
  Texts arguments(const Texts& options) const {
    Texts all = {"--base", base};
    all.insert(all.end(), options.begin(), options.end());
    return test::runArguments(all, {"/bin/echo", "it ran"});
  }
  // Lets a run go on until it is about to make its mount number `count`.
  static void goToMount(StoppedProcess& run, unsigned int count) {
    while (count > 0) {
      const std::optional<long> call = run.next();
      ASSERT_TRUE(call) << run.process().errors();
      if (*call == SYS_mount) --count;
    }
  }
  void expectRefused(StoppedProcess& run, const std::string& bind, const std::string& why) const {
    while (run.next()) {
    }
    EXPECT_EQ(run.process().wait(), 117);
    EXPECT_EQ(run.process().errors(), "mirelsnap: " + bind + ": cannot be bound at " + base + bind + ": " + why +
                                          "; see whether somebody replaced a folder of either path meanwhile, and run "
                                          "this again\n");
    EXPECT_EQ(run.process().output(), "");
    EXPECT_EQ(test::mountsUnder(victim.path()), Texts());
    EXPECT_EQ(test::mountsUnder(base), Texts());
    EXPECT_FALSE(fs::exists(base));
    EXPECT_EQ(test::readFile(victim / "inner/file"), "root's");
  }

  const TempDir dir, elsewhere, victim;
  const std::string base = dir / "base";
  const Volume volume{"ext4", 32 << 20};
  const Volume outer{GetParam().type, GetParam().bytes};
  const std::optional<Mounted> bound{
      GetParam().bound ? std::make_optional<Mounted>(outer.folder(), elsewhere.path(), "", MS_BIND) : std::nullopt};
  const std::string top = bound ? bound->folder() : outer.folder();
  const LoopDevice innerLoop{16 << 20};
  std::optional<Mounted> inner;
  std::optional<Session> session{std::in_place};
};

INSTANTIATE_TEST_SUITE_P(On, SwappedBind,
                         testing::Values(Place{"ext4", "ext4", 32 << 20, false}, Place{"xfs", "xfs", 300 << 20, false},
                                         Place{"a_bind_mount_of_ext4", "ext4", 32 << 20, true},
                                         Place{"a_bind_mount_of_xfs", "xfs", 300 << 20, true}),
                         [](const auto& place) { return std::string(place.param.name); });

// The first mount is the snapshot's.
TEST_P(SwappedBind, whose_source_is_a_link_by_then_is_not_made) {
  StoppedProcess run(*session, arguments({"--volume", volume.device(), "--bind", top + "/theirs/inner"}));
  ASSERT_NO_FATAL_FAILURE(goToMount(run, 1));
  ASSERT_NO_FATAL_FAILURE(swap());
  expectRefused(run, top + "/theirs/inner", "Too many levels of symbolic links");
  swapBack();
}

// The snapshot shows the link, the live tree the mount.
TEST_P(SwappedBind, whose_target_is_below_a_link_of_the_snapshot_is_not_made) {
  test::Process stopping =
      session->start(arguments({"--volume", outer.device() + ":" + top, "--bind", top + "/theirs/inner"}),
                     {.environment = test::withMischief("stop-before:19:1")});
  stopping.waitUntilStopped();
  ASSERT_NO_FATAL_FAILURE(swap());
  StoppedProcess run(std::move(stopping));
  while (!fs::exists(base)) ASSERT_TRUE(run.next()) << run.process().errors();
  swapBack();
  expectRefused(run, top + "/theirs/inner", "Too many levels of symbolic links");
}

// In an outer bind, which is live, the user changes source and target at once.
TEST_P(SwappedBind, in_another_bind_whose_folder_is_a_link_by_then_is_not_made) {
  StoppedProcess run(*session,
                     arguments({"--volume", volume.device(), "--bind", top + "/theirs/inner", "--bind", top}));
  // The snapshot's mount and its restriction; the outer bind, made private, made read-only; the inner bind.
  ASSERT_NO_FATAL_FAILURE(goToMount(run, 5));
  ASSERT_NO_FATAL_FAILURE(swap());
  expectRefused(run, top + "/theirs/inner", "Too many levels of symbolic links");
  swapBack();
}

TEST_P(SwappedBind, whose_source_is_another_mount_by_then_is_not_made) {
  StoppedProcess run(*session, arguments({"--volume", volume.device(), "--bind", top + "/theirs/inner"}));
  ASSERT_NO_FATAL_FAILURE(goToMount(run, 1));
  {
    const Mounted other("other", top + "/theirs/inner", "tmpfs");
    expectRefused(run, top + "/theirs/inner", "Invalid argument");
  }
}

}  // namespace
