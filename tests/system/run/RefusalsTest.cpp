// SPDX-License-Identifier: Apache-2.0
//
// Why a run cannot be: each failure is its exit code and one line that names the device or path, the cause, what to do.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <regex>

#include "Agent.h"
#include "DriverClient.h"
#include "MountList.h"
#include "OwnWorld.h"
#include "Run.h"
#include "Waiting.h"

namespace fs = std::filesystem;

namespace {

using test::Ended;
using test::expectFailure;
using test::kTrue;
using test::LoopDevice;
using test::Mounted;
using test::run;
using test::runScript;
using test::Session;
using test::TempDir;
using test::Volume;

using Texts = std::vector<std::string>;

// ---- the machine

TEST(RunRefused, without_root_is_111) {
  const TempDir dir;
  ASSERT_EQ(chmod(dir.path().c_str(), 0755), 0);
  // Where the nobody's way does not lead through this user's folders.
  fs::copy_file(MIRELSNAP_PROGRAM, dir / "mirelsnap");
  Session session;
  expectFailure(session.run({dir / "mirelsnap", "run", "--", "/bin/true"}, {.user = 65534}), 111,
                "mirelsnap: mirelsnap run: needs root: it mounts file systems and talks to the kernel driver; run it "
                "with sudo");
  EXPECT_TRUE(session.trace().empty());
}

TEST(RunRefused, as_a_root_that_may_not_mount_is_111) {
  Session session = Session::withoutDriver();
  Texts arguments = {"/usr/bin/setpriv", "--bounding-set=-sys_admin", "--inh-caps=-sys_admin"};
  for (const std::string& argument : test::runArguments({}, kTrue)) arguments.push_back(argument);
  expectFailure(session.run(arguments), 111,
                "mirelsnap: mirelsnap run: this root may not mount file systems (CAP_SYS_ADMIN is missing); run it "
                "outside the container, or give the container this capability");
}

TEST(RunRefused, without_a_driver_is_112) {
  const Volume volume("ext4", 32 << 20);
  Session session = Session::withoutDriver();
  expectFailure(run(session, {"--volume", volume.device()}, kTrue), 112,
                "mirelsnap: /dev/mirelsnapctl: the driver (module mirelsnap) is not loaded and could not be loaded; "
                "install it, or try it without: mirelsnap-emulator -- mirelsnap run ...");
}

TEST(RunRefused, with_a_driver_that_does_not_answer_is_112) {
  const Volume volume("ext4", 32 << 20);
  Session session({"--inject", "version:1:EIO", "--inject", "version:2:EIO"});
  expectFailure(run(session, {"--volume", volume.device()}, kTrue), 112,
                "mirelsnap: /dev/mirelsnapctl: the snapshot driver is loaded but does not answer: "
                "ioctl(IOC_GET_DRIVER_VERSION): Input/output error; look for MIRELSNAP_SDK in the system log");
  EXPECT_EQ(session.takeComplaints(2).size(), 2u);
}

// ---- volumes

class RunRefusedVolume : public testing::Test {
 protected:
  void expectRefused(const std::string& name, const std::string& line) {
    expectFailure(run(session, {"--volume", name}, kTrue), 113, "mirelsnap: " + line);
    EXPECT_TRUE(session.trace().empty()) << "the driver was asked";
  }

  const Volume volume{"ext4", 32 << 20};
  const LoopDevice unmounted{1 << 20};
  const TempDir dir;
  Session session;
};

TEST_F(RunRefusedVolume, a_regular_file_is_113) {
  test::writeFile(dir / "file", "text");
  expectRefused(dir / "file", dir / "file" +
                                  ": is neither a block device nor a mount point; name a device such as "
                                  "/dev/sdb1 or its mount point");
}

TEST_F(RunRefusedVolume, a_character_device_is_113) {
  expectRefused("/dev/null",
                "/dev/null: is neither a block device nor a mount point; name a device such as /dev/sdb1 "
                "or its mount point");
}

TEST_F(RunRefusedVolume, a_directory_that_is_no_mount_point_is_113) {
  const std::string folder = volume.folder() + "/lost+found";
  expectRefused(folder, folder + ": is not a mount point; it lies on the volume mounted at " + volume.folder());
}

TEST_F(RunRefusedVolume, a_file_system_without_a_block_device_is_113) {
  expectRefused("/mnt", "/mnt: is a tmpfs file system without a block device; only block devices can be snapped");
  expectRefused("/proc", "/proc: is a proc file system without a block device; only block devices can be snapped");
}

TEST_F(RunRefusedVolume, a_device_that_is_not_mounted_is_113) {
  expectRefused(unmounted.path(),
                unmounted.path() + ": is not mounted; mount it first: only mounted volumes can be snapped");
}

TEST_F(RunRefusedVolume, a_name_that_leads_nowhere_is_113) {
  expectRefused("/dev/nothing",
                "/dev/nothing: No such file or directory; name a mounted block device or a mount point "
                "(lsblk shows them)");
}

TEST_F(RunRefusedVolume, a_pair_whose_device_is_missing_is_113) {
  expectRefused("/dev/nothing:" + volume.folder(),
                "/dev/nothing: No such file or directory; name an existing block device");
}

TEST_F(RunRefusedVolume, a_pair_whose_device_is_none_is_113) {
  expectRefused("/dev/null:" + volume.folder(), "/dev/null: is not a block device; name a device such as /dev/sdb1");
}

TEST_F(RunRefusedVolume, a_pair_that_is_mounted_elsewhere_is_113) {
  expectRefused(unmounted.path() + ":" + volume.folder(),
                unmounted.path() + ": is not what is mounted at " + volume.folder() + "; that is " + volume.device());
  expectRefused(volume.device() + ":" + dir.path(), dir.path() +
                                                        ": is not a mount point; it lies on the volume mounted "
                                                        "at /mnt");
}

TEST_F(RunRefusedVolume, of_which_only_a_folder_is_mounted_is_113) {
  const std::string part = volume.folder() + "/part";
  fs::create_directory(part);
  const Mounted bound(part, dir.path(), "", MS_BIND);
  expectRefused(dir.path(), dir.path() + ": shows only /part of " + volume.device() +
                                ", and a snapshot is of a whole volume; name " + volume.folder() +
                                ", whose snapshot holds it at /part");
  test::unmount(volume.folder());
  expectRefused(volume.device(), volume.device() + ": is mounted in part only: /part at " + dir.path() +
                                     "; mount all of it: a snapshot is of a whole volume");
  expectRefused(dir.path(), dir.path() + ": shows only /part of " + volume.device() +
                                ", and a snapshot is of a whole volume; mount the volume itself and name that");
  mount(volume.device().c_str(), volume.folder().c_str(), "ext4", 0, nullptr);
}

// ---- snapped, frozen, no room

TEST(RunRefused, on_a_volume_that_is_snapped_is_114) {
  const Volume volume("ext4", 32 << 20);
  const Volume other("ext4", 32 << 20);
  Session session;
  test::Agent agent(session);
  test::Engine engine = agent.openedSet({&volume});
  ASSERT_EQ(engine.snap(), 0);
  const std::string line = "mirelsnap: " + volume.device() + ": is already snapped by process " +
                           std::to_string(agent.id()) + " (system_agent); wait until that snapshot is deleted";
  expectFailure(run(session, {"--volume", volume.device()}, kTrue), 114, line);
  expectFailure(run(session, {"--volume", other.device(), "--volume", volume.device()}, kTrue), 114, line);
  EXPECT_EQ(test::DriverClient(session).snapped().size(), 1u);
  EXPECT_EQ(engine.deleteSet(), S_OK);
  engine.release();
}

TEST(RunRefused, on_a_volume_that_is_just_being_snapped_is_114) {
  const Volume volume("ext4", 32 << 20);
  Session session;
  // The first run stands still before it makes its relocation file.
  test::Process first = session.start(test::runArguments({"--volume", volume.device()}, kTrue),
                                      {.environment = test::withMischief("stop-after-mapping")});
  test::DriverClient driver(session);
  ASSERT_TRUE(test::comesTrue([&] { return !first.running() || !driver.mappings().empty(); })) << first.errors();
  expectFailure(run(session, {"--volume", volume.device()}, kTrue), 114,
                "mirelsnap: " + volume.device() + ": is being snapped by process " + std::to_string(first.id()) +
                    " (mirelsnap); wait until that snapshot is deleted");
  EXPECT_EQ(driver.mappings().size(), 1u) << "what belongs to the other stays";
  EXPECT_EQ(session.takeComplaints(1).size(), 1u);
  first.signal(SIGCONT);
  EXPECT_EQ(first.wait(), 0);
}

TEST(RunRefused, on_a_volume_that_is_frozen_is_114) {
  const Volume volume("ext4", 32 << 20);
  Session session;
  test::DriverClient driver(session);
  ASSERT_EQ(driver.freeze({volume.device()}), 0u);
  expectFailure(run(session, {"--volume", volume.device()}, kTrue), 114,
                "mirelsnap: " + volume.device() + ": is frozen; thaw it first");
  EXPECT_EQ(driver.thaw({volume.device()}), 0u);
}

TEST(RunRefused, on_a_full_volume_without_an_alternative_is_115) {
  const Volume volume("ext4", 32 << 20);
  const int file = open((volume.folder() + "/filling").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
  const std::string piece(4096, 'x');
  while (write(file, piece.data(), piece.size()) == 4096) {
  }
  close(file);
  Session session;
  const Ended ended = run(session, {"--volume", volume.device()}, kTrue);
  EXPECT_EQ(ended.code, 115);
  // How large the file was to be depends on what ext4 keeps for itself.
  EXPECT_TRUE(std::regex_match(
      ended.errors,
      std::regex(
          "mirelsnap: " + volume.folder() + ": has no room for the relocation file of " + volume.device() +
          " \\([0-9.]+ KiB\\): write\\(" + volume.folder() + "/.verrelocarea/" + volume.device().substr(5) +
          "\\): No space left on device; free some space or name a place with --reloc-mount and --reloc-size\n")))
      << ended.errors;
}

TEST(RunRefused, on_a_volume_that_is_mounted_read_only_without_an_alternative_is_115) {
  const Volume volume("ext4", 32 << 20);
  ASSERT_EQ(mount(nullptr, volume.folder().c_str(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr), 0);
  Session session;
  expectFailure(run(session, {"--volume", volume.device()}, kTrue), 115,
                "mirelsnap: " + volume.device() +
                    ": no mounted file system has room for its relocation file (nothing can be written to the volume); "
                    "free some space or name a place with --reloc-mount and --reloc-size");
}

TEST(RunRefused, with_a_relocation_mount_that_is_too_small_is_115) {
  const Volume volume("ext4", 32 << 20);
  const Volume small("ext4", 16 << 20);
  Session session;
  expectFailure(
      run(session, {"--volume", volume.device(), "--reloc-mount", small.folder(), "--reloc-size", "100000"}, kTrue),
      115,
      "mirelsnap: " + small.folder() + ": cannot hold a relocation file of 100000 blocks for " + volume.device() +
          ": not enough space is free there; name another --reloc-mount or a smaller --reloc-size");
}

TEST(RunRefused, under_a_limit_for_files_that_is_too_small_is_115) {
  const Volume volume("ext4", 32 << 20);
  Session session;
  Texts arguments = {"/bin/sh", "-c", "ulimit -f 20; exec \"$@\"", "sh"};
  for (const std::string& argument : test::runArguments({"--volume", volume.device()}, kTrue))
    arguments.push_back(argument);
  expectFailure(session.run(arguments), 115,
                "mirelsnap: " + volume.device() + ": a relocation file could not be made: write(" + volume.folder() +
                    "/.verrelocarea/" + volume.device().substr(5) +
                    "): File too large; look for MIRELSNAP_SDK in the system log, or use --verbose");
}

TEST(RunRefused, with_a_relocation_mount_that_is_no_mount_point_is_115) {
  const Volume volume("ext4", 32 << 20);
  const std::string folder = volume.folder() + "/lost+found";
  Session session;
  expectFailure(run(session, {"--volume", volume.device(), "--reloc-mount", folder, "--reloc-size", "10"}, kTrue), 115,
                "mirelsnap: " + folder + ": is not a mount point, so no relocation file of " + volume.device() +
                    " can go there; name a mount point with --reloc-mount");
}

// ---- the driver refuses

TEST(RunRefused, by_the_driver_is_116_or_114_by_its_reason) {
  const Volume volume("ext4", 32 << 20);
  Session session({"--inject", "snap:1:EIO:-9", "--inject", "snap:2:ESTALE:-8", "--inject", "snap:3:EBUSY:-2",
                   "--inject", "snap:4:EBUSY:-3", "--inject", "create-mapping:5:EIO"});
  const std::string device = "mirelsnap: " + volume.device();
  const Texts options = {"--volume", volume.device()};
  expectFailure(
      run(session, options, kTrue), 116,
      device +
          ": the driver refused the snapshot: ioctl(IOC_SNAP): Input/output error; look for MIRELSNAP_SDK in the "
          "system log, or use --verbose");
  expectFailure(run(session, options, kTrue), 116,
                device + ": the size of a device changed; try again when it no longer changes");
  for (int i = 0; i < 2; ++i) {
    expectFailure(run(session, options, kTrue), 114,
                  device + ": a volume was snapped or frozen at that moment; try again");
  }
  expectFailure(run(session, options, kTrue), 115,
                device +
                    ": a relocation file could not be made: ioctl(IOC_CREATE_RELOC_FILE_MAPPING): Input/output error; "
                    "look for MIRELSNAP_SDK in the system log, or use --verbose");
  EXPECT_EQ(session.takeComplaints(5).size(), 5u);
  EXPECT_EQ(run(session, options, kTrue).code, 0);
}

TEST(RunRefused, by_a_driver_that_does_not_tell_its_volumes_is_116) {
  const Volume volume("ext4", 32 << 20);
  // The first time it is asked for what dead processes left.
  Session session({"--inject", "count-snapped:2:EIO"});
  expectFailure(
      run(session, {"--volume", volume.device()}, kTrue), 116,
      "mirelsnap: " + volume.device() +
          ": the snapshot could not be prepared: ioctl(IOC_GET_NUM_OF_SNAPPED_VOLUMES): Input/output error; look for "
          "MIRELSNAP_SDK in the system log, or use --verbose");
  EXPECT_EQ(session.takeComplaints(1).size(), 1u);
}

// ---- exposure

class RunRefusedBase : public testing::Test {
 protected:
  void expectRefused(Texts options, const std::string& line) {
    options.insert(options.begin(), {"--volume", volume.device()});
    expectFailure(run(session, options, kTrue), 117, "mirelsnap: " + line);
    EXPECT_TRUE(session.trace("snap").empty()) << "it is known before anything is snapped";
  }

  const Volume volume{"ext4", 32 << 20};
  const TempDir dir;
  Session session;
};

TEST_F(RunRefusedBase, that_is_not_empty_is_117) {
  test::writeFile(dir / "file", "");
  expectRefused({"--base", dir.path()}, dir.path() + ": is not empty; name a new or an empty directory with --base");
}

TEST_F(RunRefusedBase, that_is_no_directory_is_117) {
  test::writeFile(dir / "file", "");
  expectRefused({"--base", dir / "file"},
                dir / "file" + ": is not a directory; name a new or an empty directory with --base");
  expectRefused({"--base", dir / "file/below"}, dir / "file" + ": is not a directory; name another base with --base");
}

TEST_F(RunRefusedBase, on_which_something_is_mounted_is_117) {
  const Mounted mounted("tests", dir.path(), "tmpfs");
  expectRefused({"--base", dir.path()}, dir.path() + ": is mounted on; name a directory without mounts with --base");
}

TEST_F(RunRefusedBase, that_a_killed_run_left_its_snapshot_in_is_117_and_free_after_what_it_is_told_to_do) {
  const std::string base = dir / "base";
  const Texts options = {"--volume", volume.device(), "--base", base};
  test::Process killed = session.start(test::runArguments(options, {"/bin/sh", "-c", "echo $$; exec sleep infinity"}));
  ASSERT_TRUE(killed.writesLine()) << killed.errors();
  killed.kill();
  kill(std::stoi(killed.output()), SIGKILL);
  expectFailure(run(session, options, kTrue), 117,
                "mirelsnap: " + base + ": is mounted on; mirelsnap reconcile --base " + base +
                    " clears it of a dead process, or name a directory without mounts with --base");
  EXPECT_EQ(session.run({MIRELSNAP_PROGRAM, "reconcile", "--base", base}).code, 0);
  EXPECT_EQ(run(session, options, kTrue).code, 0);
}

TEST_F(RunRefusedBase, that_cannot_be_made_is_117) {
  ASSERT_EQ(mount("tests", dir.path().c_str(), "tmpfs", MS_RDONLY, nullptr), 0);
  expectRefused({"--base", dir / "new/base"},
                dir / "new" + ": cannot be made: Read-only file system; name another base with --base");
  test::unmount(dir.path());
}

TEST_F(RunRefusedBase, with_a_bind_that_is_no_mount_point_is_117) {
  expectRefused({"--bind", dir.path()}, dir.path() + ": is not a mount point; name a mount point with --bind");
  expectRefused({"--bind", "/nothing"}, "/nothing: is not a mount point; name a mount point with --bind");
}

TEST_F(RunRefusedBase, with_a_bind_that_is_a_file_is_117) {
  const TempDir other;
  test::writeFile(dir / "file", "");
  test::writeFile(other / "file", "");
  const Mounted bound(dir / "file", other / "file", "", MS_BIND);
  expectRefused({"--bind", other / "file"},
                other / "file" + ": is not a directory; bind the mount point of a whole file system");
}

TEST_F(RunRefusedBase, with_a_bind_that_would_hide_the_snapshot_behind_live_files_is_117) {
  const std::string hidden =
      ": would hide the snapshot of " + volume.folder() + " behind live files; leave out --bind ";
  expectRefused({"--bind", volume.folder()}, volume.folder() + hidden + volume.folder());
  expectRefused({"--bind", "/mnt"}, "/mnt" + hidden + "/mnt, or name it with --volume");
}

TEST_F(RunRefusedBase, that_is_relative_to_a_working_directory_that_is_gone_is_117) {
  Texts arguments = {"/bin/sh", "-c", "cd \"$0\"; rmdir \"$0\"; exec \"$@\"", dir / "gone"};
  fs::create_directory(dir / "gone");
  for (const std::string& argument : test::runArguments({"--volume", volume.device(), "--base", "base"}, kTrue))
    arguments.push_back(argument);
  expectFailure(session.run(arguments), 117,
                "mirelsnap: base: cannot be found: the working directory is gone; give its full path");
}

TEST_F(RunRefusedBase, that_is_a_link_that_leads_nowhere_is_117) {
  fs::create_symlink("nothing", dir / "link");
  expectRefused({"--base", dir / "link"},
                dir / "link" + ": is a link that leads nowhere; name a new or an empty directory with --base");
}

TEST_F(RunRefusedBase, for_nested_mounts_with_a_gap_is_117) {
  const LoopDevice middleLoop(16 << 20);
  const LoopDevice deepLoop(16 << 20);
  middleLoop.mkfs("ext4");
  deepLoop.mkfs("ext4");
  const std::string middleFolder = volume.folder() + "/middle";
  const std::string deepFolder = middleFolder + "/deep";
  fs::create_directory(middleFolder);
  const Mounted middle(middleLoop.path(), middleFolder, "ext4");
  fs::create_directory(deepFolder);
  const Mounted deep(deepLoop.path(), deepFolder, "ext4");
  // The session checks the mounts at its end: these are gone then.
  expectRefused({"--volume", deepLoop.path()},
                deepFolder + ": is mounted in " + middleFolder +
                    ", which is not in the set, so there is no folder to mount it on; add --volume " + middleFolder +
                    " or leave out what lies above it");
}

// ---- cleaning up

TEST(RunCannotCleanUp, while_a_process_sits_in_the_exposed_tree_is_118) {
  const Volume volume("ext4", 32 << 20);
  const TempDir dir;
  Session session;
  const Ended ended = runScript(session, {"--volume", volume.device(), "--base", dir / "base"},
                                "cd $MIRELSNAP_VOLUME_1; sleep infinity >/dev/null 2>&1 & "
                                "until [ $(cat /proc/$!/comm) = sleep ]; do :; done; echo $!");
  const std::string exposed = dir / "base" + volume.folder();
  const std::string sleeper = ended.output.substr(0, ended.output.size() - 1);
  EXPECT_EQ(ended.code, 118);
  const std::string uses = "process " + sleeper + " (sleep) uses " + exposed;
  EXPECT_EQ(ended.errors, "mirelsnap: " + exposed + ": cannot be unmounted yet: " + uses +
                              "; trying again for 5 seconds\nmirelsnap: " + exposed + ": is still mounted: " + uses +
                              "; stop what uses it, then: umount " + exposed + "\n");
  kill(std::stoi(sleeper), SIGKILL);
  // What the line says is to be done is enough.
  EXPECT_TRUE(test::comesTrue([&] { return test::unmount(exposed) == 0; }));
  EXPECT_EQ(test::mountsUnder(dir.path()), Texts());
  EXPECT_EQ(session.run({MIRELSNAP_PROGRAM, "reconcile"}).output, "Removed the folder " + dir / "base" + "\n");
}

TEST(RunCannotCleanUp, when_the_driver_keeps_the_snapshot_is_118) {
  const Volume volume("ext4", 32 << 20);
  Session session({"--inject", "discard:1:EIO"});
  const Ended ended = runScript(session, {"--volume", volume.device()}, "exit 3");
  EXPECT_EQ(ended.code, 118) << "nobody must take it for a good end";
  EXPECT_EQ(ended.errors, "mirelsnap: " + volume.device() +
                              ": is still snapped: the driver refused to discard the snapshot: "
                              "ioctl(IOC_SNAP_DISCARD): Input/output error; run mirelsnap "
                              "reconcile: that removes what is left\n");
  EXPECT_EQ(session.takeComplaints(1).size(), 1u);
  const Ended again = run(session, {"--volume", volume.device()}, kTrue);
  EXPECT_EQ(again.code, 0) << again.errors;
}

// ---- after a run that was killed

TEST(RunAfterAKilledRun, removes_what_that_left_and_snaps_the_same_volume) {
  const Volume volume("ext4", 32 << 20);
  Session session;
  test::Process killed = session.start(
      test::runArguments({"--volume", volume.device()}, {"/bin/sh", "-c", "echo $$; exec sleep infinity"}));
  ASSERT_TRUE(killed.writesLine()) << killed.errors();
  const std::string base = "/run/mirelsnap/" + std::to_string(killed.id());
  killed.kill();
  kill(std::stoi(killed.output()), SIGKILL);
  EXPECT_EQ(test::mountsUnder(base), Texts{base + volume.folder()});
  const Ended ended = run(session, {"--volume", volume.device()}, kTrue);
  EXPECT_EQ(ended.code, 0);
  EXPECT_EQ(ended.errors, "");
  EXPECT_FALSE(fs::exists(base));
}

TEST(RunAfterAKilledRun, removes_an_abandoned_base_though_the_driver_holds_nothing_any_more) {
  const Volume volume("ext4", 32 << 20);
  Session session;
  // Ended, though nobody has asked for its end yet.
  const pid_t number = fork();
  if (number == 0) _exit(0);
  siginfo_t ended{};
  ASSERT_EQ(waitid(P_PID, static_cast<id_t>(number), &ended, WEXITED | WNOWAIT), 0);
  const std::string base = "/run/mirelsnap/" + std::to_string(number);
  fs::create_directories(base + volume.folder());
  const int lock = open(base.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  ASSERT_EQ(flock(lock, LOCK_EX), 0);
  EXPECT_EQ(run(session, {"--volume", volume.device()}, kTrue).code, 0);
  EXPECT_TRUE(fs::exists(base + volume.folder())) << "whoever holds the lock lives, under another number";
  close(lock);
  EXPECT_EQ(run(session, {"--volume", volume.device()}, kTrue).code, 0);
  EXPECT_FALSE(fs::exists(base));
  waitpid(number, nullptr, 0);
}

TEST(RunAfterAKilledRun, leaves_live_folders_alone_that_were_bound_and_are_in_use) {
  const Volume volume("ext4", 32 << 20);
  const Volume live("ext4", 32 << 20);
  fs::create_directories(live.folder() + "/used");
  fs::create_directories(live.folder() + "/empty/empty");
  Session session;
  test::Process killed = session.start(test::runArguments(
      {"--volume", volume.device(), "--bind", live.folder()},
      {"/bin/sh", "-c", "cd $MIRELSNAP_BASE" + live.folder() + "/used; echo $$; exec sleep infinity"}));
  ASSERT_TRUE(killed.writesLine()) << killed.errors();
  const std::string base = "/run/mirelsnap/" + std::to_string(killed.id());
  killed.kill();
  EXPECT_EQ(run(session, {"--volume", volume.device()}, kTrue).code, 0);
  EXPECT_EQ(test::mountsUnder(base), Texts{base + live.folder()});
  EXPECT_TRUE(fs::exists(live.folder() + "/empty/empty"));
  EXPECT_TRUE(fs::exists(live.folder() + "/used"));
  kill(std::stoi(killed.output()), SIGKILL);
  EXPECT_TRUE(test::comesTrue([&] { return test::unmount(base + live.folder()) == 0; }));
  EXPECT_EQ(test::mountsUnder(base), Texts());
  EXPECT_EQ(run(session, {"--volume", volume.device()}, kTrue).code, 0);
  EXPECT_FALSE(fs::exists(base));
}

TEST(RunAfterAKilledRun, leaves_what_a_living_one_holds_alone) {
  const Volume volume("ext4", 32 << 20);
  const Volume held("ext4", 32 << 20);
  Session session;
  test::Process killed = session.start(
      test::runArguments({"--volume", volume.device()}, {"/bin/sh", "-c", "echo $$; exec sleep infinity"}));
  const TempDir dir;
  test::Process living = session.start(test::runArguments(
      {"--volume", held.device()},
      {"/bin/sh", "-c", "echo ready; until [ -e " + (dir / "go") + " ]; do sleep 0.01; done; ls $MIRELSNAP_VOLUME_1"}));
  ASSERT_TRUE(killed.writesLine()) << killed.errors();
  ASSERT_TRUE(living.writesLine()) << living.errors();
  killed.kill();
  kill(std::stoi(killed.output()), SIGKILL);
  EXPECT_EQ(run(session, {"--volume", volume.device()}, kTrue).code, 0);
  test::writeFile(dir / "go", "");
  EXPECT_EQ(living.wait(), 0) << living.errors();
  EXPECT_EQ(living.output(), "ready\nlost+found\n");
}

// The snapshot is discarded then, its relocation file is left.
TEST(RunCannotCleanUp, when_memory_ends_at_the_deletion_is_118) {
  const Volume volume("ext4", 32 << 20);
  Session session;
  const Ended ended = run(session, {"--json", "--volume", volume.device()}, kTrue,
                          {.environment = test::withMischief("no-memory-for-removal")});
  EXPECT_EQ(ended.code, 118);
  EXPECT_EQ(ended.errors, "mirelsnap: " + volume.device() +
                              ": the deletion of the snapshots failed: memory is short; run mirelsnap reconcile: that "
                              "removes what is left\n");
  const std::string file = test::Json::parse(ended.output)["volumes"][0]["relocation_file"];
  EXPECT_TRUE(fs::exists(file));
  EXPECT_EQ(session.run({MIRELSNAP_PROGRAM, "reconcile"}).output, "Removed the relocation file " + file + "\n");
  EXPECT_FALSE(fs::exists(file));
}

// ---- wrong options

TEST(RunUsage, that_is_wrong_is_2_and_does_nothing) {
  Session session;
  const auto complains = [&](Texts arguments, const std::string& line) {
    const std::string help =
        arguments.empty() || arguments.front() != "run" ? "mirelsnap --help" : "mirelsnap run --help";
    arguments.insert(arguments.begin(), MIRELSNAP_PROGRAM);
    expectFailure(session.run(arguments), 2, "mirelsnap: " + line + "; see " + help);
  };
  complains({}, "what is to be done? Name a verb, such as doctor");
  complains({""}, "what is to be done? Name a verb, such as doctor");
  complains({"run"}, "run: what is to be run? Put it behind --, as in: mirelsnap run -- COMMAND");
  complains({"run", "--"}, "run: what is to be run? Put it behind --, as in: mirelsnap run -- COMMAND");
  complains({"run", "--nothing", "--", "true"}, "this argument was not expected: --nothing");
  complains({"run", "--reloc-size", "5", "--", "true"}, "--reloc-size requires --reloc-mount");
  complains({"run", "--reloc-mount", "/mnt", "--", "true"}, "--reloc-mount requires --reloc-size");
  complains({"run", "--reloc-mount", "/mnt", "--reloc-size", "0", "--", "true"},
            "--reloc-size: 0 is no number of blocks (1 to 4294967295)");
  complains({"run", "--reloc-mount", "/mnt", "--reloc-size", "12abc", "--", "true"},
            "--reloc-size: 12abc is no number of blocks (1 to 4294967295)");
  complains({"run", "--reloc-mount", "/mnt", "--reloc-size", "4294967296", "--", "true"},
            "--reloc-size: 4294967296 is no number of blocks (1 to 4294967295)");
  for (const std::string option : {"--volume", "--base", "--bind"})
    complains({"run", option, "", "--", "true"}, option + ": the value is empty");
  complains({"run", "--reloc-mount", "", "--reloc-size", "5", "--", "true"}, "--reloc-mount: the value is empty");
  complains({"run", "--volume", "/mnt", "/proc", "--", "true"}, "this argument was not expected: /proc");
  complains({"run", "--volum", "/mnt", "--", "true"}, "these arguments were not expected: --volum /mnt");
  complains({"run", "tar", "-cf", "x"},
            "these arguments were not expected: tar -cf x (the command to run stands behind --)");
  complains({"run", "two\nlines", "--", "true"}, "this argument was not expected: two\\nlines");
  complains({"fly"}, "fly is nothing that mirelsnap can do");
  complains({"--json", "status"}, "name a verb first: --json is none");
  EXPECT_TRUE(session.trace().empty());
}

}  // namespace
