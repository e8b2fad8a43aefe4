// SPDX-License-Identifier: Apache-2.0
//
// Whether a file lies on a block device.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "Files.h"
#include "LoopVolume.h"
#include "World.h"
#include "driver/LinuxSnapLib.h"

namespace fs = std::filesystem;

namespace {

// A volume with a relocation file below its top.
class InPartitionRelocFile : public testing::Test {
 protected:
  InPartitionRelocFile() : volume("ext4", 16 << 20), file(volume.folder() + "/.verrelocarea/sdb1") {
    fs::create_directory(volume.folder() + "/.verrelocarea");
    test::writeOut(file, 4096);
  }

  std::string mountLine(const std::string& device, const std::string& folder) const {
    return device + " " + folder + " ext4 rw 0 0\n";
  }

  test::Volume volume;
  const std::string file;
};

}  // namespace

TEST_F(InPartitionRelocFile, a_file_lies_on_the_device_that_its_file_system_is_mounted_from) {
  EXPECT_TRUE(inPartitionRelocFile(file, volume.device()));
}

TEST_F(InPartitionRelocFile, the_mount_point_itself_lies_on_its_device) {
  EXPECT_TRUE(inPartitionRelocFile(volume.folder(), volume.device()));
}

TEST_F(InPartitionRelocFile, a_file_does_not_lie_on_another_device) {
  const test::Volume other("ext4", 16 << 20);
  EXPECT_FALSE(inPartitionRelocFile(file, other.device()));
  EXPECT_FALSE(inPartitionRelocFile(file, "/dev/null"));
}

TEST_F(InPartitionRelocFile, a_device_that_does_not_exist_holds_no_file) {
  EXPECT_FALSE(inPartitionRelocFile(file, "/dev/missing"));
  EXPECT_FALSE(inPartitionRelocFile(file, ""));
}

TEST_F(InPartitionRelocFile, a_symbolic_link_names_the_device_that_it_leads_to) {
  const test::TempDir folder;
  const std::string link = folder / "volume";
  fs::create_symlink(volume.device(), link);
  EXPECT_TRUE(inPartitionRelocFile(file, link));
}

TEST_F(InPartitionRelocFile, a_mount_entry_may_name_the_device_by_a_symbolic_link) {
  const test::TempDir folder;
  const std::string link = folder / "volume";
  fs::create_symlink(volume.device(), link);
  const test::ProcFile mounts("mounts", mountLine(link, volume.folder()));
  EXPECT_TRUE(inPartitionRelocFile(file, volume.device()));
}

TEST_F(InPartitionRelocFile, another_node_of_the_same_number_names_the_device) {
  const test::Node node("/dev/other", S_IFBLK, volume.loop().major(), volume.loop().minor());
  EXPECT_TRUE(inPartitionRelocFile(file, node.path()));
  const test::ProcFile mounts("mounts", mountLine(node.path(), volume.folder()));
  EXPECT_TRUE(inPartitionRelocFile(file, volume.device()));
}

TEST_F(InPartitionRelocFile, a_character_device_of_the_same_number_is_another_device) {
  const test::Node node("/dev/other", S_IFCHR, volume.loop().major(), volume.loop().minor());
  EXPECT_FALSE(inPartitionRelocFile(file, node.path()));
}

TEST_F(InPartitionRelocFile, one_resolved_name_suffices_where_there_is_no_block_device) {
  const test::TempDir folder;
  test::writeFile(folder / "export", "");
  const test::ProcFile mounts("mounts", mountLine(folder / "export", volume.folder()));
  EXPECT_TRUE(inPartitionRelocFile(file, folder / "export"));
}

TEST_F(InPartitionRelocFile, a_path_is_resolved_before_the_search) {
  const test::TempDir folder;
  fs::create_directory_symlink(volume.folder(), folder / "link");
  EXPECT_TRUE(inPartitionRelocFile(folder / "link/.verrelocarea/../.verrelocarea/sdb1", volume.device()));
}

TEST_F(InPartitionRelocFile, a_path_that_cannot_be_resolved_lies_on_no_device) {
  EXPECT_FALSE(inPartitionRelocFile(volume.folder() + "/vanished", volume.device()));
  EXPECT_FALSE(inPartitionRelocFile("relative/vanished", volume.device()));
  EXPECT_FALSE(inPartitionRelocFile("", volume.device()));
}

// The contract: the search goes on above a mount of another device.
TEST_F(InPartitionRelocFile, a_file_below_a_nested_mount_also_lies_on_the_device_around_it) {
  const std::string inside = volume.folder() + "/inside";
  fs::create_directory(inside);
  const test::LoopDevice inner(16 << 20);
  inner.mkfs("ext4");
  const test::Mounted mounted(inner.path(), inside, "ext4");
  test::writeOut(inside + "/file", 4096);
  EXPECT_TRUE(inPartitionRelocFile(inside + "/file", inner.path()));
  EXPECT_TRUE(inPartitionRelocFile(inside + "/file", volume.device()));
  EXPECT_FALSE(inPartitionRelocFile(file, inner.path()));
}

TEST_F(InPartitionRelocFile, each_of_several_mounts_on_one_folder_counts) {
  const test::LoopDevice other(1 << 20);
  const test::ProcFile mounts("mounts", "rootfs " + volume.folder() + " rootfs rw 0 0\n" +
                                            mountLine(volume.device(), volume.folder()) +
                                            mountLine(other.path(), volume.folder()));
  EXPECT_TRUE(inPartitionRelocFile(file, volume.device()));
  EXPECT_TRUE(inPartitionRelocFile(file, other.path()));
}

TEST_F(InPartitionRelocFile, the_search_ends_with_the_root_folder) {
  const test::ProcFile root("mounts", mountLine(volume.device(), "/"));
  EXPECT_TRUE(inPartitionRelocFile(file, volume.device()));
  EXPECT_TRUE(inPartitionRelocFile("/", volume.device()));
}

TEST_F(InPartitionRelocFile, a_mount_elsewhere_is_not_found_however_its_name_begins) {
  const test::ProcFile mounts("mounts", mountLine(volume.device(), volume.folder() + "/.verrelocarea/sdb") +
                                            mountLine(volume.device(), volume.folder().substr(1)));
  EXPECT_FALSE(inPartitionRelocFile(file, volume.device()));
}

TEST_F(InPartitionRelocFile, without_a_mount_table_a_file_lies_on_no_device) {
  const test::ProcFile mounts("mounts");
  EXPECT_FALSE(inPartitionRelocFile(file, volume.device()));
}

TEST_F(InPartitionRelocFile, a_mount_point_with_blanks_backslashes_and_hashes_is_found) {
  const test::TempDir folder;
  const std::string odd = folder / "a b\tc\\d#e";
  fs::create_directory(odd);
  const test::Mounted mounted(volume.device(), odd, "ext4");
  EXPECT_TRUE(inPartitionRelocFile(odd + "/.verrelocarea/sdb1", volume.device()));
}

TEST_F(InPartitionRelocFile, a_mount_point_as_long_as_a_path_may_be_is_found) {
  std::string folder = volume.folder();
  std::string escaped = folder;
  while (folder.size() < 3700) {
    const std::size_t blanks = 250;
    folder += "/" + std::string(blanks, ' ');
    escaped += "/";
    for (std::size_t i = 0; i < blanks; ++i) escaped += "\\040";
    fs::create_directory(folder);
  }
  const test::LoopDevice other(1 << 20);
  const test::ProcFile mounts("mounts", mountLine("/dev/missing", "/elsewhere") + mountLine(other.path(), escaped));
  EXPECT_TRUE(inPartitionRelocFile(folder, other.path()));
}
