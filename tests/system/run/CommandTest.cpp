// SPDX-License-Identifier: Apache-2.0
//
// COMMAND sees the snapshots, and mirelsnap ends as COMMAND ends.
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>

#include "Run.h"
#include "Tree.h"

namespace fs = std::filesystem;

namespace {

using test::Ended;
using test::run;
using test::runScript;
using test::Session;
using test::Volume;

class RunCommand : public testing::Test {
 protected:
  const Volume volume{"ext4", 32 << 20};
};

TEST_F(RunCommand, ends_with_the_commands_exit_code) {
  Session session;
  for (const int code : {0, 1, 2, 111, 118, 255}) {
    const Ended ended =
        runScript(session, {"--volume", volume.device()}, "echo out; echo err >&2; exit " + std::to_string(code));
    EXPECT_EQ(ended.code, code);
    EXPECT_EQ(ended.output, "out\n");
    EXPECT_EQ(ended.errors, "err\n") << "mirelsnap itself is silent";
  }
}

TEST_F(RunCommand, finds_no_volumes_of_a_run_that_this_one_is_started_in) {
  Session session;
  test::StartOptions start;
  start.environment = {{"MIRELSNAP_VOLUME_1", "/old"}, {"MIRELSNAP_VOLUME_2", "/old"}};
  const Ended ended = runScript(session, {"--volume", volume.device()}, "env | grep -c ^MIRELSNAP_VOLUME_; env", start);
  EXPECT_EQ(ended.output.substr(0, 2), "1\n");
  EXPECT_EQ(ended.output.find("/old"), std::string::npos);
}

TEST_F(RunCommand, whose_end_was_to_be_ignored_still_gives_its_exit_code) {
  Session session;
  test::StartOptions start;
  start.ignoredSignals = {SIGCHLD};
  EXPECT_EQ(runScript(session, {"--volume", volume.device()}, "exit 7", start).code, 7);
}

TEST_F(RunCommand, started_with_closed_streams_keeps_them_from_what_is_opened) {
  const test::TempDir dir;
  Session session;
  std::vector<std::string> arguments = {"/bin/sh", "-c", "exec \"$@\" <&- >&- 2>&-", "sh"};
  for (const std::string& argument : test::runArguments(
           {"--volume", volume.device()},
           {"/bin/sh", "-c", "for n in 0 1 2; do readlink /proc/$PPID/fd/$n; done >" + (dir / "streams")}))
    arguments.push_back(argument);
  EXPECT_EQ(session.run(arguments).code, 0);
  EXPECT_EQ(test::readFile(dir / "streams"), "/dev/null\n/dev/null\n/dev/null\n");
}

TEST_F(RunCommand, killed_by_a_signal_ends_with_128_and_the_signal) {
  Session session;
  EXPECT_EQ(runScript(session, {"--volume", volume.device()}, "kill -KILL $$").code, 137);
  EXPECT_EQ(runScript(session, {"--volume", volume.device()}, "kill -SEGV $$").code, 139);
}

TEST_F(RunCommand, that_is_not_found_ends_with_127) {
  Session session;
  test::expectFailure(run(session, {"--volume", volume.device()}, {"no-such-command"}), 127,
                      "mirelsnap: no-such-command: cannot be executed: No such file or directory; check the command "
                      "after --");
  test::expectFailure(run(session, {"--volume", volume.device()}, {"/no/such/command"}), 127,
                      "mirelsnap: /no/such/command: cannot be executed: No such file or directory; check the command "
                      "after --");
}

TEST_F(RunCommand, that_cannot_be_executed_ends_with_126) {
  test::writeFile(volume.folder() + "/text", "no program");
  Session session;
  test::expectFailure(
      run(session, {"--volume", volume.device()}, {volume.folder() + "/text"}), 126,
      "mirelsnap: " + volume.folder() + "/text: cannot be executed: Permission denied; check the command after --");
  test::expectFailure(
      run(session, {"--volume", volume.device()}, {volume.folder()}), 126,
      "mirelsnap: " + volume.folder() + ": cannot be executed: Permission denied; check the command after --");
}

TEST_F(RunCommand, finds_the_snapshots_by_its_environment) {
  const Volume second("xfs", 300 << 20);
  test::writeFile(volume.folder() + "/file", "first");
  test::writeFile(second.folder() + "/file", "second");
  Session session;
  const Ended ended =
      runScript(session, {"--volume", volume.folder(), "--volume", second.device()},
                "echo now >" + volume.folder() +
                    "/file; cat $MIRELSNAP_VOLUME_1/file; echo; "
                    "cat $MIRELSNAP_VOLUME_2/file; echo; echo $MIRELSNAP_BASE; echo $MIRELSNAP_VOLUME_1; "
                    "echo $MIRELSNAP_VOLUME_2; echo $MIRELSNAP_SET_ID; echo $PPID; echo $MIRELSNAP_VOLUME_3");
  EXPECT_EQ(ended.code, 0) << ended.errors;
  std::istringstream lines(ended.output);
  std::string firstFile, secondFile, base, firstPath, secondPath, id, parent, third;
  for (std::string* line : {&firstFile, &secondFile, &base, &firstPath, &secondPath, &id, &parent, &third})
    std::getline(lines, *line);
  EXPECT_EQ(firstFile, "first");
  EXPECT_EQ(secondFile, "second");
  EXPECT_EQ(base, "/run/mirelsnap/" + parent);
  EXPECT_EQ(firstPath, base + volume.folder());
  EXPECT_EQ(secondPath, base + second.folder());
  EXPECT_EQ(id.size(), 36u);
  EXPECT_EQ(third, "");
}

TEST_F(RunCommand, gets_its_arguments_and_its_working_directory_as_they_are) {
  Session session;
  const std::vector<std::string> odd = {"a blank",
                                        "a 'quote'",
                                        "\"quotes\"",
                                        "a\nnew line",
                                        "gr\xc3\xbc\xc3\x9f"
                                        "e",
                                        "",
                                        "--volume",
                                        "--",
                                        "*",
                                        "$HOME"};
  std::vector<std::string> command = {"/usr/bin/printf", "[%s]"};
  command.insert(command.end(), odd.begin(), odd.end());
  const Ended ended = run(session, {"--volume", volume.device()}, command, {.folder = volume.folder()});
  std::string expected;
  for (const std::string& argument : odd) expected += "[" + argument + "]";
  EXPECT_EQ(ended.output, expected);
  EXPECT_EQ(run(session, {"--volume", volume.device()}, {"/bin/pwd"}, {.folder = volume.folder()}).output,
            volume.folder() + "\n");
}

TEST_F(RunCommand, that_left_processes_behind_outside_the_snapshot_does_not_hinder_the_clean_up) {
  const test::TempDir dir;
  Session session;
  EXPECT_EQ(runScript(session, {"--volume", volume.device()},
                      "cd /; until [ -e " + dir / "go" + " ]; do sleep 0.01; done >/dev/null 2>&1 & exit 3")
                .code,
            3);
  test::writeFile(dir / "go", "");
}

TEST_F(RunCommand, reads_a_snapshot_that_equals_the_instant_while_the_live_files_move_on) {
  test::plantTree(volume.folder());
  const test::Tree instant(volume.folder());
  const test::TempDir copy;
  Session session;
  test::Process process = session.start(
      test::runArguments({"--volume", volume.device()},
                         {"/bin/sh", "-c",
                          "echo ready; until [ -e " + copy.path() +
                              "/go ]; do sleep 0.01; done; cp -a $MIRELSNAP_VOLUME_1/. " + copy.path() + "/copy"}));
  ASSERT_TRUE(process.writesLine()) << process.errors();
  test::disturbTree(volume.folder());
  test::writeFile(copy / "go", "");
  EXPECT_EQ(process.wait(), 0) << process.errors();
  EXPECT_EQ(test::Tree(copy / "copy").difference(instant), "");
  EXPECT_NE(test::Tree(volume.folder()), instant);
}

// ---- where the snapshots are mounted

TEST_F(RunCommand, finds_the_snapshot_under_a_new_base_that_is_gone_afterwards) {
  const test::TempDir dir;
  Session session;
  const Ended ended =
      runScript(session, {"--volume", volume.device(), "--base", dir / "new/base/"}, "echo $MIRELSNAP_BASE");
  EXPECT_EQ(ended.code, 0) << ended.errors;
  EXPECT_EQ(ended.output, dir / "new/base" + "\n");
  EXPECT_TRUE(fs::is_empty(dir.path()));
}

TEST_F(RunCommand, finds_the_snapshot_under_a_relative_base_by_its_full_path) {
  const test::TempDir dir;
  Session session;
  const Ended ended = runScript(session, {"--volume", volume.device(), "--base", "base/../here"},
                                "echo $MIRELSNAP_BASE", {.folder = dir.path()});
  EXPECT_EQ(ended.code, 0) << ended.errors;
  EXPECT_EQ(ended.output, dir / "here" + "\n");
  EXPECT_TRUE(fs::is_empty(dir.path()));
}

TEST_F(RunCommand, sees_live_mount_points_that_were_bound_and_they_are_gone_afterwards) {
  const Volume live("ext4", 32 << 20);
  test::writeFile(live.folder() + "/file", "then");
  Session session;
  const Ended ended = runScript(session, {"--volume", volume.device(), "--bind", live.folder()},
                                "echo now >" + live.folder() + "/file; cat $MIRELSNAP_BASE" + live.folder() + "/file");
  EXPECT_EQ(ended.code, 0) << ended.errors;
  EXPECT_EQ(ended.output, "now\n");
}

TEST_F(RunCommand, sees_a_bind_inside_another_whatever_their_order_and_spelling) {
  const Volume live("ext4", 32 << 20);
  const std::string inner = live.folder() + "/inner";
  fs::create_directory(inner);
  const test::Mounted mounted("tests", inner, "tmpfs");
  test::writeFile(inner + "/file", "inner");
  Session session;
  const Ended ended = runScript(
      session, {"--volume", volume.device(), "--bind", inner + "/", "--bind", live.folder() + "/.", "--bind", inner},
      "cat $MIRELSNAP_BASE" + inner + "/file");
  EXPECT_EQ(ended.code, 0) << ended.errors;
  EXPECT_EQ(ended.output, "inner");
  EXPECT_TRUE(fs::exists(inner));
}

TEST_F(RunCommand, runs_beside_another_run_on_another_volume) {
  const Volume other("ext4", 32 << 20);
  const test::TempDir dir;
  Session session;
  const auto start = [&](const Volume& its, const std::string& own, const std::string& others) {
    return session.start(test::runArguments(
        {"--volume", its.device()},
        {"/bin/sh", "-c", ": >" + dir / own + "; until [ -e " + dir / others + " ]; do sleep 0.01; done"}));
  };
  test::Process first = start(volume, "first", "second");
  test::Process second = start(other, "second", "first");
  EXPECT_EQ(first.wait(), 0) << first.errors();
  EXPECT_EQ(second.wait(), 0) << second.errors();
}

TEST_F(RunCommand, runs_with_a_driver_that_has_to_be_loaded_first) {
  Session session({"--unloaded"});
  EXPECT_EQ(run(session, {"--volume", volume.device()}, {"/bin/true"}).code, 0);
}

TEST_F(RunCommand, writes_the_relocation_file_where_and_as_large_as_it_was_told) {
  const Volume other("ext4", 32 << 20);
  Session session;
  EXPECT_EQ(run(session, {"--volume", volume.device(), "--reloc-mount", other.folder() + "/", "--reloc-size", "21"},
                {"/bin/true"})
                .code,
            0);
  const test::Json entry = session.trace("snap").at(0)["volumes"].at(0);
  EXPECT_EQ(entry["relocation_blocks"], 21);
  EXPECT_EQ(entry["relocation_file"], other.folder() + "/.verrelocarea/" + volume.device().substr(5));
}

TEST(Emulator, started_with_closed_streams_keeps_them_from_what_it_opens) {
  const test::TempDir dir;
  Session session = Session::withoutDriver();
  const std::string streams = "for n in 0 1 2; do readlink /proc/$PPID/fd/$n; done >" + (dir / "streams");
  EXPECT_EQ(session.shell("exec " EMULATOR_PROGRAM " -- sh -c '" + streams + "' <&- >&- 2>&-").code, 0);
  EXPECT_EQ(test::readFile(dir / "streams"), "/dev/null\n/dev/null\n/dev/null\n");
}

}  // namespace
