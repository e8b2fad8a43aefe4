// SPDX-License-Identifier: Apache-2.0
//
// What a person at a terminal sees.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <regex>

#include "Gate.h"
#include "LoopVolume.h"
#include "Run.h"
#include "Terminal.h"
#include "Waiting.h"

namespace {

using test::Process;
using test::runArguments;
using test::Session;
using test::Volume;

// What was drawn over and over, line state by line state.
std::vector<std::string> states(const std::string& written) {
  std::vector<std::string> found(1);
  for (const char character : written) {
    if (character == '\r' || character == '\n') {
      found.emplace_back();
    } else {
      found.back() += character;
    }
  }
  return found;
}

// Characters, not bytes; "\033[K" takes no room.
std::size_t cellsOf(std::string text) {
  text = std::regex_replace(text, std::regex("\033\\[K"), "");
  std::size_t cells = 0;
  for (const char byte : text) cells += (byte & 0xC0) != 0x80;
  return cells;
}

// What the program shows in `terminal`, to its end, which is a good one.
std::string shownToEnd(Process& process, test::Terminal& terminal) {
  EXPECT_TRUE(test::comesTrue([&] {
    terminal.written();
    return !process.running();
  }));
  EXPECT_EQ(process.wait(), 0);
  return terminal.written();
}

// What a run with a relocation file of 64 MiB shows. The disk stands still when a quarter of the file is written, and
// before it is flushed, until the terminal shows that.
std::string shownWhileWriting(test::Terminal& terminal, const std::string& volume, const std::string& folder) {
  test::Gate gate;
  test::StartOptions options{.environment = gate.environment("held-relocation-file"), .terminal = terminal.inner()};
  options.environment["TERM"] = "xterm";
  options.environment["LC_ALL"] = "C.UTF-8";
  Session session;
  Process process = session.start(
      runArguments({"--volume", volume, "--reloc-mount", folder, "--reloc-size", "16384"}, {"/bin/echo", "hello"}),
      options);
  for (const std::string state : {" 25 % of ", " 100 % of "}) {
    gate.waitForProgram();
    EXPECT_TRUE(terminal.waitFor(state)) << terminal.written();
    gate.letGoOn();
  }
  return shownToEnd(process, terminal);
}

TEST(RunInTerminal, shows_each_phase_with_its_time_and_a_bar_while_the_relocation_file_is_written) {
  const Volume volume("xfs", 400 << 20);
  test::Terminal terminal(200);
  const std::string written = shownWhileWriting(terminal, volume.device(), volume.folder());
  const auto shows = [&](const std::string& pattern) {
    EXPECT_TRUE(std::regex_search(written, std::regex(pattern))) << pattern << " in " << written;
  };
  const std::string file = "the relocation file " + volume.folder() + "/\\.verrelocarea/loop[0-9]+\033\\[K";
  shows("\rTaking the snapshot of /dev/loop[0-9]+ \\.\\.\\. [0-9.]+ s\033\\[K");
  shows("\r(█){6}(░){18} 25 % of 64\\.0 MiB, [0-9.]+ s: writing " + file);
  shows("\r(█){24} 100 % of 64\\.0 MiB, [0-9.]+ s: flushing " + file);
  shows("\rTaking the snapshot of /dev/loop[0-9]+: [0-9.]+ s\033\\[K\r\n");
  shows("\rMounting the snapshots: [0-9.]+ s\033\\[K\r\nhello\r\n");
  shows("\rCleaning up: [0-9.]+ s\033\\[K\r\n$");
}

TEST(RunInTerminal, that_is_narrow_keeps_every_line_inside_it) {
  const Volume volume("xfs", 400 << 20);
  test::Terminal terminal(40);
  for (const std::string& state : states(shownWhileWriting(terminal, volume.device(), volume.folder()))) {
    EXPECT_LT(cellsOf(state), 40u) << state;
  }
}

// What a hostile name would have the terminal do is not done.
TEST(RunInTerminal, shows_control_characters_of_names_escaped) {
  const test::LoopDevice loop(400 << 20);
  loop.mkfs("xfs");
  const std::string device = "/dev/evil\033]0;title\a";
  const test::Node node(device, S_IFBLK, loop.major(), loop.minor());
  const test::TempDir dir;
  const std::string folder = dir / "two\nlines\033[2J";
  std::filesystem::create_directory(folder);
  const test::Mounted mounted(device, folder, "xfs");
  test::Terminal terminal(200);
  const std::string written = shownWhileWriting(terminal, folder, folder);
  EXPECT_NE(written.find("Taking the snapshot of /dev/evil\\x1b]0;title\\x07"), std::string::npos) << written;
  EXPECT_NE(written.find(" the relocation file " + dir.path() + "/two\\nlines\\x1b[2J/.verrelocarea/evil"),
            std::string::npos)
      << written;
  EXPECT_EQ(written.find("\033]"), std::string::npos);
  EXPECT_EQ(written.find("\033[2J"), std::string::npos);
}

TEST(RunInTerminal, that_can_do_nothing_shows_the_commands_output_alone) {
  const Volume volume("xfs", 400 << 20);
  test::Terminal terminal;
  Session session;
  Process process = session.start(runArguments({"--volume", volume.device()}, {"/bin/echo", "hello"}),
                                  {.environment = {{"TERM", "dumb"}}, .terminal = terminal.inner()});
  EXPECT_EQ(shownToEnd(process, terminal), "hello\r\n");
}

}  // namespace
