// SPDX-License-Identifier: Apache-2.0
//
// What a relocation file that could not be placed or made is told to have failed for: the call and its errno, or what
// was refused, once.
#include <fcntl.h>
#include <sys/mount.h>

#include <cerrno>

#include "RelocTest.h"
#include "base/Causes.h"

namespace test {
namespace {

namespace fs = std::filesystem;

class RelocCauses : public RelocTest {
 protected:
  RelocCauses() { takeCauses(); }

  static Lines causes() {
    Lines texts;
    for (const Cause& cause : takeCauses()) texts.push_back(cause.text());
    return texts;
  }
  // Those of a request for one volume.
  Lines causesOf(const std::string& device, unsigned int size = 0, const std::string& mountPoint = "") {
    std::list<SnapVolumeInformation> volumes;
    volumes.emplace_back(512, 100000, std::wstring(device.begin(), device.end()), size,
                         std::wstring(mountPoint.begin(), mountPoint.end()), false, true, 0);
    EXPECT_EQ(singleton->deduceRelocLocations(&volumes, 1000), 10);
    return causes();
  }
};

TEST_F(RelocCauses, of_a_volume_that_cannot_be_written_to_are_the_probes_call_and_not_those_of_other_volumes) {
  const std::string device = machine.device("a");
  const std::string folder = machine.mount(device, {10000, 5000});
  machine.makeReadOnly(folder);
  machine.makeReadOnly(machine.mount(machine.device("b"), {10000, 5000}));
  EXPECT_EQ(causesOf(device), Lines{"open(" + folder + "/qorTESTfile.KQTA): Read-only file system"});
}

TEST_F(RelocCauses, of_a_volume_with_a_planted_thing_are_that) {
  const std::string device = machine.device("a");
  const std::string folder = machine.mount(device, {10000, 5000});
  fs::create_symlink("/nothing", folder + "/qorTESTfile.KQTA");
  EXPECT_EQ(causesOf(device), Lines{folder + "/qorTESTfile.KQTA: is a symbolic link"});
  fs::remove(folder + "/qorTESTfile.KQTA");
  fs::create_symlink("/nothing", folder + "/.verrelocarea");
  EXPECT_EQ(causesOf(device), Lines{folder + "/.verrelocarea: is a symbolic link"});
  fs::remove(folder + "/.verrelocarea");
}

TEST_F(RelocCauses, of_a_volume_whose_file_goes_elsewhere_are_none) {
  const std::string device = machine.device("a");
  machine.makeReadOnly(machine.mount(device, {10000, 5000}));
  const std::string other = machine.mount(machine.device("b"), {10000, 5000});
  std::list<SnapVolumeInformation> volumes;
  volumes.emplace_back(512, 100000, std::wstring(device.begin(), device.end()), 0, L"", false, true, 0);
  EXPECT_EQ(singleton->deduceRelocLocations(&volumes, 1000), 0);
  EXPECT_EQ(causes(), Lines());
  singleton->cleanRelocFiles(&volumes);
}

TEST_F(RelocCauses, of_a_chosen_mount_are_the_call_that_failed) {
  const std::string device = machine.device("a");
  const std::string chosen = machine.mount(machine.device("b"), {10000, 5000});
  EXPECT_EQ(causesOf(device, 10, "/nowhere"), Lines{"realpath(/nowhere): No such file or directory"});
  EXPECT_EQ(causesOf(device, 0, "/nowhere"), Lines{"realpath(/nowhere): No such file or directory"});
  machine.hideSizes(chosen);
  EXPECT_EQ(causesOf(device, 10, chosen), Lines{"statfs(" + chosen + "): Input/output error"});
  EXPECT_EQ(causesOf(device, 0, chosen), Lines{"statfs(" + chosen + "): Input/output error"});
  machine.makeReadOnly(chosen);
  EXPECT_EQ(causesOf(device, 10, chosen), Lines{"open(" + chosen + "/qorTESTfile.KQTA): Read-only file system"});
}

class FileCauses : public RelocCauses {
 protected:
  FileCauses() : area(top / ".verrelocarea"), file(area + "/a"), reloc("/dev/a", 512, 10, "", 1000) {
    reloc.mRelocDirName = area;
    reloc.mRelocFileName = file;
  }
  Lines causesOfMaking() {
    EXPECT_EQ(reloc.CreateRelocFile(), 18u);
    return causes();
  }

  const TempDir top;
  const std::string area;
  const std::string file;
  LinuxSnapshotreloc reloc;
};

TEST_F(FileCauses, name_the_way_to_the_directory_the_directory_and_the_file_each_by_its_own_call) {
  reloc.mRelocDirName = "/nowhere/.verrelocarea";
  EXPECT_EQ(causesOfMaking(), Lines{"open(/nowhere): No such file or directory"});
  reloc.mRelocDirName = area;
  {
    const Mounted readOnly("readonly", top.path(), "tmpfs", MS_RDONLY);
    EXPECT_EQ(causesOfMaking(), Lines{"mkdir(" + area + "): Read-only file system"});
  }
  hooks.open = [this](const char* path, int, mode_t) { return path == file ? EDQUOT : 0; };
  EXPECT_EQ(causesOfMaking(), Lines{"open(" + file + "): Disk quota exceeded"});
}

TEST_F(FileCauses, name_a_refused_thing_once) {
  fs::create_directory_symlink("/nowhere", area);
  EXPECT_EQ(causesOfMaking(), Lines{area + ": is a symbolic link"});
  fs::remove(area);
  fs::create_directory(area);
  fs::create_symlink("/nowhere", file);
  EXPECT_EQ(causesOfMaking(), Lines{file + ": is a symbolic link"});
}

TEST_F(FileCauses, name_the_write_and_the_allocation_that_failed) {
  hooks.posixFallocate = [](int, off_t, off_t) { return ENOSPC; };
  hooks.write = [](int, const void*, size_t) -> std::optional<ssize_t> {
    errno = ENOSPC;
    return -1;
  };
  EXPECT_EQ(causesOfMaking(), (Lines{"write(" + file + "): No space left on device",
                                     "posix_fallocate(" + file + "): No space left on device"}));
  EXPECT_FALSE(fs::exists(file));
}

// The name could lead elsewhere by then.
TEST_F(FileCauses, a_file_that_could_not_be_written_is_removed_where_it_was_made) {
  hooks.posixFallocate = [](int, off_t, off_t) { return ENOSPC; };
  hooks.write = [this](int, const void*, size_t) -> std::optional<ssize_t> {
    fs::rename(area, top / "away");
    fs::create_directory(area);
    writeFile(file, "another");
    errno = ENOSPC;
    return -1;
  };
  EXPECT_EQ(reloc.CreateRelocFile(), 18u);
  EXPECT_TRUE(fs::exists(file));
  EXPECT_FALSE(fs::exists(top / "away/a"));
}

}  // namespace
}  // namespace test
