// SPDX-License-Identifier: Apache-2.0
//
// Where a device and an image differ.
#include "emulator/machine/ChangedRuns.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>

#include "World.h"

namespace {

constexpr std::uint64_t kBlocks = 1000;
constexpr std::uint32_t kBlock = 4096;

// Two sparse files of the same size; the device's data begin at an offset in it.
class Changed : public testing::Test {
 protected:
  static constexpr off_t kOffset = 8192;

  Changed() {
    EXPECT_EQ(ftruncate(device.file.get(), kOffset + kBlocks * kBlock), 0);
    EXPECT_EQ(ftruncate(image.get(), kBlocks * kBlock), 0);
  }
  UniqueFd make(const char* name) { return UniqueFd(open((dir / name).c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600)); }
  void putDevice(std::uint64_t at, char byte = 'x') {
    ASSERT_EQ(pwrite(device.file.get(), &byte, 1, kOffset + static_cast<off_t>(at)), 1);
  }
  void putImage(std::uint64_t at, char byte = 'x') {
    ASSERT_EQ(pwrite(image.get(), &byte, 1, static_cast<off_t>(at)), 1);
  }
  emulator::ChangedRuns find(std::uint64_t firstBlock = 0, std::size_t room = 100, std::uint32_t blockSize = kBlock) {
    return emulator::findChangedRuns({device, image.get(), kBlocks * kBlock / blockSize, blockSize}, firstBlock, room,
                                     [this] { return stopped ? ECANCELED : 0; });
  }
  static std::string text(const emulator::ChangedRuns& changed) {
    std::string all;
    for (const _run& run : changed.runs) {
      all += std::to_string(run.startBlock) + "+" + std::to_string(run.numBlocks) + " ";
    }
    return all + (changed.more ? "more" : "");
  }

  test::TempDir dir;
  emulator::DeviceData device{make("device"), kOffset, true};
  UniqueFd image = make("image");
  bool stopped = false;
};

TEST_F(Changed, is_nothing_between_holes_and_between_equal_data) {
  EXPECT_EQ(text(find()), "");
  putDevice(70000);
  putImage(70000);
  EXPECT_EQ(text(find()), "");
}

TEST_F(Changed, is_what_only_one_of_them_has_and_what_they_have_differently) {
  putDevice(0);
  putImage(3 * kBlock);
  putDevice(5 * kBlock, 'a');
  putImage(5 * kBlock, 'b');
  putDevice((kBlocks - 1) * kBlock + 4095);
  EXPECT_EQ(text(find()), "0+1 3+1 5+1 999+1 ");
  device.hasHoles = false;
  EXPECT_EQ(text(find()), "0+1 3+1 5+1 999+1 ") << "read from end to end it is the same";
}

TEST_F(Changed, runs_go_on_across_what_is_compared_at_a_time) {
  for (std::uint64_t block = 250; block < 520; ++block) putDevice(block * kBlock);
  EXPECT_EQ(text(find()), "250+270 ");
  EXPECT_EQ(text(find(255)), "255+265 ");
  EXPECT_EQ(text(find(519)), "519+1 ");
  EXPECT_EQ(text(find(520)), "");
}

TEST_F(Changed, is_counted_in_blocks_smaller_and_larger_than_a_page) {
  putDevice(3 * 65536 + 700);
  EXPECT_EQ(text(find(0, 100, 512)), "385+1 ");
  EXPECT_EQ(text(find(385, 100, 512)), "385+1 ");
  EXPECT_EQ(text(find(386, 100, 512)), "");
  EXPECT_EQ(text(find(0, 100, 32768)), "6+1 ");
}

TEST_F(Changed, ends_when_the_room_is_used_and_says_whether_there_is_more) {
  putDevice(1 * kBlock);
  putDevice(2 * kBlock);
  EXPECT_EQ(text(find(0, 1)), "1+2 ");
  putDevice(900 * kBlock);
  EXPECT_EQ(text(find(0, 1)), "1+2 more");
  EXPECT_EQ(text(find(0, 2)), "1+2 900+1 ");
  EXPECT_EQ(text(find(0, 0)), "more");
}

TEST_F(Changed, a_device_that_was_cut_reads_as_zeros) {
  putImage(900 * kBlock);
  putDevice(900 * kBlock);
  ASSERT_EQ(ftruncate(device.file.get(), kOffset + 100 * kBlock), 0);
  EXPECT_EQ(text(find()), "900+1 ");
}

TEST_F(Changed, ends_with_the_error_of_who_stops_it_or_of_what_cannot_be_read) {
  putDevice(0);
  stopped = true;
  EXPECT_EQ(find().error, ECANCELED);
  stopped = false;
  device.file = UniqueFd(open((dir / "device").c_str(), O_WRONLY | O_CLOEXEC));
  EXPECT_EQ(find().error, EBADF);
}

}  // namespace
