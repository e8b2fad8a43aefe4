// SPDX-License-Identifier: Apache-2.0
//
// A user who owns the top of a volume, or a folder above its mount point, moves the relocation file of a snapshot away
// while it is held. The run ends and says where it is; nothing that stands in its place is removed.
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <optional>

#include "DriverClient.h"
#include "OwnWorld.h"
#include "Run.h"
#include "User.h"

namespace fs = std::filesystem;

namespace {

using test::Ended;
using test::kUser;
using test::LoopDevice;
using test::Mounted;
using test::runScript;
using test::Session;
using test::TempDir;

struct Place {
  const char* name;
  const char* type;
  std::uint64_t bytes;
  bool bound;  // the volume is named by a bind mount
};

void PrintTo(const Place& place, std::ostream* out) { *out << place.name; }

class MovedFile : public testing::TestWithParam<Place> {
 protected:
  MovedFile() {
    loop.mkfs(GetParam().type);
    EXPECT_EQ(chmod(top.path().c_str(), 0755), 0);
    fs::create_directories(path);
    if (GetParam().bound) whole.emplace(loop.path(), first.path(), GetParam().type);
    const std::string& source = GetParam().bound ? first.path() : loop.path();
    EXPECT_EQ(mount(source.c_str(), path.c_str(), GetParam().type, GetParam().bound ? MS_BIND : 0, nullptr), 0);
    test::ownWorld().addFileSystem(path);
    for (const std::string& folder : {theirs, path}) EXPECT_EQ(chown(folder.c_str(), kUser, kUser), 0);
  }
  ~MovedFile() override {
    for (const std::string& folder : {path, moved + "/folder"}) static_cast<void>(test::unmount(folder));
    whole.reset();
  }

  // A run during which the user does `what`. Its relocation file goes to the path that he can change.
  Ended runWhile(const std::string& what) {
    const std::string user = std::to_string(kUser);
    return runScript(session, {"--volume", loop.path(), "--reloc-mount", path, "--reloc-size", "100"},
                     "exec setpriv --reuid=" + user + " --regid=" + user + " --clear-groups /bin/sh -c '" + what + "'");
  }
  void expectTold(const Ended& ended, const std::string& file, const std::string& advice) const {
    EXPECT_EQ(ended.code, 118);
    EXPECT_EQ(ended.errors, "mirelsnap: " + file + ": the relocation file was moved there from " + path +
                                "/.verrelocarea/" + name + " and is left; " + advice + "\n");
    EXPECT_TRUE(fs::exists(file));
  }

  const TempDir top;
  const TempDir first;
  const LoopDevice loop{GetParam().bytes};
  const std::string name = loop.path().substr(5);
  const std::string theirs = top / "theirs";
  const std::string moved = top / "moved";
  const std::string path = theirs + "/folder";
  std::optional<Mounted> whole;
  Session session;
};

constexpr char kReconcile[] = "run mirelsnap reconcile: that removes what is left";

INSTANTIATE_TEST_SUITE_P(On, MovedFile,
                         testing::Values(Place{"ext4", "ext4", 32 << 20, false}, Place{"xfs", "xfs", 300 << 20, false},
                                         Place{"a_bind_mount_of_ext4", "ext4", 32 << 20, true},
                                         Place{"a_bind_mount_of_xfs", "xfs", 300 << 20, true}),
                         [](const auto& place) { return std::string(place.param.name); });

TEST_P(MovedFile, with_its_directory_is_told_of_and_what_the_user_put_there_stays) {
  const Ended ended = runWhile("cd " + path +
                               " && mv .verrelocarea kept && mkdir .verrelocarea && echo mine > "
                               ".verrelocarea/" +
                               name);
  expectTold(ended, path + "/kept/" + name, "no snapshot uses it any more: remove it");
  EXPECT_EQ(test::readFile(path + "/.verrelocarea/" + name), "mine\n");
  test::removeTree(path + "/kept");
  test::removeTree(path + "/.verrelocarea");
}

TEST_P(MovedFile, with_its_directory_is_not_advised_to_be_removed_by_hand_while_anything_is_snapped) {
  const test::Volume other("ext4", 32 << 20);
  test::DriverClient driver(session);
  ASSERT_EQ(driver.snap({{.device = other.device(), .folder = other.folder()}}).result, 0);
  expectTold(runWhile("cd " + path + " && mv .verrelocarea kept"), path + "/kept/" + name,
             "remove it when mirelsnap status shows no snapshot and no mapping");
  EXPECT_EQ(driver.unsnap({other.device()}), 0u);
  test::removeTree(path + "/kept");
}

TEST_P(MovedFile, with_the_folder_above_the_mount_point_is_told_of_and_reconciled) {
  const TempDir victim;
  fs::create_directories(victim / "folder/.verrelocarea");
  test::writeFile(victim / "folder/.verrelocarea/" + name, "precious");
  ASSERT_EQ(chmod((top.path()).c_str(), 0777), 0);
  const Ended ended = runWhile("mv " + theirs + " " + moved + " && ln -s " + victim.path() + " " + theirs);
  expectTold(ended, moved + "/folder/.verrelocarea/" + name, kReconcile);
  EXPECT_EQ(test::readFile(victim / "folder/.verrelocarea/" + name), "precious");
  EXPECT_EQ(session.run({MIRELSNAP_PROGRAM, "reconcile"}).code, 0);
  EXPECT_FALSE(fs::exists(moved + "/folder/.verrelocarea"));
  EXPECT_EQ(test::readFile(victim / "folder/.verrelocarea/" + name), "precious");
  fs::remove(theirs);
  fs::rename(moved, theirs);
}

}  // namespace
