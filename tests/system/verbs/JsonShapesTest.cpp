// SPDX-License-Identifier: Apache-2.0
//
// docs/json.md tells every field of every answer, and nothing else.
#include <sys/mount.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <regex>
#include <set>

#include "Verbs.h"

namespace {

using test::Json;
using test::Session;
using test::TempDir;
using test::Texts;
using test::verb;
using test::Volume;

using Fields = std::map<std::string, std::set<std::string>>;  // types by path

// The documented fields of a section, those of every verb among them.
Fields documented(const std::string& section) {
  std::ifstream file(MIRELSNAP_DOCS "/json.md");
  EXPECT_TRUE(file);
  Fields fields;
  bool inside = false;
  const std::regex row("\\| `([^`]+)` \\| ([a-z ]+) \\|.*");
  for (std::string line; std::getline(file, line);) {
    std::smatch match;
    if (line.starts_with("## ")) inside = line == "## every verb" || line == "## " + section;
    if (!inside || !std::regex_match(line, match, row)) continue;
    std::istringstream types(match[2].str());
    for (std::string type; types >> type;) {
      if (type != "or") fields[match[1].str()].insert(type);
    }
  }
  return fields;
}

std::string typeOf(const Json& value) {
  if (value.is_number_integer()) return "integer";
  return value.type_name();
}

// Entries that are objects are told of by their fields.
void collect(const Json& value, const std::string& path, Fields& fields) {
  if (!path.empty() && !(path.ends_with("[]") && value.is_object())) fields[path].insert(typeOf(value));
  if (value.is_object()) {
    for (const auto& [name, inner] : value.items()) collect(inner, path.empty() ? name : path + "." + name, fields);
  } else if (value.is_array()) {
    for (const Json& inner : value) collect(inner, path + "[]", fields);
  }
}

class JsonShapes : public testing::Test {
 protected:
  // Takes an answer in: every field must be documented, with its type.
  void answer(const Texts& arguments) {
    Texts all = arguments;
    all.insert(all.begin() + 1, "--json");
    take(test::verb(session, all).output);
  }
  // The same from one who may not ask for anything.
  void answerNobody(Texts arguments) {
    std::filesystem::copy_file(MIRELSNAP_PROGRAM, dir / "mirelsnap");
    std::filesystem::permissions(dir.path(), std::filesystem::perms(0755));
    arguments.insert(arguments.begin(), dir / "mirelsnap");
    arguments.emplace_back("--json");
    take(session.run(arguments, {.user = 65534}).output);
  }
  void take(const std::string& output) {
    const std::size_t start = output.size() < 2 ? 0 : output.rfind('\n', output.size() - 2) + 1;
    collect(Json::parse(output.substr(start)), "", mSeen);
  }
  // Every field that was seen is in the section with its types, and every one of the section was seen with all of them.
  void expectIs(const std::string& section) { EXPECT_EQ(mSeen, documented(section)); }

  const Volume volume{"ext4", 32 << 20};
  const TempDir dir;
  Session session;

 private:
  Fields mSeen;
};

TEST_F(JsonShapes, of_run) {
  answer({"run", "--volume", volume.device(), "--", "/bin/sh", "-c", "kill -9 $$"});
  answer({"run", "--volume", "/nothing", "--", "/bin/true"});
  expectIs("run, shell");
}

TEST_F(JsonShapes, of_shell) {
  take(session
           .shell("echo 'kill -9 $$' | SHELL=/bin/sh " + std::string(MIRELSNAP_PROGRAM) + " shell --json --volume " +
                  volume.device())
           .output);
  answer({"shell", "--volume", "/nothing"});
  expectIs("run, shell");
}

TEST_F(JsonShapes, of_status) {
  test::DriverClient driver(session);
  ASSERT_EQ(driver.snap({{.device = volume.device(), .folder = volume.folder(), .tracked = true}}).result, 0);
  {
    const TempDir exposure;
    const std::string node = "/dev/snap7_" + std::to_string(volume.loop().minor());
    const test::Mounted mounted(node, exposure.path(), "ext4", MS_RDONLY);
    answer({"status"});
  }
  ASSERT_EQ(driver.unsnap({volume.device()}), 0u);
  answerNobody({"status"});
  expectIs("status");
}

TEST_F(JsonShapes, of_doctor) {
  answer({"doctor", "/nothing", volume.device()});
  // It has no failures of its own.
  take(R"({"failures":[{"code":1,"subject":"","cause":"","advice":""}]})");
  expectIs("doctor");
}

TEST_F(JsonShapes, of_plan) {
  const Volume readOnly("ext4", 32 << 20);
  ASSERT_EQ(mount(nullptr, readOnly.folder().c_str(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr), 0);
  const Volume alsoReadOnly("ext4", 32 << 20);
  ASSERT_EQ(mount(nullptr, alsoReadOnly.folder().c_str(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr), 0);
  answer({"plan", readOnly.device()});
  std::filesystem::rename(volume.device(), "/dev/moved");
  answer({"plan", volume.folder()});
  std::filesystem::rename("/dev/moved", volume.device());
  answer({"plan", readOnly.device(), "--reloc-mount", "/nothing", "--reloc-size", "1"});
  expectIs("plan");
}

TEST_F(JsonShapes, of_reconcile) {
  test::killedRun(session, volume);
  test::writeFile(volume.folder() + "/qorTESTfile.KQTA", "");
  answer({"reconcile"});
  std::filesystem::create_directory(volume.folder() + "/.verrelocarea");
  answer({"reconcile"});
  answer({"reconcile", "--base", "/"});
  expectIs("reconcile");
}

TEST_F(JsonShapes, of_freeze_and_thaw) {
  answer({"freeze", volume.device()});
  answer({"thaw", volume.device()});
  answer({"thaw", "/nothing"});
  expectIs("freeze, thaw");
}

TEST_F(JsonShapes, of_changes) {
  test::DriverClient driver(session);
  ASSERT_EQ(driver.snap({{.device = volume.device(), .folder = volume.folder(), .tracked = true}}).result, 0);
  test::writeFile(volume.folder() + "/file", "changed");
  sync();
  answer({"changes", volume.device()});
  answer({"changes", "/nothing"});
  ASSERT_EQ(driver.unsnap({volume.device()}), 0u);
  expectIs("changes");
}

TEST_F(JsonShapes, of_stop_tracking) {
  test::DriverClient driver(session);
  ASSERT_EQ(driver.snap({{.device = volume.device(), .folder = volume.folder(), .tracked = true}}).result, 0);
  answer({"stop-tracking", volume.device()});
  answer({"stop-tracking", "/nothing"});
  ASSERT_EQ(driver.unsnap({volume.device()}), 0u);
  expectIs("stop-tracking");
}

TEST_F(JsonShapes, of_log_level) {
  answer({"log-level", "3"});
  answerNobody({"log-level", "3"});
  expectIs("log-level");
}

TEST_F(JsonShapes, of_dump_state) {
  answer({"dump-state", dir / "state"});
  answer({"dump-state", "/nothing/state"});
  expectIs("dump-state");
}

}  // namespace
