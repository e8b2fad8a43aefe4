// SPDX-License-Identifier: Apache-2.0
//
// `mirelsnap doctor`: findings before anyone tries; `mirelsnap reconcile`: what dead processes left.
#include <fcntl.h>
#include <linux/blkpg.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <fstream>

#include "MountList.h"
#include "NamedVolume.h"
#include "ProcessState.h"
#include "Verbs.h"
#include "Waiting.h"

namespace fs = std::filesystem;

namespace {

using test::document;
using test::Ended;
using test::expectFailure;
using test::expectText;
using test::Json;
using test::LoopDevice;
using test::Mounted;
using test::Session;
using test::TempDir;
using test::verb;
using test::Volume;

// Lines of a text, sorted out of nothing.
std::vector<std::string> linesOf(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) lines.push_back(line);
  return lines;
}

constexpr char kCost[] = ": its relocation file would be ";

class Doctor : public testing::Test {
 protected:
  // Its findings of these volumes: "KIND SUBJECT: CAUSE; ADVICE" each; text and document say the same.
  std::vector<std::string> findings(const test::Texts& volumes) {
    test::Texts arguments = {"doctor"};
    arguments.insert(arguments.end(), volumes.begin(), volumes.end());
    const Ended ended = verb(session, arguments);
    const Json found = document(session, arguments)["findings"];
    EXPECT_EQ(ended.errors, "");
    EXPECT_EQ(ended.code, found.empty() ? 0 : 1);
    std::vector<std::string> expected, result;
    for (const Json& finding : found) {
      expected.push_back(finding["subject"].get<std::string>() + ": " + finding["cause"].get<std::string>() + "; " +
                         finding["advice"].get<std::string>());
      result.push_back(finding["kind"].get<std::string>() + " " + expected.back());
    }
    expected.push_back(found.size() == 1 ? "1 finding." : std::to_string(found.size()) + " findings.");
    std::vector<std::string> lines = linesOf(ended.output);
    std::erase_if(lines, [](const std::string& line) { return line.find(kCost) != std::string::npos; });
    if (!found.empty()) {
      EXPECT_EQ(lines, expected);
    }
    return result;
  }
  using Lines = std::vector<std::string>;

  Session session;
};

TEST_F(Doctor, finds_nothing_where_nothing_is_wrong) {
  const Volume first("ext4", 32 << 20);
  const Volume second("ext4", 32 << 20);
  expectText(verb(session, {"doctor", first.device(), second.folder()}),
             first.device() + kCost + "allocated at once\n" + second.device() + kCost +
                 "allocated at once\nNothing stands in the way of a snapshot of " + first.device() + " and " +
                 second.device() + ".\n");
  EXPECT_EQ(document(session, {"doctor", first.device()}),
            (Json{{"findings", Json::array()},
                  {"relocation_files",
                   {{{"device", first.device()},
                     {"path", first.folder() + "/.verrelocarea/" + first.device().substr(5)},
                     {"cost", "allocated at once"},
                     {"bytes_written", 0}}}},
                  {"failures", Json::array()},
                  {"exit_code", 0}}));
}

TEST_F(Doctor, tells_of_a_relocation_file_that_is_written_out_and_finds_nothing_wrong_with_it) {
  const Volume volume("xfs", 300 << 20);
  const Json told = document(session, {"doctor", volume.device()});
  const std::string cost = told["relocation_files"][0]["cost"];
  EXPECT_EQ(cost.substr(0, cost.find(": ")), "written out");
  EXPECT_EQ(cost.substr(cost.find(", ")), ", xfs; a place on ext4 takes no time (--reloc-mount and --reloc-size)");
  EXPECT_GT(told["relocation_files"][0]["bytes_written"], 0);
  expectText(
      verb(session, {"doctor", volume.device()}),
      volume.device() + kCost + cost + "\nNothing stands in the way of a snapshot of " + volume.device() + ".\n");
}

TEST_F(Doctor, finds_what_is_no_volume) {
  const LoopDevice unmounted(1 << 20);
  EXPECT_EQ(
      findings({"/proc", "/dev/null", unmounted.path(), "/nothing"}),
      (Lines{"volume /proc: is a proc file system without a block device; only block devices can be snapped",
             "volume /dev/null: is neither a block device nor a mount point; name a device such as /dev/sdb1 or "
             "its mount point",
             "volume " + unmounted.path() + ": is not mounted; mount it first: only mounted volumes can be snapped",
             "volume /nothing: No such file or directory; name a mounted block device or a mount point (lsblk "
             "shows them)"}));
}

TEST_F(Doctor, finds_a_device_that_is_not_ascii_and_a_size_that_cannot_be_read) {
  const test::NamedVolume device(
      "/dev/gr\xc3\xbc\xc3\x9f"
      "e");
  const Volume gone("ext4", 32 << 20);
  fs::rename(gone.device(), "/dev/moved");
  const Lines found = findings({device.device(), gone.folder()});
  fs::rename("/dev/moved", gone.device());
  EXPECT_EQ(found, (Lines{"volume " + device.device() +
                              ": the driver cannot be given this name, which is not ASCII; make a device node with an "
                              "ASCII name (mknod /dev/NAME b 7 " +
                              std::to_string(device.loop().minor()) + ") and mount the volume by that",
                          "volume " + gone.device() +
                              ": its size cannot be read: No such file or directory; check the device"}));
}

TEST_F(Doctor, finds_a_mount_point_whose_name_cannot_be_decoded) {
  const test::NamedVolume volume("/dev/plain", "latin-\xe9");
  const Ended ended = verb(session, {"doctor", "/dev/plain"});
  EXPECT_EQ(ended.code, 1);
  EXPECT_EQ(ended.output, "/dev/plain: is mounted at " + fs::path(volume.folder()).parent_path().string() +
                              "/latin-\\xe9, a name that cannot be decoded in this locale; use another name, or the "
                              "locale that this one is written in (LC_ALL)\n1 finding.\n");
}

TEST_F(Doctor, finds_a_whole_disk_whose_partitions_are_mounted) {
  const LoopDevice disk(64 << 20);
  const int device = open(disk.path().c_str(), O_RDWR | O_CLOEXEC);
  blkpg_partition partition{};
  partition.start = 1 << 20;
  partition.length = 32 << 20;
  partition.pno = 1;
  blkpg_ioctl_arg add{BLKPG_ADD_PARTITION, 0, sizeof partition, &partition};
  ASSERT_EQ(ioctl(device, BLKPG, &add), 0) << "this kernel has no partitions of loop devices";
  std::ifstream numbers("/sys/dev/block/7:" + std::to_string(disk.minor()) + "/loop" + std::to_string(disk.minor()) +
                        "p1/dev");
  unsigned int partMajor = 0, partMinor = 0;
  char colon = 0;
  ASSERT_TRUE(numbers >> partMajor >> colon >> partMinor);
  const std::string name = disk.path() + "p1";
  {
    const test::Node node(name, S_IFBLK, partMajor, partMinor);
    ASSERT_EQ(session.run({"/sbin/mkfs.ext4", "-q", name}).code, 0);
    const TempDir folder;
    const Mounted mounted(name, folder.path(), "ext4");
    EXPECT_EQ(findings({disk.path()}),
              (Lines{"volume " + disk.path() + ": is a whole disk, of which partitions are mounted: " + name + " on " +
                     folder.path() + "; name the partitions"}));
    EXPECT_EQ(findings({name}), Lines());
  }
  blkpg_ioctl_arg remove{BLKPG_DEL_PARTITION, 0, sizeof partition, &partition};
  EXPECT_EQ(ioctl(device, BLKPG, &remove), 0);
  close(device);
}

TEST_F(Doctor, finds_a_file_system_that_cannot_be_mapped_named_or_not) {
  const Volume volume("btrfs", 200 << 20);
  const std::string cause = " is btrfs, whose files cannot be mapped to blocks; leave it out: it cannot be snapped";
  EXPECT_EQ(findings({volume.device()}), (Lines{"volume " + volume.device() + ":" + cause}));
  const Lines all = findings({});
  EXPECT_NE(std::find(all.begin(), all.end(), "volume " + volume.folder() + ":" + cause), all.end());
  expectFailure(verb(session, {"run", "--volume", volume.device(), "--", "/bin/true"}), 113,
                volume.device() + ":" + cause);
}

TEST_F(Doctor, finds_a_full_volume_and_where_its_file_would_go) {
  const Volume full("ext4", 32 << 20);
  test::fillVolume(full.folder(), 92);
  EXPECT_EQ(findings({full.device()}),
            (Lines{"full " + full.device() +
                   ": is nine tenths full: its relocation file would stay there all the same, as no other file system "
                   "has more space free; free some space on " +
                   full.folder()}));
  const Volume other("ext4", 64 << 20);
  EXPECT_EQ(
      findings({full.device()}),
      (Lines{"full " + full.device() + ": is nine tenths full: its relocation file would go to " + other.folder() +
             "/.verrelocarea/" + full.device().substr(5) + "; free some space on " + full.folder()}));
}

TEST_F(Doctor, finds_that_no_file_system_has_room) {
  const Volume volume("ext4", 32 << 20);
  ASSERT_EQ(mount(nullptr, volume.folder().c_str(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr), 0);
  EXPECT_EQ(findings({volume.device()}),
            (Lines{"no-room " + volume.device() +
                   ": no mounted file system has room for its relocation file (nothing can be written to the volume); "
                   "free some space or name a place with --reloc-mount and --reloc-size"}));
}

TEST_F(Doctor, finds_what_is_snapped_or_frozen) {
  const Volume snapped("ext4", 32 << 20);
  const Volume frozen("ext4", 32 << 20);
  test::DriverClient driver(session);
  ASSERT_EQ(driver.snap({{.device = snapped.device(), .folder = snapped.folder()}}).result, 0);
  ASSERT_EQ(driver.freeze({frozen.device()}), 0u);
  EXPECT_EQ(findings({snapped.device(), frozen.device()}),
            (Lines{"snapped " + snapped.device() + ": is already snapped by process " + std::to_string(driver.id()) +
                       " (driver_client); wait until that snapshot is deleted",
                   "frozen " + frozen.device() + ": is frozen; thaw it first"}));
  ASSERT_EQ(driver.thaw({frozen.device()}), 0u);
  ASSERT_EQ(driver.unsnap({snapped.device()}), 0u);
}

TEST_F(Doctor, finds_what_a_dead_process_left) {
  const Volume volume("ext4", 32 << 20);
  const std::string process = std::to_string(test::killedRun(session, volume));
  const std::string file = volume.folder() + "/.verrelocarea/" + volume.device().substr(5);
  const std::string snapshot = "/dev/snap7_" + std::to_string(volume.loop().minor());
  const std::string advice = "; mirelsnap reconcile removes it";
  EXPECT_EQ(
      findings({volume.device()}),
      (Lines{"leftover-snapshot " + volume.device() + ": is snapped by process " + process + ", which is gone" + advice,
             "leftover-mapping " + volume.device() + ": is mapped to " + file + " by process " + process +
                 ", which is gone" + advice,
             "leftover-file " + file + ": is a relocation file of no living process" + advice,
             "leftover-mount /run/mirelsnap/" + process + volume.folder() + ": is still mounted (" + snapshot +
                 "), for a process that is gone" + advice,
             "leftover-folder /run/mirelsnap/" + process + ": is the base of a process that is gone" + advice}));
  EXPECT_EQ(verb(session, {"reconcile"}).code, 0);
  EXPECT_EQ(findings({volume.device()}), Lines());
}

TEST_F(Doctor, finds_a_dead_processs_mount_below_a_base_of_its_own_and_names_the_base) {
  const TempDir dir;
  const Volume volume("ext4", 32 << 20);
  test::killedAgent(session, volume, dir / "base");
  const std::string finding = "leftover-mount " + dir / "base" + volume.folder() + ": is still mounted (/dev/snap7_" +
                              std::to_string(volume.loop().minor()) +
                              "), though no living process holds that snapshot; mirelsnap reconcile --base " +
                              dir / "base" + " removes it";
  EXPECT_EQ(findings({volume.device()}).back(), finding);
  EXPECT_EQ(verb(session, {"reconcile"}).code, 118);
  EXPECT_EQ(findings({volume.device()}), Lines{finding});
  EXPECT_EQ(verb(session, {"reconcile", "--base", dir / "base"}).code, 0);
  EXPECT_EQ(findings({volume.device()}), Lines());
}

TEST(DoctorElsewhere, finds_that_there_is_no_driver) {
  const Volume volume("ext4", 32 << 20);
  Session session = Session::withoutDriver();
  const Ended ended = verb(session, {"doctor", volume.device()});
  EXPECT_EQ(ended.code, 1);
  EXPECT_EQ(
      ended.output,
      "/dev/mirelsnapctl: the driver (module mirelsnap) is not loaded and could not be loaded; install it, or try "
      "it without: mirelsnap-emulator -- mirelsnap run ...\n" +
          volume.device() + kCost + "allocated at once\n1 finding.\n");
}

TEST(DoctorElsewhere, finds_that_it_is_not_run_by_root) {
  const TempDir dir;
  ASSERT_EQ(chmod(dir.path().c_str(), 0755), 0);
  fs::copy_file(MIRELSNAP_PROGRAM, dir / "mirelsnap");
  Session session;
  const Ended ended = session.run({dir / "mirelsnap", "doctor", "/proc"}, {.user = 65534});
  EXPECT_EQ(ended.code, 1);
  EXPECT_EQ(ended.output,
            "mirelsnap doctor: needs root: snapshots do, and most of what would stop them shows only to root; run it "
            "with sudo\n/proc: is a proc file system without a block device; only block devices can be snapped\n2 "
            "findings.\n");
}

TEST(DoctorElsewhere, finds_that_the_mount_table_cannot_be_read) {
  Session session;
  const Ended ended = session.shell("unshare -m --propagation private sh -c 'umount -l /proc; exec " +
                                    std::string(MIRELSNAP_PROGRAM) + " doctor --json'");
  EXPECT_EQ(ended.code, 1);
  const Json document = Json::parse(ended.output);
  std::vector<std::string> subjects;
  for (const Json& finding : document["findings"]) {
    if (finding["kind"] == "mount-table") subjects.push_back(finding["subject"]);
  }
  EXPECT_EQ(subjects, (std::vector<std::string>{"/proc/mounts", "/proc/self/mountinfo"}));
}

// ---- reconcile

class Reconcile : public testing::Test {
 protected:
  const Volume volume{"ext4", 32 << 20};
  const std::string file = volume.folder() + "/.verrelocarea/" + volume.device().substr(5);
  const std::string snapshot = "/dev/snap7_" + std::to_string(volume.loop().minor());
  Session session;
};

TEST_F(Reconcile, removes_what_a_killed_run_left_and_the_second_time_says_there_is_nothing) {
  const std::string process = std::to_string(test::killedRun(session, volume));
  expectText(verb(session, {"reconcile"}),
             "Removed the snapshot of " + volume.device() + ", taken by process " + process +
                 ", which is gone\nRemoved the mapping of " + volume.device() + " to " + file + ", made by process " +
                 process + ", which is gone\nRemoved the relocation file " + file + "\nRemoved the mount of " +
                 snapshot + " on /run/mirelsnap/" + process + volume.folder() + "\nRemoved the folder /run/mirelsnap/" +
                 process + "\n");
  EXPECT_FALSE(fs::exists(file));
  EXPECT_FALSE(fs::exists("/run/mirelsnap"));
  expectText(verb(session, {"reconcile"}), "Nothing is left of dead processes.\n");
}

TEST_F(Reconcile, removes_what_is_mounted_below_a_base_that_is_named) {
  const TempDir dir;
  const std::string process = std::to_string(test::killedRun(session, volume, dir / "base"));
  const Json told = document(session, {"reconcile", "--base", dir / "base/"});
  EXPECT_EQ(
      told,
      (Json{
          {"snapshots",
           {{{"device", volume.device()}, {"relocation_file", file}, {"pid", std::stoi(process)}, {"removed", true}}}},
          {"mappings",
           {{{"device", volume.device()}, {"relocation_file", file}, {"pid", std::stoi(process)}, {"removed", true}}}},
          {"relocation_files", {{{"path", file}, {"removed", true}}}},
          {"relocation_directories", Json::array()},
          {"probe_files", Json::array()},
          {"mounts", {{{"folder", dir / "base" + volume.folder()}, {"source", snapshot}, {"removed", true}}}},
          {"folders", {{{"path", dir / "base"}, {"removed", true}}}},
          {"failures", Json::array()},
          {"exit_code", 0}}));
  expectText(verb(session, {"reconcile", "--base", dir / "base"}), "Nothing is left of dead processes.\n");
  EXPECT_FALSE(fs::exists(dir / "base"));
}

TEST_F(Reconcile, tells_of_mounts_below_a_base_that_is_not_named_until_it_is) {
  const TempDir dir;
  const std::string exposed = dir / "base" + volume.folder();
  test::killedAgent(session, volume, dir / "base");
  const std::string line = exposed + ": is still mounted (" + snapshot +
                           "), though no living process holds that snapshot; mirelsnap reconcile --base " +
                           dir / "base" + " removes it";
  const Ended first = verb(session, {"reconcile"});
  expectFailure(first, 118, line);
  EXPECT_NE(first.output.find("Removed the snapshot of " + volume.device()), std::string::npos);
  const Ended second = verb(session, {"reconcile"});
  expectFailure(second, 118, line);
  EXPECT_EQ(second.output, "");
  EXPECT_EQ(document(session, {"reconcile"})["mounts"],
            (Json{{{"folder", exposed}, {"source", snapshot}, {"removed", false}}}));
  expectText(verb(session, {"reconcile", "--base", dir / "base"}),
             "Removed the mount of " + snapshot + " on " + exposed + "\n");
  expectText(verb(session, {"reconcile"}), "Nothing is left of dead processes.\n");
}

TEST_F(Reconcile, says_to_unmount_a_snapshot_whose_place_does_not_tell_its_base) {
  const TempDir dir, elsewhere;
  test::killedAgent(session, volume, dir / "base");
  {
    const Mounted bound(dir / "base" + volume.folder(), elsewhere.path(), "", MS_BIND);
    const Ended ended = verb(session, {"reconcile", "--base", dir / "base"});
    expectFailure(ended, 118,
                  elsewhere.path() + ": is still mounted (" + snapshot +
                      "), though no living process holds that snapshot; unmount it");
    EXPECT_NE(ended.output.find("Removed the mount of " + snapshot), std::string::npos);
  }
  expectText(verb(session, {"reconcile"}), "Nothing is left of dead processes.\n");
}

TEST_F(Reconcile, takes_no_picture_of_a_relocation_file_for_one_while_living_runs_come_and_go) {
  test::Process runs =
      session.start({"/bin/sh", "-c", "for i in 1 2 3 4 5; do \"$0\" run --volume \"$1\" -- true; done",
                     MIRELSNAP_PROGRAM, volume.device()});
  while (runs.running()) {
    const Ended ended = verb(session, {"reconcile"});
    EXPECT_EQ(ended.output.find("Removed the relocation file /run/mirelsnap/"), std::string::npos) << ended.output;
  }
  EXPECT_EQ(runs.wait(), 0) << runs.errors();
}

TEST_F(Reconcile, leaves_what_a_living_process_holds_alone) {
  const TempDir dir;
  test::Process living = session.start(
      {MIRELSNAP_PROGRAM, "run", "--volume", volume.device(), "--base", dir / "base", "--", "/bin/sh", "-c",
       "echo ready; until [ -e " + (dir / "go") + " ]; do sleep 0.01; done; ls $MIRELSNAP_VOLUME_1"});
  ASSERT_TRUE(living.writesLine()) << living.errors();
  expectText(verb(session, {"reconcile"}), "Nothing is left of dead processes.\n");
  expectFailure(verb(session, {"reconcile", "--base", dir / "base"}), 2,
                dir / "base" + ": shows a snapshot of process " + std::to_string(living.id()) +
                    " (mirelsnap), which lives; wait until it ends");
  test::writeFile(dir / "go", "");
  EXPECT_EQ(living.wait(), 0) << living.errors();
}

TEST_F(Reconcile, refuses_a_base_below_which_other_volumes_are_mounted) {
  expectFailure(verb(session, {"reconcile", "--base", "/"}), 2,
                "/: is no base: everything is mounted below it; name the base itself");
  expectFailure(
      verb(session, {"reconcile", "--base", volume.folder()}), 2,
      volume.folder() + ": no snapshot is mounted there, but other volumes are; name the base of an exposure");
  test::writeFile(volume.folder() + "/file", "still mounted");
}

TEST_F(Reconcile, says_who_keeps_a_mount_and_is_118) {
  const std::string process = std::to_string(test::killedRun(session, volume));
  const std::string exposed = "/run/mirelsnap/" + process + volume.folder();
  test::Process sitting = session.start({"/bin/sleep", "infinity"}, {.folder = exposed});
  ASSERT_TRUE(test::comesTrue([&] { return test::programOf(sitting.id()) == "sleep"; }));
  const Ended ended = verb(session, {"reconcile"});
  const std::string user = "process " + std::to_string(sitting.id()) + " (sleep) uses " + exposed;
  EXPECT_EQ(ended.code, 118);
  EXPECT_EQ(ended.errors, "mirelsnap: " + exposed + ": cannot be unmounted yet: " + user +
                              "; trying again for 5 seconds\nmirelsnap: " + exposed + ": is still mounted: " + user +
                              "; stop what uses it, then run this again\n");
  EXPECT_NE(ended.output.find("Removed the snapshot of " + volume.device()), std::string::npos);
  sitting.kill();
  EXPECT_EQ(verb(session, {"reconcile"}).code, 0);
  expectText(verb(session, {"reconcile"}), "Nothing is left of dead processes.\n");
}

TEST_F(Reconcile, says_what_the_driver_keeps_and_is_118) {
  const TempDir dir;
  Session keeping({"--inject", "discard:1:EIO"});
  const std::string process = std::to_string(test::killedRun(keeping, volume, dir / "base"));
  const Ended ended = verb(keeping, {"reconcile"});
  EXPECT_EQ(ended.code, 118);
  EXPECT_TRUE(ended.errors.starts_with(
      "mirelsnap: " + volume.device() + ": is still snapped by process " + process +
      ", which is gone: ioctl(IOC_SNAP_DISCARD): Input/output error; look for MIRELSNAP_SDK in the system log\n"))
      << ended.errors;
  EXPECT_EQ(ended.errors.find("relocation file"), std::string::npos) << "that stays with its snapshot";
  EXPECT_EQ(keeping.takeComplaints(1).size(), 1u);
  EXPECT_EQ(verb(keeping, {"reconcile", "--base", dir / "base"}).code, 0);
  expectText(verb(keeping, {"reconcile"}), "Nothing is left of dead processes.\n");
}

TEST(ReconcileRefused, without_a_driver_is_112) {
  Session session = Session::withoutDriver();
  EXPECT_EQ(verb(session, {"reconcile"}).code, 112);
}

}  // namespace
