// SPDX-License-Identifier: Apache-2.0
//
// `mirelsnap reconcile` as a person runs it beside others who snap, or use what is to go: what it says, how long it
// waits, and its exit code. The volume is named by its mount or by a bind mount of it.
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <optional>

#include "Agent.h"
#include "DriverClient.h"
#include "MountList.h"
#include "OwnWorld.h"
#include "Run.h"

namespace fs = std::filesystem;

namespace {

using test::Agent;
using test::DriverClient;
using test::Ended;
using test::Engine;
using test::Mounted;
using test::Process;
using test::Session;
using test::TempDir;
using test::Volume;

using Texts = std::vector<std::string>;

struct Place {
  const char* name;
  const char* type;
  std::uint64_t bytes;
  bool bound;
};

void PrintTo(const Place& place, std::ostream* out) { *out << place.name; }

class ReconcileVerb : public testing::TestWithParam<Place> {
 protected:
  Ended reconcile(Texts options = {}) {
    options.insert(options.begin(), {MIRELSNAP_PROGRAM, "reconcile"});
    return session.run(options);
  }
  // A run of the volume that is killed, with its command.
  void killRun(Texts options = {}) {
    options.insert(options.begin(), {"--volume", path});
    Process killed = session.start(test::runArguments(options, {"/bin/sh", "-c", "echo $$; exec sleep 60"}));
    ASSERT_TRUE(killed.writesLine()) << killed.errors();
    killed.kill();
    kill(std::stoi(killed.output()), SIGKILL);
  }
  void expectNothingLeft() {
    const Ended ended = reconcile();
    EXPECT_EQ(ended.code, 0) << ended.errors;
    EXPECT_EQ(ended.output, "Nothing is left of dead processes.\n");
  }
  static std::size_t countOf(const std::string& part, const std::string& text) {
    std::size_t count = 0;
    for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++count;
    return count;
  }

  const TempDir dir;
  const TempDir elsewhere;
  const Volume volume{GetParam().type, GetParam().bytes};
  const std::optional<Mounted> bind{
      GetParam().bound ? std::make_optional<Mounted>(volume.folder(), elsewhere.path(), "", MS_BIND) : std::nullopt};
  const std::string path = bind ? bind->folder() : volume.folder();
  Session session;
};

constexpr Place kExt4{"ext4", "ext4", 32 << 20, false};
constexpr Place kBoundXfs{"a_bind_mount_of_xfs", "xfs", 300 << 20, true};
std::string nameOf(const testing::TestParamInfo<Place>& place) { return place.param.name; }

INSTANTIATE_TEST_SUITE_P(On, ReconcileVerb,
                         testing::Values(kExt4, Place{"xfs", "xfs", 300 << 20, false},
                                         Place{"a_bind_mount_of_ext4", "ext4", 32 << 20, true}, kBoundXfs),
                         nameOf);

// Those that last as long as the program waits.
class ReconcileThatWaits : public ReconcileVerb {};
INSTANTIATE_TEST_SUITE_P(On, ReconcileThatWaits, testing::Values(kExt4, kBoundXfs), nameOf);

// ---- who is in the way

TEST_P(ReconcileThatWaits, beside_a_snapshot_that_makes_no_progress_is_118_and_says_so_once) {
  killRun();
  const Volume others("ext4", 32 << 20);
  test::writeFile(others.folder() + "/qorTESTfile.KQTA", "");
  const Volume snapped("ext4", 32 << 20);
  Agent slow(session, {.environment = test::withMischief("stop-before:19:1")});
  Engine engine = slow.openedSet({&snapped});
  ASSERT_EQ(engine.setRelocation(0, snapped.folder(), 2), S_OK);
  slow.begin("start_job", {{"engine", 0}});
  slow.process().waitUntilStopped();

  const Ended ended = reconcile();
  EXPECT_EQ(ended.code, 118);
  EXPECT_EQ(countOf("mirelsnap: /dev/mirelsnapctl: is locked by a process that takes a snapshot or removes one; run "
                    "this again when that is done\n",
                    ended.errors),
            1u)
      << ended.errors;
  EXPECT_TRUE(fs::exists(others.folder() + "/qorTESTfile.KQTA"));

  slow.process().signal(SIGCONT);
  EXPECT_GE(slow.finish()["result"].get<int>(), 0);
  while (engine.status().status == USC_S_ASYNC_PENDING) engine.waitForJob(1000);
  EXPECT_EQ(reconcile().code, 0);
  EXPECT_FALSE(fs::exists(others.folder() + "/qorTESTfile.KQTA"));
  EXPECT_EQ(engine.deleteSet(), S_OK);
  engine.release();
}

// A base is known by its record, and named as well: what is used in it is waited for once.
TEST_P(ReconcileThatWaits, for_who_uses_a_snapshot_does_so_once_and_is_118) {
  const std::string base = dir / "base";
  killRun({"--base", base});
  Process user = session.start({"/bin/sh", "-c", "cd \"$0\" && echo here && exec sleep 60", base + path});
  ASSERT_TRUE(user.writesLine()) << user.errors();
  const Ended ended = reconcile({"--base", base});
  EXPECT_EQ(ended.code, 118);
  EXPECT_EQ(countOf("cannot be unmounted yet", ended.errors), 1u) << ended.errors;
  user.kill();
  EXPECT_EQ(reconcile({"--base", base}).code, 0);
  expectNothingLeft();
}

// ---- what is left after a kill, and steps that fail

TEST_P(ReconcileVerb, removes_an_empty_relocation_directory_a_probe_and_an_empty_run_directory_and_tells_each) {
  fs::create_directory(path + "/.verrelocarea");
  fs::permissions(path + "/.verrelocarea", fs::perms::owner_read | fs::perms::owner_write);
  test::writeFile(path + "/qorTESTfile.KQTA", "");
  fs::create_directory("/run/mirelsnap");
  const Ended ended = reconcile();
  EXPECT_EQ(ended.code, 0) << ended.errors;
  EXPECT_EQ(ended.output, "Removed the empty directory for relocation files " + volume.folder() +
                              "/.verrelocarea\nRemoved the probe for writability " + volume.folder() +
                              "/qorTESTfile.KQTA\nRemoved the folder /run/mirelsnap\n");
  for (const std::string& gone : {path + "/.verrelocarea", path + "/qorTESTfile.KQTA", std::string("/run/mirelsnap")})
    EXPECT_FALSE(fs::exists(gone)) << gone;
  expectNothingLeft();
}

TEST_P(ReconcileVerb, that_cannot_remove_a_directory_is_118_with_the_call_and_its_errno) {
  const std::string directory = volume.folder() + "/.verrelocarea";
  fs::create_directory(directory);
  fs::permissions(directory, fs::perms::owner_read | fs::perms::owner_write);
  ASSERT_EQ(test::run({"chattr", "+i", directory}), 0);
  test::expectFailure(reconcile(), 118,
                      "mirelsnap: " + directory +
                          ": the empty directory for relocation files could not be removed: rmdir: Operation not "
                          "permitted; mend that, then run this again");
  ASSERT_EQ(test::run({"chattr", "-i", directory}), 0);
  EXPECT_EQ(reconcile().code, 0);
}

// ---- a base that is named

TEST_P(ReconcileVerb, at_a_named_directory_leaves_live_volumes_below_it_and_empty_folders) {
  for (const char* folder : {"empty", "live"}) fs::create_directories(path + "/" + folder);
  const Mounted live("precious", path + "/live", "tmpfs");
  fs::create_directory(live.folder() + "/empty");
  const Ended ended = reconcile({"--base", path});
  EXPECT_EQ(ended.code, 2);
  EXPECT_EQ(ended.errors, "mirelsnap: " + path +
                              ": no snapshot is mounted there, but other volumes are; name the base of an exposure\n");
  EXPECT_EQ(test::mountsUnder(path), (Texts{path, live.folder()}));
  for (const std::string& folder : {path + "/empty", live.folder() + "/empty"}) EXPECT_TRUE(fs::exists(folder));
}

// A dead agent's base on the volume itself, with a live volume and folders of somebody else's beside the snapshot.
TEST_P(ReconcileVerb, at_the_base_of_a_dead_agent_removes_its_snapshot_and_nothing_else) {
  const Volume snapped("ext4", 32 << 20);
  const std::string base = path + "/base";
  for (const std::string& folder : {base + snapped.folder(), base + "/empty", base + "/live"})
    fs::create_directories(folder);
  const std::string device = "/dev/snap7_" + std::to_string(snapped.loop().minor());
  {
    Agent agent(session);
    Engine engine = agent.openedSet({&snapped});
    ASSERT_EQ(engine.snap(), 0);
    ASSERT_EQ(engine.expose(base), S_OK);
    agent.kill();
  }
  {
    const Mounted live("precious", base + "/live", "tmpfs");
    const Ended ended = reconcile({"--base", base});
    EXPECT_EQ(ended.code, 118);
    EXPECT_EQ(ended.errors, "mirelsnap: " + base +
                                "/live: is mounted there (precious), but not by an exposure: it was left alone; "
                                "unmount it if it is of no use\n");
    EXPECT_NE(ended.output.find("Removed the mount of " + device + " on " + base + snapped.folder() + "\n"),
              std::string::npos)
        << ended.output;
    EXPECT_EQ(test::mountsUnder(base), Texts{base + "/live"});
  }
  EXPECT_FALSE(fs::exists(base + snapped.folder()));
  EXPECT_TRUE(fs::exists(base + "/empty"));
  test::removeTree(base);
}

}  // namespace
