// SPDX-License-Identifier: Apache-2.0
//
// examples/changed-blocks: the image that it keeps is what the device is.
#ifdef CHANGED_BLOCKS_PROGRAM

#include <gmock/gmock.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include <filesystem>
#include <ostream>
#include <regex>

#include "BlockDifference.h"
#include "LoopVolume.h"
#include "Tree.h"
#include "Waiting.h"

namespace {

using test::DriverClient;
using test::Session;
using test::Volume;
using testing::HasSubstr;

constexpr char kUsage[] = "Usage: changed-blocks [--reloc-mount DIR] DEVICE IMAGE -- COMMAND [ARG...]\n";

// The number in front of `what`.
std::uint64_t numberBefore(const std::string& what, const std::string& text) {
  std::smatch found;
  return std::regex_search(text, found, std::regex("([0-9]+) " + what)) ? std::stoull(found[1]) : 0;
}

struct Kind {
  const char* name;
  const char* type;
  std::uint64_t bytes;
  std::vector<std::string> options;
};

void PrintTo(const Kind& kind, std::ostream* out) { *out << kind.name; }

class ChangedBlocks : public testing::TestWithParam<Kind> {};

// The command waits until the test has changed the volume and frozen it: so the device stands still behind the
// program's end, too.
TEST_P(ChangedBlocks, copies_what_changed_and_the_image_equals_the_device) {
  const Volume volume(GetParam().type, GetParam().bytes, GetParam().options), relocation("ext4", 64 << 20);
  test::plantTree(volume.folder());
  const test::TempDir folder;
  const std::string image = folder / "image";
  Session session;
  DriverClient client(session);
  test::Process program =
      session.start({CHANGED_BLOCKS_PROGRAM, "--reloc-mount", relocation.folder(), volume.device(), image, "--",
                     "/bin/sh", "-c", "cd " + folder.path() + "; : > waiting; until test -e go; do sleep 0.01; done"});
  ASSERT_TRUE(test::comesTrue([&] { return std::filesystem::exists(folder / "waiting"); })) << program.errors();
  const std::string first = test::wholeOf(image, 0);
  EXPECT_EQ(first.size(), GetParam().bytes);
  test::disturbTree(volume.folder());
  ASSERT_EQ(client.freeze({volume.device()}), 0u);
  test::writeFile(folder / "go", "");
  EXPECT_EQ(program.wait(), 0) << program.errors();

  const std::string live = test::wholeOf(volume.device());
  EXPECT_NE(first, live);
  EXPECT_TRUE(test::wholeOf(image, 0) == live);
  const auto changed = test::differingRuns(first, live, 4096);
  std::uint64_t bytes = 0;
  for (const DriverClient::Run& run : changed) bytes += run.blocks * 4096;
  EXPECT_EQ(numberBefore("changed runs", program.output()), changed.size());
  EXPECT_EQ(numberBefore("of", program.output()), bytes) << "just the changed blocks were copied";
  EXPECT_EQ(numberBefore("bytes copied", program.output()), GetParam().bytes);
  EXPECT_THAT(session.takeComplaints(1), testing::ElementsAre(HasSubstr("is frozen already")));
  EXPECT_EQ(client.thaw({volume.device()}), 0u) << "it leaves frozen what it found frozen";
}

INSTANTIATE_TEST_SUITE_P(FileSystems, ChangedBlocks,
                         testing::Values(Kind{"ext4", "ext4", 64 << 20, {"-b", "4096"}},
                                         Kind{"xfs", "xfs", 300 << 20, {}}),
                         [](const testing::TestParamInfo<Kind>& kind) { return kind.param.name; });

TEST(ChangedBlocksAlone, freezes_and_thaws_the_volume_itself_and_the_image_mounts_with_its_files) {
  const Volume volume("ext4", 64 << 20);
  test::plantTree(volume.folder());
  const std::string gone = volume.folder() + "/letter";
  test::writeFile(gone, "it goes");
  test::LoopDevice image(64 << 20);
  Session session;
  const test::Ended ended = session.run({CHANGED_BLOCKS_PROGRAM, volume.device(), image.image(), "--", "/bin/sh", "-c",
                                         "echo new > " + volume.folder() + "/new; rm " + gone});
  EXPECT_EQ(ended.code, 0) << ended.errors;
  EXPECT_GT(numberBefore("changed runs", ended.output), 0u) << ended.output;
  const test::TempDir folder;
  const test::Mounted mounted(image.path(), folder.path(), "ext4", MS_RDONLY);
  EXPECT_EQ(test::Tree(folder.path()).difference(test::Tree(volume.folder())), "");
  EXPECT_EQ(session.trace("freeze").size(), 1u);
  EXPECT_EQ(session.trace("thaw").size(), 1u);
}

TEST(ChangedBlocksAlone, removes_its_snapshot_when_the_command_fails) {
  const Volume volume("ext4", 32 << 20);
  const test::TempDir folder;
  Session session;
  const test::Ended ended =
      session.run({CHANGED_BLOCKS_PROGRAM, volume.device(), folder / "image", "--", "/bin/false"});
  EXPECT_EQ(ended.code, 1);
  EXPECT_EQ(ended.errors, "changed-blocks: /bin/false failed\n");
  EXPECT_EQ(session.trace("discard").size(), 1u);
  EXPECT_TRUE(session.trace("freeze").empty());
}

TEST(ChangedBlocksAlone, ends_when_the_driver_never_comes_to_an_end) {
  const Volume volume("ext4", 32 << 20);
  const test::TempDir folder;
  Session session;
  const auto errorsOf = [&](const std::string& mischief) {
    const test::Ended ended =
        session.run({CHANGED_BLOCKS_PROGRAM, volume.device(), folder / "image", "--", "/bin/true"},
                    {.environment = test::withMischief(mischief)});
    EXPECT_EQ(ended.code, 1);
    return ended.errors;
  };
  EXPECT_EQ(errorsOf("no-more-runs"),
            "changed-blocks: the driver has more changed runs of " + volume.device() + " but tells none\n");
  EXPECT_EQ(errorsOf("same-run"), "changed-blocks: the driver's changed runs of " + volume.device() + " do not rise\n");
}

TEST(ChangedBlocksAlone, refuses_an_image_on_the_volume_and_a_device_that_is_not_mounted_before_any_snapshot) {
  const Volume volume("ext4", 32 << 20);
  const test::LoopDevice unmounted(32 << 20);
  const test::TempDir folder;
  Session session;
  const std::string inside = volume.folder() + "/image";
  test::Ended ended = session.run({CHANGED_BLOCKS_PROGRAM, volume.device(), inside, "--", "/bin/true"});
  EXPECT_EQ(ended.code, 1);
  EXPECT_EQ(ended.errors, "changed-blocks: " + inside + " lies on the volume itself\n");
  ended = session.run({CHANGED_BLOCKS_PROGRAM, unmounted.path(), folder / "image", "--", "/bin/true"});
  EXPECT_EQ(ended.code, 1);
  EXPECT_EQ(ended.errors, "changed-blocks: " + unmounted.path() + " is not mounted\n");
  EXPECT_TRUE(session.trace("snap").empty());
}

TEST(ChangedBlocksAlone, says_how_it_is_called) {
  Session session = Session::withoutDriver();
  for (const std::vector<std::string>& arguments : {std::vector<std::string>{},
                                                    {"/dev/x", "/image"},
                                                    {"/dev/x", "/image", "--"},
                                                    {"--reloc-mount", "/", "/dev/x"}}) {
    std::vector<std::string> command = {CHANGED_BLOCKS_PROGRAM};
    command.insert(command.end(), arguments.begin(), arguments.end());
    const test::Ended ended = session.run(command);
    EXPECT_EQ(ended.code, 2);
    EXPECT_EQ(ended.errors, kUsage);
  }
}

}  // namespace

#endif
