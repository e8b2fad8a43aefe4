// SPDX-License-Identifier: Apache-2.0
//
// Names: what a volume may be called, and what mount points may be called.
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <unistd.h>

#include <filesystem>
#include <ostream>

#include "NamedVolume.h"
#include "OwnWorld.h"
#include "Run.h"

namespace fs = std::filesystem;

namespace {

using test::Ended;
using test::Json;
using test::LoopDevice;
using test::Mounted;
using test::NamedVolume;
using test::run;
using test::runScript;
using test::Session;
using test::TempDir;
using test::Volume;

constexpr char kNotAscii[] =
    "/dev/gr\xc3\xbc\xc3\x9f"
    "e";
const std::string kUndecodable =
    "a name that cannot be decoded in this locale; use another name, or the locale that this one is written in "
    "(LC_ALL)";

// ---- mount points

struct Name {
  const char* what;
  std::string text;
};

void PrintTo(const Name& name, std::ostream* out) { *out << name.what; }

class RunMountPoint : public testing::TestWithParam<Name> {};

TEST_P(RunMountPoint, may_be_called_anything_that_the_locale_can_read) {
  const TempDir dir;
  const std::string folder = dir / GetParam().text;
  const std::string inner = folder + "/" + GetParam().text + " inside";
  const LoopDevice loop(16 << 20);
  const LoopDevice innerLoop(16 << 20);
  loop.mkfs("ext4");
  innerLoop.mkfs("ext4");
  fs::create_directory(folder);
  const Mounted mounted(loop.path(), folder, "ext4");
  fs::create_directory(inner);
  const Mounted innerMounted(innerLoop.path(), inner, "ext4");
  test::writeFile(folder + "/file", "outside");
  test::writeFile(inner + "/file", "inside");
  Session session;
  const Ended ended = runScript(
      session, {"--json", "--base", dir / "base", "--volume", folder, "--volume", innerLoop.path() + ":" + inner},
      "cat \"$MIRELSNAP_VOLUME_1/file\" \"$MIRELSNAP_VOLUME_2/file\"; echo");
  EXPECT_EQ(ended.code, 0) << ended.errors;
  EXPECT_EQ(ended.errors, "");
  const std::size_t lineEnd = ended.output.find('\n');
  EXPECT_EQ(ended.output.substr(0, lineEnd), "outsideinside");
  const Json document = Json::parse(ended.output.substr(lineEnd + 1));
  EXPECT_EQ(document["volumes"][0]["mount_points"], Json{folder});
  EXPECT_EQ(document["volumes"][1]["exposed_at"], dir / "base" + inner);
  const std::string name = innerLoop.path().substr(sizeof("/dev/") - 1);
  EXPECT_EQ(document["volumes"][1]["relocation_file"], inner + "/.verrelocarea/" + name);
}

INSTANTIATE_TEST_SUITE_P(Names, RunMountPoint,
                         testing::Values(Name{"blanks", " with  blanks "}, Name{"quotes", "'single' \"double\" `back`"},
                                         Name{"backslashes", "back\\slash\\040"}, Name{"a_new_line", "two\nlines"},
                                         Name{"a_tab", "a\ttab"}, Name{"colons", "a:colon:b"},
                                         Name{"umlauts",
                                              "gr\xc3\xbc\xc3\x9f"
                                              "e"},
                                         Name{"kana", "\xe3\x81\x8b\xe3\x81\xaa"},
                                         Name{"signs", "$HOME *?#!&;|<>()[]{}~%s%n"}, Name{"a_dash", "--volume"}),
                         [](const auto& instance) { return instance.param.what; });

// The agent's interface takes wide text: a name that is none cannot be handed over.
TEST(RunMountPointThatIsNoText, is_refused_in_one_line) {
  const NamedVolume volume("/dev/plain", "latin-\xe9");
  Session session;
  test::expectFailure(run(session, {"--volume", "/dev/plain"}, {"/bin/true"}), 113,
                      "mirelsnap: /dev/plain: is mounted at " + fs::path(volume.folder()).parent_path().string() +
                          "/latin-\\xe9, " + kUndecodable);
  EXPECT_TRUE(session.trace().empty()) << "the driver was asked";
}

// Each is given by a script: what it is called with is no text either.
TEST(RunPlaceThatIsNoText, is_refused_before_any_snapshot) {
  const NamedVolume volume("/dev/plain", "volume");
  const NamedVolume bound("/dev/bound", "latin-\xe9");
  const std::string shown = fs::path(bound.folder()).parent_path().string() + "/latin-\\xe9";
  Session session;
  for (const std::string option : {"--bind", "--base"}) {
    const std::string folder = fs::path(bound.folder()).parent_path().string() + "/latin-\\351";
    test::expectFailure(session.shell("exec " MIRELSNAP_PROGRAM " run --volume /dev/plain " + option + " \"$(printf '" +
                                      folder + "')\" -- /bin/true"),
                        117, "mirelsnap: " + shown + ": is " + kUndecodable);
  }
  EXPECT_TRUE(session.trace().empty()) << "the driver was asked";
}

// The engine's names are wide, the driver takes a byte of each character.
TEST(RunDeviceThatIsNotAscii, is_refused_at_once_and_another_node_helps) {
  const NamedVolume volume(kNotAscii);
  const TempDir again;
  Session session;
  test::expectFailure(
      run(session, {"--volume", volume.folder()}, {"/bin/true"}), 113,
      "mirelsnap: " + volume.device() +
          ": the driver cannot be given this name, which is not ASCII; make a device node with an ASCII "
          "name (mknod /dev/NAME b 7 " +
          std::to_string(volume.loop().minor()) + ") and mount the volume by that");
  EXPECT_TRUE(session.trace().empty()) << "the driver was asked";
  const Mounted mounted(volume.loop().path(), again.path(), "ext4");
  EXPECT_EQ(run(session, {"--volume", again.path()}, {"/bin/true"}).errors, "");
}

TEST(RunRelocationMountThatIsNotAscii, is_refused_at_once_and_a_bind_mount_helps) {
  const Volume volume("ext4", 32 << 20);
  const NamedVolume place("/dev/place",
                          "gr\xc3\xb6\xc3\x9f"
                          "e");
  const TempDir again;
  Session session;
  test::expectFailure(
      run(session, {"--volume", volume.device(), "--reloc-mount", place.folder(), "--reloc-size", "100"},
          {"/bin/true"}),
      115,
      "mirelsnap: " + place.folder() +
          ": the driver cannot be given this name, which is not ASCII; name another --reloc-mount: a bind mount at a "
          "folder with an ASCII name will do");
  EXPECT_TRUE(session.trace().empty()) << "the driver was asked";
  const Mounted bound(place.folder(), again.path(), "", MS_BIND);
  EXPECT_EQ(
      run(session, {"--volume", volume.device(), "--reloc-mount", again.path(), "--reloc-size", "100"}, {"/bin/true"})
          .errors,
      "");
}

TEST(RunDeviceWhoseNodeIsGone, is_refused_and_says_why) {
  const Volume volume("ext4", 32 << 20);
  Session session;
  fs::rename(volume.device(), "/dev/moved");
  const Ended ended = run(session, {"--volume", volume.folder()}, {"/bin/true"});
  fs::rename("/dev/moved", volume.device());
  test::expectFailure(
      ended, 113,
      "mirelsnap: " + volume.device() + ": its size cannot be read: No such file or directory; check the device");
}

TEST(RunFailure, that_concerns_a_name_with_a_line_end_is_one_line) {
  Session session;
  test::expectFailure(
      run(session, {"--volume", "/no\nsuch\x1b[31mthing"}, {"/bin/true"}), 113,
      "mirelsnap: /no\\nsuch\\x1b[31mthing: No such file or directory; name a mounted block device or a "
      "mount point (lsblk shows them)");
}

// U+009B is what ESC [ is to a terminal.
TEST(RunFailure, that_concerns_a_name_with_control_characters_beyond_ascii_shows_their_bytes) {
  Session session;
  test::expectFailure(run(session,
                          {"--volume",
                           "/\xc2\x9b"
                           "31mno-gr\xc3\xbc\xc3\x9f"
                           "e"},
                          {"/bin/true"}),
                      113,
                      "mirelsnap: /\\xc2\\x9b31mno-gr\xc3\xbc\xc3\x9f"
                      "e: No such file or directory; name a mounted block device or a mount point (lsblk shows them)");
}

// ---- what a volume may be called

class RunVolume : public testing::Test {
 protected:
  // The first volume of a run with `names`.
  Json firstVolume(const std::vector<std::string>& names) {
    std::vector<std::string> options = {"--json"};
    for (const std::string& name : names) options.insert(options.end(), {"--volume", name});
    const Ended ended = run(session, options, {"/bin/true"});
    EXPECT_EQ(ended.code, 0) << ended.errors;
    if (ended.code != 0) return Json::object();
    const Json document = Json::parse(ended.output);
    EXPECT_EQ(document["volumes"].size(), 1u);
    return document["volumes"].at(0);
  }
  void expectIsTheVolume(const Json& found) {
    EXPECT_EQ(found.value("device", ""), volume.device());
    EXPECT_EQ(found.value("mount_points", Json()), Json{volume.folder()});
  }

  const Volume volume{"ext4", 16 << 20};
  const TempDir dir;
  Session session;
};

TEST_F(RunVolume, is_named_by_its_device) { expectIsTheVolume(firstVolume({volume.device()})); }
TEST_F(RunVolume, is_named_by_its_mount_point) { expectIsTheVolume(firstVolume({volume.folder()})); }
TEST_F(RunVolume, is_named_by_both) { expectIsTheVolume(firstVolume({volume.device() + ":" + volume.folder()})); }

TEST_F(RunVolume, is_named_by_a_mount_point_that_is_spelled_otherwise) {
  expectIsTheVolume(firstVolume({volume.folder() + "/lost+found/..//"}));
  fs::create_directory_symlink(volume.folder(), dir / "link");
  expectIsTheVolume(firstVolume({dir / "link"}));
  expectIsTheVolume(firstVolume({volume.device() + ":" + (dir / "link")}));
}

TEST_F(RunVolume, is_named_by_a_link_to_its_device) {
  fs::create_directories("/dev/disk/by-label");
  fs::create_symlink("../.." + volume.device().substr(4), "/dev/disk/by-label/my\\x20data");
  expectIsTheVolume(firstVolume({"/dev/disk/by-label/my\\x20data"}));
  expectIsTheVolume(firstVolume({"/dev/disk/by-label/my\\x20data:" + volume.folder()}));
  test::removeTree("/dev/disk");
}

TEST_F(RunVolume, is_named_by_another_node_of_the_same_device) {
  const test::Node node("/dev/another", S_IFBLK, 7, volume.loop().minor());
  expectIsTheVolume(firstVolume({"/dev/another"}));
}

TEST_F(RunVolume, named_twice_by_different_names_under_one_mount_point_is_one) {
  expectIsTheVolume(firstVolume({volume.device(), volume.folder()}));
  expectIsTheVolume(firstVolume({volume.folder(), volume.folder(), volume.device() + ":" + volume.folder()}));
}

TEST_F(RunVolume, under_two_mount_points_is_one_with_both) {
  const TempDir second;
  {
    const Mounted bound(volume.folder(), second.path(), "", MS_BIND);
    const Json found = firstVolume({volume.folder(), volume.device() + ":" + second.path()});
    EXPECT_EQ(found.value("mount_points", Json()), (Json{volume.folder(), second.path()}));
  }
}

TEST_F(RunVolume, named_by_its_device_is_found_where_all_of_it_is_mounted) {
  fs::create_directory(volume.folder() + "/part");
  const Mounted part(volume.folder() + "/part", dir.path(), "", MS_BIND);
  const std::string device = volume.device(), folder = volume.folder();
  // Mounted anew, the whole comes after the part in the mount table.
  ASSERT_EQ(test::unmount(folder), 0);
  ASSERT_EQ(mount(device.c_str(), folder.c_str(), "ext4", 0, nullptr), 0);
  expectIsTheVolume(firstVolume({device}));
}

TEST_F(RunVolume, whose_mount_point_is_covered_by_another_mount_is_not_found_there) {
  const Mounted cover("tests", volume.folder(), "tmpfs");
  test::expectFailure(
      run(session, {"--volume", volume.device()}, {"/bin/true"}), 113,
      "mirelsnap: " + volume.device() + ": is not mounted; mount it first: only mounted volumes can be snapped");
}

}  // namespace
