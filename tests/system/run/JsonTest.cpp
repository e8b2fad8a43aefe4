// SPDX-License-Identifier: Apache-2.0
//
// The result as one JSON document, and what --verbose adds.
#include <gtest/gtest.h>

#include <sys/mount.h>

#include <regex>

#include "DriverClient.h"
#include "Run.h"

namespace {

using test::Ended;
using test::Json;
using test::run;
using test::runScript;
using test::Session;
using test::Volume;

// The one line that is the document; what stands before it is COMMAND's.
Json documentOf(const Ended& ended) {
  const std::size_t start = ended.output.rfind('\n', ended.output.size() - 2) + 1;
  return Json::parse(ended.output.substr(start));
}

TEST(RunJson, tells_of_the_set_the_volumes_and_the_command) {
  const Volume first("ext4", 32 << 20);
  const Volume second("xfs", 300 << 20);
  Session session;
  const Ended ended = runScript(session, {"--json", "--volume", first.folder(), "--volume", second.folder()},
                                "echo $MIRELSNAP_BASE; echo $MIRELSNAP_SET_ID; exit 4");
  EXPECT_EQ(ended.code, 4);
  EXPECT_EQ(ended.errors, "");
  std::istringstream lines(ended.output);
  std::string base, id;
  std::getline(lines, base);
  std::getline(lines, id);
  const auto volume = [&](const Volume& snapped) -> Json {
    const std::string minor = std::to_string(snapped.loop().minor());
    return {{"device", snapped.device()},
            {"mount_points", {snapped.folder()}},
            {"snapshot_device", "/dev/snap7_" + minor},
            {"relocation_file", snapped.folder() + "/.verrelocarea/loop" + minor},
            {"exposed_at", base + snapped.folder()}};
  };
  EXPECT_EQ(documentOf(ended),
            (Json{{"set_id", id},
                  {"base", base},
                  {"volumes", {volume(first), volume(second)}},
                  {"command",
                   {{"arguments", {"/bin/sh", "-c", "echo $MIRELSNAP_BASE; echo $MIRELSNAP_SET_ID; exit 4"}},
                    {"exit_code", 4},
                    {"signal", nullptr}}},
                  {"failures", Json::array()},
                  {"exit_code", 4}}));
}

TEST(RunJson, tells_of_one_device_under_two_mount_points_as_one_volume) {
  const Volume volume("ext4", 32 << 20);
  const test::TempDir second;
  const test::Mounted bound(volume.folder(), second.path(), "", MS_BIND);
  Session session;
  const Ended ended = run(session, {"--json", "--volume", volume.folder(), "--volume", second.path()}, {"/bin/true"});
  EXPECT_EQ(ended.code, 0) << ended.errors;
  const Json document = documentOf(ended);
  ASSERT_EQ(document["volumes"].size(), 1u);
  EXPECT_EQ(document["volumes"][0]["mount_points"], (Json{volume.folder(), second.path()}));
}

TEST(RunJson, tells_of_a_command_that_a_signal_ended) {
  const Volume volume("ext4", 32 << 20);
  Session session;
  const Json document = documentOf(runScript(session, {"--json", "--volume", volume.device()}, "kill -9 $$"));
  EXPECT_EQ(document["command"]["exit_code"], 137);
  EXPECT_EQ(document["command"]["signal"], 9);
  EXPECT_EQ(document["exit_code"], 137);
  EXPECT_EQ(document["failures"], Json::array());
}

TEST(RunJson, tells_of_a_failure_as_its_line_does) {
  const Volume volume("ext4", 32 << 20);
  Session session;
  const Ended ended = run(session, {"--json", "--volume", "/nothing"}, {"/bin/true", "x"});
  EXPECT_EQ(ended.code, 113);
  EXPECT_EQ(ended.errors,
            "mirelsnap: /nothing: No such file or directory; name a mounted block device or a mount point (lsblk shows "
            "them)\n");
  EXPECT_EQ(documentOf(ended),
            (Json{{"set_id", nullptr},
                  {"base", nullptr},
                  {"volumes", Json::array()},
                  {"command", {{"arguments", {"/bin/true", "x"}}, {"exit_code", nullptr}, {"signal", nullptr}}},
                  {"failures",
                   {{{"code", 113},
                     {"subject", "/nothing"},
                     {"cause", "No such file or directory"},
                     {"advice", "name a mounted block device or a mount point (lsblk shows them)"}}}},
                  {"exit_code", 113}}));
}

TEST(RunJson, tells_of_a_failed_clean_up_beside_the_commands_own_code) {
  const Volume volume("ext4", 32 << 20);
  Session session({"--inject", "discard:1:EIO"});
  const Json document = documentOf(runScript(session, {"--json", "--volume", volume.device()}, "exit 3"));
  EXPECT_EQ(document["command"]["exit_code"], 3);
  EXPECT_EQ(document["exit_code"], 118);
  ASSERT_EQ(document["failures"].size(), 1u);
  EXPECT_EQ(document["failures"][0]["subject"], volume.device());
  EXPECT_EQ(session.takeComplaints(1).size(), 1u);
  EXPECT_EQ(test::DriverClient(session).reconcile(), 0u);
}

TEST(RunJson, that_cannot_be_written_is_125) {
  const Volume volume("ext4", 32 << 20);
  Session session;
  const auto intoFullDisk = [&](const std::string& command) {
    std::vector<std::string> arguments = {"/bin/sh", "-c", "exec \"$@\" >/dev/full", "sh"};
    for (const std::string& argument :
         test::runArguments({"--json", "--volume", volume.device()}, {"/bin/sh", "-c", command}))
      arguments.push_back(argument);
    return session.run(arguments);
  };
  const std::string line =
      "mirelsnap: standard output: cannot be written: No space left on device; the result is lost, all else was done";
  test::expectFailure(intoFullDisk("true"), 125, line);
  test::expectFailure(intoFullDisk("exit 3"), 3, line);
}

// ---- --verbose

TEST(RunVerbose, shows_the_phases_and_what_the_library_says) {
  const Volume volume("ext4", 32 << 20);
  Session session;
  const Ended ended = run(session, {"--verbose", "--volume", volume.device()}, {"/bin/true"});
  EXPECT_EQ(ended.code, 0);
  EXPECT_EQ(ended.output, "");
  const auto shows = [&](const std::string& pattern) { return std::regex_search(ended.errors, std::regex(pattern)); };
  EXPECT_TRUE(shows("(^|\n)mirelsnap: Taking the snapshot of " + volume.device() + ": [0-9.]+ s\n"));
  EXPECT_TRUE(shows("\nmirelsnap: Mounting the snapshots: [0-9.]+ s\n"));
  EXPECT_TRUE(shows("\nmirelsnap: Cleaning up: [0-9.]+ s\n"));
  EXPECT_TRUE(shows("\nmirelsnap: DoMount: mount\\( \"/dev/snap7_" + std::to_string(volume.loop().minor()) + "\""))
      << "the engine";
  EXPECT_TRUE(shows("MIRELSNAP_SDK\\[[0-9]+\\]: SnapVolName: " + volume.device())) << "the layers below";
}

// The reader of a pipe may go away: the run does not go with it, and leaves nothing.
TEST(RunVerbose, into_a_pipe_that_nobody_reads_still_runs_and_cleans_up) {
  const Volume volume("ext4", 32 << 20);
  const test::TempDir dir;
  Session session;
  session.shell(std::string("{ ") + MIRELSNAP_PROGRAM + " run --verbose --json --volume " + volume.device() +
                " -- sh -c 'until [ -e " + dir / "gone" + " ]; do sleep 0.01; done; exit 6'; echo $? >" + dir / "code" +
                "; } 2>&1 | { exec <&-; : >" + dir / "gone" + "; }");
  EXPECT_EQ(test::readFile(dir / "code"), "6\n");
}

TEST(RunVerbose, leaves_a_command_its_own_death_by_a_closed_pipe) {
  const Volume volume("ext4", 32 << 20);
  Session session;
  EXPECT_EQ(runScript(session, {"--volume", volume.device()}, "sh -c 'kill -PIPE $$'; exit $?").code, 128 + 13);
}

}  // namespace
