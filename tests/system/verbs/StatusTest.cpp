// SPDX-License-Identifier: Apache-2.0
//
// `mirelsnap status`, `freeze` and `thaw`.
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <regex>

#include "NamedVolume.h"
#include "ProcessState.h"
#include "Terminal.h"
#include "Verbs.h"
#include "Waiting.h"

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

// The line of a text that begins with `start`, blanks at its beginning left out; blanks inside as one.
std::string lineOf(const std::string& text, const std::string& start) {
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    line = std::regex_replace(line, std::regex("^ +"), "");
    line = std::regex_replace(line, std::regex(" +"), " ");
    if (line.starts_with(start)) return line;
  }
  return "";
}

class Status : public testing::Test {
 protected:
  std::string minor() const { return std::to_string(volume.loop().minor()); }

  std::uint64_t blockSize() const {
    struct stat found;
    return stat(volume.folder().c_str(), &found) == 0 ? static_cast<std::uint64_t>(found.st_blksize) : 0;
  }

  const Volume volume{"ext4", 32 << 20};
  Session session;
};

TEST_F(Status, of_a_driver_at_rest_names_the_mounted_volumes_alone) {
  const Ended ended = verb(session, {"status"});
  EXPECT_EQ(ended.code, 0);
  EXPECT_EQ(ended.errors, "");
  EXPECT_TRUE(ended.output.starts_with(
      "Driver mirelsnap-emulator 1.0.0\n\nNo volume is snapped.\n\nNo relocation file is mapped.\n\nMounted volumes\n"))
      << ended.output;
  EXPECT_EQ(lineOf(ended.output, volume.device() + " "), volume.device() + " " + volume.folder() + " ext4 -");
}

TEST_F(Status, shows_a_snapped_volume_with_its_file_and_its_owner) {
  const Ended ended = session.run({MIRELSNAP_PROGRAM, "run", "--volume", volume.device(), "--reloc-mount",
                                   volume.folder(), "--reloc-size", "2048", "--", "/bin/sh", "-c",
                                   "echo $PPID; " + std::string(MIRELSNAP_PROGRAM) + " status"});
  EXPECT_EQ(ended.code, 0) << ended.errors;
  const std::string owner = "process " + ended.output.substr(0, ended.output.find('\n')) + " (mirelsnap)";
  const std::string file = volume.folder() + "/.verrelocarea/loop" + minor();
  EXPECT_EQ(lineOf(ended.output, "NAME"), "NAME DEVICE SIZE SNAPSHOT RELOCATION FILE SIZE OWNER");
  const std::string snapped = lineOf(ended.output, volume.device() + " 7:");
  EXPECT_TRUE(
      snapped.starts_with(volume.device() + " 7:" + minor() + " 32.0 MiB /dev/snap7_" + minor() + " " + file + " "))
      << snapped;
  EXPECT_TRUE(snapped.ends_with(" " + owner)) << snapped;
  EXPECT_NE(ended.output.find("\nMapped relocation files\n"), std::string::npos);
  EXPECT_EQ(lineOf(ended.output, volume.device() + " " + file), volume.device() + " " + file + " " + owner);
  EXPECT_EQ(lineOf(ended.output, volume.device() + " " + volume.folder() + " "),
            volume.device() + " " + volume.folder() + " ext4 snapped");
  EXPECT_EQ(ended.output.find("\n  /dev/snap"), std::string::npos) << "a snapshot is no volume of the machine";
}

TEST_F(Status, tells_how_a_snapshot_is_and_when_it_was_taken) {
  const Ended ended = session.run({MIRELSNAP_PROGRAM, "run", "--volume", volume.device(), "--reloc-mount",
                                   volume.folder(), "--reloc-size", "2048", "--", "/bin/sh", "-c",
                                   "cat /proc/mirelsnap/snapshots; " + std::string(MIRELSNAP_PROGRAM) + " status"});
  EXPECT_EQ(ended.code, 0) << ended.errors;
  const std::string line = ended.output.substr(0, ended.output.find('\n'));
  const std::string blocks = std::to_string(2048 * blockSize() / 4096);
  EXPECT_TRUE(std::regex_match(line, std::regex("volume=7:" + minor() + " name=" + volume.device() +
                                                " owner=[0-9]+ state=snapped kept=[0-9]+ of=" + blocks +
                                                " memory=[0-9]+ frozen_us=[0-9]+ instant=[0-9]+\\.[0-9]{9}")))
      << line;
  EXPECT_EQ(lineOf(ended.output, "NAME STATE"), "NAME STATE KEPT OF MEMORY FROZEN TAKEN");
  const std::string shown = lineOf(ended.output, volume.device() + " snapped ");
  EXPECT_TRUE(std::regex_match(shown, std::regex(volume.device() + " snapped [0-9]+ " + blocks +
                                                 " [0-9.]+ (bytes|[KM]iB) [0-9]+ ms [-0-9]{10} [:0-9]{8}")))
      << shown;
}

TEST_F(Status, of_a_driver_at_rest_has_an_empty_file) {
  const Ended ended = session.shell(
      "test -r /proc/mirelsnap/snapshots && stat -c %F:%a /proc/mirelsnap/snapshots && "
      "wc -c </proc/mirelsnap/snapshots");
  EXPECT_EQ(ended.output, "regular empty file:444\n0\n");
  EXPECT_EQ(ended.errors, "");
}

// Rows that a terminal would break are shown a cell a line.
TEST_F(Status, at_a_terminal_that_is_too_narrow_for_columns_shows_a_cell_a_line) {
  test::Terminal terminal(80);
  test::Process process = session.start({MIRELSNAP_PROGRAM, "run", "--volume", volume.device(), "--reloc-mount",
                                         volume.folder(), "--reloc-size", "2048", "--", MIRELSNAP_PROGRAM, "status"},
                                        {.environment = {{"TERM", "dumb"}}, .terminal = terminal.inner()});
  EXPECT_EQ(process.wait(), 0);
  const std::string file = volume.folder() + "/.verrelocarea/loop" + minor();
  EXPECT_TRUE(
      terminal.waitFor("Snapped volumes\r\n"
                       "  NAME             " +
                       volume.device() + "\r\n  DEVICE           7:" + minor() +
                       "\r\n  SIZE             32.0 MiB\r\n"
                       "  SNAPSHOT         /dev/snap7_" +
                       minor() + "\r\n  RELOCATION FILE  " + file + "\r\n  SIZE             "))
      << terminal.written();
  EXPECT_TRUE(terminal.waitFor("\r\n  OWNER            process " + std::to_string(process.id()) + " (mirelsnap)\r\n"))
      << terminal.written();
  EXPECT_TRUE(terminal.waitFor("  DEVICE ")) << terminal.written();
}

TEST_F(Status, at_a_terminal_that_is_wide_enough_shows_columns) {
  test::Terminal terminal(200);
  test::Process process =
      session.start({MIRELSNAP_PROGRAM, "run", "--volume", volume.device(), "--", MIRELSNAP_PROGRAM, "status"},
                    {.environment = {{"TERM", "dumb"}}, .terminal = terminal.inner()});
  EXPECT_EQ(process.wait(), 0);
  const std::string blanks(volume.device().size() - 4, ' ');
  EXPECT_TRUE(terminal.waitFor("  NAME" + blanks + "  DEVICE ")) << terminal.written();
}

TEST_F(Status, names_files_and_devices_that_are_not_ascii) {
  const test::NamedVolume place(volume.device() +
                                    "-gr\xc3\xbc\xc3\x9f"
                                    "e",
                                "gr\xc3\xb6\xc3\x9f"
                                "e");
  DriverClient driver(session);
  ASSERT_EQ(driver.snap({{.device = place.device(), .folder = place.folder()}}).result, 0);
  const Json snapped = document(session, {"status"})["snapped_volumes"][0];
  EXPECT_EQ(driver.unsnap({place.device()}), 0u);
  EXPECT_EQ(snapped["name"], place.device());
  EXPECT_EQ(fs::path(snapped["relocation_file"].get<std::string>()).parent_path(), place.folder() + "/.verrelocarea");
}

TEST_F(Status, tells_machines_where_a_snapshot_is_and_how_large_all_is) {
  const Ended ended = session.run({MIRELSNAP_PROGRAM, "run", "--volume", volume.device(), "--", "/bin/sh", "-c",
                                   "echo $PPID; " + std::string(MIRELSNAP_PROGRAM) + " status --json"});
  const std::size_t end = ended.output.find('\n');
  const int process = std::stoi(ended.output.substr(0, end));
  const Json status = Json::parse(ended.output.substr(end + 1));
  ASSERT_EQ(status["snapped_volumes"].size(), 1u);
  const Json& snapped = status["snapped_volumes"][0];
  EXPECT_EQ(snapped["size"], 32 << 20);
  EXPECT_EQ(snapped["blocks"].get<int>() * snapped["block_size"].get<int>(), 32 << 20);
  EXPECT_EQ(snapped["exposed_at"], Json{"/run/mirelsnap/" + std::to_string(process) + volume.folder()});
  EXPECT_EQ(snapped["owner"], (Json{{"pid", process}, {"name", "mirelsnap"}, {"alive", true}}));
  EXPECT_EQ(session.trace("snap").at(0)["volumes"].at(0)["relocation_blocks"], snapped["relocation_blocks"]);
}

TEST_F(Status, says_that_an_owner_is_gone) {
  const pid_t process = test::killedRun(session, volume);
  const std::string gone = "process " + std::to_string(process) + ", which is gone";
  EXPECT_TRUE(lineOf(verb(session, {"status"}).output, volume.device() + " 7:").ends_with(gone));
  EXPECT_EQ(document(session, {"status"})["snapped_volumes"][0]["owner"],
            (Json{{"pid", process}, {"name", ""}, {"alive", false}}));
  EXPECT_EQ(verb(session, {"reconcile"}).code, 0);
}

TEST_F(Status, shows_what_is_frozen_and_what_is_tracked) {
  DriverClient driver(session);
  ASSERT_EQ(driver.snap({{.device = volume.device(), .folder = volume.folder(), .tracked = true}}).result, 0);
  ASSERT_EQ(driver.freeze({volume.device()}), 0u);
  EXPECT_EQ(lineOf(verb(session, {"status"}).output, volume.device() + " " + volume.folder() + " "),
            volume.device() + " " + volume.folder() + " ext4 snapped, frozen and changes tracked (sequence 1)");
  const Json status = document(session, {"status"});
  for (const Json& mounted : status["mounted_volumes"]) {
    const bool itself = mounted["device"] == volume.device();
    EXPECT_EQ(mounted["frozen"], itself);
    EXPECT_EQ(mounted["snapped"], itself);
    EXPECT_EQ(mounted["tracking"].is_null(), !itself);
  }
  ASSERT_EQ(driver.thaw({volume.device()}), 0u);
  ASSERT_EQ(driver.unsnap({volume.device()}), 0u);
}

TEST(StatusRefused, without_a_driver_is_112) {
  Session session = Session::withoutDriver();
  expectFailure(verb(session, {"status"}), 112,
                "/dev/mirelsnapctl: the driver (module mirelsnap) is not loaded and could not be loaded; install it, "
                "or try it without: mirelsnap-emulator -- mirelsnap run ...");
}

TEST(VerbsRefused, without_root_are_111) {
  const test::TempDir dir;
  ASSERT_EQ(chmod(dir.path().c_str(), 0755), 0);
  // Where the nobody's way does not lead through this user's folders.
  fs::copy_file(MIRELSNAP_PROGRAM, dir / "mirelsnap");
  Session session;
  for (const auto& arguments : std::vector<test::Texts>{{"status"},
                                                        {"plan"},
                                                        {"reconcile"},
                                                        {"freeze", "/"},
                                                        {"thaw", "/"},
                                                        {"changes", "/"},
                                                        {"stop-tracking", "/"},
                                                        {"log-level", "3"},
                                                        {"dump-state", "/mnt/x"},
                                                        {"shell"}}) {
    test::Texts all = arguments;
    all.insert(all.begin(), dir / "mirelsnap");
    const Ended ended = session.run(all, {.user = 65534});
    EXPECT_EQ(ended.code, 111);
    EXPECT_TRUE(ended.errors.starts_with("mirelsnap: mirelsnap " + arguments[0] + ": needs root: ")) << ended.errors;
    EXPECT_TRUE(ended.errors.ends_with("; run it with sudo\n")) << ended.errors;
  }
  EXPECT_TRUE(session.trace().empty());
}

// ---- freeze and thaw

class Freeze : public testing::Test {
 protected:
  const Volume volume{"ext4", 32 << 20};
  const Volume other{"ext4", 32 << 20};
  Session session;
};

TEST_F(Freeze, lets_writers_wait_until_the_thaw) {
  expectText(verb(session, {"freeze", volume.device(), other.folder()}),
             "Frozen: " + volume.device() + " and " + other.device() + "\n");
  test::Process writer = session.start({"/bin/sh", "-c", "echo >" + volume.folder() + "/file"});
  EXPECT_TRUE(test::comesTrue([&] { return !writer.running() || test::stateOf(writer.id()) == 'D'; }));
  EXPECT_TRUE(writer.running());
  expectText(verb(session, {"thaw", volume.device(), other.device()}),
             "Thawed: " + volume.device() + " and " + other.device() + "\n");
  EXPECT_EQ(writer.wait(), 0);
}

TEST_F(Freeze, tells_of_a_device_with_control_characters_escaped) {
  const test::NamedVolume evil("/dev/evil\033[2J");
  expectText(verb(session, {"freeze", evil.device()}), "Frozen: /dev/evil\\x1b[2J\n");
  expectText(verb(session, {"thaw", evil.device()}), "Thawed: /dev/evil\\x1b[2J\n");
}

TEST_F(Freeze, takes_a_device_whose_name_is_not_ascii_or_no_text) {
  for (const std::string name : {"/dev/gr\xc3\xbc\xc3\x9f"
                                 "e",
                                 "/dev/latin-\xe9"}) {
    const test::NamedVolume named(name);
    EXPECT_EQ(verb(session, {"freeze", named.folder()}).errors, "");
    EXPECT_EQ(verb(session, {"thaw", named.folder()}).errors, "");
  }
}

TEST_F(Freeze, of_a_frozen_volume_among_others_freezes_none) {
  ASSERT_EQ(verb(session, {"freeze", volume.device()}).code, 0);
  expectFailure(verb(session, {"freeze", other.device(), volume.device()}), 114,
                volume.device() + ": is frozen; thaw it first");
  test::writeFile(other.folder() + "/file", "can be written");
  expectFailure(verb(session, {"thaw", volume.device(), other.device()}), 120,
                other.device() + ": is not frozen; mirelsnap status shows which volumes are");
  EXPECT_EQ(verb(session, {"thaw", volume.device()}).code, 0) << "one is enough";
  EXPECT_EQ(session.takeComplaints(2).size(), 2u);
}

TEST_F(Freeze, of_a_volume_that_is_named_under_two_mount_points_is_one) {
  const test::TempDir second;
  const test::Mounted bound(volume.folder(), second.path(), "", MS_BIND);
  const test::Texts named = {volume.folder(), other.device(), volume.device() + ":" + second.path()};
  const std::string both = volume.device() + " and " + other.device() + "\n";
  expectText(verb(session, {"freeze", named[0], named[1], named[2]}), "Frozen: " + both);
  expectText(verb(session, {"thaw", named[0], named[1], named[2]}), "Thawed: " + both);
  expectText(verb(session, {"doctor", named[0], named[1], named[2]}),
             volume.device() + ": its relocation file would be allocated at once\n" + other.device() +
                 ": its relocation file would be allocated at once\nNothing stands in the way of a snapshot of " +
                 volume.device() + " and " + other.device() + ".\n");
}

TEST_F(Freeze, tells_machines_what_became_of_each) {
  EXPECT_EQ(document(session, {"freeze", volume.device()})["devices"],
            (Json{{{"device", volume.device()}, {"frozen", true}}}));
  EXPECT_EQ(document(session, {"thaw", volume.device()})["devices"],
            (Json{{{"device", volume.device()}, {"frozen", false}}}));
}

TEST_F(Freeze, of_what_is_no_volume_is_113_and_refused_by_the_driver_119) {
  expectFailure(verb(session, {"freeze", "/nothing"}), 113,
                "/nothing: No such file or directory; name a mounted block device or a mount point (lsblk shows them)");
  Session refusing({"--inject", "freeze:1:EIO"});
  expectFailure(verb(refusing, {"freeze", volume.device()}), 119,
                volume.device() + ": the driver refused the request; look for MIRELSNAP_SDK in the system log");
  EXPECT_EQ(refusing.takeComplaints(1).size(), 1u);
  EXPECT_EQ(verb(session, {"freeze"}).errors, "mirelsnap: DEVICE is required; see mirelsnap freeze --help\n");
}

}  // namespace
