// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>
#include <syslog.h>

#include <cerrno>
#include <filesystem>

#include "DriverFixture.h"
#include "driver/LinuxSnapLibUtil.h"

namespace {

using test::debug;
using test::error;
using test::info;
using test::LogLine;

class SnappedVolumes : public test::DriverTest {
 protected:
  void answerCount(unsigned long request, std::uint32_t count) {
    kernel.on(request, [=](std::byte* buffer, std::size_t) {
      std::memcpy(buffer + 4, &count, sizeof count);
      return 0;
    });
  }
  // The details command writes `returned` as its count and these entries.
  void answerDetails(std::uint32_t returned, std::vector<SnappedVolumeEntry> entries) {
    kernel.on(IOC_GET_SNAPPED_VOL_DETAILS, [=](std::byte* buffer, std::size_t) {
      std::memcpy(buffer + 4, &returned, sizeof returned);
      std::memcpy(buffer + 24, entries.data(), entries.size() * sizeof(SnappedVolumeEntry));
      return 0;
    });
  }
  static SnappedVolumeEntry entry(const char* volume, const char* file, std::uint32_t minorNum = 1) {
    SnappedVolumeEntry snapped{0x1'0000'0002, 4096, 77, 8, minorNum, 4711, 9, {}, {}};
    std::strcpy(snapped.snappedVolumeName, volume);
    std::strcpy(snapped.relocFileName, file);
    return snapped;
  }
  void answerMapping(const char* volume) {
    answerCount(IOC_GET_NUM_OF_RELOC_FILE_MAPPING, 1);
    kernel.on(IOC_GET_RELOC_FILE_MAPPING, [=](std::byte* buffer, std::size_t) {
      std::strcpy(reinterpret_cast<char*>(buffer) + 28, volume);
      std::strcpy(reinterpret_cast<char*>(buffer) + 1052, "/r/f");
      return 0;
    });
  }

  std::list<SnappedVolumeInformation> volumes = {{1, 2, 3, 4, 5, 6, L"before", L"there", static_cast<_DeviceState>(0)}};
};

class CountSnappedVolumes : public SnappedVolumes {};
class SnappedVolumeDetails : public SnappedVolumes {};
class IsSnapInProgress : public SnappedVolumes {};

TEST_F(CountSnappedVolumes, comes_from_the_request_value) {
  answerCount(IOC_GET_NUM_OF_SNAPPED_VOLUMES, 3);
  int count = -1;
  EXPECT_EQ(driver().GetNumOfSnappedVolumes(&count), 0U);
  EXPECT_EQ(count, 3);
  EXPECT_EQ(lines(), std::vector<LogLine>{debug("Number of volumes snapped: 3.\n")});
}

TEST_F(CountSnappedVolumes, a_missing_output_is_assert_1969_before_the_device_is_opened) {
  EXPECT_EQ(driver().GetNumOfSnappedVolumes(nullptr), 3U);
  EXPECT_EQ(log.lines(), std::vector<LogLine>{error("assert at 1969 in LinuxSnapLib.cpp failed.\n")});
  EXPECT_TRUE(kernel.calls().empty());
}

TEST_F(CountSnappedVolumes, a_failed_request_gives_6_and_writes_nothing) {
  kernel.fail(IOC_GET_NUM_OF_SNAPPED_VOLUMES, EIO);
  int count = -1;
  EXPECT_EQ(driver().GetNumOfSnappedVolumes(&count), 6U);
  EXPECT_EQ(count, -1);
  EXPECT_EQ(lines(), std::vector<LogLine>{error("IOC_GET_NUM_OF_SNAPPED_VOLUMES IOCTL failed, errno:5\n")});
}

TEST_F(CountSnappedVolumes, without_a_driver_gives_5) {
  unload();
  int count = -1;
  EXPECT_EQ(driver().GetNumOfSnappedVolumes(&count), 5U);
  EXPECT_EQ(count, -1);
  expectOpenFailure();
}

TEST_F(CountSnappedVolumes, stores_a_fresh_helper) {
  SnapDriverInterfaceUtility* before = SnapDriverInterfaceUtility::mUtilInstance;
  int count = 0;
  driver().GetNumOfSnappedVolumes(&count);
  EXPECT_NE(SnapDriverInterfaceUtility::mUtilInstance, nullptr);
  EXPECT_NE(SnapDriverInterfaceUtility::mUtilInstance, before);
}

TEST_F(SnappedVolumeDetails, appends_one_record_a_volume_behind_what_was_there) {
  answerCount(IOC_GET_NUM_OF_SNAPPED_VOLUMES, 2);
  answerDetails(2, {entry("/dev/vol-1", "/a/f1", 1), entry("/dev/vol-2", "/b/f2", 2)});
  EXPECT_EQ(driver().GetSnappedVolumeDetails(volumes), 0U);
  ASSERT_EQ(volumes.size(), 3U);
  const SnappedVolumeInformation& first = *std::next(volumes.begin());
  EXPECT_EQ(first.getMajorNum(), 8U);
  EXPECT_EQ(first.getMinorNum(), 1U);
  EXPECT_EQ(first.getBlockSize(), 4096U);
  EXPECT_EQ(first.getNumBlocks(), 0x1'0000'0002UL);
  EXPECT_EQ(first.getRelocFileSize(), 77U);
  EXPECT_EQ(first.getAppPid(), 4711);
  EXPECT_EQ(first.getSnappedVolumeName(), L"/dev/vol-1");
  EXPECT_EQ(first.getRelocFileName(), L"/a/f1");
  EXPECT_EQ(first.getDeviceState(), 9U);
  EXPECT_EQ(volumes.back().getMinorNum(), 2U);
  EXPECT_EQ(volumes.back().getSnappedVolumeName(), L"/dev/vol-2");
  EXPECT_EQ(lines(), (std::vector<LogLine>{
                         debug("Number of volumes snapped: 2.\n"),
                         info("Driver returned info for 2 snapped volumes.\n"),
                         info("Snapped Vol Details(Name: /dev/vol-1, RelFileName: /a/f1.\n"),
                         info("NumSector: 4294967298, blockSize: 4096, relocVolSize: 77, app PID: 4711.\n"),
                         info("Snapped Vol Details(Name: /dev/vol-2, RelFileName: /b/f2.\n"),
                         info("NumSector: 4294967298, blockSize: 4096, relocVolSize: 77, app PID: 4711.\n"),
                     }));
  const auto details = kernel.calls(IOC_GET_SNAPPED_VOL_DETAILS);
  ASSERT_EQ(details.size(), 1U);
  EXPECT_EQ(details[0].sent.size(), 2080U * 2 + 27);
  EXPECT_EQ(details[0].header().requestValue, 2U);
}

TEST_F(SnappedVolumeDetails, no_snapped_volumes_issue_only_the_count) {
  EXPECT_EQ(driver().GetSnappedVolumeDetails(volumes), 0U);
  EXPECT_EQ(volumes.size(), 1U);
  ASSERT_EQ(kernel.calls().size(), 1U);
  EXPECT_EQ(kernel.calls()[0].request, IOC_GET_NUM_OF_SNAPPED_VOLUMES);
  EXPECT_EQ(log.count(LOG_DEBUG, "major-minor remained same.\n"), 1U) << "the device is opened for the count only";
}

TEST_F(SnappedVolumeDetails, names_are_widened_byte_by_byte) {
  answerCount(IOC_GET_NUM_OF_SNAPPED_VOLUMES, 1);
  answerDetails(1, {entry("/dev/\xE9", "/\xFF")});
  EXPECT_EQ(driver().GetSnappedVolumeDetails(volumes), 0U);
  EXPECT_EQ(volumes.back().getSnappedVolumeName(), std::wstring(L"/dev/") + static_cast<wchar_t>(-23));
  EXPECT_EQ(volumes.back().getRelocFileName(), std::wstring(L"/") + static_cast<wchar_t>(-1));
}

TEST_F(SnappedVolumeDetails, the_count_written_back_is_followed_when_smaller) {
  answerCount(IOC_GET_NUM_OF_SNAPPED_VOLUMES, 2);
  answerDetails(1, {entry("/dev/vol-1", "/a/f1"), entry("/dev/stale", "/stale")});
  EXPECT_EQ(driver().GetSnappedVolumeDetails(volumes), 0U);
  EXPECT_EQ(volumes.size(), 2U);
  EXPECT_EQ(volumes.back().getSnappedVolumeName(), L"/dev/vol-1");
}

TEST_F(SnappedVolumeDetails, the_count_written_back_is_honoured_up_to_what_the_buffer_holds) {
  answerCount(IOC_GET_NUM_OF_SNAPPED_VOLUMES, 1);
  answerDetails(4000000000, {entry("/dev/vol-1", "/a/f1")});
  EXPECT_EQ(driver().GetSnappedVolumeDetails(volumes), 0U);
  EXPECT_EQ(volumes.size(), 2U);
  EXPECT_TRUE(log.has(LOG_INFO, "Driver returned info for 4000000000 snapped volumes.\n")) << log.dump();
}

TEST_F(SnappedVolumeDetails, a_name_without_a_nul_ends_with_its_field) {
  answerCount(IOC_GET_NUM_OF_SNAPPED_VOLUMES, 1);
  SnappedVolumeEntry unterminated = entry("", "");
  std::memset(unterminated.relocFileName, 'f', sizeof unterminated.relocFileName);
  std::memset(unterminated.snappedVolumeName, 'v', sizeof unterminated.snappedVolumeName);
  answerDetails(1, {unterminated});
  EXPECT_EQ(driver().GetSnappedVolumeDetails(volumes), 0U);
  EXPECT_EQ(volumes.back().getSnappedVolumeName(), std::wstring(1024, L'v'));
  EXPECT_EQ(volumes.back().getRelocFileName(), std::wstring(1024, L'f'));
}

TEST_F(SnappedVolumeDetails, a_failed_count_gives_6_whatever_it_was) {
  kernel.fail(IOC_GET_NUM_OF_SNAPPED_VOLUMES, EIO);
  EXPECT_EQ(driver().GetSnappedVolumeDetails(volumes), 6U);
  EXPECT_EQ(lines(), (std::vector<LogLine>{error("IOC_GET_NUM_OF_SNAPPED_VOLUMES IOCTL failed, errno:5\n"),
                                           error("Unable to obtained the number of snapped volumes.\n")}));
  unload();
  EXPECT_EQ(driver().GetSnappedVolumeDetails(volumes), 6U);
  EXPECT_EQ(lines().back(), error("Unable to obtained the number of snapped volumes.\n"));
  EXPECT_EQ(volumes.size(), 1U);
}

TEST_F(SnappedVolumeDetails, a_driver_that_goes_after_the_count_gives_5) {
  kernel.on(IOC_GET_NUM_OF_SNAPPED_VOLUMES, [this](std::byte* buffer, std::size_t) {
    const std::uint32_t count = 1;
    std::memcpy(buffer + 4, &count, sizeof count);
    unload();
    return 0;
  });
  EXPECT_EQ(driver().GetSnappedVolumeDetails(volumes), 5U);
  EXPECT_EQ(lines().back(), error("Failed to open device: /dev/mirelsnapctl, errno: 2.\n"));
  EXPECT_EQ(volumes.size(), 1U);
}

TEST_F(SnappedVolumeDetails, a_failed_request_gives_6_and_leaves_the_list) {
  answerCount(IOC_GET_NUM_OF_SNAPPED_VOLUMES, 1);
  kernel.fail(IOC_GET_SNAPPED_VOL_DETAILS, EPERM);
  EXPECT_EQ(driver().GetSnappedVolumeDetails(volumes), 6U);
  EXPECT_EQ(lines().back(), error("IOC_GET_SNAPPED_VOL_DETAILS IOCTL failed, errno:1\n"));
  EXPECT_EQ(volumes.size(), 1U);
}

TEST_F(SnappedVolumeDetails, a_count_whose_command_has_no_length_is_short_memory) {
  for (const std::uint32_t count : {0x7FFFFFFFU, 0xFFFFFFFFU}) {
    answerCount(IOC_GET_NUM_OF_SNAPPED_VOLUMES, count);
    EXPECT_EQ(driver().GetSnappedVolumeDetails(volumes), 3U);
    EXPECT_EQ(lines().back(), error("Error Allocating memory.\n"));
  }
  EXPECT_TRUE(kernel.calls(IOC_GET_SNAPPED_VOL_DETAILS).empty());
  EXPECT_EQ(volumes.size(), 1U);
}

TEST_F(IsSnapInProgress, a_mapping_is_enough) {
  answerMapping("/dev/vol-1");
  std::string volume = "/dev/vol-1";
  EXPECT_TRUE(driver().IsSnapInProgress(volume));
  EXPECT_TRUE(kernel.calls(IOC_GET_NUM_OF_SNAPPED_VOLUMES).empty());
  EXPECT_EQ(lines().back(), debug("SVolName: /dev/vol-1, RelFileName: /r/f.\n"));
}

TEST_F(IsSnapInProgress, mappings_are_read_in_order_up_to_the_one_that_matches) {
  answerCount(IOC_GET_NUM_OF_RELOC_FILE_MAPPING, 3);
  kernel.on(IOC_GET_RELOC_FILE_MAPPING, [](std::byte* buffer, std::size_t) {
    for (const char number : {'1', '2', '3'}) {
      char* entry = reinterpret_cast<char*>(buffer) + 24 + (number - '1') * 2052;
      std::strcpy(entry + 4, (std::string("/dev/vol-") + number).c_str());
      std::strcpy(entry + 1028, (std::string("/r/f") + number).c_str());
    }
    return 0;
  });
  std::string volume = "/dev/vol-2";
  EXPECT_TRUE(driver().IsSnapInProgress(volume));
  const std::vector<LogLine> all = lines();
  ASSERT_GE(all.size(), 2U);
  EXPECT_EQ((std::vector<LogLine>{all.end() - 2, all.end()}),
            (std::vector<LogLine>{debug("SVolName: /dev/vol-1, RelFileName: /r/f1.\n"),
                                  debug("SVolName: /dev/vol-2, RelFileName: /r/f2.\n")}));
}

TEST_F(IsSnapInProgress, a_symbolic_link_to_a_snapped_volume_is_another_name) {
  const test::Node device("/dev/vol-1", S_IFBLK, 8, 1);
  const test::TempDir dir;
  std::filesystem::create_symlink("/dev/vol-1", dir / "alias");
  answerMapping("/dev/vol-1");
  answerCount(IOC_GET_NUM_OF_SNAPPED_VOLUMES, 1);
  answerDetails(1, {entry("/dev/vol-1", "/a/f1")});
  std::string alias = dir / "alias";
  EXPECT_FALSE(driver().IsSnapInProgress(alias));
}

TEST_F(IsSnapInProgress, a_snapshot_is_enough) {
  answerMapping("/dev/vol-1");
  answerCount(IOC_GET_NUM_OF_SNAPPED_VOLUMES, 2);
  answerDetails(2, {entry("/dev/vol-8", "/a/f1"), entry("/dev/vol-\xE9", "/a/f1")});
  std::string volume = "/dev/vol-\xE9";
  EXPECT_TRUE(driver().IsSnapInProgress(volume));
}

TEST_F(IsSnapInProgress, neither_mapped_nor_snapped_is_false) {
  answerMapping("/dev/vol-1");
  answerCount(IOC_GET_NUM_OF_SNAPPED_VOLUMES, 1);
  answerDetails(1, {entry("/dev/vol-2", "/a/f1")});
  for (std::string volume : {"/dev/vol-3", "/dev/vol-", "/dev/vol-11", "/dev/VOL-1", "/dev/../dev/vol-1", ""}) {
    EXPECT_FALSE(driver().IsSnapInProgress(volume)) << volume;
  }
}

TEST_F(IsSnapInProgress, a_failing_list_of_mappings_is_an_empty_one) {
  answerCount(IOC_GET_NUM_OF_RELOC_FILE_MAPPING, 1);
  kernel.fail(IOC_GET_RELOC_FILE_MAPPING, EIO);
  answerCount(IOC_GET_NUM_OF_SNAPPED_VOLUMES, 1);
  answerDetails(1, {entry("/dev/vol-1", "/a/f1")});
  std::string volume = "/dev/vol-1";
  EXPECT_TRUE(driver().IsSnapInProgress(volume));
}

TEST_F(IsSnapInProgress, failing_details_are_logged_and_false) {
  kernel.fail(IOC_GET_NUM_OF_SNAPPED_VOLUMES, EIO);
  std::string volume = "/dev/vol-1";
  EXPECT_FALSE(driver().IsSnapInProgress(volume));
  EXPECT_EQ(lines().back(), error("Unable to obtain the snapped volume details.\n"));
}

}  // namespace
