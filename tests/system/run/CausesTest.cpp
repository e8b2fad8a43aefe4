// SPDX-License-Identifier: Apache-2.0
//
// What a failure is told to have failed for: the call and its errno, never a guess; and a clean-up that has patience.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>

#include "Leftovers.h"
#include "MountList.h"
#include "Run.h"

namespace fs = std::filesystem;

namespace {

using test::Ended;
using test::expectFailure;
using test::kTrue;
using test::run;
using test::runScript;
using test::Session;
using test::TempDir;
using test::Volume;

using Texts = std::vector<std::string>;

class RunFails : public testing::Test {
 protected:
  // mirelsnap run of the volume in a mount namespace of its own, once `script` has been run there.
  Ended runAfter(const std::string& script, const std::string& command = "true") {
    return session.shell("unshare -m --propagation private sh -c '" + script + "; exec " + MIRELSNAP_PROGRAM +
                         " run --volume " + volume.device() + " -- " + command + "'");
  }

  const Volume volume{"ext4", 32 << 20};
  const TempDir dir;
  Session session;
};

TEST_F(RunFails, for_a_file_of_memory_that_cannot_be_read_with_116_and_not_for_memory_that_is_short) {
  ASSERT_EQ(mknod((dir / "unreadable").c_str(), S_IFSOCK | 0600, 0), 0);
  expectFailure(runAfter("mount --bind " + (dir / "unreadable") + " /proc/meminfo"), 116,
                "mirelsnap: " + volume.device() +
                    ": the snapshot could not be prepared: open(/proc/meminfo): No such device or address; look for "
                    "MIRELSNAP_SDK in the system log, or use --verbose");
}

TEST_F(RunFails, for_memory_that_is_short_with_116_where_that_is_so) {
  test::writeFile(dir / "meminfo", "MemTotal: 0 kB\nMemFree: 0 kB\n");
  expectFailure(runAfter("mount --bind " + (dir / "meminfo") + " /proc/meminfo"), 116,
                "mirelsnap: " + volume.device() +
                    ": the snapshot could not be prepared: /proc/meminfo: tells of no memory that the driver could "
                    "use; look for MIRELSNAP_SDK in the system log, or use --verbose");
}

TEST_F(RunFails, for_a_control_node_that_cannot_be_opened_with_112) {
  const std::string node = dir / "node";
  expectFailure(runAfter("mknod /dev/mirelsnapctl c 1 3; mount -t tmpfs -o nodev tests " + dir.path() + "; mknod " +
                         node + " c 1 3; mount --bind " + node + " /dev/mirelsnapctl"),
                112,
                "mirelsnap: /dev/mirelsnapctl: the snapshot driver is loaded but does not answer: "
                "open: Permission denied; look for MIRELSNAP_SDK in the system log");
}

TEST_F(RunFails, for_a_mount_that_is_refused_with_117) {
  const std::string base = dir / "base";
  expectFailure(run(session, {"--volume", volume.device(), "--base", base}, kTrue,
                    {.environment = test::withMischief("no-mount")}),
                117,
                "mirelsnap: " + base + ": the snapshots could not be mounted there: mount(" + base + volume.folder() +
                    "): Operation not permitted; look for mirelsnap in the system log, or use --verbose");
  EXPECT_FALSE(fs::exists(base));
}

// ---- cleaning up

TEST_F(RunFails, to_clean_up_with_118_while_the_driver_cannot_be_asked_and_advises_no_removal_by_hand) {
  const Ended ended =
      runScript(session, {"--volume", volume.device()}, "rm /dev/mirelsnapctl && mkdir /dev/mirelsnapctl");
  EXPECT_EQ(ended.code, 118);
  EXPECT_EQ(ended.errors, "mirelsnap: " + volume.device() +
                              ": the snapshots may be left: /dev/mirelsnapctl: the driver does not tell what it holds: "
                              "unlink: Is a directory; run mirelsnap reconcile: that removes what is "
                              "left\n");
  EXPECT_TRUE(fs::exists(volume.folder() + "/.verrelocarea/" + volume.device().substr(5))) << "the snapshot uses it";
  fs::remove("/dev/mirelsnapctl");
  EXPECT_EQ(session.run({MIRELSNAP_PROGRAM, "reconcile"}).code, 0);
}

TEST_F(RunFails, to_remove_a_relocation_file_with_118_and_says_why) {
  const std::string file = volume.folder() + "/.verrelocarea/" + volume.device().substr(5);
  const Ended ended = runScript(session, {"--volume", volume.device()}, "chattr +i " + file);
  EXPECT_EQ(ended.code, 118);
  EXPECT_EQ(ended.errors, "mirelsnap: " + file +
                              ": the relocation file could not be removed: unlink: Operation not permitted; run "
                              "mirelsnap reconcile: that removes what is left\n");
  const Ended again = session.run({MIRELSNAP_PROGRAM, "reconcile"});
  EXPECT_EQ(again.code, 118);
  EXPECT_EQ(again.errors, "mirelsnap: " + file +
                              ": the relocation file could not be removed: unlink: Operation not permitted; mend that, "
                              "then run this again\n");
  EXPECT_EQ(session.run({"/usr/bin/chattr", "-i", file}).code, 0);
  EXPECT_EQ(session.run({MIRELSNAP_PROGRAM, "reconcile"}).output, "Removed the relocation file " + file + "\n");
}

// Another run has one of the volumes already when this one asks what is left, and the file of the other one stays.
TEST(RunCleansUp, and_takes_no_volume_of_another_runs_for_its_own_nor_the_cause_of_one_for_that_of_another) {
  const Volume first("ext4", 32 << 20), second("ext4", 32 << 20);
  const std::string file = first.folder() + "/.verrelocarea/" + first.device().substr(5);
  const Texts arguments =
      test::runArguments({"--volume", first.device(), "--volume", second.device()}, {"/usr/bin/chattr", "+i", file});
  const auto makeRemovable = [&] { EXPECT_EQ(test::run({"chattr", "-i", file}), 0); };
  Session session;
  EXPECT_EQ(session.run(arguments).code, 118);
  // The last time that a run asks for snapshots is when it looks for what is left.
  const std::string last = std::to_string(session.trace("count-snapped").size());
  makeRemovable();
  EXPECT_EQ(session.run({MIRELSNAP_PROGRAM, "reconcile"}).code, 0);

  test::Process run = session.start(arguments, {.environment = test::withMischief("stop-before:11:" + last)});
  run.waitUntilStopped();
  test::Process other =
      session.start(test::runArguments({"--volume", second.device()}, {"/bin/sh", "-c", "echo here; exec sleep 60"}));
  ASSERT_TRUE(other.writesLine()) << other.errors();
  run.signal(SIGCONT);
  EXPECT_EQ(run.wait(), 118);
  EXPECT_EQ(run.errors(), "mirelsnap: " + file +
                              ": the relocation file could not be removed: unlink: Operation not permitted; run "
                              "mirelsnap reconcile: that removes what is left\n");
  other.signal(SIGTERM);
  EXPECT_EQ(other.wait(), 128 + SIGTERM);
  makeRemovable();
  EXPECT_EQ(session.run({MIRELSNAP_PROGRAM, "reconcile"}).code, 0);
}

TEST(RunCleansUp, what_a_process_uses_when_that_lets_go_in_time_and_says_meanwhile_who_it_is) {
  const Volume volume("ext4", 32 << 20);
  const TempDir dir;
  Session session;
  test::Process running = session.start(
      test::runArguments({"--volume", volume.device(), "--base", dir / "base"},
                         {"/bin/sh", "-c", "cd $MIRELSNAP_VOLUME_1; sleep 60 >/dev/null 2>&1 & echo $!; exit 3"}));
  while (running.running() && running.errors().empty()) usleep(1000);
  const std::string sleeper = running.output().substr(0, running.output().size() - 1);
  const std::string exposed = dir / "base" + volume.folder();
  EXPECT_EQ(running.errors(), "mirelsnap: " + exposed + ": cannot be unmounted yet: process " + sleeper +
                                  " (sleep) uses " + exposed + "; trying again for 5 seconds\n");
  kill(std::stoi(sleeper), SIGKILL);
  EXPECT_EQ(running.wait(), 3);
  EXPECT_EQ(test::mountsUnder(dir.path()), Texts());
  EXPECT_EQ(test::loopsInScratch(true), Texts()) << "the snapshot was discarded after it was unmounted";
}

}  // namespace
