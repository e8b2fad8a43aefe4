// SPDX-License-Identifier: Apache-2.0
//
// A volume whose top a user may write to, and what he puts there before root snaps it or reconciles. The user's part is
// done by a process without rights, root's by the shipped program.
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <syslog.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <optional>

#include "DriverClient.h"
#include "LogCapture.h"
#include "LoopVolume.h"
#include "OwnWorld.h"
#include "Session.h"

namespace fs = std::filesystem;

namespace {

using test::Ended;
using test::Mounted;
using test::Session;
using test::TempDir;
using test::Volume;

using Texts = std::vector<std::string>;

constexpr uid_t kUser = 1000;

struct Place {
  const char* name;
  const char* fileSystem;
  std::uint64_t bytes;
  bool bound;  // named by a bind mount
  bool owned;  // the top belongs to the user; else everybody may write to it
};

void PrintTo(const Place& place, std::ostream* out) { *out << place.name; }

class Planted : public testing::TestWithParam<Place> {
 protected:
  Planted()
      : volume(GetParam().fileSystem, GetParam().bytes),
        bound(GetParam().bound ? std::make_optional<Mounted>(volume.folder(), other.path(), "", MS_BIND)
                               : std::nullopt),
        path(bound ? bound->folder() : volume.folder()),
        area(volume.folder() + "/.verrelocarea"),
        name(volume.device().substr(5)),
        probe(volume.folder() + "/qorTESTfile.KQTA") {
    for (const std::string& folder : {fs::path(volume.folder()).parent_path().string(), other.path(), victims.path()}) {
      EXPECT_EQ(chmod(folder.c_str(), 0755), 0);
    }
    // The user makes what he likes at the top.
    EXPECT_EQ(GetParam().owned ? chown(path.c_str(), kUser, kUser) : chmod(path.c_str(), 01777), 0);
    test::writeFile(victims / "one", "root's");
    test::writeFile(victims / name, "root's too");
  }
  ~Planted() override {
    EXPECT_EQ(contentOf(victims / "one"), "root's");
    EXPECT_EQ(contentOf(victims / name), "root's too");
    EXPECT_FALSE(fs::exists(victims / "made"));
  }

  static std::string contentOf(const std::string& file) { return fs::exists(file) ? test::readFile(file) : "gone"; }

  // A shell script of the user's, at the top of the volume.
  void byUser(const std::string& script) {
    const Ended ended = session.shell("cd " + path + " && " + script, {.user = kUser});
    EXPECT_EQ(ended.code, 0) << ended.errors;
  }
  // What is planted goes before the session compares.
  void clear() {
    test::removeTree(area);
    fs::remove(probe);
  }
  // Ended by itself.
  int mirelsnap(Texts arguments) {
    arguments.insert(arguments.begin(), MIRELSNAP_PROGRAM);
    test::Process process = session.start(arguments);
    const int code = process.wait();
    errors = process.errors();
    output = process.output();
    return code;
  }
  int run(const std::string& command = "true") {
    return mirelsnap({"run", "--volume", path, "--", "/bin/sh", "-c", command});
  }
  void expectTold(const std::string& planted, const std::string& why) {
    const std::string line = planted + " is not used: it " + why + ".\n";
    EXPECT_TRUE(log.has(LOG_ERR, line)) << line << log.dump();
  }
  // Where the last snapped volume's relocation file lay.
  std::string relocationFile() {
    const std::vector<test::Json> snaps = session.trace("snap");
    return snaps.empty() ? "" : snaps.back()["volumes"].at(0)["relocation_file"].get<std::string>();
  }

  const TempDir other;
  const TempDir victims;
  const Volume volume;
  const std::optional<Mounted> bound;
  const std::string path;  // by which the user and the commands name the volume
  const std::string area;  // by the first mount of the volume, as the library names it
  const std::string name;  // of the volume's relocation file
  const std::string probe;
  test::LogCapture log;
  Session session;
  std::string errors;
  std::string output;
};

std::string nameOf(const testing::TestParamInfo<Place>& place) { return place.param.name; }

constexpr Place kExt4OfUser{"ext4_of_the_user", "ext4", 32U << 20, false, true};
constexpr Place kXfsOfUser{"xfs_of_the_user", "xfs", 300U << 20, false, true};
constexpr Place kBoundOfUser{"a_bind_mount_of_ext4_of_the_user", "ext4", 32U << 20, true, true};

INSTANTIATE_TEST_SUITE_P(On, Planted,
                         testing::Values(Place{"ext4_where_everybody_may_write", "ext4", 32U << 20, false, false},
                                         Place{"a_bind_mount_of_ext4", "ext4", 32U << 20, true, false},
                                         Place{"a_bind_mount_of_xfs", "xfs", 300U << 20, true, false}, kExt4OfUser,
                                         kXfsOfUser),
                         nameOf);

// ---- reconciling

TEST_P(Planted, a_link_for_the_relocation_directory_leads_reconcile_to_no_file) {
  byUser("ln -s " + victims.path() + " .verrelocarea");
  EXPECT_EQ(mirelsnap({"reconcile"}), 0) << errors;
  EXPECT_TRUE(fs::exists(victims / "one"));
  EXPECT_TRUE(fs::is_symlink(area));
  expectTold(area, "is a symbolic link");
  clear();
}

TEST_P(Planted, a_link_for_the_relocation_directory_of_any_volume_leads_no_run_to_a_file) {
  byUser("ln -s " + victims.path() + " .verrelocarea");
  const Volume own("ext4", 32 << 20);
  // What a killed run left has the next one reconcile.
  test::Process killed = session.start({MIRELSNAP_PROGRAM, "run", "--volume", own.device(), "--", "/bin/true"},
                                       {.environment = test::withMischief("stop-after-mapping")});
  test::DriverClient driver(session);
  while (killed.running() && driver.mappings().empty()) usleep(1000);
  killed.kill();
  EXPECT_EQ(mirelsnap({"run", "--volume", own.device(), "--", "/bin/true"}), 0) << errors;
  EXPECT_TRUE(fs::exists(victims / "one"));
  EXPECT_EQ(relocationFile(), own.folder() + "/.verrelocarea/" + own.device().substr(5));
  clear();
}

// What is root's can be renamed by the owner of the directory that it is in.
class PlantedByOwner : public Planted {};
INSTANTIATE_TEST_SUITE_P(On, PlantedByOwner, testing::Values(kExt4OfUser, kXfsOfUser), nameOf);

TEST_P(PlantedByOwner, another_directory_of_roots_that_the_user_renamed_is_not_emptied) {
  fs::create_directory(path + "/important");
  test::writeFile(path + "/important/file", "root's");
  byUser("mv important .verrelocarea");
  EXPECT_EQ(mirelsnap({"reconcile"}), 0) << errors;
  EXPECT_EQ(contentOf(area + "/file"), "root's");
  clear();
}

// ---- the relocation file

TEST_P(Planted, a_link_for_the_relocation_file_is_not_written_through) {
  byUser("mkdir .verrelocarea && ln -s " + victims / name + " .verrelocarea/" + name);
  EXPECT_EQ(run(), 115);
  EXPECT_EQ(contentOf(victims / name), "root's too");
  expectTold(area, "belongs to user 1000, not root");
  clear();
}

TEST_P(Planted, a_link_to_nothing_for_the_relocation_file_makes_nothing) {
  byUser("mkdir .verrelocarea && ln -s " + victims / "made" + " .verrelocarea/" + name);
  EXPECT_EQ(run(), 115);
  EXPECT_FALSE(fs::exists(victims / "made"));
  clear();
}

// A medium can bring a directory that is root's by its number.
TEST_P(Planted, a_link_in_a_relocation_directory_of_roots_is_not_written_through) {
  fs::create_directory(area);
  ASSERT_EQ(chmod(area.c_str(), 0644), 0);
  fs::create_symlink(victims / name, area + "/" + name);
  EXPECT_NE(run(), 0);
  EXPECT_EQ(contentOf(victims / name), "root's too");
  EXPECT_TRUE(fs::is_symlink(area + "/" + name));
  expectTold(area + "/" + name, "is a symbolic link");
  EXPECT_EQ(mirelsnap({"reconcile"}), 0) << errors;
  EXPECT_TRUE(fs::is_symlink(area + "/" + name));
  clear();
}

// ---- another file in the place of one that was made

// The owner of the top renames root's directory away while a run is between two steps, and a prepared one into its
// place.
class Swapped : public Planted {
 protected:
  // Starts a run that makes the relocation file `made`, and swaps the directories when it stops at `moment`.
  test::Process swapAt(const std::string& moment, const std::string& made, const Texts& options) {
    file = made;
    byUser("mkdir mine && head -c 8M /dev/zero > mine/" + fs::path(file).filename().string());
    Texts arguments = {MIRELSNAP_PROGRAM, "run"};
    arguments.insert(arguments.end(), options.begin(), options.end());
    arguments.insert(arguments.end(), {"--", "/bin/true"});
    test::Process running = session.start(arguments, {.environment = test::withMischief(moment)});
    running.waitUntilStopped();
    EXPECT_TRUE(fs::exists(file)) << "it has been made";
    byUser("mv .verrelocarea away && mv mine .verrelocarea");
    running.signal(SIGCONT);
    return running;
  }
  void expectNotUsed() {
    expectTold(file, "is another file than the one that was made");
    EXPECT_TRUE(session.trace("snap").empty());
    expectLeftToItsOwner();
  }
  void expectLeftToItsOwner() {
    EXPECT_EQ(fs::file_size(file), 8U << 20);
    clear();
    test::removeTree(volume.folder() + "/away");
  }

  std::string file;
};
INSTANTIATE_TEST_SUITE_P(On, Swapped, testing::Values(kExt4OfUser, kXfsOfUser, kBoundOfUser), nameOf);

TEST_P(Swapped, a_file_of_the_users_is_not_given_to_the_driver) {
  test::Process running = swapAt("stop-before-flush", area + "/" + name, {"--volume", path});
  EXPECT_EQ(running.wait(), 115);
  expectNotUsed();
}

TEST_P(Swapped, a_file_of_the_users_in_the_place_that_was_chosen_is_not_given_to_the_driver) {
  const Volume own("ext4", 32 << 20);
  test::Process running = swapAt("stop-before-flush", path + "/.verrelocarea/" + own.device().substr(5),
                                 {"--volume", own.device(), "--reloc-mount", path, "--reloc-size", "100"});
  EXPECT_EQ(running.wait(), 115);
  expectNotUsed();
}

TEST_P(Swapped, a_file_of_the_users_is_not_taken_by_the_driver) {
  test::Process running = swapAt("stop-before:19:1", area + "/" + name, {"--volume", path});
  EXPECT_EQ(running.wait(), 116);
  EXPECT_EQ(running.errors(), "mirelsnap: " + volume.device() +
                                  ": the driver refused the snapshot: ioctl(IOC_SNAP): Operation not permitted; look "
                                  "for MIRELSNAP_SDK in the system log, or use --verbose\n");
  EXPECT_EQ(session.takeComplaints(1),
            Texts{"mirelsnap-emulator: snap from process " + std::to_string(running.id()) +
                  " refused: the relocation file " + file + " belongs to user 1000, not root"});
  expectLeftToItsOwner();
}

// ---- the probe for writability

TEST_P(Planted, a_link_for_the_probe_makes_no_file) {
  byUser("ln -s " + victims / "made" + " qorTESTfile.KQTA");
  const Volume second("ext4", 32 << 20);
  EXPECT_EQ(run(), 0) << errors;
  EXPECT_FALSE(fs::exists(victims / "made"));
  EXPECT_TRUE(fs::is_symlink(probe)) << "what is not ours stays";
  EXPECT_EQ(relocationFile(), second.folder() + "/.verrelocarea/" + name) << "the volume counts as not writable";
  expectTold(probe, "is a symbolic link");
  clear();
}

TEST_P(Planted, a_probe_that_a_killed_run_left_is_no_obstacle) {
  test::writeFile(probe, "");
  EXPECT_EQ(run(), 0) << errors;
  EXPECT_FALSE(fs::exists(probe));
}

// ---- special files

TEST_P(Planted, a_FIFO_for_the_probe_holds_nothing_up) {
  byUser("mkfifo qorTESTfile.KQTA");
  EXPECT_EQ(run(), 115);
  EXPECT_TRUE(fs::is_fifo(probe));
  expectTold(probe, "is a FIFO");
  clear();
}

TEST_P(Planted, a_FIFO_for_the_relocation_file_holds_nothing_up) {
  byUser("mkdir .verrelocarea && mkfifo .verrelocarea/" + name);
  EXPECT_EQ(run(), 115);
  EXPECT_TRUE(fs::is_fifo(area + "/" + name));
  clear();
  byUser("mkfifo .verrelocarea");
  EXPECT_EQ(run(), 115);
  EXPECT_TRUE(fs::is_fifo(area));
  expectTold(area, "is a FIFO");
  clear();
}

// ---- whatever else has one of the names

// What a user, or a medium of his, has there: how it is made at `path`, and what is told of it.
struct Thing {
  void (*make)(const std::string& path);
  const char* told;
};

void makeNode(const std::string& path, mode_t mode, dev_t device = 0) {
  ASSERT_EQ(mknod(path.c_str(), mode, device), 0) << path;
}

constexpr Thing kThings[] = {
    {[](const std::string& path) { makeNode(path, S_IFSOCK | 0666); }, "is a socket"},
    {[](const std::string& path) { makeNode(path, S_IFCHR | 0666, makedev(1, 3)); }, "is a character device"},
    {[](const std::string& path) { makeNode(path, S_IFBLK | 0666, makedev(7, 0)); }, "is a block device"},
};
constexpr Thing kFolder = {[](const std::string& path) { fs::create_directory(path); }, "is a directory"};
constexpr Thing kHardLink = {[](const std::string& path) {
                               const std::string first = fs::path(path).parent_path() / "first";
                               test::writeFile(first, "");
                               fs::create_hard_link(first, path);
                               fs::rename(first, fs::path(path).parent_path() / "second");
                             },
                             "has 2 links"};
constexpr Thing kForeignFile = {[](const std::string& path) { test::writeFile(path, "somebody's"); }, "is not empty"};

class PlantedThing : public Planted {
 protected:
  // A run that comes upon the thing leaves it alone and finds no place for its relocation file.
  void expectLeftAlone(const Thing& thing, const std::string& planted) {
    thing.make(planted);
    struct stat before {};
    struct stat after {};
    ASSERT_EQ(lstat(planted.c_str(), &before), 0);
    log.clear();
    EXPECT_EQ(run(), 115) << thing.told;
    expectTold(planted, thing.told);
    ASSERT_EQ(lstat(planted.c_str(), &after), 0) << thing.told;
    EXPECT_EQ(after.st_ino, before.st_ino);
    EXPECT_EQ(after.st_mode, before.st_mode);
    EXPECT_EQ(after.st_size, before.st_size);
    test::removeTree(planted);
    fs::remove(fs::path(planted).parent_path() / "second");
  }
};
INSTANTIATE_TEST_SUITE_P(On, PlantedThing, testing::Values(kExt4OfUser, kXfsOfUser, kBoundOfUser), nameOf);

TEST_P(PlantedThing, under_the_name_of_the_probe_is_left_alone) {
  for (const Thing& thing : kThings) expectLeftAlone(thing, probe);
  for (const Thing& thing : {kFolder, kHardLink, kForeignFile}) expectLeftAlone(thing, probe);
}

TEST_P(PlantedThing, under_the_name_of_the_relocation_directory_is_left_alone) {
  for (const Thing& thing : kThings) expectLeftAlone(thing, area);
  expectLeftAlone({kForeignFile.make, "is a file"}, area);
  expectLeftAlone({[](const std::string& folder) {
                     fs::create_directory(folder);
                     EXPECT_EQ(chmod(folder.c_str(), 0620), 0);
                   },
                   "may be written to by others than root"},
                  area);
}

TEST_P(PlantedThing, under_the_name_of_the_relocation_file_is_left_alone) {
  fs::create_directory(area);
  ASSERT_EQ(chmod(area.c_str(), 0600), 0);
  const std::string file = area + "/" + name;
  for (const Thing& thing : kThings) expectLeftAlone(thing, file);
  for (const Thing& thing : {kFolder, kHardLink}) expectLeftAlone(thing, file);
  clear();
}

TEST_P(PlantedThing, mounted_on_the_relocation_directory_is_left_alone) {
  fs::create_directory(area);
  {
    const Mounted mounted("planted", area, "tmpfs");
    test::writeFile(area + "/" + name, "somebody's");
    EXPECT_EQ(run(), 115);
    expectTold(area, "is a mount point");
    EXPECT_EQ(mirelsnap({"reconcile"}), 0) << errors;
    EXPECT_EQ(contentOf(area + "/" + name), "somebody's");
  }
  clear();
}

// ---- other people's old blocks

TEST_P(Planted, a_relocation_directory_of_the_users_is_not_used) {
  byUser("mkdir .verrelocarea");
  EXPECT_EQ(run(), 115);
  EXPECT_TRUE(fs::is_empty(area));
  const Volume second("ext4", 32 << 20);
  EXPECT_EQ(run("[ -z \"$(ls -A " + area + ")\" ]"), 0) << errors;
  EXPECT_EQ(relocationFile(), second.folder() + "/.verrelocarea/" + name);
  expectTold(area, "belongs to user 1000, not root");
  clear();
}

TEST_P(Planted, while_a_snapshot_is_held_the_user_neither_sees_reads_nor_removes_its_relocation_file) {
  const std::string file = area + "/" + name;
  const std::string asUser = "/usr/bin/setpriv --reuid=1000 --regid=1000 --clear-groups ";
  EXPECT_EQ(
      run("test -s " + file + " || exit 10; umask 0;" + asUser + "ls " + area + " && exit 11; " + asUser + "cat " +
          file + " > /dev/null && exit 12; " + asUser + "rm -f " + file + "; test -s " + file + " || exit 13; exit 0"),
      0)
      << errors;
  EXPECT_EQ(relocationFile(), file);
}

}  // namespace
