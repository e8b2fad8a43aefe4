// SPDX-License-Identifier: Apache-2.0
//
// What a user, or a medium of his, has in the place of a relocation file or of its directory: it is refused, told of by
// one line, and never touched.
#include <fcntl.h>
#include <grp.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "OwnWorld.h"
#include "RelocTest.h"
#include "base/Handle.h"
#include "reloc/RelocationFileRemoval.h"
#include "reloc/RelocationForecast.h"

namespace test {
namespace {

namespace fs = std::filesystem;

constexpr uid_t kUser = 1000;

// A file system of which `area` is the place for relocation files, and what lies elsewhere and must stay as it is.
class Planted : public RelocTest {
 protected:
  Planted()
      : area(top / ".verrelocarea"),
        file(area + "/a"),
        victim(elsewhere / "victim"),
        reloc("/dev/a", 512, 10, "", 1000) {
    reloc.mRelocDirName = area;
    reloc.mRelocFileName = file;
    writeFile(victim, "content");
    log.clear();
  }

  static std::string notUsed(const std::string& path, const std::string& why) {
    return path + " is not used: it " + why + ".\n";
  }
  // The line that names `path`, which is the only one of its kind.
  void expectTold(const std::string& path, const std::string& why) {
    std::vector<std::string> told;
    for (const std::string& text : log.texts(LOG_ERR)) {
      if (text.find(" is not used: ") != std::string::npos) told.push_back(text);
    }
    EXPECT_EQ(told, Lines{notUsed(path, why)});
    log.clear();
  }
  // Every operation on the file answers as for one that cannot be used, tells why, and leaves it there.
  void expectRefused(const std::string& path, const std::string& why, int error = EACCES) {
    struct stat before {};
    struct stat after {};
    ASSERT_EQ(lstat(path.c_str(), &before), 0);
    log.clear();
    EXPECT_EQ(reloc.CreateRelocFile(), 18u);
    EXPECT_EQ(log.texts(LOG_ERR).back(), "Unable to create the directory.\n");
    expectTold(path, why);
    EXPECT_FALSE(reloc.IsRelocFileExists());
    expectTold(path, why);
    EXPECT_FALSE(reloc.DeleteRelocFile());
    expectTold(path, why);
    DoomedRelocFile(file).remove();
    EXPECT_EQ(log.texts(LOG_INFO),
              Lines{"RelocFile " + file + " deletion failed, errno: " + std::to_string(error) + ".\n"});
    expectTold(path, why);
    ASSERT_EQ(lstat(path.c_str(), &after), 0);
    EXPECT_EQ(after.st_ino, before.st_ino);
    EXPECT_EQ(after.st_mode, before.st_mode);
    EXPECT_EQ(readFile(victim), "content");
  }

  const TempDir top;
  const TempDir elsewhere;
  const std::string area;
  const std::string file;
  const std::string victim;
  LinuxSnapshotreloc reloc;
};

// --- In the place of the file.

class PlantedFile : public Planted {
 protected:
  PlantedFile() { fs::create_directory(area); }
};

TEST_F(PlantedFile, that_is_a_link_is_neither_followed_nor_removed) {
  fs::create_symlink(victim, file);
  expectRefused(file, "is a symbolic link");
}

TEST_F(PlantedFile, that_is_a_link_to_nothing_makes_nothing) {
  fs::create_symlink(elsewhere / "nothing", file);
  expectRefused(file, "is a symbolic link");
  EXPECT_FALSE(fs::exists(elsewhere / "nothing"));
}

TEST_F(PlantedFile, that_is_a_second_name_of_a_file_is_refused) {
  writeFile(top / "file", "content");
  fs::create_hard_link(top / "file", file);
  expectRefused(file, "has 2 links");
  EXPECT_EQ(readFile(top / "file"), "content");
}

TEST_F(PlantedFile, that_is_a_FIFO_is_refused_without_waiting_for_its_other_end) {
  ASSERT_EQ(mkfifo(file.c_str(), 0666), 0);
  expectRefused(file, "is a FIFO");
}

TEST_F(PlantedFile, that_is_a_socket_or_a_device_is_never_opened) {
  ASSERT_EQ(mknod(file.c_str(), S_IFSOCK | 0666, 0), 0);
  expectRefused(file, "is a socket");
  fs::remove(file);
  ASSERT_EQ(mknod(file.c_str(), S_IFCHR | 0666, makedev(1, 3)), 0);
  hooks.open = [this](const char* path, int, mode_t) {
    EXPECT_NE(path, file);
    return 0;
  };
  expectRefused(file, "is a character device");
  fs::remove(file);
  ASSERT_EQ(mknod(file.c_str(), S_IFBLK | 0666, makedev(7, 255)), 0);
  expectRefused(file, "is a block device");
}

TEST_F(PlantedFile, of_a_user_is_refused) {
  writeFile(file, "his");
  ASSERT_EQ(chown(file.c_str(), kUser, kUser), 0);
  expectRefused(file, "belongs to user 1000, not root");
  EXPECT_EQ(readFile(file), "his");
}

TEST_F(PlantedFile, on_which_another_file_system_is_mounted_is_refused) {
  writeFile(file, "");
  const Mounted mounted("/dev/null", file, "", MS_BIND);
  expectRefused(file, "is a character device");
}

// Whoever opened what an earlier run left sees nothing of the new file.
TEST_F(PlantedFile, that_an_earlier_run_left_is_rebuilt_as_a_file_of_its_own) {
  writeFile(file, "old");
  const UniqueFd reader(open(file.c_str(), O_RDONLY | O_CLOEXEC));
  EXPECT_EQ(reloc.CreateRelocFile(), 0u);
  struct stat old {};
  ASSERT_EQ(fstat(reader.get(), &old), 0);
  EXPECT_EQ(old.st_nlink, 0u);
  EXPECT_EQ(old.st_size, 3);
  EXPECT_EQ(fs::file_size(file), 5120u);
}

TEST_F(PlantedFile, is_listed_as_whatever_the_directory_holds_is) {
  const std::string mountPoint = machine.mount(machine.device("m"), {1, 1});
  const std::string there = mountPoint + "/.verrelocarea";
  fs::create_directory(there);
  fs::create_symlink(victim, there + "/link");
  writeFile(there + "/own", "");
  log.clear();
  std::list<std::string> files;
  EXPECT_EQ(reloc.GetAllRelocationFiles(files), 0u);
  files.sort();
  EXPECT_EQ(files, (std::list<std::string>{there + "/link", there + "/own"}));
  removeTree(there);
}

// --- In the place of the directory.

class PlantedDirectory : public Planted {};

TEST_F(PlantedDirectory, that_is_a_link_leads_nowhere) {
  writeFile(elsewhere / "a", "content");
  fs::create_directory_symlink(elsewhere.path(), area);
  expectRefused(area, "is a symbolic link", ELOOP);
  EXPECT_EQ(readFile(elsewhere / "a"), "content");
}

TEST_F(PlantedDirectory, that_is_a_link_to_nothing_makes_nothing) {
  fs::create_directory_symlink(elsewhere / "nothing", area);
  expectRefused(area, "is a symbolic link", ELOOP);
  EXPECT_FALSE(fs::exists(elsewhere / "nothing"));
}

TEST_F(PlantedDirectory, that_is_a_file_or_a_FIFO_is_refused) {
  writeFile(area, "");
  expectRefused(area, "is a file", ENOTDIR);
  fs::remove(area);
  ASSERT_EQ(mkfifo(area.c_str(), 0666), 0);
  expectRefused(area, "is a FIFO", ENOTDIR);
}

TEST_F(PlantedDirectory, of_a_user_is_refused_whatever_is_in_it) {
  fs::create_directory(area);
  writeFile(file, "");
  ASSERT_EQ(chown(area.c_str(), kUser, kUser), 0);
  expectRefused(area, "belongs to user 1000, not root");
  EXPECT_TRUE(fs::exists(file));
}

TEST_F(PlantedDirectory, that_others_may_write_to_is_refused) {
  for (const mode_t mode : {0620, 0602, 01777}) {
    fs::create_directory(area);
    ASSERT_EQ(chmod(area.c_str(), mode), 0);
    expectRefused(area, "may be written to by others than root");
    fs::remove(area);
  }
}

TEST_F(PlantedDirectory, on_which_something_is_mounted_is_refused) {
  fs::create_directory(area);
  {
    const Mounted mounted("other", area, "tmpfs");
    expectRefused(area, "is a mount point", EXDEV);
  }
  fs::create_directory(top / "bound");
  const Mounted bound(top / "bound", area, "", MS_BIND);
  expectRefused(area, "is a mount point", EXDEV);
}

// The owner of the top may rename in it what is root's.
TEST_F(PlantedDirectory, that_may_be_a_renamed_one_of_roots_is_refused) {
  const std::string why = "may be another directory of root's that a user renamed: it can be searched";
  ASSERT_EQ(chown(top.path().c_str(), kUser, kUser), 0);
  fs::create_directory(area);
  writeFile(file, "roots own");
  expectRefused(area, why);
  EXPECT_EQ(readFile(file), "roots own");
  ASSERT_EQ(chown(top.path().c_str(), 0, 0), 0);
  ASSERT_EQ(chmod(top.path().c_str(), 0777), 0);
  expectRefused(area, why);
}

TEST_F(PlantedDirectory, of_root_below_a_sticky_top_is_nobody_elses) {
  ASSERT_EQ(chmod(top.path().c_str(), 01777), 0);
  fs::create_directory(area);
  writeFile(file, "left");
  EXPECT_EQ(reloc.CreateRelocFile(), 0u);
}

TEST_F(PlantedDirectory, without_search_bits_is_ours_also_below_the_top_of_a_user) {
  ASSERT_EQ(chown(top.path().c_str(), kUser, kUser), 0);
  EXPECT_EQ(reloc.CreateRelocFile(), 0u);
  ASSERT_EQ(chmod(area.c_str(), 0644), 0);  // as it is made, before it is closed
  EXPECT_EQ(reloc.CreateRelocFile(), 0u);
  struct stat status {};
  ASSERT_EQ(stat(area.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode, S_IFDIR | 0600u);
  EXPECT_TRUE(reloc.DeleteRelocFile());
}

TEST_F(PlantedDirectory, behind_a_link_on_the_way_is_refused_and_nothing_is_made) {
  fs::create_directory_symlink(elsewhere.path(), top / "link");
  reloc.mRelocDirName = top / "link/.verrelocarea";
  reloc.mRelocFileName = reloc.mRelocDirName + "/a";
  log.clear();
  EXPECT_EQ(reloc.CreateRelocFile(), 18u);
  expectTold(reloc.mRelocDirName, "is reached through a symbolic link");
  EXPECT_FALSE(fs::exists(elsewhere / ".verrelocarea"));
}

TEST_F(PlantedDirectory, of_a_mounted_file_system_is_passed_over_by_the_listing) {
  const std::string user = machine.mount(machine.device("m"), {1, 1});
  const std::string link = machine.mount(machine.device("n"), {1, 1});
  fs::create_directory(user + "/.verrelocarea");
  writeFile(user + "/.verrelocarea/his", "");
  ASSERT_EQ(chown((user + "/.verrelocarea").c_str(), kUser, kUser), 0);
  fs::create_directory_symlink(elsewhere.path(), link + "/.verrelocarea");
  log.clear();
  std::list<std::string> files;
  EXPECT_EQ(reloc.GetAllRelocationFiles(files), 0u);
  EXPECT_EQ(files, std::list<std::string>());
  EXPECT_EQ(log.texts(LOG_ERR), (Lines{notUsed(user + "/.verrelocarea", "belongs to user 1000, not root"),
                                       notUsed(link + "/.verrelocarea", "is a symbolic link")}));
  EXPECT_TRUE(log.has(LOG_DEBUG, "GetAllRelocationFiles: Unable to read directory: " + user + "/.verrelocarea.\n"));
  EXPECT_TRUE(log.has(LOG_DEBUG, "Error 13 opening dir: " + user + "/.verrelocarea.\n"));
  removeTree(user + "/.verrelocarea");
  fs::remove(link + "/.verrelocarea");
}

// --- Read by others.

// The errno with which the user cannot open `path`; 0 when he can.
int openedByUser(const std::string& path) {
  const pid_t child = fork();
  if (child == 0) {
    if (setgroups(0, nullptr) != 0 || setresgid(kUser, kUser, kUser) != 0 || setresuid(kUser, kUser, kUser) != 0) {
      _exit(255);
    }
    _exit(open(path.c_str(), O_RDONLY | O_CLOEXEC) < 0 ? errno : 0);
  }
  int status = 0;
  waitpid(child, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// What is made in a directory gets its default access list: here, everything for the user.
void inheritEverything(const std::string& directory) {
  struct Entry {
    std::uint16_t tag, permissions;
    std::uint32_t id;
  };
  const struct {
    std::uint32_t version = 2;
    // The owner, the user, the group, the mask, others.
    Entry entries[5] = {{1, 7, ~0U}, {2, 7, kUser}, {4, 7, ~0U}, {16, 7, ~0U}, {32, 7, ~0U}};
  } list;
  if (setxattr(directory.c_str(), "system.posix_acl_default", &list, sizeof list, 0) != 0) {
    throw std::runtime_error("no access list on " + directory);
  }
}

TEST_F(Planted, access_lists_that_are_inherited_open_neither_directory_nor_file_to_the_user) {
  const Volume volume("ext4", 8 << 20);
  ASSERT_EQ(chmod(fs::path(volume.folder()).parent_path().c_str(), 0755), 0);
  ASSERT_EQ(chown(volume.folder().c_str(), kUser, kUser), 0);
  inheritEverything(volume.folder());
  writeFile(volume.folder() + "/open", "");
  ASSERT_EQ(openedByUser(volume.folder() + "/open"), 0) << "the list is at work";
  reloc.mRelocDirName = volume.folder() + "/.verrelocarea";
  reloc.mRelocFileName = reloc.mRelocDirName + "/a";
  ASSERT_EQ(reloc.CreateRelocFile(), 0u);
  EXPECT_EQ(openedByUser(reloc.mRelocDirName), EACCES);
  EXPECT_EQ(openedByUser(reloc.mRelocFileName), EACCES);
  ASSERT_EQ(chmod(reloc.mRelocDirName.c_str(), 0755), 0);  // the file by itself
  EXPECT_EQ(openedByUser(reloc.mRelocFileName), EACCES);
}

// --- On another file system than was chosen.

TEST_F(Planted, what_is_mounted_on_the_folder_since_it_was_chosen_gets_no_file) {
  const Volume chosen("ext4", 8 << 20);
  const Volume other("ext4", 8 << 20);
  reloc.mRelocDeviceName = chosen.device();
  reloc.mRelocDirName = other.folder() + "/.verrelocarea";
  reloc.mRelocFileName = reloc.mRelocDirName + "/a";
  log.clear();
  EXPECT_EQ(reloc.CreateRelocFile(), 18u);
  expectTold(reloc.mRelocDirName, "would lie on another file system");
  EXPECT_FALSE(fs::exists(reloc.mRelocDirName));
  reloc.mRelocDeviceName = other.device();
  EXPECT_EQ(reloc.CreateRelocFile(), 0u);
}

TEST_F(Planted, a_mount_point_that_is_covered_by_another_mount_holds_no_file) {
  const Volume own("ext4", 8 << 20);
  const Volume covered("ext4", 64 << 20);
  const Volume open("ext4", 32 << 20);
  machine.list(covered.device(), covered.folder());
  machine.list(open.device(), open.folder());
  const Mounted cover(open.folder(), covered.folder(), "", MS_BIND);
  LinuxSnapshotreloc other(own.device(), 1024, 100000UL, 1000UL);
  log.clear();
  EXPECT_EQ(other.initialize(), 0u);
  EXPECT_EQ(other.mVolMountPoint, open.folder());
  expectTold(covered.folder(), "is covered by another mount");
  LinuxSnapshotreloc itself(covered.device(), 1024, 100000UL, 1000UL);
  EXPECT_EQ(itself.initialize(), 0u);
  EXPECT_EQ(itself.mReasons.ownVolume, OwnVolume::kNotWritable);
  EXPECT_EQ(itself.mVolMountPoint, open.folder());
  expectTold(covered.folder(), "is covered by another mount");
  LinuxSnapshotreloc chosen(own.device(), 1024, 10, covered.folder(), 1000);
  EXPECT_EQ(chosen.validate(), 17u);
  EXPECT_EQ(chosen.mReasons.chosenMount, ChosenMount::kNotWritable);
  expectTold(covered.folder(), "is covered by another mount");
}

// --- On a file system that keeps no modes, as FAT, whose files have the mode that it was mounted with.

struct NoModesCase {
  const char* name;
  mode_t fmask, dmask;
  uid_t owner;
  const char* told;  // nothing: it is root's alone
};

constexpr char kOpen[] = "is open to others, and the file system keeps no modes";
constexpr NoModesCase kNoModesCases[] = {
    {"umask_077", 0077, 0077, 0, nullptr},
    {"umask_022", 0022, 0022, 0, kOpen},
    {"open_files_in_closed_folders", 0022, 0077, 0, kOpen},
    {"files_that_others_may_execute", 0066, 0077, 0, kOpen},
    {"closed_files_in_open_folders", 0077, 0022, 0, kOpen},
    {"the_files_of_a_user", 0077, 0077, kUser, "belongs to user 1000, not root"},
};
void PrintTo(const NoModesCase& entry, std::ostream* out) { *out << entry.name; }

class NoModes : public Planted, public testing::WithParamInterface<NoModesCase> {
 protected:
  NoModes() : device(machine.device("fat")), folder(machine.mount(device, {10000, 5000})) {
    const NoModesCase& mounted = GetParam();
    char line[4096];
    std::snprintf(line, sizeof line, "%s %s vfat rw,fmask=%04o,dmask=%04o 0 0\n", device.c_str(), folder.c_str(),
                  mounted.fmask, mounted.dmask);
    writeFile("/proc/mounts", line);
    EXPECT_EQ(chmod(folder.c_str(), 0777 & ~mounted.dmask), 0);
    EXPECT_EQ(chown(folder.c_str(), mounted.owner, mounted.owner), 0);
    hooks.modeOfAllFiles = 0777 & ~mounted.fmask;
    log.clear();
  }
  OwnVolume expected() const { return GetParam().told == nullptr ? OwnVolume::kFits : OwnVolume::kNotWritable; }
  // The line of the file system, or of what is made there; nothing more.
  void expectToldIfRefused() {
    Lines told;
    for (const std::string& text : log.texts(LOG_ERR)) {
      if (text.find(" is not used: ") != std::string::npos) told.push_back(text);
    }
    ASSERT_EQ(told.size(), GetParam().told == nullptr ? 0U : 1U) << log.dump();
    for (const std::string& line : told) {
      EXPECT_TRUE(line.starts_with(folder + " is not used: it ")) << line;
      EXPECT_TRUE(line.ends_with(GetParam().told + std::string(".\n"))) << line;
    }
    log.clear();
  }

  const std::string device;
  const std::string folder;
};
INSTANTIATE_TEST_SUITE_P(MountedWith, NoModes, testing::ValuesIn(kNoModesCases),
                         [](const auto& entry) { return std::string(entry.param.name); });

TEST_P(NoModes, the_forecast_sees_whether_files_are_roots_alone_as_the_placement_does) {
  std::list<SnapVolumeInformation> volumes;
  volumes.emplace_back(512, 100000, std::wstring(device.begin(), device.end()), 0, L"", false, true, 0);
  EXPECT_EQ(forecastRelocLocations(volumes, 1000).at(0).reasons.ownVolume, expected());
  expectToldIfRefused();
  EXPECT_TRUE(fs::is_empty(folder)) << "it only looks";
  LinuxSnapshotreloc placed(device, 512, 100000UL, 1000UL);
  EXPECT_EQ(placed.initialize() == 0, GetParam().told == nullptr);
  EXPECT_EQ(placed.mReasons.ownVolume, expected());
  expectToldIfRefused();
  EXPECT_TRUE(fs::is_empty(folder)) << "it is removed";
}

TEST_F(Planted, a_file_system_that_keeps_no_modes_gets_no_file_that_others_may_read) {
  hooks.modeOfAllFiles = 0755;
  fs::create_directory(area);
  log.clear();
  EXPECT_EQ(reloc.CreateRelocFile(), 18u);
  expectTold(area, kOpen);
  EXPECT_FALSE(fs::exists(file));
  ASSERT_EQ(chmod(area.c_str(), 0700), 0);  // mounted with folders that nobody else may look into
  EXPECT_EQ(reloc.CreateRelocFile(), 18u) << "the driver would refuse it";
  expectTold(file, kOpen);
  EXPECT_FALSE(fs::exists(file));
  hooks.modeOfAllFiles = 0700;
  EXPECT_EQ(reloc.CreateRelocFile(), 0u);
}

// --- Told once.

TEST_F(Planted, a_thing_that_several_volumes_of_a_request_come_upon_is_told_of_once) {
  const std::string planted = machine.mount(machine.device("m"), {90000, 5000});
  machine.mount(machine.device("n"), {80000, 5000});
  fs::create_directory_symlink(elsewhere.path(), planted + "/.verrelocarea");
  std::list<SnapVolumeInformation> volumes;
  for (const char* name : {"x", "y", "z"}) {
    const std::string device = machine.device(name);
    volumes.emplace_back(512, 100, std::wstring(device.begin(), device.end()), 0, L"", false, true, 0);
  }
  for (int request = 0; request < 2; ++request) {
    log.clear();
    ASSERT_EQ(singleton->deduceRelocLocations(&volumes, 1000), 0);
    EXPECT_EQ(log.count(LOG_ERR, notUsed(planted + "/.verrelocarea", "is a symbolic link")), 1u) << log.dump();
    singleton->cleanRelocFiles(&volumes);
    log.clear();
    forecastRelocLocations(volumes, 1000);
    EXPECT_EQ(log.count(LOG_ERR, notUsed(planted + "/.verrelocarea", "is a symbolic link")), 1u) << log.dump();
  }
  fs::remove(planted + "/.verrelocarea");
}

// --- The forecast, which only looks.

TEST_F(Planted, things_count_for_the_forecast_as_for_the_placement) {
  const std::string device = machine.device("v");
  const std::string mountPoint = machine.mount(device, {10000, 5000});
  const auto fits = [&] {
    std::list<SnapVolumeInformation> volumes;
    volumes.emplace_back(512, 100000, std::wstring(device.begin(), device.end()), 0, L"", false, true, 0);
    return forecastRelocLocations(volumes, 1000).at(0).reasons.ownVolume;
  };
  EXPECT_EQ(fits(), OwnVolume::kFits);
  fs::create_symlink(victim, mountPoint + "/qorTESTfile.KQTA");
  EXPECT_EQ(fits(), OwnVolume::kNotWritable);
  fs::remove(mountPoint + "/qorTESTfile.KQTA");
  writeFile(mountPoint + "/qorTESTfile.KQTA", "");  // left by a dead process
  EXPECT_EQ(fits(), OwnVolume::kFits);
  EXPECT_TRUE(fs::exists(mountPoint + "/qorTESTfile.KQTA")) << "it only looks";
  fs::create_directory_symlink(elsewhere.path(), mountPoint + "/.verrelocarea");
  EXPECT_EQ(fits(), OwnVolume::kNotWritable);
}

}  // namespace
}  // namespace test
