// SPDX-License-Identifier: Apache-2.0
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "LoopVolume.h"
#include "World.h"
#include "base/Handle.h"
#include "emulator/machine/SparseCopy.h"

namespace {

using emulator::copyAll;
using emulator::CopyResult;
using emulator::SparseCopy;

constexpr std::size_t kBlock = 4096;
const auto kNever = [] { return 0; };

struct File {
  explicit File(const std::string& path) : fd(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600)) {}
  void write(const std::string& data, off_t at) const {
    ASSERT_EQ(pwrite(fd.get(), data.data(), data.size(), at), static_cast<ssize_t>(data.size()));
  }
  std::string read() const {
    struct stat found {};
    fstat(fd.get(), &found);
    std::string data(static_cast<std::size_t>(found.st_size), '\0');
    EXPECT_EQ(pread(fd.get(), data.data(), data.size(), 0), found.st_size);
    return data;
  }
  std::size_t usedBytes() const {
    struct stat found {};
    fstat(fd.get(), &found);
    return static_cast<std::size_t>(found.st_blocks) * 512;
  }
  UniqueFd fd;
};

struct Copies : testing::Test {
  test::TempDir dir;
  File source{dir / "source"};
  File target{dir / "target"};
};

TEST_F(Copies, the_bytes_are_the_same_and_holes_stay_holes) {
  ASSERT_EQ(ftruncate(source.fd.get(), 8 << 20), 0);
  source.write("start", 0);
  source.write("middle", (3 << 20) + 123);
  source.write("end", (8 << 20) - 3);
  const CopyResult result = copyAll({{source.fd.get(), 0, 8 << 20, true, target.fd.get()}}, kNever);
  EXPECT_EQ(result.error, 0);
  EXPECT_EQ(target.read(), source.read());
  EXPECT_EQ(target.usedBytes(), 3 * kBlock);
}

TEST_F(Copies, zeros_that_take_room_are_left_out) {
  source.write(std::string(3 << 20, '\0'), 0);
  source.write(std::string(kBlock, 'x'), 5 * kBlock);
  source.write("y", 7 * kBlock + 4095);
  const CopyResult result = copyAll({{source.fd.get(), 0, 3 << 20, true, target.fd.get()}}, kNever);
  EXPECT_EQ(result.error, 0);
  EXPECT_EQ(target.read(), source.read());
  EXPECT_EQ(target.usedBytes(), 2 * kBlock);
}

TEST_F(Copies, a_source_that_cannot_tell_its_holes_is_read_whole) {
  ASSERT_EQ(ftruncate(source.fd.get(), 3 << 20), 0);
  source.write("data", 2 << 20);
  const CopyResult result = copyAll({{source.fd.get(), 0, 3 << 20, false, target.fd.get()}}, kNever);
  EXPECT_EQ(result.error, 0);
  EXPECT_EQ(target.read(), source.read());
}

TEST_F(Copies, may_begin_inside_the_source_and_end_before_its_end) {
  source.write(std::string(kBlock, 'a') + std::string(2 * kBlock, 'b') + std::string(kBlock, 'c'), 0);
  const CopyResult result = copyAll({{source.fd.get(), kBlock, 2 * kBlock, true, target.fd.get()}}, kNever);
  EXPECT_EQ(result.error, 0);
  EXPECT_EQ(target.read(), std::string(2 * kBlock, 'b'));
}

TEST_F(Copies, a_source_that_was_cut_short_reads_as_zeros) {
  source.write("data", 0);
  const CopyResult result = copyAll({{source.fd.get(), 0, 1 << 20, true, target.fd.get()}}, kNever);
  EXPECT_EQ(result.error, 0);
  EXPECT_EQ(target.read(), "data" + std::string((1 << 20) - 4, '\0'));
}

TEST_F(Copies, a_size_that_is_no_whole_number_of_blocks_is_kept) {
  source.write(std::string(kBlock + 512, 'z'), 0);
  const CopyResult result = copyAll({{source.fd.get(), 0, kBlock + 512, true, target.fd.get()}}, kNever);
  EXPECT_EQ(result.error, 0);
  EXPECT_EQ(target.read(), source.read());
}

TEST_F(Copies, stop_when_they_are_told_to) {
  source.write(std::string(3 << 20, 'x'), 0);
  int asked = 0;
  const CopyResult result =
      copyAll({{source.fd.get(), 0, 3 << 20, true, target.fd.get()}}, [&] { return ++asked == 2 ? ETIMEDOUT : 0; });
  EXPECT_EQ(result.error, ETIMEDOUT);
  EXPECT_FALSE(result.whileWriting);
}

TEST_F(Copies, one_that_fails_ends_all_and_is_named) {
  source.write(std::string(1 << 20, 'x'), 0);
  const SparseCopy good{source.fd.get(), 0, 1 << 20, true, target.fd.get()};
  const SparseCopy bad{-1, 0, 1 << 20, false, target.fd.get()};
  const CopyResult result = copyAll({good, bad, good}, kNever);
  EXPECT_EQ(result.error, EBADF);
  EXPECT_EQ(result.copy, 1u);
  EXPECT_FALSE(result.whileWriting);
}

TEST_F(Copies, a_target_without_room_is_told_from_a_source_that_cannot_be_read) {
  test::TempDir small;
  const test::Mounted room("room", small.path(), "tmpfs", 0, "size=64k");
  {
    const File tooSmall(small / "file");
    source.write(std::string(1 << 20, 'x'), 0);
    const CopyResult result = copyAll({{source.fd.get(), 0, 1 << 20, true, tooSmall.fd.get()}}, kNever);
    EXPECT_EQ(result.error, ENOSPC);
    EXPECT_TRUE(result.whileWriting);
  }
}

TEST_F(Copies, many_are_made_at_a_time_each_right) {
  std::vector<std::unique_ptr<File>> files;
  std::vector<SparseCopy> copies;
  for (int i = 0; i < 10; ++i) {
    files.push_back(std::make_unique<File>(dir / ("s" + std::to_string(i))));
    files.back()->write(std::string(1 << 20, static_cast<char>('a' + i)), 4096 * i);
    const int from = files.back()->fd.get();
    files.push_back(std::make_unique<File>(dir / ("t" + std::to_string(i))));
    copies.push_back({from, 0, 2 << 20, true, files.back()->fd.get()});
  }
  EXPECT_EQ(copyAll(copies, kNever).error, 0);
  for (std::size_t i = 0; i < files.size(); i += 2) {
    std::string expected = files[i]->read();
    expected.resize(2 << 20);
    EXPECT_TRUE(files[i + 1]->read() == expected) << i;
  }
}

}  // namespace
