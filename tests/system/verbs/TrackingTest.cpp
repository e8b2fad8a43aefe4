// SPDX-License-Identifier: Apache-2.0
//
// `mirelsnap changes`, `stop-tracking`, `log-level` and `dump-state`.
#include <fcntl.h>
#include <unistd.h>

#include <filesystem>

#include "NamedVolume.h"
#include "Terminal.h"
#include "Verbs.h"

namespace fs = std::filesystem;

namespace {

using test::document;
using test::DriverClient;
using test::Ended;
using test::expectFailure;
using test::expectText;
using test::Json;
using test::Session;
using test::verb;
using test::Volume;

// Characters, not bytes.
std::size_t cellsOf(const std::string& text) {
  std::size_t cells = 0;
  for (const char byte : text) cells += (byte & 0xC0) != 0x80;
  return cells;
}

class Changes : public testing::Test {
 protected:
  Changes() : driver(session) {
    EXPECT_EQ(driver.snap({{.device = volume.device(), .folder = volume.folder(), .tracked = true}}).result, 0);
  }
  ~Changes() override { EXPECT_EQ(driver.unsnap({volume.device()}), 0u); }

  void write(const std::string& name, std::size_t bytes) {
    test::writeFile(volume.folder() + "/" + name, std::string(bytes, 'x'));
    sync();
  }

  const Volume volume{"ext4", 32 << 20};
  Session session;
  DriverClient driver;
};

TEST_F(Changes, are_the_blocks_that_were_written_since) {
  write("file", 100000);
  const Json told = document(session, {"changes", volume.folder()});
  EXPECT_EQ(told["device"], volume.device());
  EXPECT_EQ(told["tracking"]["sequence"], 1);
  EXPECT_EQ(told["tracking"]["id"].get<std::string>().size(), 36u);
  EXPECT_EQ(told["blocks"].get<int>() * told["block_size"].get<int>(), 32 << 20);
  int sum = 0;
  int last = -1;
  for (const Json& run : told["runs"]) {
    EXPECT_GT(run["start"], last);
    last = run["start"].get<int>() + run["blocks"].get<int>();
    sum += run["blocks"].get<int>();
  }
  EXPECT_EQ(told["changed_blocks"], sum);
  EXPECT_GE(sum * told["block_size"].get<int>(), 100000);
}

TEST_F(Changes, read_as_a_table) {
  write("file", 100000);
  const Json told = document(session, {"changes", volume.device()});
  const Ended ended = verb(session, {"changes", volume.device()});
  EXPECT_EQ(ended.code, 0);
  const std::string block = std::to_string(told["block_size"].get<int>());
  EXPECT_TRUE(ended.output.starts_with(volume.device() + ": " + std::to_string(told["changed_blocks"].get<int>()) +
                                       " blocks of " + block + " bytes changed in " +
                                       std::to_string(told["runs"].size()) + " runs ("))
      << ended.output;
  EXPECT_NE(ended.output.find(" of 32.0 MiB)\nTracked as " + told["tracking"]["id"].get<std::string>() +
                              ", sequence 1\n  FIRST BLOCK  BLOCKS"),
            std::string::npos)
      << ended.output;
}

TEST_F(Changes, in_more_runs_than_one_answer_holds_are_all_told) {
  // Every second block of a large file is rewritten.
  const std::string path = volume.folder() + "/large";
  {
    DriverClient again(session);
    ASSERT_EQ(driver.unsnap({volume.device()}), 0u);
    test::writeFile(path, std::string(20 << 20, 'a'));
    sync();
    ASSERT_EQ(driver.snap({{.device = volume.device(), .folder = volume.folder(), .tracked = true}}).result, 0);
  }
  const int file = open(path.c_str(), O_WRONLY | O_CLOEXEC);
  for (int i = 0; i < 2500; ++i) ASSERT_EQ(pwrite(file, "b", 1, i * 8192), 1);
  fsync(file);
  close(file);
  const Json told = document(session, {"changes", volume.device()});
  EXPECT_GT(told["runs"].size(), 2000u);
  EXPECT_GE(told["changed_blocks"], 2500);
  EXPECT_EQ(told["tracking"]["sequence"], 2);
}

TEST_F(Changes, as_a_map_fill_the_width_of_the_terminal) {
  write("file", 4 << 20);
  test::Terminal terminal(60);
  test::Process process = session.start({MIRELSNAP_PROGRAM, "changes", volume.device(), "--map"},
                                        {.environment = {{"LC_ALL", "C.UTF-8"}}, .terminal = terminal.inner()});
  EXPECT_EQ(process.wait(), 0);
  ASSERT_TRUE(terminal.waitFor("a cell is")) << terminal.written();
  std::istringstream lines(terminal.written());
  std::string headline, tracked, map;
  for (std::string* line : {&headline, &tracked, &map}) std::getline(lines, *line);
  map.pop_back();  // the terminal's \r
  EXPECT_EQ(cellsOf(map), 60u) << map;
  EXPECT_NE(map.find("░"), std::string::npos);
  EXPECT_NE(map.find("█"), std::string::npos);
}

TEST_F(Changes, as_a_map_without_a_terminal_are_80_cells) {
  write("file", 4 << 20);
  const Ended ended = verb(session, {"changes", volume.device(), "--map"}, {.environment = {{"LC_ALL", "C.UTF-8"}}});
  std::istringstream lines(ended.output);
  std::string headline, tracked, map, legend;
  for (std::string* line : {&headline, &tracked, &map, &legend}) std::getline(lines, *line);
  EXPECT_EQ(cellsOf(map), 80u);
  EXPECT_EQ(legend, "░ unchanged  ▒ less than half  ▓ half or more  █ all changed; a cell is 410 KiB");
}

TEST_F(Changes, that_are_no_longer_tracked_are_120) {
  expectText(verb(session, {"stop-tracking", volume.folder()}), "No longer tracked: " + volume.device() + "\n");
  const std::string line =
      volume.device() +
      ": its changes are not tracked; a snapshot that asks for change tracking starts it (mirelsnap "
      "status shows which volumes are tracked)";
  expectFailure(verb(session, {"changes", volume.device()}), 120, line);
  expectFailure(verb(session, {"stop-tracking", volume.device()}), 120, line);
  EXPECT_EQ(driver.snapped().size(), 1u) << "the snapshot stays";
}

TEST_F(Changes, that_the_driver_never_comes_to_the_end_of_are_119) {
  const std::string subject = volume.device() + ": the driver's answer makes no sense: ";
  const std::string advice = "; do not rely on its tracking of this volume: copy all of it";
  expectFailure(verb(session, {"changes", volume.device()}, {.environment = test::withMischief("no-more-runs")}), 119,
                subject + "it says that more changes follow, but tells none" + advice);
  expectFailure(verb(session, {"changes", volume.device()}, {.environment = test::withMischief("same-run")}), 119,
                subject + "its runs of changed blocks do not rise" + advice);
}

TEST_F(Changes, of_what_is_no_device_are_113) {
  expectFailure(verb(session, {"changes", "/nothing"}), 113,
                "/nothing: No such file or directory; name a mounted block device or a mount point (lsblk shows them)");
}

TEST(ChangesOfADeviceWhoseNameIsNotAscii, are_told_and_no_longer_tracked) {
  const test::NamedVolume volume(
      "/dev/gr\xc3\xbc\xc3\x9f"
      "e");
  Session session;
  DriverClient driver(session);
  ASSERT_EQ(driver.snap({{.device = volume.device(), .folder = volume.folder(), .tracked = true}}).result, 0);
  EXPECT_EQ(document(session, {"changes", volume.device()})["device"], volume.device());
  expectText(verb(session, {"stop-tracking", volume.device()}), "No longer tracked: " + volume.device() + "\n");
  EXPECT_EQ(driver.unsnap({volume.device()}), 0u);
}

// ---- diagnostics

TEST(LogLevel, is_set_by_number_or_name) {
  Session session;
  session.tolerateComplaints(".* done");  // what it logs then
  expectText(verb(session, {"log-level", "7"}), "The driver logs up to level 7 (debug).\n");
  expectText(verb(session, {"log-level", "err"}), "The driver logs up to level 3 (err).\n");
  EXPECT_EQ(document(session, {"log-level", "warning"}),
            (Json{{"level", 4}, {"name", "warning"}, {"failures", Json::array()}, {"exit_code", 0}}));
  const test::TempDir dir;
  EXPECT_EQ(verb(session, {"dump-state", dir / "state"}).code, 0);
  EXPECT_NE(test::readFile(dir / "state").find("log level: 4\n"), std::string::npos);
}

TEST(LogLevel, that_is_none_is_2) {
  Session session;
  for (const std::string level : {"8", "-", "loud"}) {
    const Ended ended = verb(session, {"log-level", level});
    EXPECT_EQ(ended.code, 2);
    EXPECT_EQ(ended.errors, "mirelsnap: LEVEL: " + level +
                                " is no level (0 to 7, or emerg to debug); see mirelsnap log-level --help\n");
  }
}

TEST(Verbs, refuse_a_name_that_is_empty) {
  Session session;
  for (const auto& [name, argument] : {std::pair{"log-level", "LEVEL"},
                                       {"dump-state", "FILE"},
                                       {"changes", "DEVICE"},
                                       {"stop-tracking", "DEVICE"},
                                       {"freeze", "DEVICE"},
                                       {"thaw", "DEVICE"},
                                       {"doctor", "VOLUME"},
                                       {"plan", "VOLUME"}}) {
    expectFailure(verb(session, {name, ""}), 2,
                  std::string(argument) + ": the value is empty; see mirelsnap " + name + " --help");
  }
  EXPECT_TRUE(session.trace().empty());
}

TEST(DumpState, writes_a_file_named_by_any_path) {
  const test::TempDir dir;
  Session session;
  const Ended ended = verb(session, {"dump-state", "here"}, {.folder = dir.path()});
  EXPECT_EQ(ended.code, 0) << ended.errors;
  EXPECT_TRUE(ended.output.starts_with("The driver's state is in " + (dir / "here") + " (")) << ended.output;
  EXPECT_TRUE(test::readFile(dir / "here").starts_with("version: mirelsnap-emulator 1.0.0\n"));
  const Json told = document(session, {"dump-state", dir / "there"});
  EXPECT_EQ(told["file"], dir / "there");
  EXPECT_EQ(told["size"], fs::file_size(dir / "there"));
}

TEST(DumpState, tells_of_a_file_with_control_characters_escaped) {
  const test::TempDir dir;
  Session session;
  const Ended ended = verb(session, {"dump-state", dir / "two\nlines\033[2J"});
  EXPECT_EQ(ended.code, 0) << ended.errors;
  EXPECT_TRUE(ended.output.starts_with("The driver's state is in " + (dir / "two\\nlines\\x1b[2J") + " ("))
      << ended.output;
}

TEST(DumpState, writes_a_file_whose_name_is_not_ascii_or_no_text) {
  const test::TempDir dir;
  Session session;
  for (const std::string name : {"gr\\303\\266\\303\\237e", "latin-\\351"}) {
    const Ended ended = session.shell(
        "name=$(printf '" + name + "'); " + MIRELSNAP_PROGRAM + " dump-state \"$name\" && test -s \"$name\"",
        {.folder = dir.path()});
    EXPECT_EQ(ended.code, 0) << ended.errors;
  }
}

TEST(DumpState, into_no_file_is_2_and_nothing_is_sent) {
  const test::TempDir dir;
  Session session;
  const std::string longName = dir / std::string(257 - dir.path().size() - 1, 'x');
  expectFailure(verb(session, {"dump-state", longName}), 2,
                longName + ": is too long for the driver, which takes 256 bytes at most; name a shorter path");
  expectFailure(verb(session, {"dump-state", "/nothing/state"}), 2,
                "/nothing: is not a directory; name a file in one that is there");
  expectFailure(verb(session, {"dump-state", dir.path()}), 2, dir.path() + ": is a directory; name a file");
  EXPECT_TRUE(session.trace().empty());
}

}  // namespace
