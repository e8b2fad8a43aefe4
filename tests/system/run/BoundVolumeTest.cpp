// SPDX-License-Identifier: Apache-2.0
//
// A volume that is named by a bind mount of it: what fails is told with the same cause, the call and its errno, and the
// same exit code.
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "Run.h"

namespace fs = std::filesystem;

namespace {

using test::expectFailure;
using test::Mounted;
using test::run;
using test::Session;
using test::TempDir;
using test::Volume;

using Texts = std::vector<std::string>;

const Texts kTrue = {"/bin/true"};

struct FileSystemKind {
  const char* type;
  std::uint64_t bytes;
};

class BoundVolume : public testing::TestWithParam<FileSystemKind> {
 protected:
  const TempDir dir;
  const TempDir elsewhere;
  const Volume volume{GetParam().type, GetParam().bytes};
  const Mounted bind{volume.folder(), elsewhere.path(), "", MS_BIND};
  const std::string path = bind.folder();
  Session session;
};

INSTANTIATE_TEST_SUITE_P(Of, BoundVolume,
                         testing::Values(FileSystemKind{"ext4", 32 << 20}, FileSystemKind{"xfs", 300 << 20}),
                         [](const auto& kind) { return std::string(kind.param.type); });

TEST_P(BoundVolume, whose_relocation_file_cannot_be_made_is_115_with_the_call_and_its_errno) {
  const std::string directory = volume.folder() + "/.verrelocarea";
  ASSERT_EQ(mkdir(directory.c_str(), 0600), 0);
  ASSERT_EQ(test::run({"chattr", "+i", directory}), 0);
  expectFailure(run(session, {"--volume", path}, kTrue), 115,
                "mirelsnap: " + volume.device() + ": a relocation file could not be made: fchmod(" + directory +
                    "): Operation not permitted; look for MIRELSNAP_SDK in the system log, or use --verbose");
  ASSERT_EQ(test::run({"chattr", "-i", directory}), 0);
  fs::remove(directory);
}

TEST_P(BoundVolume, that_is_snapped_without_a_state_of_memory_is_116_with_the_call_and_its_errno) {
  ASSERT_EQ(mknod((dir / "unreadable").c_str(), S_IFSOCK | 0600, 0), 0);
  expectFailure(session.shell("unshare -m --propagation private sh -c 'mount --bind " + (dir / "unreadable") +
                              " /proc/meminfo; exec " + MIRELSNAP_PROGRAM + " run --volume " + path + " -- true'"),
                116,
                "mirelsnap: " + volume.device() +
                    ": the snapshot could not be prepared: open(/proc/meminfo): No such device or address; look for "
                    "MIRELSNAP_SDK in the system log, or use --verbose");
}

TEST_P(BoundVolume, whose_snapshot_cannot_be_mounted_is_117_with_the_call_and_its_errno) {
  const std::string base = dir / "base";
  expectFailure(
      run(session, {"--volume", path, "--base", base}, kTrue, {.environment = test::withMischief("no-mount")}), 117,
      "mirelsnap: " + base + ": the snapshots could not be mounted there: mount(" + base + path +
          "): Operation not permitted; look for mirelsnap in the system log, or use --verbose");
  EXPECT_FALSE(fs::exists(base));
}

}  // namespace
