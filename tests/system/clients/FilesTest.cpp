// SPDX-License-Identifier: Apache-2.0
//
// Programs that nobody here wrote back volumes up while these are written to: what they restore is the instant.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <filesystem>
#include <optional>
#include <tuple>
#include <utility>
#include <vector>

#include "AlternatingWriter.h"
#include "LoopVolume.h"
#include "Recipe.h"
#include "Tree.h"

namespace fs = std::filesystem;

namespace {

using test::AlternatingWriter;
using test::Ended;
using test::LoopDevice;
using test::Mounted;
using test::Recipe;
using test::Session;
using test::TempDir;
using test::Tree;
using test::Volume;

void set(const std::string& path, const char* name, const std::string& value) {
  ASSERT_EQ(lsetxattr(path.c_str(), name, value.data(), value.size(), 0), 0) << path << " " << name;
}

// What a client could lose beside contents.
void plantAttributes(const std::string& folder) {
  set(folder + "/large", "user.comment", "large \x01\xff one");
  set(folder + "/some", "user.of a folder", "kept");
  // As the kernel stores them: a user's entry beside owner, group, mask and others; a permitted CAP_NET_RAW.
  set(folder + "/empty", "system.posix_acl_access",
      std::string("\x02\0\0\0"
                  "\x01\0\x06\0\xff\xff\xff\xff"
                  "\x02\0\x04\0\xe8\x03\0\0"
                  "\x04\0\x04\0\xff\xff\xff\xff"
                  "\x10\0\x04\0\xff\xff\xff\xff"
                  "\x20\0\0\0\xff\xff\xff\xff",
                  44));
  set(folder + "/some/0", "security.capability", std::string("\x01\0\0\x02\0\x20\0\0\0\0\0\0\0\0\0\0\0\0\0\0", 20));
  fs::create_hard_link(folder + "/some/2", folder + "/private/two");
  ASSERT_EQ(mknod((folder + "/device").c_str(), S_IFCHR | 0620, makedev(1, 3)), 0);
  ASSERT_EQ(lchown((folder + "/link").c_str(), 1002, 1003), 0);
}

// ext4, and xfs mounted inside it, each with a tree of all kinds; a program writes first here, then there, all the
// time.
class BackupBy : public testing::Test {
 protected:
  BackupBy() {
    for (const std::string& folder : {outer, inner}) {
      fs::create_directory(folder + "/tree");
      fs::create_directory(folder + "/writer");
      test::plantTree(folder + "/tree");
      plantAttributes(folder + "/tree");
    }
    outerInstant.emplace(outer + "/tree");
    innerInstant.emplace(inner + "/tree");
    writer.emplace(std::vector<std::string>{outer + "/writer", inner + "/writer"});
    writer->waitForSteps(100);
  }

  // Runs a recipe; everything is changed when its client is about to read, and more while it does.
  void backup(const std::string& recipe, const std::vector<std::string>& arguments, const std::string& client,
              const Recipe::Environment& environment = {}) {
    const std::uint64_t before = AlternatingWriter::valueIn(inner + "/writer");
    Recipe run(session, recipe, arguments, client, environment);
    run.waitForClient();
    const std::uint64_t after = AlternatingWriter::valueIn(outer + "/writer");
    test::disturbTree(outer + "/tree");
    writer->waitForSteps(100);
    run.release();
    test::disturbTree(inner + "/tree");
    const Ended ended = run.finish();
    EXPECT_EQ(ended.code, 0) << ended.errors << ended.output;
    bracket = {before, after};
  }

  // What was restored into `folder` is both volumes at the one instant.
  void expectInstant(const std::string& folder) {
    const std::string outerCopy = folder + outer;
    const std::string innerCopy = folder + inner;
    EXPECT_EQ(Tree(outerCopy + "/tree").difference(*outerInstant), "");
    EXPECT_EQ(Tree(innerCopy + "/tree").difference(*innerInstant), "");
    EXPECT_TRUE(AlternatingWriter::standAtOneInstant({outerCopy + "/writer", innerCopy + "/writer"}));
    EXPECT_GE(AlternatingWriter::valueIn(outerCopy + "/writer"), bracket.first);
    EXPECT_LE(AlternatingWriter::valueIn(innerCopy + "/writer"), bracket.second);
    EXPECT_GT(AlternatingWriter::valueIn(inner + "/writer"), bracket.second) << "the live files do not move on";
    EXPECT_FALSE(fs::exists(outerCopy + "/.verrelocarea")) << "the relocation area is no part of the volume";
    EXPECT_FALSE(fs::exists(innerCopy + "/.verrelocarea"));
  }

  Ended client(const std::string& script, const Recipe::Environment& environment = {}) {
    Ended ended = session.shell(script, {.environment = environment});
    EXPECT_EQ(ended.code, 0) << script << ": " << ended.errors << ended.output;
    return ended;
  }

  static std::string madeWithFileSystem(const LoopDevice& loop, const std::string& folder) {
    loop.mkfs("xfs");
    fs::create_directory(folder);
    return folder;
  }

  const Volume ext4{"ext4", 64 << 20};
  const LoopDevice xfsLoop{300 << 20};
  const std::string outer = ext4.folder();
  const std::string inner = madeWithFileSystem(xfsLoop, outer + "/inner");
  const Mounted xfs{xfsLoop.path(), inner, "xfs"};
  const Volume store{"ext4", 256 << 20};
  std::optional<Tree> outerInstant;
  std::optional<Tree> innerInstant;
  Session session;
  std::optional<AlternatingWriter> writer;
  std::pair<std::uint64_t, std::uint64_t> bracket;
};

TEST_F(BackupBy, tar_restores_the_instant) {
  const std::string archive = store.folder() + "/backup.tar.gz";
  backup("tar.sh", {archive, outer, inner}, "tar");
  const std::string restored = store.folder() + "/restored";
  client("mkdir " + restored + " && tar --extract --file " + archive + " --directory " + restored +
         " --xattrs --xattrs-include='*' --acls --numeric-owner --same-owner --preserve-permissions");
  expectInstant(restored);
}

TEST_F(BackupBy, rsync_is_the_instant_and_so_is_the_next_one_over_it) {
  const std::string copy = store.folder() + "/copy";
  backup("rsync.sh", {copy, outer, inner}, "rsync");
  expectInstant(copy);
  const Tree outerNow(outer + "/tree");
  const Tree innerNow(inner + "/tree");
  const Ended again = Recipe::run(session, "rsync.sh", {copy, outer, inner});
  EXPECT_EQ(again.code, 0) << again.errors;
  EXPECT_EQ(Tree(copy + outer + "/tree").difference(outerNow), "");
  EXPECT_EQ(Tree(copy + inner + "/tree").difference(innerNow), "");
}

TEST_F(BackupBy, restic_restores_the_instant_and_has_a_sound_repository) {
  test::writeFile(store.folder() + "/password", "secret\n");
  const Recipe::Environment environment = {{"RESTIC_REPOSITORY", store.folder() + "/repository"},
                                           {"RESTIC_PASSWORD_FILE", store.folder() + "/password"},
                                           {"RESTIC_CACHE_DIR", store.folder() + "/cache"}};
  client("restic init", environment);
  backup("restic.sh", {outer, inner}, "restic", environment);
  const Ended check = client("restic check --read-data", environment);
  EXPECT_NE(check.output.find("no errors were found"), std::string::npos) << check.output;
  client("restic restore latest --target " + store.folder() + "/restored", environment);
  expectInstant(store.folder() + "/restored");
  // The next ones find it by the base's path, and read what changed since alone.
  writer.reset();
  Recipe::run(session, "restic.sh", {outer, inner}, environment);
  const Ended again = Recipe::run(session, "restic.sh", {outer, inner}, environment);
  EXPECT_EQ(again.code, 0) << again.errors;
  EXPECT_NE(again.output.find("using parent snapshot"), std::string::npos) << again.output;
  EXPECT_NE(again.output.find("0 new,     0 changed"), std::string::npos) << again.output;
}

TEST_F(BackupBy, borg_restores_the_instant_and_has_a_sound_repository) {
  const Recipe::Environment environment = {
      {"BORG_REPO", store.folder() + "/repository"}, {"BORG_PASSPHRASE", "secret"}, {"BORG_BASE_DIR", store.folder()}};
  client("borg init --encryption=repokey", environment);
  backup("borg.sh", {outer, inner}, "borg", environment);
  client("borg check --verify-data", environment);
  client("mkdir " + store.folder() + "/restored && cd " + store.folder() +
             "/restored && borg extract --numeric-ids --sparse \"::$(borg list --short --last 1)\"",
         environment);
  expectInstant(store.folder() + "/restored");
}

TEST(ARecipe, without_its_arguments_tells_how_it_is_used_and_snaps_nothing) {
  Session session;
  for (const auto& recipe : fs::directory_iterator(RECIPES_FOLDER)) {
    if (recipe.path().extension() != ".sh") continue;
    const Ended ended = Recipe::run(session, recipe.path().filename(), {});
    EXPECT_EQ(ended.code, 2) << recipe.path();
    EXPECT_TRUE(ended.errors.starts_with("usage: ")) << ended.errors;
  }
  EXPECT_EQ(session.trace().size(), 0u);
}

TEST(ARecipe, ends_as_its_client_ends_and_leaves_nothing) {
  const Volume volume("ext4", 32 << 20);
  Session session;
  EXPECT_EQ(Recipe::run(session, "rsync.sh", {"/proc/no/such/folder", volume.folder()}).code, 11) << "rsync's own";
  EXPECT_EQ(Recipe::run(session, "tar.sh", {"/proc/no/such/archive.tar", volume.folder()}).code, 2) << "tar's own";
  EXPECT_EQ(Recipe::run(session, "tar.sh", {"/dev/null", "/no/such/volume"}).code, 113) << "mirelsnap's own";
}

TEST(ARecipe, that_is_terminated_ends_when_its_client_has_and_leaves_nothing) {
  const Volume volume("ext4", 32 << 20);
  const TempDir dir;
  fs::create_directories(volume.folder() + "/data/pg_wal");
  const std::vector<std::tuple<std::string, std::vector<std::string>, std::string>> recipes = {
      {"tar.sh", {dir / "archive.tar", volume.folder()}, "tar"},
      {"postgresql.sh", {volume.folder() + "/data", dir / "copy"}, "cp"}};
  for (const auto& [name, arguments, client] : recipes) {
    Session session;
    Recipe recipe(session, name, arguments, client);
    recipe.waitForClient();
    recipe.terminate();
    recipe.release();
    EXPECT_EQ(recipe.finish().code, 143) << name;
  }
}

}  // namespace
