// SPDX-License-Identifier: Apache-2.0
//
// What a person at a terminal sees.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <regex>

#include "LoopVolume.h"
#include "Run.h"
#include "Terminal.h"

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

class RunInTerminal : public testing::Test {
 protected:
  // A relocation file of 200 MiB, which is written block by block.
  std::string writtenIn(test::Terminal& terminal, const std::string& kind) {
    const Volume volume("xfs", 700 << 20);
    Session session;
    Process process = session.start(
        runArguments({"--volume", volume.device(), "--reloc-mount", volume.folder(), "--reloc-size", "50000"},
                     {"/bin/echo", "hello"}),
        {.environment = {{"TERM", kind}}, .terminal = terminal.inner()});
    while (process.running()) terminal.written();
    EXPECT_EQ(process.wait(), 0);
    return terminal.written();
  }
};

TEST_F(RunInTerminal, shows_each_phase_with_its_time_and_a_bar_while_the_relocation_file_is_written) {
  test::Terminal terminal(200);
  const std::string written = writtenIn(terminal, "xterm");
  const auto shows = [&](const std::string& pattern) { return std::regex_search(written, std::regex(pattern)); };
  EXPECT_TRUE(shows("\rTaking the snapshot of /dev/loop[0-9]+ \\.\\.\\. 0\\.0 s\033\\[K"));
  EXPECT_TRUE(
      shows("\r(█|░)+ [0-9]+ % of 195 MiB, [0-9.]+ s: (writing|flushing) the relocation file /mnt/t-[^ "
            "]*/\\.verrelocarea/loop[0-9]+\033\\[K"))
      << written;
  EXPECT_TRUE(shows("\rTaking the snapshot of /dev/loop[0-9]+: [0-9.]+ s\033\\[K\r\n"));
  EXPECT_TRUE(shows("\rMounting the snapshots: [0-9.]+ s\033\\[K\r\nhello\r\n"));
  EXPECT_TRUE(shows("\rCleaning up: [0-9.]+ s\033\\[K\r\n$"));
}

TEST_F(RunInTerminal, that_is_narrow_keeps_every_line_inside_it) {
  test::Terminal terminal(40);
  for (const std::string& state : states(writtenIn(terminal, "xterm"))) EXPECT_LT(cellsOf(state), 40u) << state;
}

// What a hostile name would have the terminal do is not done.
TEST_F(RunInTerminal, shows_control_characters_of_names_escaped) {
  const test::LoopDevice loop(700 << 20);
  loop.mkfs("xfs");
  const std::string device = "/dev/evil\033]0;title\a";
  const test::Node node(device, S_IFBLK, loop.major(), loop.minor());
  const test::TempDir dir;
  const std::string folder = dir / "two\nlines\033[2J";
  std::filesystem::create_directory(folder);
  const test::Mounted mounted(device, folder, "xfs");
  test::Terminal terminal(200);
  Session session;
  Process process =
      session.start(runArguments({"--volume", folder, "--reloc-mount", folder, "--reloc-size", "50000"}, {"/bin/true"}),
                    {.environment = {{"TERM", "xterm"}}, .terminal = terminal.inner()});
  while (process.running()) terminal.written();
  EXPECT_EQ(process.wait(), 0);
  const std::string& written = terminal.written();
  EXPECT_NE(written.find("Taking the snapshot of /dev/evil\\x1b]0;title\\x07"), std::string::npos) << written;
  EXPECT_NE(written.find(" the relocation file " + dir.path() + "/two\\nlines\\x1b[2J/.verrelocarea/evil"),
            std::string::npos)
      << written;
  EXPECT_EQ(written.find("\033]"), std::string::npos);
  EXPECT_EQ(written.find("\033[2J"), std::string::npos);
}

TEST_F(RunInTerminal, that_can_do_nothing_shows_the_commands_output_alone) {
  test::Terminal terminal;
  EXPECT_EQ(writtenIn(terminal, "dumb"), "hello\r\n");
}

}  // namespace
