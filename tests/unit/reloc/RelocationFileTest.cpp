// SPDX-License-Identifier: Apache-2.0
//
// The relocation file: its name, limits, making, deleting, listing.
#include <dirent.h>
#include <fcntl.h>
#include <linux/fiemap.h>
#include <linux/fs.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <utility>

#include "OwnWorld.h"
#include "RelocTest.h"
#include "base/Handle.h"

namespace test {
namespace {

namespace fs = std::filesystem;

// A limit of the process for a scope.
class Limit {
 public:
  Limit(__rlimit_resource resource, rlim_t value) : mResource(resource) {
    getrlimit(resource, &mOld);
    const rlimit limit{value, mOld.rlim_max};
    if (setrlimit(resource, &limit) != 0) throw std::runtime_error("cannot limit the process");
  }
  ~Limit() { setrlimit(mResource, &mOld); }
  Limit(const Limit&) = delete;
  Limit& operator=(const Limit&) = delete;

 private:
  const __rlimit_resource mResource;
  rlimit mOld{};
};

// Files of this process cannot grow beyond `bytes`: the kernel cuts the write that reaches it and fails the next.
class FileSizeLimit {
 public:
  explicit FileSizeLimit(rlim_t bytes) : mOld(std::signal(SIGXFSZ, SIG_IGN)), mLimit(RLIMIT_FSIZE, bytes) {}
  ~FileSizeLimit() { std::signal(SIGXFSZ, mOld); }

 private:
  void (*mOld)(int);
  Limit mLimit;
};

// --- The name.

TEST(PrepareRelocFileName, replaces_every_slash) {
  EXPECT_EQ(prepareRelocFileName("mapper/vg-lv"), "mapper_vg-lv");
  EXPECT_EQ(prepareRelocFileName("/a//b/"), "_a__b_");
}

TEST(PrepareRelocFileName, leaves_a_name_without_a_slash) {
  EXPECT_EQ(prepareRelocFileName("sdb1"), "sdb1");
  EXPECT_EQ(prepareRelocFileName(""), "");
}

// --- Limits.

class FileSystemLimits : public RelocTest {
 protected:
  static LinuxSnapshotreloc of(unsigned int blockSize, unsigned int blocks) {
    return {"/dev/a", blockSize, blocks, "", 0};
  }
};

TEST_F(FileSystemLimits, a_file_of_exactly_2048_GiB_exceeds_what_ext4_takes) {
  std::uint64_t limit = 0;
  LinuxSnapshotreloc reloc = of(4096, 536870912);
  log.clear();
  EXPECT_TRUE(reloc.CheckIfExceedsFSLimits(kExt, &limit));
  EXPECT_EQ(limit, 536870912u);
  EXPECT_EQ(messages(),
            (Lines{"[6] mRelocNumBlks : 536870912\t\t\t\t\t\t\t   ,maxFileSizeLimitInBlocks :536870912\n"}));
}

TEST_F(FileSystemLimits, a_block_less_does_not_and_still_tells_the_limit) {
  std::uint64_t limit = 0;
  LinuxSnapshotreloc reloc = of(4096, 536870911);
  log.clear();
  EXPECT_FALSE(reloc.CheckIfExceedsFSLimits(kExt, &limit));
  EXPECT_EQ(limit, 536870912u);
  EXPECT_EQ(messages(), Lines());
}

TEST_F(FileSystemLimits, fat_takes_4_GiB_and_reiserfs_2048) {
  std::uint64_t limit = 0;
  EXPECT_FALSE(of(512, 8388607).CheckIfExceedsFSLimits(kFat, &limit));
  EXPECT_EQ(limit, 8388608u);
  EXPECT_TRUE(of(512, 8388608).CheckIfExceedsFSLimits(kFat, &limit));
  EXPECT_FALSE(of(4096, 1).CheckIfExceedsFSLimits(0x52654973, &limit));
  EXPECT_EQ(limit, 536870912u);
}

TEST_F(FileSystemLimits, an_unknown_file_system_never_exceeds_and_leaves_the_output) {
  std::uint64_t limit = 77;
  EXPECT_FALSE(of(4096, 0xFFFFFFFF).CheckIfExceedsFSLimits(kXfs, &limit));
  EXPECT_FALSE(of(4096, 0xFFFFFFFF).CheckIfExceedsFSLimits(0, &limit));
  EXPECT_EQ(limit, 77u);
}

TEST_F(FileSystemLimits, imposing_cuts_the_size_to_the_limit_and_returns_it) {
  LinuxSnapshotreloc reloc = of(512, 9000000);
  EXPECT_EQ(reloc.ImposeRelocFSLimits(kFat), 8388608u);
  EXPECT_EQ(reloc.GetRelocNumBlks(), 8388608u);
}

TEST_F(FileSystemLimits, imposing_cuts_nothing_that_fits) {
  LinuxSnapshotreloc reloc = of(512, 8388607);
  EXPECT_EQ(reloc.ImposeRelocFSLimits(kFat), 0u);
  EXPECT_EQ(reloc.ImposeRelocFSLimits(kXfs), 0u);
  EXPECT_EQ(reloc.GetRelocNumBlks(), 8388607u);
}

// --- Making the file.

class CreateRelocFile : public RelocTest {
 protected:
  // Where allocating works at once: 10 blocks of 512 bytes on a tmpfs.
  CreateRelocFile() : reloc("/dev/a", 512, 10, "", 1000) {
    reloc.mRelocDirName = scratch / ".verrelocarea";
    reloc.mRelocFileName = scratch / ".verrelocarea/a";
    log.clear();
  }

  // As on xfs: written block by block.
  void writeOut() { reloc.mFSType = kXfs; }

  std::uintmax_t fileSize() const { return fs::file_size(reloc.mRelocFileName); }
  bool fileExists() const { return fs::exists(reloc.mRelocFileName); }
  std::string directoryLine() const { return "[7] Directory containing reloc file is: " + reloc.mRelocDirName + ".\n"; }
  std::string nameLine() const { return "[7] Reloc file name is: " + reloc.mRelocFileName + ".\n"; }
  static std::string notUsed(const std::string& path, const std::string& why) {
    return "[3] " + path + " is not used: it " + why + ".\n";
  }
  static std::string fallbackLine(int error) {
    return "[3] fallocate failed with err: " + std::to_string(error) + "falling back to traditional method.\n";
  }

  const TempDir scratch;
  LinuxSnapshotreloc reloc;
};

constexpr char kDone[] = "[7] Reloc File successfully created.\n";
constexpr char kDoneAtOnce[] = "[3] Reloc File successfully created.\n";
constexpr char kNoDirectory[] = "[3] Unable to create the directory.\n";
constexpr char kWriteFailed[] = "[3] write failed for Reloc file.\n";

TEST_F(CreateRelocFile, without_a_name_answers_18) {
  reloc.mRelocFileName.clear();
  EXPECT_EQ(reloc.CreateRelocFile(), 18u);
  EXPECT_EQ(messages(), (Lines{"[3] Invalid reloc file name initilzed.\n"}));
  EXPECT_FALSE(fs::exists(reloc.mRelocDirName));
}

TEST_F(CreateRelocFile, allocates_at_once_and_says_so_at_error_priority) {
  off_t length = 0;
  hooks.posixFallocate = [&](int, off_t, off_t bytes) {
    length = bytes;
    return std::nullopt;
  };
  EXPECT_EQ(reloc.CreateRelocFile(), 0u);
  EXPECT_EQ(messages(), (Lines{directoryLine(), nameLine(), kDoneAtOnce}));
  EXPECT_EQ(length, 5120);
  EXPECT_EQ(fileSize(), 5120u);
}

TEST_F(CreateRelocFile, closes_directory_and_file_to_everybody_but_root_whatever_the_umask) {
  for (const mode_t mask : {0, 022, 077}) {
    const mode_t old = umask(mask);
    EXPECT_EQ(reloc.CreateRelocFile(), 0u);
    umask(old);
    struct stat status {};
    ASSERT_EQ(stat(reloc.mRelocDirName.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode, S_IFDIR | 0600u) << "no search bits";
    ASSERT_EQ(stat(reloc.mRelocFileName.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode, S_IFREG | 0600u);
    removeTree(reloc.mRelocDirName);
  }
}

TEST_F(CreateRelocFile, makes_the_file_write_only_with_mode_0644_and_opens_none_that_is_there) {
  int flags = 0;
  mode_t mode = 0;
  hooks.open = [&](const char* path, int how, mode_t bits) {
    if (path == reloc.mRelocFileName) {
      flags = how;
      mode = bits;
    }
    return 0;
  };
  EXPECT_EQ(reloc.CreateRelocFile(), 0u);
  EXPECT_EQ(flags & ~O_LARGEFILE, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC);
  EXPECT_EQ(mode, 0644u);
}

TEST_F(CreateRelocFile, uses_a_directory_that_is_there) {
  fs::create_directory(reloc.mRelocDirName);
  writeFile(reloc.mRelocDirName + "/another", "x");
  EXPECT_EQ(reloc.CreateRelocFile(), 0u);
  EXPECT_EQ(readFile(reloc.mRelocDirName + "/another"), "x");
}

TEST_F(CreateRelocFile, makes_only_the_last_folder) {
  reloc.mRelocDirName = scratch / "missing/.verrelocarea";
  EXPECT_EQ(reloc.CreateRelocFile(), 18u);
  EXPECT_EQ(messages(), (Lines{directoryLine(), kNoDirectory}));
  EXPECT_FALSE(fs::exists(scratch / "missing"));
}

TEST_F(CreateRelocFile, that_cannot_be_opened_has_the_directorys_text_and_leaves_the_directory) {
  fs::create_directories(reloc.mRelocFileName);  // a folder of the file's name
  EXPECT_EQ(reloc.CreateRelocFile(), 18u);
  EXPECT_EQ(messages(),
            (Lines{directoryLine(), nameLine(), notUsed(reloc.mRelocFileName, "is a directory"), kNoDirectory}));
  EXPECT_TRUE(fs::is_directory(reloc.mRelocFileName));
}

TEST_F(CreateRelocFile, truncates_and_rebuilds_a_file_of_the_same_name) {
  fs::create_directory(reloc.mRelocDirName);
  writeFile(reloc.mRelocFileName, std::string(100000, 'x'));
  EXPECT_EQ(reloc.CreateRelocFile(), 0u);
  EXPECT_EQ(readFile(reloc.mRelocFileName), std::string(5120, '\0'));
}

TEST_F(CreateRelocFile, allocates_more_than_4_GiB) {
  off_t length = 0;
  hooks.posixFallocate = [&](int, off_t, off_t bytes) -> std::optional<int> {
    length = bytes;
    return 0;
  };
  reloc.mBlockSize = 65536;
  reloc.mRelocNumBlks = (1U << 24) + 1;
  EXPECT_EQ(reloc.CreateRelocFile(), 0u);
  EXPECT_EQ(length, (off_t{1} << 40) + 65536);
}

TEST_F(CreateRelocFile, on_xfs_is_written_out_with_error_0_and_never_allocated) {
  hooks.posixFallocate = [](int, off_t, off_t) -> std::optional<int> {
    ADD_FAILURE() << "allocated";
    return 0;
  };
  writeOut();
  EXPECT_EQ(reloc.CreateRelocFile(), 0u);
  EXPECT_EQ(messages(), (Lines{directoryLine(), nameLine(), fallbackLine(0), kDone}));
  EXPECT_EQ(readFile(reloc.mRelocFileName), std::string(5120, '\0'));
}

TEST_F(CreateRelocFile, that_cannot_be_allocated_is_written_out_with_the_error) {
  hooks.posixFallocate = [](int, off_t, off_t) { return std::optional<int>(EOPNOTSUPP); };
  EXPECT_EQ(reloc.CreateRelocFile(), 0u);
  EXPECT_EQ(messages(), (Lines{directoryLine(), nameLine(), fallbackLine(EOPNOTSUPP), kDone}));
  EXPECT_EQ(fileSize(), 5120u);
}

TEST_F(CreateRelocFile, is_written_by_one_seek_and_one_write_a_block_from_one_buffer_then_synced) {
  std::vector<std::string> calls;
  std::set<const void*> buffers;
  hooks.lseek = [&](int, off_t offset, int whence) {
    calls.push_back("lseek " + std::to_string(offset) + " " + std::to_string(whence));
    return std::nullopt;
  };
  hooks.write = [&](int, const void* data, size_t size) {
    calls.push_back("write " + std::to_string(size));
    buffers.insert(data);
    return std::nullopt;
  };
  hooks.fsync = [&](int) {
    calls.emplace_back("fsync");
    return 0;
  };
  writeOut();
  reloc.mRelocNumBlks = 3;
  EXPECT_EQ(reloc.CreateRelocFile(), 0u);
  EXPECT_EQ(calls, (Lines{"lseek 0 0", "write 512", "lseek 512 0", "write 512", "lseek 1024 0", "write 512", "fsync"}));
  EXPECT_EQ(buffers.size(), 1u);
}

TEST_F(CreateRelocFile, seeks_in_64_bits) {
  std::vector<off_t> offsets;
  hooks.lseek = [&](int, off_t offset, int) {
    offsets.push_back(offset);
    return std::optional<off_t>(offset);
  };
  hooks.write = [](int, const void*, size_t size) { return std::optional<ssize_t>(size); };
  writeOut();
  reloc.mBlockSize = 1U << 30;
  reloc.mRelocNumBlks = 6;
  EXPECT_EQ(reloc.CreateRelocFile(), 0u);
  EXPECT_EQ(offsets.back(), off_t{5} << 30);
}

// --- Where the blocks of a file that is allocated at once are.

// A volume of ext4 that holds the file of another device, or its own.
class AllocatedRelocFile : public CreateRelocFile {
 protected:
  AllocatedRelocFile() : ext4("ext4", 64 << 20, {"-b", "4096"}) {
    reloc.mRelocDirName = ext4.folder() + "/.verrelocarea";
    reloc.mRelocFileName = reloc.mRelocDirName + "/a";
    reloc.mRelocDeviceName = ext4.device();
    reloc.mBlockSize = 4096;
    reloc.mRelocNumBlks = 1000;
    hooks.fsync = [this](int fd) {
      steps.push_back(kindOf(fd) == S_IFBLK ? "fsync of the device" : "fsync of the file");
      return 0;
    };
    note(FIBMAP, "FIBMAP");
    note(FS_IOC_FIEMAP, "FIEMAP");
    driver.intercept(BLKFLSBUF, [this](int fd, void*) -> std::optional<int> {
      struct stat status {};
      EXPECT_EQ(fstat(fd, &status), 0);
      EXPECT_EQ(status.st_rdev, makedev(ext4.loop().major(), ext4.loop().minor()));
      steps.emplace_back("BLKFLSBUF");
      return std::nullopt;
    });
  }

  static mode_t kindOf(int fd) {
    struct stat status {};
    return fstat(fd, &status) == 0 ? status.st_mode & S_IFMT : 0;
  }
  void note(unsigned long request, const char* name) {
    driver.intercept(request, [this, name](int, void*) {
      steps.emplace_back(name);
      return std::nullopt;
    });
  }
  // FS_IOC_FIEMAP finds extents with these flags too.
  void addFlags(std::uint32_t flags) {
    driver.intercept(FS_IOC_FIEMAP, [flags](int fd, void* argument) -> std::optional<int> {
      auto& answer = *static_cast<fiemap*>(argument);
      if (syscall(SYS_ioctl, fd, FS_IOC_FIEMAP, argument) != 0) return errno;
      for (std::uint32_t i = 0; i < answer.fm_mapped_extents; ++i) answer.fm_extents[i].fe_flags |= flags;
      return 0;
    });
  }
  std::uint64_t allocatedBytes() const {
    struct stat status {};
    return stat(reloc.mRelocFileName.c_str(), &status) == 0 ? static_cast<std::uint64_t>(status.st_blocks) * 512 : 0;
  }
  void expectWrittenOut(int error) {
    EXPECT_EQ(reloc.CreateRelocFile(), 0u);
    EXPECT_EQ(messages(), (Lines{directoryLine(), nameLine(), fallbackLine(error), kDone}));
    const std::vector<int> blocks = physicalBlocks(reloc.mRelocFileName);
    EXPECT_EQ(blocks.size(), 1000u);
    EXPECT_EQ(std::count(blocks.begin(), blocks.end(), 0), 0);
  }

  const Volume ext4;
  Lines steps;
};

TEST_F(AllocatedRelocFile, is_flushed_before_its_blocks_are_looked_for_and_so_is_another_device_after_them) {
  EXPECT_EQ(reloc.CreateRelocFile(), 0u);
  EXPECT_EQ(messages(), (Lines{directoryLine(), nameLine(), "[6] flushing " + ext4.device() + ".\n", kDoneAtOnce}));
  EXPECT_EQ(steps, (Lines{"fsync of the file", "FIBMAP", "FIEMAP", "fsync of the device", "BLKFLSBUF"}));
  EXPECT_EQ(fileSize(), 1000u * 4096);
  EXPECT_EQ(allocatedBytes(), 1000u * 4096);
}

TEST_F(AllocatedRelocFile, on_the_snapped_device_itself_leaves_flushing_that_to_the_snap) {
  const Alias alias("alias", ext4.device());
  for (const std::string& name : {ext4.device(), alias.path()}) {
    reloc.mSnappedDeviceName = name;
    steps.clear();
    EXPECT_EQ(reloc.CreateRelocFile(), 0u);
    EXPECT_EQ(steps, (Lines{"fsync of the file", "FIBMAP", "FIEMAP"}));
  }
}

TEST_F(AllocatedRelocFile, is_never_written) {
  hooks.write = [](int, const void*, std::size_t) -> std::optional<ssize_t> {
    ADD_FAILURE() << "written";
    return std::nullopt;
  };
  EXPECT_EQ(reloc.CreateRelocFile(), 0u);
}

TEST_F(AllocatedRelocFile, whose_blocks_cannot_be_found_is_written_out) {
  addFlags(FIEMAP_EXTENT_ENCODED);
  expectWrittenOut(0);
}

TEST_F(AllocatedRelocFile, one_of_whose_later_blocks_cannot_be_found_is_written_out) {
  driver.intercept(FIBMAP, [](int, void* argument) {
    int& block = *static_cast<int*>(argument);
    block = block == 999 ? 0 : 5000 + block;
    return 0;
  });
  driver.intercept(FS_IOC_FIEMAP, [](int, void*) { return EOPNOTSUPP; });
  hooks.write = [this](int, const void*, std::size_t) -> std::optional<ssize_t> {
    driver.intercept(FIBMAP, [](int, void*) { return std::nullopt; });
    return std::nullopt;
  };
  expectWrittenOut(0);
}

TEST_F(AllocatedRelocFile, is_written_out_where_the_kind_of_file_system_says_xfs) {
  reloc.mFSType = kXfs;
  expectWrittenOut(0);
}

TEST_F(AllocatedRelocFile, that_cannot_be_flushed_is_written_out_with_the_error) {
  bool failed = false;
  hooks.fsync = [&failed](int) { return std::exchange(failed, true) ? 0 : EIO; };
  expectWrittenOut(EIO);
}

// Nobody can look for a block, and zeros would not help.
TEST_F(AllocatedRelocFile, on_a_file_system_that_maps_no_blocks_stays_as_it_is) {
  driver.intercept(FIBMAP, [](int, void*) { return EINVAL; });
  EXPECT_EQ(reloc.CreateRelocFile(), 0u);
  EXPECT_EQ(messages().back(), kDoneAtOnce);
}

// --- A file of no blocks.

TEST_F(CreateRelocFile, of_blocks_of_no_size_is_empty_at_once_however_many_there_are) {
  LinuxSnapshotreloc sizeless("/dev/a", 0, 0xFFFFFFFF, "", 1000);
  sizeless.mRelocDirName = reloc.mRelocDirName;
  sizeless.mRelocFileName = reloc.mRelocFileName;
  sizeless.mFSType = kXfs;
  hooks.write = [](int, const void*, std::size_t) -> std::optional<ssize_t> {
    ADD_FAILURE() << "written";
    errno = EIO;
    return -1;
  };
  EXPECT_EQ(sizeless.CreateRelocFile(), 0u);
  EXPECT_EQ(fileSize(), 0u);
}

TEST_F(CreateRelocFile, of_no_blocks_cannot_be_allocated_and_is_written_out_empty) {
  reloc.mRelocNumBlks = 0;
  EXPECT_EQ(reloc.CreateRelocFile(), 0u);
  EXPECT_EQ(messages(), (Lines{directoryLine(), nameLine(), fallbackLine(EINVAL), kDone}));
  EXPECT_EQ(fileSize(), 0u);
}

TEST_F(CreateRelocFile, of_no_blocks_that_a_c_library_allocates_has_no_first_block_to_be_asked_for) {
  const Volume ext4("ext4", 8 << 20);
  reloc.mRelocDirName = ext4.folder() + "/.verrelocarea";
  reloc.mRelocFileName = reloc.mRelocDirName + "/a";
  reloc.mRelocNumBlks = 0;
  hooks.posixFallocate = [](int, off_t, off_t) { return std::optional<int>(0); };
  EXPECT_EQ(reloc.CreateRelocFile(), 0u);
  EXPECT_EQ(messages(), (Lines{directoryLine(), nameLine(), kDoneAtOnce}));
}

// --- Writing fails.

TEST_F(CreateRelocFile, that_cannot_be_sought_is_removed_with_offset_and_errno_logged) {
  hooks.lseek = [](int, off_t offset, int) -> std::optional<off_t> {
    if (offset != 1024) return std::nullopt;
    errno = EOVERFLOW;
    return -1;
  };
  writeOut();
  EXPECT_EQ(reloc.CreateRelocFile(), 18u);
  EXPECT_EQ(messages(), (Lines{directoryLine(), nameLine(), fallbackLine(0),
                               "[3] lseek failed to offset to :1024 bytes, errno : 75.\n"}));
  EXPECT_FALSE(fileExists());
  EXPECT_TRUE(fs::is_directory(reloc.mRelocDirName)) << "the directory is never removed here";
}

TEST_F(CreateRelocFile, that_cannot_be_sought_logs_that_errno_also_when_it_cannot_be_removed) {
  hooks.lseek = [&](int, off_t, int) -> std::optional<off_t> {
    fs::remove(reloc.mRelocFileName);
    errno = EOVERFLOW;
    return -1;
  };
  writeOut();
  EXPECT_EQ(reloc.CreateRelocFile(), 18u);
  EXPECT_EQ(messages().back(), "[3] lseek failed to offset to :0 bytes, errno : 75.\n");
}

TEST_F(CreateRelocFile, that_is_sought_to_another_offset_without_an_error_logs_errno_0) {
  hooks.lseek = [](int, off_t, int) -> std::optional<off_t> { return 7; };
  errno = EIO;
  writeOut();
  EXPECT_EQ(reloc.CreateRelocFile(), 18u);
  EXPECT_EQ(messages().back(), "[3] lseek failed to offset to :0 bytes, errno : 0.\n");
}

TEST_F(CreateRelocFile, that_cannot_be_written_is_removed) {
  const FileSizeLimit limit(1024);
  writeOut();
  EXPECT_EQ(reloc.CreateRelocFile(), 18u);
  EXPECT_EQ(messages(), (Lines{directoryLine(), nameLine(), fallbackLine(0), kWriteFailed}));
  EXPECT_FALSE(fileExists());
  EXPECT_TRUE(fs::is_directory(reloc.mRelocDirName)) << "the directory is never removed here";
}

TEST_F(CreateRelocFile, on_a_full_file_system_is_removed) {
  const TempDir folder;
  const Mounted small("small", folder.path(), "tmpfs", 0, "size=64k");
  reloc.mRelocDirName = folder / ".verrelocarea";
  reloc.mRelocFileName = folder / ".verrelocarea/a";
  reloc.mRelocNumBlks = 1000;
  EXPECT_EQ(reloc.CreateRelocFile(), 18u);
  EXPECT_EQ(messages(), (Lines{directoryLine(), nameLine(), fallbackLine(ENOSPC), kWriteFailed}));
  EXPECT_FALSE(fileExists());
}

TEST_F(CreateRelocFile, ends_where_a_write_comes_up_short_without_an_error) {
  int writes = 0;
  hooks.write = [&](int, const void*, size_t) -> std::optional<ssize_t> {
    if (++writes <= 1000) return std::nullopt;
    return 100;
  };
  hooks.lseek = [](int, off_t, int) -> std::optional<off_t> {
    errno = EIO;  // an old error is no error
    return std::nullopt;
  };
  writeOut();
  reloc.mRelocNumBlks = 2000;
  EXPECT_EQ(reloc.CreateRelocFile(), 0u);
  EXPECT_EQ(reloc.GetRelocNumBlks(), 1000u);
  EXPECT_EQ(fileSize(), 512000u);
  EXPECT_EQ(messages(),
            (Lines{directoryLine(), nameLine(), fallbackLine(0),
                   "[7] reloc file size is limited to count = 1000instead of mBlockSize = 2000 blocks because "
                   "of filesystem file size limit.\n ",
                   kDone}));
}

TEST_F(CreateRelocFile, whose_short_write_reports_an_error_is_removed) {
  hooks.write = [](int, const void*, size_t) -> std::optional<ssize_t> {
    errno = ENOSPC;
    return 100;
  };
  writeOut();
  EXPECT_EQ(reloc.CreateRelocFile(), 18u);
  EXPECT_EQ(messages(), (Lines{directoryLine(), nameLine(), fallbackLine(0), kWriteFailed}));
  EXPECT_EQ(reloc.GetRelocNumBlks(), 10u);
  EXPECT_FALSE(fileExists());
}

TEST_F(CreateRelocFile, whose_first_write_comes_up_short_is_left_empty) {
  hooks.write = [](int, const void*, size_t) { return std::optional<ssize_t>(0); };
  hooks.posixFallocate = [](int file, off_t, off_t length) -> std::optional<int> {
    EXPECT_EQ(ftruncate(file, length), 0);
    return EIO;
  };
  EXPECT_EQ(reloc.CreateRelocFile(), 0u);
  EXPECT_EQ(reloc.GetRelocNumBlks(), 0u);
  EXPECT_EQ(fileSize(), 0u);
}

TEST_F(CreateRelocFile, that_ends_short_holds_whole_blocks_only) {
  const FileSizeLimit limit(1000 * 512 + 100);
  writeOut();
  reloc.mRelocNumBlks = 2000;
  EXPECT_EQ(reloc.CreateRelocFile(), 0u);
  EXPECT_EQ(reloc.GetRelocNumBlks(), 1000u);
  EXPECT_EQ(fileSize(), 512000u);
}

TEST_F(CreateRelocFile, takes_the_count_written_as_a_signed_32_bit_value) {
  hooks.write = [](int, const void*, size_t size) {
    return std::optional<ssize_t>((ssize_t{1} << 32) + ssize_t(size));
  };
  writeOut();
  EXPECT_EQ(reloc.CreateRelocFile(), 0u);
  EXPECT_EQ(reloc.GetRelocNumBlks(), 10u);
}

// The descriptors of this process that are open on `path`.
std::vector<int> descriptorsOn(const std::string& path) {
  std::vector<int> found;
  for (const auto& entry : fs::directory_iterator(std::string(kRealProc) + "/self/fd")) {
    std::error_code ignored;
    if (fs::read_symlink(entry.path(), ignored) == path) found.push_back(std::stoi(entry.path().filename()));
  }
  return found;
}

TEST_F(CreateRelocFile, without_memory_for_one_block_leaves_file_directory_and_descriptor) {
  writeOut();
  reloc.mBlockSize = 0xFFFFFFFF;
  reloc.mRelocNumBlks = 1;
  {
#ifndef __SANITIZE_ADDRESS__  // which refuses the block by itself
    const Limit memory(RLIMIT_AS, rlim_t{1} << 32);
#endif
    EXPECT_EQ(reloc.CreateRelocFile(), 18u);
  }
  EXPECT_EQ(messages(), (Lines{directoryLine(), nameLine(), fallbackLine(0), "[3] Unable to allocate memory.\n"}));
  EXPECT_TRUE(fileExists());
  const std::vector<int> left = descriptorsOn(reloc.mRelocFileName);
  ASSERT_EQ(left.size(), 1u);
  close(left.front());
}

// --- Deleting and finding it.

TEST_F(CreateRelocFile, then_it_exists_until_it_is_deleted_and_the_directory_stays) {
  EXPECT_FALSE(reloc.IsRelocFileExists());
  ASSERT_EQ(reloc.CreateRelocFile(), 0u);
  log.clear();
  EXPECT_TRUE(reloc.IsRelocFileExists());
  EXPECT_TRUE(reloc.DeleteRelocFile());
  EXPECT_FALSE(reloc.IsRelocFileExists());
  EXPECT_FALSE(fileExists());
  EXPECT_TRUE(fs::is_directory(reloc.mRelocDirName));
  EXPECT_FALSE(reloc.DeleteRelocFile()) << "it is gone already";
  EXPECT_EQ(messages(), Lines());
}

TEST_F(CreateRelocFile, that_is_a_folder_instead_neither_exists_nor_is_deleted) {
  fs::create_directories(reloc.mRelocFileName);
  EXPECT_FALSE(reloc.IsRelocFileExists());
  EXPECT_FALSE(reloc.DeleteRelocFile());
  EXPECT_TRUE(fileExists());
}

TEST_F(CreateRelocFile, without_a_name_there_is_nothing_to_delete_and_nothing_exists) {
  reloc.mRelocFileName.clear();
  EXPECT_TRUE(reloc.DeleteRelocFile());
  EXPECT_FALSE(reloc.IsRelocFileExists());
}

// --- Listing.

class Listing : public RelocTest {
 protected:
  Listing() : reloc("/dev/a", 512, 10, "", 1000) { log.clear(); }

  static void fill(const std::string& folder, const std::string& name) {
    fs::create_directory(folder + "/.verrelocarea");
    writeFile(folder + "/.verrelocarea/" + name, "");
  }

  LinuxSnapshotreloc reloc;
  std::list<std::string> files;
};

TEST_F(Listing, with_nothing_mounted_answers_3) {
  EXPECT_EQ(reloc.GetAllRelocationFiles(files), 3u);
  EXPECT_EQ(messages(), (Lines{"[7] Unable to find a mounted volume.\n"}));
}

TEST_F(Listing, appends_the_files_of_all_file_systems_one_mounted_twice_twice) {
  const std::string a = machine.mount(machine.device("a"), {1, 1});
  const std::string b = machine.mount(machine.device("b"), {1, 1});
  const std::string c = machine.mount(machine.device("c"), {1, 1});
  machine.list("/dev/c", c);
  fill(a, "sda");
  fill(c, "sdc");
  log.clear();
  files = {"before"};
  EXPECT_EQ(reloc.GetAllRelocationFiles(files), 0u);
  EXPECT_EQ(files, (std::list<std::string>{"before", a + "/.verrelocarea/sda", c + "/.verrelocarea/sdc",
                                           c + "/.verrelocarea/sdc"}));
  EXPECT_EQ(messages(), (Lines{"[7] GetAllRelocationFiles: Unable to read directory: " + b + "/.verrelocarea.\n"}));
}

TEST_F(Listing, leaves_the_snapshots_mounts_out_and_says_nothing_of_them) {
  const std::string a = machine.mount(machine.device("a"), {1, 1});
  const std::string snapshot = machine.mount(machine.device("snap7_1"), {1, 1});
  const std::string other = machine.mount(machine.device("snap7_1x"), {1, 1});
  fill(a, "sda");
  fill(snapshot, "sda");
  fill(other, "sdb");
  log.clear();
  EXPECT_EQ(reloc.GetAllRelocationFiles(files), 0u);
  EXPECT_EQ(files, (std::list<std::string>{a + "/.verrelocarea/sda", other + "/.verrelocarea/sdb"}));
  EXPECT_EQ(messages(), Lines());
}

TEST_F(Listing, knows_a_mounted_alias_by_its_device) {
  const Alias alias("alias", machine.device("z"));
  const std::string z = machine.mount(alias.path(), {1, 1});
  const std::string m = machine.mount(machine.device("m"), {1, 1});
  fill(z, "sdz");
  fill(m, "sdm");
  EXPECT_EQ(reloc.GetAllRelocationFiles(files), 0u);
  EXPECT_EQ(files, (std::list<std::string>{m + "/.verrelocarea/sdm", z + "/.verrelocarea/sdz"}))
      << "in order of devices";
  files.clear();
  EXPECT_EQ(reloc.GetAllRelocationFilesInVolume("/dev/z", files), 0u);
  EXPECT_EQ(files, (std::list<std::string>{z + "/.verrelocarea//sdz"}));
}

TEST_F(Listing, of_a_volume_that_is_not_mounted_answers_0) {
  EXPECT_EQ(reloc.GetAllRelocationFilesInVolume("/dev/a", files), 0u);
  EXPECT_TRUE(files.empty());
  EXPECT_EQ(messages(), (Lines{"[7] Checking for mounts: /dev/a.\n", "[7] volume is not mounted."}));
}

TEST_F(Listing, of_a_volume_appends_what_its_directory_holds_behind_two_slashes) {
  const std::string a = machine.mount(machine.device("a"), {1, 1});
  fill(a, "sda");
  EXPECT_EQ(reloc.GetAllRelocationFilesInVolume("/dev/a", files), 0u);
  EXPECT_EQ(files, (std::list<std::string>{a + "/.verrelocarea//sda"}));
  EXPECT_EQ(messages(), (Lines{"[7] Checking for mounts: /dev/a.\n", "[7] volMountPoint: " + a + ".\n",
                               "[7] relocDir is : " + a + "/.verrelocarea/.\n"}));
}

TEST_F(Listing, of_a_volume_mounted_twice_looks_at_its_first_mount_point_only) {
  const std::string device = machine.device("a");
  for (int i = 0; i < 2; ++i) fill(machine.mount(device, {1, 1}), "sda");
  const std::vector<std::string> mountPoints = reloc.GetMountPoints(device);
  ASSERT_EQ(mountPoints.size(), 2u);
  EXPECT_EQ(reloc.GetAllRelocationFilesInVolume(device, files), 0u);
  EXPECT_EQ(files, (std::list<std::string>{mountPoints.front() + "/.verrelocarea//sda"}));
}

TEST_F(Listing, of_a_volume_without_a_directory_answers_0) {
  const std::string a = machine.mount(machine.device("a"), {1, 1});
  EXPECT_EQ(reloc.GetAllRelocationFilesInVolume("/dev/a", files), 0u);
  EXPECT_TRUE(files.empty());
  EXPECT_EQ(messages(), (Lines{"[7] Checking for mounts: /dev/a.\n", "[7] volMountPoint: " + a + ".\n",
                               "[7] relocDir is : " + a + "/.verrelocarea/.\n",
                               "[7] Unable to read the relocation directory: " + a + "/.verrelocarea/.\n"}));
}

}  // namespace
}  // namespace test
