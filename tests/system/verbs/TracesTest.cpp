// SPDX-License-Identifier: Apache-2.0
//
// What the making of relocation files leaves when it is cut short: `mirelsnap doctor` names it, `mirelsnap reconcile`
// removes it. Nothing that is not root's own is touched, and nothing is looked at in a snapshot that is exposed.
#include <fcntl.h>
#include <sys/inotify.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <filesystem>

#include "Verbs.h"
#include "base/Handle.h"

namespace fs = std::filesystem;

namespace {

using test::document;
using test::Ended;
using test::expectText;
using test::Json;
using test::Session;
using test::TempDir;
using test::verb;
using test::Volume;

constexpr uid_t kUser = 65534;

class Traces : public testing::Test {
 protected:
  void makeDirectory() const { fs::create_directory(directory); }
  void makeProbe() const { test::writeFile(probe, ""); }

  const Volume volume{"ext4", 32 << 20};
  const std::string directory = volume.folder() + "/.verrelocarea";
  const std::string probe = volume.folder() + "/qorTESTfile.KQTA";
  Session session;
};

TEST_F(Traces, doctor_names_an_empty_relocation_directory_and_a_probe_that_a_kill_left) {
  makeDirectory();
  makeProbe();
  const Ended ended = verb(session, {"doctor", volume.device()});
  EXPECT_EQ(ended.code, 1);
  EXPECT_EQ(ended.output, volume.device() + ": its relocation file would be allocated at once\n" + directory +
                              ": is an empty directory for relocation files; mirelsnap reconcile removes it\n" + probe +
                              ": is a probe for writability; mirelsnap reconcile removes it\n2 findings.\n");
  EXPECT_EQ(document(session, {"doctor", volume.device()})["findings"][0]["kind"], "leftover-directory");
  EXPECT_EQ(document(session, {"doctor", volume.device()})["findings"][1]["kind"], "leftover-probe");
  EXPECT_TRUE(fs::exists(directory) && fs::exists(probe)) << "doctor changes nothing";
  fs::remove(directory);
  fs::remove(probe);
}

TEST_F(Traces, reconcile_removes_both_and_tells_each) {
  makeDirectory();
  makeProbe();
  expectText(verb(session, {"reconcile"}), "Removed the empty directory for relocation files " + directory +
                                               "\nRemoved the probe for writability " + probe + "\n");
  EXPECT_FALSE(fs::exists(directory));
  EXPECT_FALSE(fs::exists(probe));
  expectText(verb(session, {"reconcile"}), "Nothing is left of dead processes.\n");
}

TEST_F(Traces, reconcile_tells_them_in_its_document) {
  makeDirectory();
  makeProbe();
  const Json told = document(session, {"reconcile"});
  EXPECT_EQ(told.value("relocation_directories", Json()), (Json{{{"path", directory}, {"removed", true}}}));
  EXPECT_EQ(told.value("probe_files", Json()), (Json{{{"path", probe}, {"removed", true}}}));
}

TEST_F(Traces, of_xfs_are_removed_too_and_told_once_where_a_bind_shows_them_again) {
  const Volume other("xfs", 320 << 20);
  const TempDir folder;
  const test::Mounted bound(other.folder(), folder.path(), "", MS_BIND);
  test::writeFile(other.folder() + "/qorTESTfile.KQTA", "");
  expectText(verb(session, {"reconcile"}),
             "Removed the probe for writability " + other.folder() + "/qorTESTfile.KQTA\n");
  EXPECT_FALSE(fs::exists(other.folder() + "/qorTESTfile.KQTA"));
}

TEST_F(Traces, that_a_user_made_stay) {
  fs::create_directory(directory);
  ASSERT_EQ(chown(directory.c_str(), kUser, kUser), 0);
  makeProbe();
  ASSERT_EQ(chown(probe.c_str(), kUser, kUser), 0);
  expectText(verb(session, {"reconcile"}), "Nothing is left of dead processes.\n");
  EXPECT_TRUE(fs::exists(directory) && fs::exists(probe));
  fs::remove(directory);
  fs::remove(probe);
}

TEST_F(Traces, that_others_may_write_or_that_hold_something_or_have_a_second_name_stay) {
  fs::create_directory(directory);
  fs::permissions(directory, fs::perms::others_write, fs::perm_options::add);
  test::writeFile(probe, "text");
  expectText(verb(session, {"reconcile"}), "Nothing is left of dead processes.\n");
  EXPECT_TRUE(fs::exists(directory) && fs::exists(probe));
  fs::remove(directory);
  fs::remove(probe);
  makeProbe();
  fs::create_hard_link(probe, volume.folder() + "/second");
  expectText(verb(session, {"reconcile"}), "Nothing is left of dead processes.\n");
  EXPECT_TRUE(fs::exists(probe));
  fs::remove(probe);
}

TEST_F(Traces, that_are_links_stay_and_so_does_what_they_lead_to) {
  const TempDir elsewhere;
  fs::create_directory(elsewhere / "directory");
  test::writeFile(elsewhere / "file", "");
  fs::create_directory_symlink(elsewhere / "directory", directory);
  fs::create_symlink(elsewhere / "file", probe);
  expectText(verb(session, {"reconcile"}), "Nothing is left of dead processes.\n");
  EXPECT_TRUE(fs::exists(elsewhere / "directory") && fs::exists(elsewhere / "file"));
  EXPECT_TRUE(fs::is_symlink(directory) && fs::is_symlink(probe));
  fs::remove(directory);
  fs::remove(probe);
}

TEST_F(Traces, stay_where_a_living_process_keeps_a_relocation_file_until_it_does_not) {
  const Volume snapped("ext4", 32 << 20);
  test::DriverClient driver(session);
  ASSERT_EQ(driver
                .snap({{.device = snapped.device(),
                        .folder = snapped.folder(),
                        .relocationBlocks = 64,
                        .relocationMount = volume.folder()}})
                .result,
            0);
  makeProbe();
  test::writeFile(snapped.folder() + "/qorTESTfile.KQTA", "");
  expectText(verb(session, {"reconcile"}),
             "Removed the probe for writability " + snapped.folder() + "/qorTESTfile.KQTA\n");
  EXPECT_TRUE(fs::exists(probe));
  ASSERT_EQ(driver.unsnap({snapped.device()}), 0u);
  expectText(verb(session, {"reconcile"}), "Removed the probe for writability " + probe + "\n");
}

TEST_F(Traces, on_a_frozen_volume_are_118_until_it_is_thawed) {
  makeProbe();
  test::DriverClient driver(session);
  ASSERT_EQ(driver.freeze({volume.device()}), 0u);
  test::expectFailure(verb(session, {"reconcile"}), 118,
                      probe + ": the probe for writability could not be removed: unlink: not tried, as " +
                          volume.device() + " is frozen; mend that, then run this again");
  ASSERT_EQ(driver.thaw({volume.device()}), 0u);
  expectText(verb(session, {"reconcile"}), "Removed the probe for writability " + probe + "\n");
}

// ---- exposed snapshots

// Counts how often directories are opened.
class Openings {
 public:
  explicit Openings(const std::vector<std::string>& folders) : mEvents(inotify_init1(IN_NONBLOCK | IN_CLOEXEC)) {
    for (const std::string& folder : folders) EXPECT_GE(inotify_add_watch(mEvents.get(), folder.c_str(), IN_OPEN), 0);
  }
  std::size_t count() const {
    alignas(inotify_event) std::array<char, 4096> buffer;
    std::size_t found = 0;
    for (ssize_t size; (size = read(mEvents.get(), buffer.data(), buffer.size())) > 0;) {
      for (ssize_t at = 0; at < size; ++found)
        at += static_cast<ssize_t>(sizeof(inotify_event) + reinterpret_cast<inotify_event*>(&buffer[at])->len);
    }
    return found;
  }

 private:
  UniqueFd mEvents;
};

TEST_F(Traces, are_not_looked_for_in_an_exposed_snapshot_which_its_owner_could_not_unmount_meanwhile) {
  const TempDir dir;
  test::Process living =
      session.start({MIRELSNAP_PROGRAM, "run", "--volume", volume.device(), "--base", dir / "base", "--", "/bin/sh",
                     "-c", "echo ready; until [ -e " + (dir / "go") + " ]; do sleep 0.01; done"});
  while (living.running() && living.output() != "ready\n") usleep(1000);
  const std::string exposed = dir / "base" + volume.folder();
  ASSERT_TRUE(fs::exists(exposed + "/.verrelocarea"));
  {
    const Openings openings({exposed, exposed + "/.verrelocarea"});
    EXPECT_EQ(verb(session, {"doctor", volume.device()}).code, 1) << "it is snapped";
    EXPECT_EQ(openings.count(), 0u);
    EXPECT_EQ(verb(session, {"reconcile"}).code, 0);
    EXPECT_EQ(openings.count(), 0u);
  }
  test::writeFile(dir / "go", "");
  EXPECT_EQ(living.wait(), 0) << living.errors();
}

// ---- steps that fail

TEST(ReconcileStep, of_the_bases_that_cannot_be_read_is_118) {
  Session session;
  test::writeFile("/run/mirelsnap", "");
  test::expectFailure(verb(session, {"reconcile"}), 118,
                      "/run/mirelsnap: cannot be read: Not a directory; look at what it is: mirelsnap makes it as a "
                      "directory");
  fs::remove("/run/mirelsnap");
  expectText(verb(session, {"reconcile"}), "Nothing is left of dead processes.\n");
}

TEST(ReconcileStep, at_a_base_that_somebody_has_locked_is_118_and_says_who) {
  Session session;
  test::Process gone = session.start({"/bin/true"});
  gone.wait();
  const std::string base = "/run/mirelsnap/" + std::to_string(gone.id());
  fs::create_directories(base);
  test::Process holder = session.start({"/bin/sh", "-c", "exec 9<\"$0\"; flock 9; echo ready; exec sleep 60", base});
  while (holder.running() && holder.output() != "ready\n") usleep(1000);
  test::expectFailure(verb(session, {"reconcile"}), 118,
                      base + ": is locked, though process " + std::to_string(gone.id()) + " is gone: process " +
                          std::to_string(holder.id()) + " (sleep) uses " + base +
                          "; stop it, unless it is a run in a container, then run this again");
  EXPECT_TRUE(fs::exists(base));
  holder.kill();
  expectText(verb(session, {"reconcile"}), "Removed the folder " + base + "\n");
}

TEST(ReconcileStep, of_the_driver_that_fails_is_118_and_named_with_its_cause) {
  Session session({"--inject", "verify-and-clean:1:EIO"});
  test::expectFailure(verb(session, {"reconcile"}), 118,
                      "/dev/mirelsnapctl: a step of the reconciliation failed: ioctl(IOC_VERIFY_AND_CLEAN_VOLUMES): "
                      "Input/output error; mend that, then run this again");
  EXPECT_EQ(session.takeComplaints(1).size(), 1u);
  expectText(verb(session, {"reconcile"}), "Nothing is left of dead processes.\n");
}

// The file of a living process must not be taken for one of nobody, nor be advised to be removed by hand.
TEST(ReconcileStep, of_a_driver_that_does_not_tell_what_it_holds_is_118_and_no_file_counts_as_abandoned) {
  const Volume volume("ext4", 32 << 20);
  Session session({"--inject", "count-mappings:2:EIO", "--inject", "count-mappings:3:EIO", "--inject",
                   "count-mappings:4:EIO", "--inject", "count-mappings:5:EIO", "--inject", "count-mappings:6:EIO",
                   "--inject", "count-mappings:7:EIO", "--inject", "count-mappings:8:EIO"});
  test::DriverClient driver(session);
  ASSERT_EQ(driver.snap({{.device = volume.device(), .folder = volume.folder()}}).result, 0);
  session.tolerateComplaints(".*count-mappings from process [0-9]+ refused: failure injected");
  const Ended ended = verb(session, {"reconcile"});
  EXPECT_EQ(ended.code, 118);
  EXPECT_EQ(ended.output, "");
  EXPECT_NE(ended.errors.find("mirelsnap: /dev/mirelsnapctl: the driver does not tell what it holds: "
                              "ioctl(IOC_GET_NUM_OF_RELOC_FILE_MAPPING): Input/output error; look for MIRELSNAP_SDK in "
                              "the system log\n"),
            std::string::npos)
      << ended.errors;
  EXPECT_EQ(ended.errors.find("by hand"), std::string::npos);
  EXPECT_EQ(ended.errors.find("relocation file"), std::string::npos) << ended.errors;
  EXPECT_TRUE(fs::exists(volume.folder() + "/.verrelocarea/" + volume.device().substr(5)));
  EXPECT_EQ(driver.unsnap({volume.device()}), 0u);
}

}  // namespace
