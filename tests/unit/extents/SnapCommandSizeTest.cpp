// SPDX-License-Identifier: Apache-2.0
//
// Relocation files as runs of physical blocks, and the size of the snap command that carries them.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/fs.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <limits>
#include <numeric>

#include "MappedFile.h"
#include "World.h"
#include "interpose/Allocations.h"
#include "interpose/OpenedFiles.h"

using test::Extent;
using test::kEntry;
using test::MappedFile;
using test::SnapCommandSize;
using testing::ElementsAre;
using testing::Pair;

TEST_F(SnapCommandSize, an_empty_request_adds_nothing) {
  size = 7;
  EXPECT_EQ(ask(), 0);
  EXPECT_EQ(size, 7u);
  EXPECT_TRUE(runs.empty());
}

TEST_F(MappedFile, the_runs_of_a_real_file_are_those_of_the_kernel) {
  test::writeOut(file, 100 * 4096 + 1);  // the last block is used by one byte
  request(volume, 4096, file);
  ASSERT_EQ(ask(), 0) << log.dump();
  const auto expected = test::asRuns(test::physicalBlocks(file, 101));
  EXPECT_EQ(runsOf(0), expected);
  EXPECT_EQ(size, kEntry + 16 * expected.size());
}

TEST(SnapCommandSizeOnXfs, the_runs_of_a_real_file_are_those_of_the_kernel) {
  const test::Volume volume("xfs", 300 << 20);
  const test::LogCapture log;
  const test::ScriptedDriver driver;
  const std::string file = volume.folder() + "/reloc";
  test::writeOut(file, 100 * 4096);
  std::list<SnapVolumeInformation> volumes;
  volumes.emplace_back(4096u, 1000UL, volume.wdevice(), false, true, 0u);
  volumes.back().setRelocFileName(file);
  RunMap runs;
  unsigned int size = 0;
  EXPECT_EQ(SnapDriverInterface::Instance()->getIoctlCmdSize(&volumes, &runs, &size), 0);
  std::vector<Extent> found;
  for (const _run* run : *runs.at(0)) found.emplace_back(run->startBlock, run->numBlocks);
  EXPECT_EQ(found, test::asRuns(test::physicalBlocks(file, 100)));
  freeRunMap(runs);
  SnapDriverInterface::releaseInstance();
}

TEST_F(SnapCommandSize, runs_of_1_kib_blocks_on_a_volume_of_512_byte_blocks_are_doubled) {
  const test::Volume volume("ext4", 16 << 20, {"-b", "1024"});
  const std::string file = volume.folder() + "/reloc";
  test::writeOut(file, 700 * 1024);
  request(volume, 512, file);
  ASSERT_EQ(ask(), 0) << log.dump();
  EXPECT_EQ(runsOf(0), test::asRuns(test::physicalBlocks(file, 700), 2));
}

TEST_F(MappedFile, runs_of_4_kib_blocks_on_a_volume_of_512_byte_blocks_are_eightfold) {
  requestFile(4, 512);
  answerBlocks({100, 101, 102, 7});
  ASSERT_EQ(ask(), 0) << log.dump();
  EXPECT_THAT(runsOf(0), ElementsAre(Extent(800, 24), Extent(56, 8)));
  EXPECT_EQ(log.texts(LOG_ERR).back(),
            "The block size passed and obtained from FIBMAP doesn't match. fibmap blocksize: 4096  obtained blocksize: "
            "512\n");
  EXPECT_THAT(log.texts(LOG_DEBUG),
              testing::IsSupersetOf({std::string("Shifting blocks offset: 8. startBlock: 100, numBlocks: 3\n"),
                                     std::string(" New startBlock: 800, numBlocks: 24\n"),
                                     std::string("Shifting blocks offset: 8. startBlock: 7, numBlocks: 1\n"),
                                     std::string(" New startBlock: 56, numBlocks: 8\n")}));
}

TEST_F(MappedFile, a_factor_is_cut_to_a_whole_number) {
  requestFile(1, 3000);
  answerBlocks({100});
  ASSERT_EQ(ask(), 0) << log.dump();
  EXPECT_THAT(runsOf(0), ElementsAre(Extent(100, 1)));
  EXPECT_TRUE(log.has(LOG_DEBUG, "Shifting blocks offset: 1. startBlock: 100, numBlocks: 1\n")) << log.dump();
}

TEST_F(MappedFile, runs_in_the_volumes_own_unit_are_not_scaled) {
  requestFile(1);
  answerBlocks({100});
  ASSERT_EQ(ask(), 0);
  EXPECT_THAT(runsOf(0), ElementsAre(Extent(100, 1)));
  for (const test::LogLine& line : log.lines()) {
    EXPECT_EQ(line.text.find("Shifting"), std::string::npos);
    EXPECT_EQ(line.text.find("doesn't match"), std::string::npos);
  }
}

TEST_F(MappedFile, a_run_grows_over_consecutive_blocks_only_upwards) {
  requestFile(8);
  answerBlocks({10, 11, 12, 20, 21, 5, 4, 5});
  ASSERT_EQ(ask(), 0) << log.dump();
  EXPECT_THAT(runsOf(0), ElementsAre(Extent(10, 3), Extent(20, 2), Extent(5, 1), Extent(4, 2)));
  EXPECT_EQ(size, kEntry + 16 * 4);
  EXPECT_THAT(asked, ElementsAre(0, 1, 2, 3, 4, 5, 6, 7));
}

TEST_F(MappedFile, every_step_is_logged) {
  requestFile(3);
  answerBlocks({10, 12, 13});
  ASSERT_EQ(ask(), 0);
  EXPECT_THAT(log.texts(LOG_DEBUG), testing::IsSupersetOf({std::string("Process 1 reloc files on this volume.\n"),
                                                           "File: " + file + " Size: 12288 Blocks: 3 Blocksize: 4096\n",
                                                           std::string("Number of Runs: 2.\n")}));
  EXPECT_THAT(log.texts(LOG_INFO),
              ElementsAre("RelocFile: " + file + ".\n", "Reloc fileName: " + file + ", num of runs: 2.\n",
                          "SnapVolName: " + volume.device() + ", num of runs: 2, size to be allocated: 32.\n"));
}

TEST_F(MappedFile, the_largest_physical_block_of_the_request_is_kept) {
  requestFile(2);
  answerBlocks({std::numeric_limits<int>::max() - 1, std::numeric_limits<int>::max()});
  ASSERT_EQ(ask(), 0);
  EXPECT_THAT(runsOf(0), ElementsAre(Extent(2147483646, 2)));
}

TEST_F(SnapCommandSize, a_volume_whose_file_lies_elsewhere_has_an_entry_of_2160_bytes_and_no_runs) {
  const test::Volume first("ext4", 16 << 20, {"-b", "4096"});
  const test::Volume second("ext4", 16 << 20, {"-b", "4096"});
  test::writeOut(second.folder() + "/of_first", 4096);
  test::writeOut(second.folder() + "/of_second", 4096);
  request(first, 4096, second.folder() + "/of_first");
  request(second, 4096, second.folder() + "/of_second");
  size = 100;
  ASSERT_EQ(ask(), 0) << log.dump();
  // Neither is the first volume's new file looked for on the second.
  EXPECT_THAT(runs, ElementsAre(Pair(1u, testing::_)));
  EXPECT_EQ(runsOf(1), test::asRuns(test::physicalBlocks(second.folder() + "/of_second", 1)));
  EXPECT_EQ(size, 100 + 2 * kEntry + 16);
}

TEST_F(MappedFile, runs_of_several_files_stand_in_file_order_unmerged) {
  const std::string held = volume.folder() + "/held";
  test::makeSparse(held, 2 * 4096);
  driver.on(IOC_GET_NUM_OF_SNAPPED_VOLUMES, [](std::byte* buffer, std::size_t) {
    reinterpret_cast<_ioctlCmd*>(buffer)->requestValue = 1;
    return 0;
  });
  driver.on(IOC_GET_SNAPPED_VOL_DETAILS, [held](std::byte* buffer, std::size_t) {
    held.copy(reinterpret_cast<SnappedVolumeEntry*>(buffer + sizeof(_ioctlCmd))->relocFileName, 1023);
    return 0;
  });
  requestFile(2);
  int next = 50;  // the blocks of both files follow each other
  driver.intercept(FIBMAP, [&next](int, void* argument) {
    *static_cast<int*>(argument) = next++;
    return 0;
  });
  ASSERT_EQ(ask(), 0) << log.dump();
  EXPECT_THAT(runsOf(0), ElementsAre(Extent(50, 2), Extent(52, 2)));
  EXPECT_EQ(log.count(LOG_DEBUG, "Number of Runs: 1.\n"), 2u) << "each file's own";
  EXPECT_EQ(size, kEntry + 32);
  EXPECT_THAT(log.texts(LOG_INFO),
              testing::IsSupersetOf(
                  {"Reloc fileName: " + held + ", num of runs: 1.\n", "Reloc fileName: " + file + ", num of runs: 1.\n",
                   "SnapVolName: " + volume.device() + ", num of runs: 2, size to be allocated: 32.\n"}));
}

// What stands where the relocation file was, is refused before it is opened.
TEST_F(MappedFile, a_link_a_second_name_or_a_FIFO_is_refused) {
  const std::string target = volume.folder() + "/target";
  test::writeOut(target, 4096);
  symlink(target.c_str(), file.c_str());
  request(volume, 4096, file);
  expectRefused(file, "Error opening file " + file + " \n");
  EXPECT_TRUE(log.has(LOG_ERR, file + " is not used: it is a symbolic link.\n")) << log.dump();
  unlink(file.c_str());
  ASSERT_EQ(link(target.c_str(), file.c_str()), 0);
  expectRefused(file, "Error opening file " + file + " \n");
  EXPECT_TRUE(log.has(LOG_ERR, file + " is not used: it has 2 links.\n")) << log.dump();
  unlink(file.c_str());
  ASSERT_EQ(mkfifo(file.c_str(), 0600), 0);
  expectRefused(file, "Error opening file " + file + " \n");
  EXPECT_TRUE(log.has(LOG_ERR, file + " is not used: it is a FIFO.\n")) << log.dump();
}

TEST_F(MappedFile, a_file_with_one_hole_is_refused) {
  test::makeSparse(file, 3 * 4096);
  test::writeAt(file, 0, 4096);
  test::writeAt(file, 2 * 4096, 4096);
  request(volume, 4096, file);
  expectRefused(file, "Relocation file is sparse, not supported.\n");
}

TEST_F(MappedFile, a_file_that_begins_with_a_hole_is_refused) {
  test::makeSparse(file, 2 * 4096);
  test::writeAt(file, 4096, 4096);
  request(volume, 4096, file);
  expectRefused(file, "Relocation file is sparse, not supported.\n");
}

TEST_F(MappedFile, an_empty_file_is_asked_for_its_block_0_and_refused) {
  requestFile(0);
  answerBlocks({0});
  expectRefused(file, "Relocation file is sparse, not supported.\n");
  EXPECT_THAT(asked, ElementsAre(0));
  EXPECT_TRUE(log.has(LOG_DEBUG, "File: " + file + " Size: 0 Blocks: 0 Blocksize: 4096\n")) << log.dump();
}

TEST_F(SnapCommandSize, file_system_blocks_smaller_than_the_volumes_are_refused) {
  const test::Volume volume("ext4", 16 << 20, {"-b", "1024"});
  const std::string file = volume.folder() + "/reloc";
  test::writeOut(file, 1024);
  request(volume, 4096, file);
  expectRefused(file, "FIBMAP blockSize is less that of origblockSize. Failed to continue.\n");
  const std::vector<std::string> errors = log.texts(LOG_ERR);
  EXPECT_EQ(errors[errors.size() - 3],
            "The block size passed and obtained from FIBMAP doesn't match. fibmap blocksize: 1024  obtained blocksize: "
            "4096\n");
}

TEST_F(MappedFile, a_volume_without_a_block_size_is_refused) {
  requestFile(1, 0);
  expectRefused(file, "FIBMAP blockSize is less that of origblockSize. Failed to continue.\n");
}

TEST_F(MappedFile, a_file_system_without_a_block_size_is_refused) {
  for (const int blockSize : {0, -4096}) {
    volumes.clear();
    requestFile(1, static_cast<unsigned int>(blockSize));  // equal or not
    answerBlockSize(blockSize);
    expectRefused(file, "Error getting the block size for file: " + file + ".\n");
  }
}

TEST_F(MappedFile, a_failed_block_size_request_is_refused) {
  requestFile(1);
  driver.intercept(FIGETBSZ, [](int descriptor, void*) {
    EXPECT_EQ(fcntl(descriptor, F_GETFL) & O_ACCMODE, O_RDONLY);
    return EIO;
  });
  expectRefused(file, "Error getting the block size for file: " + file + ".\n");
}

TEST_F(MappedFile, a_file_that_cannot_be_opened_is_refused) {
  const int s = socket(AF_UNIX, SOCK_STREAM, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  file.copy(address.sun_path, sizeof address.sun_path - 1);
  ASSERT_EQ(bind(s, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  request(volume, 4096, file);
  expectRefused(file, "Error opening file " + file + " \n");
  close(s);
}

TEST_F(MappedFile, a_file_that_cannot_be_examined_is_refused) {
  requestFile(1);
  // After the mount table was read, which examines its stream too.
  driver.intercept(FIGETBSZ, [](int, void* argument) {
    *static_cast<int*>(argument) = 4096;
    test::fstatFailure = EIO;
    return 0;
  });
  expectRefused(file, "Error getting File status for file: " + file + " errno: Input/output error.\n");
}

TEST_F(MappedFile, a_failed_request_for_block_0_is_refused) {
  requestFile(2);
  answerBlocks({-EPERM, 10});
  expectRefused(file, "FIBMAP ioctl failed - errno: Operation not permitted\n");
  EXPECT_THAT(asked, ElementsAre(0));
}

TEST_F(MappedFile, a_failed_request_for_a_later_block_is_refused) {
  requestFile(4);
  answerBlocks({10, 20, -ERANGE, 30});
  expectRefused(file, "FIBMAP ioctl failed - errno: Numerical result out of range\n");
  EXPECT_THAT(asked, ElementsAre(0, 1, 2));
}

TEST_F(MappedFile, a_physical_block_that_the_request_cannot_express_is_refused) {
  requestFile(2);
  driver.intercept(FIBMAP, [](int, void* argument) {
    *static_cast<int*>(argument) = std::numeric_limits<int>::min();
    return 0;
  });
  expectRefused(file, "FIBMAP ioctl failed - errno: Value too large for defined data type\n");
}

TEST_F(MappedFile, a_file_of_more_blocks_than_the_request_can_number_is_refused_before_its_first_block) {
  test::makeSparse(file, (std::uint64_t{1} << 31) + 1);
  request(volume, 1, file);
  answerBlockSize(1);
  answerBlocks({});
  expectRefused(file, "FIBMAP ioctl failed - errno: Value too large for defined data type\n");
  EXPECT_TRUE(asked.empty());
}

TEST_F(MappedFile, a_file_of_as_many_blocks_as_the_request_can_number_is_mapped) {
  test::makeSparse(file, std::uint64_t{1} << 31);
  request(volume, 1, file);
  answerBlockSize(1);
  answerBlocks({5, -EIO});
  expectRefused(file, "FIBMAP ioctl failed - errno: Input/output error\n");
  EXPECT_THAT(asked, ElementsAre(0, 1));
}

TEST_F(MappedFile, a_file_without_a_name_is_refused) {
  volumes.emplace_back(4096u, 1000UL, volume.wdevice(), false, true, 0u);
  test::realpathOfNothing = volume.folder();
  expectRefused("", "assert at 130 in LinuxSnapLib.cpp failed.\n");
}

TEST_F(SnapCommandSize, a_refused_second_volume_frees_the_runs_of_the_first) {
  const test::Volume first("ext4", 16 << 20, {"-b", "4096"});
  const test::Volume second("ext4", 16 << 20, {"-b", "4096"});
  test::writeOut(first.folder() + "/reloc", 4096);
  test::makeSparse(second.folder() + "/reloc", 4096);
  request(first, 4096, first.folder() + "/reloc");
  request(second, 4096, second.folder() + "/reloc");
  expectRefused(second.folder() + "/reloc", "Relocation file is sparse, not supported.\n");
}

TEST_F(MappedFile, a_driver_that_does_not_answer_gives_3) {
  requestFile(1);
  driver.fail(IOC_GET_NUM_OF_SNAPPED_VOLUMES, EIO);
  EXPECT_EQ(ask(), 3);
  EXPECT_EQ(log.texts(LOG_ERR).back(), "Unable to read the relocation files.\n");
  EXPECT_TRUE(runs.empty());
}

TEST_F(MappedFile, entries_beyond_a_32_bit_size_are_an_allocation_failure) {
  requestFile(1);
  answerBlocks({10});
  size = std::numeric_limits<unsigned int>::max() - kEntry + 1;
  EXPECT_EQ(ask(), 3);
  EXPECT_THAT(log.texts(LOG_ERR), ElementsAre("Memory Allocation failure.\n"));
  EXPECT_TRUE(runs.empty());
}

TEST_F(MappedFile, runs_beyond_a_32_bit_size_are_an_allocation_failure_as_soon_as_they_do_not_fit) {
  requestFile(5);
  answerBlocks({10, 20, 30, 40, 50});
  const unsigned int roomForThree = std::numeric_limits<unsigned int>::max() - kEntry - 3 * 16 - 15;
  size = roomForThree;
  EXPECT_EQ(ask(), 3);
  EXPECT_EQ(log.texts(LOG_ERR).back(), "Memory Allocation failure.\n");
  EXPECT_TRUE(runs.empty());
  EXPECT_THAT(asked, ElementsAre(0, 1, 2, 3));
}

TEST_F(MappedFile, runs_that_just_fit_a_32_bit_size_are_taken) {
  requestFile(3);
  answerBlocks({10, 20, 30});
  size = std::numeric_limits<unsigned int>::max() - kEntry - 3 * 16;
  EXPECT_EQ(ask(), 0) << log.dump();
  EXPECT_EQ(size, std::numeric_limits<unsigned int>::max());
}

TEST_F(MappedFile, an_allocation_that_fails_anywhere_gives_3_and_leaves_nothing) {
  requestFile(4);
  answerBlocks({10, 20, 30, 31});
  ask();  // what is made once a process is made now
  freeRunMap(runs);
  std::size_t failures = 0;
  for (bool short_ = true; short_; ++failures) {
    log.clear();
    int result = 0;
    {
      const test::FailingAllocation shortage(failures);
      result = ask();
      short_ = shortage.failed();
    }
    if (!short_) {
      EXPECT_EQ(result, 0);
    } else if (result != 0) {
      EXPECT_EQ(result, 3) << log.dump();
      EXPECT_TRUE(runs.empty());
    }
    freeRunMap(runs);
  }
  EXPECT_GT(failures, 8u);  // a list, its nodes and its runs
}

TEST_F(MappedFile, a_run_list_that_memory_is_short_for_gives_3) {
  requestFile(1);
  answerBlocks({10});
  {
    const test::FailingAllocation shortage(0, sizeof(_run));
    EXPECT_EQ(ask(), 3);
    EXPECT_TRUE(shortage.failed());
  }
  EXPECT_EQ(log.texts(LOG_ERR).back(), "Memory Allocation failure.\n");
  EXPECT_TRUE(runs.empty());
}

TEST_F(MappedFile, a_million_runs_are_kept_one_by_one) {
  constexpr int kBlocks = 1'000'000;
  requestFile(kBlocks);
  driver.intercept(FIBMAP, [](int, void* argument) {
    int& block = *static_cast<int*>(argument);
    block = 1 + 2 * block;
    return 0;
  });
  ASSERT_EQ(ask(), 0);
  ASSERT_EQ(runs.at(0)->size(), static_cast<std::size_t>(kBlocks));
  EXPECT_EQ(runs.at(0)->back()->startBlock, 1999999u);
  EXPECT_EQ(size, kEntry + 16u * kBlocks);
}

TEST_F(MappedFile, a_memory_table_that_cannot_be_read_leaves_as_it_was_thrown) {
  requestFile(1);
  const test::ProcFile meminfo("meminfo", "MemFree: none\n");
  const test::OpenedFiles opened;
  EXPECT_THROW(ask(), std::out_of_range);
  EXPECT_TRUE(runs.empty());
  ASSERT_EQ(opened.all().size(), 1u);
  std::fclose(opened.all()[0].stream);  // it is left open: see the memory state's own tests
}

TEST(RunMapOwnership, freeing_takes_every_list_and_every_run_and_empties_the_map) {
  RunMap runs;
  runs[3] = new RunList{new _run{1, 2}, new _run{3, 4}};
  runs[5] = new RunList;
  runs[9] = nullptr;
  freeRunMap(runs);
  EXPECT_TRUE(runs.empty());
}
