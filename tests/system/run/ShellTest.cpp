// SPDX-License-Identifier: Apache-2.0
//
// `mirelsnap shell`: a person sits down in the snapshots.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <csignal>

#include "Run.h"
#include "Terminal.h"

namespace {

using test::Ended;
using test::Process;
using test::Session;
using test::StartOptions;
using test::Volume;

class Shell : public testing::Test {
 protected:
  std::vector<std::string> arguments(std::vector<std::string> more = {}) const {
    std::vector<std::string> all = {MIRELSNAP_PROGRAM, "shell", "--volume", volume.device()};
    all.insert(all.end(), more.begin(), more.end());
    return all;
  }

  const Volume volume{"ext4", 32 << 20};
  Session session;
};

class ShellAtTerminal : public Shell {
 protected:
  StartOptions at(const test::Terminal& terminal, const std::string& shell) const {
    return {.environment = {{"SHELL", shell}, {"PS1", "ready> "}, {"TERM", "dumb"}, {"HOME", "/nothing"}},
            .terminal = terminal.inner()};
  }
};

TEST_F(ShellAtTerminal, starts_in_the_base_and_sees_the_snapshot_and_ends_with_its_own_code) {
  test::writeFile(volume.folder() + "/file", "then");
  test::Terminal terminal;
  Process process = session.start(arguments(), at(terminal, "/bin/sh"));
  ASSERT_TRUE(
      terminal.waitFor("A shell in the snapshots, which are removed when it ends (exit, or Ctrl-D): "
                       "/run/mirelsnap/" +
                       std::to_string(process.id()) + "\r\n"))
      << terminal.written();
  ASSERT_TRUE(terminal.waitFor("ready> ")) << terminal.written();
  terminal.type("echo now >" + volume.folder() + "/file; cat .$PWD_$MIRELSNAP_NOTHING" + volume.folder() +
                "/file; echo; echo in-$PWD-; echo $MIRELSNAP_PROMPT$debian_chroot; exit 7\r");
  EXPECT_EQ(process.wait(), 7);
  EXPECT_TRUE(terminal.waitFor("\r\nthen\r\n")) << terminal.written();
  EXPECT_TRUE(terminal.waitFor("\r\nin-/run/mirelsnap/" + std::to_string(process.id()) + "-\r\n"))
      << terminal.written();
  EXPECT_TRUE(terminal.waitFor("\r\n(mirelsnap) mirelsnap\r\n")) << terminal.written();
}

TEST_F(ShellAtTerminal, is_told_of_a_base_with_control_characters_escaped) {
  const test::TempDir dir;
  test::Terminal terminal;
  Process process =
      session.start({MIRELSNAP_PROGRAM, "shell", "--volume", volume.device(), "--base", dir / "red\033[31m"},
                    at(terminal, "/bin/true"));
  EXPECT_EQ(process.wait(), 0);
  EXPECT_TRUE(terminal.waitFor("Ctrl-D): " + dir.path() + "/red\\x1b[31m\r\n")) << terminal.written();
}

TEST_F(ShellAtTerminal, has_job_control_and_gives_the_terminal_back) {
  test::Terminal terminal;
  // What stands behind is started by the outer shell, in the foreground again.
  Process process = session.start({"/bin/bash", "--norc", "-ic",
                                   std::string(MIRELSNAP_PROGRAM) + " shell --volume " + volume.device() +
                                       "; echo outer-$?; read line; echo read-$line"},
                                  at(terminal, "/bin/bash"));
  ASSERT_TRUE(terminal.waitFor("A shell in the snapshots")) << terminal.written();
  terminal.type("set -o | grep monitor; sleep infinity\r");
  ASSERT_TRUE(terminal.waitFor("on\r\n")) << terminal.written();
  ASSERT_TRUE(terminal.waitForForeground("sleep"));
  terminal.type("\x1a");  // Ctrl-Z stops the job, not the shell
  ASSERT_TRUE(terminal.waitFor("Stopped")) << terminal.written();
  terminal.type("fg\r");
  ASSERT_TRUE(terminal.waitFor("\r\nsleep infinity\r\n")) << terminal.written();
  ASSERT_TRUE(terminal.waitForForeground("sleep"));
  terminal.type("\x03");  // Ctrl-C ends the job alone
  terminal.type("echo in-$((1 + 1))er\r");
  ASSERT_TRUE(terminal.waitFor("in-2er\r\n")) << terminal.written();
  terminal.type("exit 4\r");
  ASSERT_TRUE(terminal.waitFor("outer-4\r\n")) << terminal.written();
  terminal.type("line\r");
  EXPECT_TRUE(terminal.waitFor("read-line\r\n")) << terminal.written();
  EXPECT_EQ(process.wait(), 0);
}

TEST_F(ShellAtTerminal, that_suspends_itself_goes_on_in_the_foreground) {
  test::Terminal terminal;
  Process process = session.start({"/bin/bash", "--norc", "-i"}, at(terminal, "/bin/bash"));
  terminal.type(std::string(MIRELSNAP_PROGRAM) + " shell --volume " + volume.device() + "\r");
  ASSERT_TRUE(terminal.waitFor("A shell in the snapshots")) << terminal.written();
  terminal.type("echo in-$((1 + 1))er\r");
  ASSERT_TRUE(terminal.waitFor("in-2er\r\n")) << terminal.written();
  terminal.type("suspend\r");
  ASSERT_TRUE(terminal.waitFor("Stopped")) << terminal.written();
  terminal.type("echo out-$((1 + 1))er\r");
  ASSERT_TRUE(terminal.waitFor("out-2er\r\n")) << terminal.written();
  terminal.type("fg\r");
  terminal.type("echo again-$((1 + 1))er\r");
  ASSERT_TRUE(terminal.waitFor("again-2er\r\n")) << terminal.written();
  terminal.type("exit 5\r");
  terminal.type("echo outer-$?; exit 0\r");
  EXPECT_TRUE(terminal.waitFor("outer-5\r\n")) << terminal.written();
  EXPECT_EQ(process.wait(), 0);
}

TEST_F(ShellAtTerminal, that_ignores_requests_to_end_is_hung_up) {
  test::Terminal terminal;
  Process process = session.start(arguments(), at(terminal, "/bin/bash"));
  ASSERT_TRUE(terminal.waitFor("A shell in the snapshots")) << terminal.written();
  terminal.type("echo in-$((1 + 1))er\r");
  ASSERT_TRUE(terminal.waitFor("in-2er\r\n")) << terminal.written();
  process.signal(SIGTERM);
  EXPECT_EQ(process.wait(), 128 + SIGHUP);
}

// bash does, when one comes just before it begins to read.
TEST_F(ShellAtTerminal, that_loses_a_hang_up_is_hung_up_again) {
  const test::TempDir dir;
  const std::string shell = dir / "shell";
  test::writeFile(shell,
                  "#!/bin/sh\ntrap 'trap \"exit 9\" HUP; echo lost' HUP\necho begun\nwhile :; do sleep 0.1; done\n");
  ASSERT_EQ(chmod(shell.c_str(), 0755), 0);
  test::Terminal terminal;
  Process process = session.start(arguments(), at(terminal, shell));
  ASSERT_TRUE(terminal.waitFor("begun\r\n")) << terminal.written();
  process.signal(SIGTERM);
  EXPECT_EQ(process.wait(), 9);
  EXPECT_TRUE(terminal.waitFor("lost\r\n")) << terminal.written();
}

TEST_F(Shell, reads_commands_where_there_is_no_terminal) {
  const Ended ended = session.shell("echo 'pwd; exit 3' | SHELL= " + std::string(MIRELSNAP_PROGRAM) +
                                    " shell --volume " + volume.device());
  EXPECT_EQ(ended.code, 3);
  EXPECT_TRUE(ended.output.starts_with("/run/mirelsnap/")) << ended.output;
  EXPECT_EQ(ended.errors, "");
}

TEST_F(Shell, that_is_not_there_is_127) {
  test::expectFailure(session.run(arguments(), {.environment = {{"SHELL", "/no/such/shell"}}}), 127,
                      "mirelsnap: /no/such/shell: cannot be executed: No such file or directory; check $SHELL");
}

TEST_F(Shell, tells_as_json_what_run_tells) {
  const Ended ended = session.shell("echo exit 3 | SHELL=/bin/sh " + std::string(MIRELSNAP_PROGRAM) +
                                    " shell --json --volume " + volume.device());
  const test::Json document = test::Json::parse(ended.output);
  EXPECT_EQ(document["command"], (test::Json{{"arguments", {"/bin/sh"}}, {"exit_code", 3}, {"signal", nullptr}}));
  EXPECT_EQ(document["exit_code"], 3);
}

}  // namespace
