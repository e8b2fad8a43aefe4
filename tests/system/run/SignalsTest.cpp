// SPDX-License-Identifier: Apache-2.0
//
// Signals to mirelsnap before, while and after COMMAND runs: everything is removed all the same.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>

#include "Gate.h"
#include "Run.h"
#include "Terminal.h"

namespace {

using test::Process;
using test::runArguments;
using test::Session;
using test::Volume;

class RunSignal : public testing::TestWithParam<int> {};

// The job cannot be cancelled: the signal is honoured when the snapshot is there.
TEST_P(RunSignal, while_the_snapshot_is_taken_keeps_the_command_from_running) {
  const Volume volume("xfs", 300 << 20);
  const test::TempDir dir;
  test::Gate gate;
  Session session;
  Process process =
      session.start(runArguments({"--volume", volume.device(), "--reloc-mount", volume.folder(), "--reloc-size", "256"},
                                 {"/bin/touch", dir / "ran"}),
                    {.environment = gate.environment("held-relocation-file")});
  gate.waitForProgram();
  process.signal(GetParam());
  gate.letGoOn();
  EXPECT_EQ(process.wait(), 128 + GetParam());
  EXPECT_EQ(process.errors(), "mirelsnap: interrupted by signal " + std::to_string(GetParam()) + " (" +
                                  strsignal(GetParam()) + "); everything is being removed\n");
  EXPECT_NE(access((dir / "ran").c_str(), F_OK), 0);
}

TEST_P(RunSignal, while_the_command_runs_is_passed_on_to_it) {
  const Volume volume("ext4", 32 << 20);
  Session session;
  Process process =
      session.start(runArguments({"--volume", volume.device()}, {"/bin/sh", "-c", "echo ready; exec sleep infinity"}));
  ASSERT_TRUE(process.writesLine()) << process.errors();
  process.signal(GetParam());
  EXPECT_EQ(process.wait(), 128 + GetParam());
  EXPECT_EQ(process.errors(), "");
}

TEST_P(RunSignal, that_the_command_catches_leaves_the_exit_code_to_it) {
  const Volume volume("ext4", 32 << 20);
  Session session;
  Process process = session.start(runArguments(
      {"--volume", volume.device()},
      {"/bin/sh", "-c",
       "trap 'echo caught; exit 9' " + std::to_string(GetParam()) + "; echo ready; while :; do sleep 0.01; done"}));
  ASSERT_TRUE(process.writesLine()) << process.errors();
  process.signal(GetParam());
  EXPECT_EQ(process.wait(), 9);
  EXPECT_EQ(process.output(), "ready\ncaught\n");
}

TEST_P(RunSignal, that_comes_again_and_again_until_the_end_hinders_nothing) {
  const Volume volume("ext4", 32 << 20);
  const test::TempDir dir;
  Session session;
  const std::string number = std::to_string(GetParam());
  Process process = session.start(
      runArguments({"--volume", volume.device()},
                   {"/bin/sh", "-c",
                    "trap '' " + number + "; (while kill -" + number + " $PPID 2>/dev/null; do : >" + dir / "sent" +
                        "; done) & until [ -e " + dir / "sent" + " ]; do sleep 0.01; done; exit 5"}));
  EXPECT_EQ(process.wait(), 5);
}

TEST_P(RunSignal, that_was_ignored_at_the_start_stays_ignored) {
  const Volume volume("ext4", 32 << 20);
  Session session;
  const std::string number = std::to_string(GetParam());
  const test::Ended ended = test::runScript(session, {"--volume", volume.device()},
                                            "kill -" + number + " $PPID; kill -" + number + " $$; echo lives",
                                            {.ignoredSignals = {GetParam()}});
  EXPECT_EQ(ended.code, 0);
  EXPECT_EQ(ended.output, "lives\n");
}

INSTANTIATE_TEST_SUITE_P(Signals, RunSignal, testing::Values(SIGINT, SIGTERM, SIGHUP, SIGQUIT),
                         [](const auto& instance) { return sigabbrev_np(instance.param); });

TEST(RunAtKeyboard, interrupted_ends_as_the_command_does_and_removes_everything) {
  const Volume volume("ext4", 32 << 20);
  Session session;
  test::Terminal terminal;
  Process process =
      session.start(runArguments({"--volume", volume.device()}, {"/bin/sh", "-c", "echo ready; exec sleep infinity"}),
                    {.terminal = terminal.inner()});
  EXPECT_TRUE(terminal.waitFor("ready"));
  terminal.type("\x03");
  EXPECT_EQ(process.wait(), 128 + SIGINT);
}

// The command alone is killed, as by a person who looks it up: mirelsnap cleans up.
TEST(RunKilledCommand, leaves_nothing) {
  const Volume volume("ext4", 32 << 20);
  Session session;
  Process process =
      session.start(runArguments({"--volume", volume.device()}, {"/bin/sh", "-c", "echo $$; exec sleep infinity"}));
  ASSERT_TRUE(process.writesLine()) << process.errors();
  kill(std::stoi(process.output()), SIGKILL);
  EXPECT_EQ(process.wait(), 128 + SIGKILL);
}

}  // namespace
