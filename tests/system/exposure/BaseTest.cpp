// SPDX-License-Identifier: Apache-2.0
//
// Who may look at exposed snapshots: nobody but root, wherever their base is.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <filesystem>

#include "Run.h"
#include "User.h"

namespace fs = std::filesystem;

namespace {

using test::Ended;
using test::expectFailure;
using test::kUser;
using test::run;
using test::runScript;
using test::Session;
using test::TempDir;
using test::Volume;

class RunBase : public testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(chmod(dir.path().c_str(), 0755), 0); }
  Ended runAt(const std::string& base) {
    return runScript(session, {"--volume", volume.device(), "--base", base},
                     "echo $MIRELSNAP_BASE; stat -c '%a %u' $MIRELSNAP_BASE; setpriv --reuid=4711 --regid=4711 "
                     "--clear-groups ls $MIRELSNAP_VOLUME_1 >/dev/null 2>&1 || echo closed");
  }
  void expectRefused(const std::string& base, const std::string& cause) {
    expectFailure(run(session, {"--volume", volume.device(), "--base", base}, {"/bin/true"}), 117,
                  "mirelsnap: " + base + ": " + cause +
                      "; name a base that only root can change, in directories of root's, with --base");
  }

  const TempDir dir;
  const Volume volume{"ext4", 32 << 20};
  Session session;
};

TEST_F(RunBase, that_others_may_enter_keeps_the_snapshots_in_a_private_folder) {
  fs::create_directory(dir / "base");
  ASSERT_EQ(chmod((dir / "base").c_str(), 0755), 0);
  EXPECT_EQ(runAt(dir / "base").output, dir / "base/snapshots" + "\n700 0\nclosed\n");
  struct stat after {};
  ASSERT_EQ(stat((dir / "base").c_str(), &after), 0);
  EXPECT_EQ(after.st_mode & 07777, 0755u);
  EXPECT_TRUE(fs::is_empty(dir / "base"));
}

TEST_F(RunBase, that_is_private_is_used_itself_and_there_again_with_its_group) {
  fs::create_directory(dir / "base");
  ASSERT_EQ(chmod((dir / "base").c_str(), 0700), 0);
  ASSERT_EQ(chown((dir / "base").c_str(), 0, 13), 0);
  EXPECT_EQ(runAt(dir / "base").output, dir / "base" + "\n700 0\nclosed\n");
  struct stat after {};
  ASSERT_EQ(stat((dir / "base").c_str(), &after), 0);
  EXPECT_EQ(after.st_mode & 07777, 0700u);
  EXPECT_EQ(after.st_gid, 13u);
}

TEST_F(RunBase, that_is_new_is_private) { EXPECT_EQ(runAt(dir / "new").output, dir / "new" + "\n700 0\nclosed\n"); }

TEST_F(RunBase, of_its_own_is_a_public_directory_in_a_private_one_whatever_the_umask) {
  const Ended ended = session.shell("umask 077; exec " MIRELSNAP_PROGRAM " run --volume " + volume.device() +
                                    " -- sh -c 'stat -c \"%a %u\" /run/mirelsnap $MIRELSNAP_BASE'");
  EXPECT_EQ(ended.output, "700 0\n755 0\n") << ended.errors;
}

TEST_F(RunBase, that_is_a_users_is_refused) {
  fs::create_directory(dir / "base");
  ASSERT_EQ(chmod((dir / "base").c_str(), 0755), 0);
  ASSERT_EQ(chown((dir / "base").c_str(), kUser, kUser), 0);
  expectRefused(dir / "base", "belongs to user 4711 (mode 0755)");
  EXPECT_TRUE(session.trace().empty()) << "nothing was asked of the driver";
}

TEST_F(RunBase, that_others_may_write_is_refused) {
  fs::create_directory(dir / "base");
  for (const mode_t mode : {0775u, 0757u, 01777u}) {
    ASSERT_EQ(chmod((dir / "base").c_str(), mode), 0);
    std::array<char, 8> text{};
    std::snprintf(text.data(), text.size(), "%04o", mode);
    expectRefused(dir / "base", std::string("may be written by others than root (mode ") + text.data() + ")");
  }
}

TEST_F(RunBase, in_a_users_directory_is_refused_whether_it_is_there_or_not) {
  fs::create_directories(dir / "theirs/base");
  ASSERT_EQ(chown((dir / "theirs").c_str(), kUser, kUser), 0);
  ASSERT_EQ(chmod((dir / "theirs/base").c_str(), 0700), 0);
  expectRefused(dir / "theirs/base", "lies in " + dir / "theirs" + ", which belongs to user 4711 (mode 0755)");
  expectRefused(dir / "theirs/new/base", "lies in " + dir / "theirs" + ", which belongs to user 4711 (mode 0755)");
}

TEST_F(RunBase, of_roots_in_a_directory_like_tmp_is_used) {
  ASSERT_EQ(chmod(dir.path().c_str(), 01777), 0);
  EXPECT_EQ(runAt(dir / "new").output, dir / "new" + "\n700 0\nclosed\n");
}

}  // namespace
