// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>
#include <syslog.h>

#include <cerrno>

#include "DriverFixture.h"

namespace {

using test::debug;
using test::DriverCall;
using test::error;
using test::info;
using test::LogLine;

struct Mapping {
  int pid;
  std::string volume;
  std::string file;
};

class Mappings : public test::DriverTest {
 protected:
  void answerCount(std::uint32_t count) {
    kernel.on(IOC_GET_NUM_OF_RELOC_FILE_MAPPING, [=](std::byte* buffer, std::size_t) {
      std::memcpy(buffer + 4, &count, sizeof count);
      return 0;
    });
  }
  // The listing writes `returned` as its count and these entries.
  void answerListing(std::uint32_t returned, std::vector<Mapping> entries) {
    kernel.on(IOC_GET_RELOC_FILE_MAPPING, [=](std::byte* buffer, std::size_t) {
      std::memcpy(buffer + 4, &returned, sizeof returned);
      std::byte* entry = buffer + 24;
      for (const Mapping& mapping : entries) {
        std::memcpy(entry, &mapping.pid, 4);
        std::memcpy(entry + 4, mapping.volume.data(), mapping.volume.size());
        std::memcpy(entry + 1028, mapping.file.data(), mapping.file.size());
        entry += 2052;
      }
      return 0;
    });
  }
  // What the driver sent, as "pid volume file".
  static std::vector<std::string> texts(const std::list<RelocFileMappingInformation>& mappings) {
    std::vector<std::string> all;
    for (const auto& mapping : mappings) {
      all.push_back(std::to_string(mapping.getAppPid()) + " " + mapping.getSnappedVolumeName() + " " +
                    mapping.getRelocFileName());
    }
    return all;
  }

  std::list<RelocFileMappingInformation> mappings = {{1, "before", "there"}};
};

class CreateMapping : public Mappings {};
class DeleteMapping : public Mappings {};
class CountMappings : public Mappings {};
class ListMappings : public Mappings {};

TEST_F(CreateMapping, sends_the_names_and_the_process) {
  EXPECT_EQ(driver().CreateRelocationFileMapping("/dev/vol-1", "/mnt/.verrelocarea/vol-1", 4711), 0U);
  ASSERT_EQ(kernel.calls().size(), 1U);
  const DriverCall& sent = kernel.calls()[0];
  EXPECT_EQ(sent.request, IOC_CREATE_RELOC_FILE_MAPPING);
  EXPECT_EQ(sent.sent.size(), 2079U);
  EXPECT_EQ(sent.get<std::int32_t>(24), 4711);
  EXPECT_EQ(sent.text(28), "/dev/vol-1");
  EXPECT_EQ(sent.text(1052), "/mnt/.verrelocarea/vol-1");
  EXPECT_TRUE(lines().empty()) << log.dump();
}

TEST_F(CreateMapping, names_are_cut_to_1023_characters_and_terminated) {
  const std::string volume(1023, 'v'), longVolume(1500, 'v'), file(2000, 'f');
  EXPECT_EQ(driver().CreateRelocationFileMapping(volume, file, 1), 0U);
  EXPECT_EQ(driver().CreateRelocationFileMapping(longVolume, file, 1), 0U);
  for (const DriverCall& sent : kernel.calls()) {
    ASSERT_EQ(sent.sent.size(), 2079U);
    EXPECT_EQ(sent.text(28), std::string(1023, 'v'));
    EXPECT_EQ(sent.sent[28 + 1023], std::byte{0});
    EXPECT_EQ(sent.text(1052), std::string(1023, 'f'));
    EXPECT_EQ(sent.sent[1052 + 1023], std::byte{0});
    for (std::size_t i = 2076; i < 2079; ++i) EXPECT_EQ(sent.sent[i], std::byte{0});
  }
}

TEST_F(CreateMapping, a_failed_request_gives_6_with_the_delete_commands_text) {
  kernel.fail(IOC_CREATE_RELOC_FILE_MAPPING, EEXIST);
  EXPECT_EQ(driver().CreateRelocationFileMapping("/dev/vol-1", "/f", 1), 6U);
  EXPECT_EQ(lines(), std::vector<LogLine>{error("IOC_DELETE_RELOC_FILE_MAPPING IOCTL failed, errno:17\n")});
}

TEST_F(CreateMapping, the_status_word_is_not_looked_at) {
  kernel.status(IOC_CREATE_RELOC_FILE_MAPPING, -2);
  EXPECT_EQ(driver().CreateRelocationFileMapping("/dev/vol-1", "/f", 1), 0U);
  EXPECT_TRUE(lines().empty()) << log.dump();
}

TEST_F(CreateMapping, without_a_driver_gives_5) {
  unload();
  EXPECT_EQ(driver().CreateRelocationFileMapping("/dev/vol-1", "/f", 1), 5U);
  expectOpenFailure();
}

TEST_F(DeleteMapping, sends_the_volume_and_the_process_and_no_file) {
  EXPECT_EQ(driver().DeleteRelocationFileMapping("/dev/vol-1", -5), 0U);
  ASSERT_EQ(kernel.calls().size(), 1U);
  const DriverCall& sent = kernel.calls()[0];
  EXPECT_EQ(sent.request, IOC_DELETE_RELOC_FILE_MAPPING);
  ASSERT_EQ(sent.sent.size(), 2079U);
  EXPECT_EQ(sent.get<std::int32_t>(24), -5);
  EXPECT_EQ(sent.text(28), "/dev/vol-1");
  for (std::size_t i = 1052; i < 2079; ++i) EXPECT_EQ(sent.sent[i], std::byte{0}) << i;
}

TEST_F(DeleteMapping, a_failed_request_gives_6) {
  kernel.fail(IOC_DELETE_RELOC_FILE_MAPPING, ENOENT);
  EXPECT_EQ(driver().DeleteRelocationFileMapping("/dev/vol-1", 1), 6U);
  EXPECT_EQ(lines(), std::vector<LogLine>{error("IOC_DELETE_RELOC_FILE_MAPPING IOCTL failed, errno:2\n")});
}

TEST_F(DeleteMapping, the_status_word_is_not_looked_at) {
  kernel.status(IOC_DELETE_RELOC_FILE_MAPPING, -4);
  EXPECT_EQ(driver().DeleteRelocationFileMapping("/dev/vol-1", 1), 0U);
}

TEST_F(DeleteMapping, without_a_driver_gives_5) {
  unload();
  EXPECT_EQ(driver().DeleteRelocationFileMapping("/dev/vol-1", 1), 5U);
  expectOpenFailure();
}

TEST_F(CountMappings, comes_from_the_request_value) {
  answerCount(12);
  EXPECT_EQ(driver().GetNumOfRelocFileMapping(), 12U);
  EXPECT_EQ(lines(), std::vector<LogLine>{debug("Number of reloc files mapped: 12.\n")});
}

TEST_F(CountMappings, a_failure_and_a_count_share_their_values) {
  answerCount(6);
  EXPECT_EQ(driver().GetNumOfRelocFileMapping(), 6U);
  kernel.fail(IOC_GET_NUM_OF_RELOC_FILE_MAPPING, EIO);
  EXPECT_EQ(driver().GetNumOfRelocFileMapping(), 6U);
  EXPECT_EQ(lines(), (std::vector<LogLine>{debug("Number of reloc files mapped: 6.\n"),
                                           error("IOC_GET_NUM_OF_RELOC_FILE_MAPPING IOCTL failed, errno:5\n")}));
  unload();
  EXPECT_EQ(driver().GetNumOfRelocFileMapping(), 5U);
}

TEST_F(ListMappings, appends_one_record_a_mapping_behind_what_was_there) {
  answerCount(2);
  answerListing(2, {{10, "/dev/vol-1", "/a/f1"}, {-1, "/dev/vol-2", "/b/f2"}});
  EXPECT_EQ(driver().GetRelocFileMapping(mappings), 0U);
  EXPECT_EQ(texts(mappings),
            (std::vector<std::string>{"1 before there", "10 /dev/vol-1 /a/f1", "-1 /dev/vol-2 /b/f2"}));
  EXPECT_EQ(lines(),
            (std::vector<LogLine>{
                debug("Number of reloc files mapped: 2.\n"), info("Driver returned info for 2 mapped volumes.\n"),
                debug("Reloc Map Details(Name: /dev/vol-1, RelFileName: /a/f1, pid: 10.\n"),
                debug("Reloc Map Details(Name: /dev/vol-2, RelFileName: /b/f2, pid: 4294967295.\n")}));
  const auto listing = kernel.calls(IOC_GET_RELOC_FILE_MAPPING);
  ASSERT_EQ(listing.size(), 1U);
  EXPECT_EQ(listing[0].sent.size(), 2052U * 2 + 27);
  EXPECT_EQ(listing[0].header().requestValue, 2U);
}

TEST_F(ListMappings, no_mappings_issue_only_the_count) {
  answerCount(0);
  EXPECT_EQ(driver().GetRelocFileMapping(mappings), 0U);
  EXPECT_EQ(mappings.size(), 1U);
  ASSERT_EQ(kernel.calls().size(), 1U);
  EXPECT_EQ(kernel.calls()[0].request, IOC_GET_NUM_OF_RELOC_FILE_MAPPING);
  EXPECT_EQ(log.count(LOG_DEBUG, "major-minor remained same.\n"), 1U) << "the device is opened for the count only";
}

TEST_F(ListMappings, fewer_entries_than_asked_for_give_only_those) {
  answerCount(3);
  answerListing(1, {{10, "/dev/vol-1", "/a/f1"}, {11, "/dev/stale", "/stale"}});
  EXPECT_EQ(driver().GetRelocFileMapping(mappings), 0U);
  EXPECT_EQ(texts(mappings), (std::vector<std::string>{"1 before there", "10 /dev/vol-1 /a/f1"}));
}

TEST_F(ListMappings, none_returned_leaves_the_list) {
  answerCount(3);
  answerListing(0, {{10, "/dev/vol-1", "/a/f1"}});
  EXPECT_EQ(driver().GetRelocFileMapping(mappings), 0U);
  EXPECT_EQ(mappings.size(), 1U);
  EXPECT_EQ(lines().back(), info("Driver returned info for 0 mapped volumes.\n"));
}

TEST_F(ListMappings, a_count_beyond_the_buffer_is_honoured_up_to_what_the_buffer_holds) {
  answerCount(2);
  answerListing(4000000000, {{10, "/dev/vol-1", "/a/f1"}, {11, "/dev/vol-2", "/b/f2"}});
  EXPECT_EQ(driver().GetRelocFileMapping(mappings), 0U);
  EXPECT_EQ(texts(mappings),
            (std::vector<std::string>{"1 before there", "10 /dev/vol-1 /a/f1", "11 /dev/vol-2 /b/f2"}));
  EXPECT_TRUE(log.has(LOG_INFO, "Driver returned info for 4000000000 mapped volumes.\n")) << log.dump();
}

TEST_F(ListMappings, a_name_without_a_nul_ends_with_its_field) {
  answerCount(1);
  answerListing(1, {{10, std::string(1024, 'v'), std::string(1024, 'f')}});
  EXPECT_EQ(driver().GetRelocFileMapping(mappings), 0U);
  EXPECT_EQ(mappings.back().getSnappedVolumeName(), std::string(1024, 'v'));
  EXPECT_EQ(mappings.back().getRelocFileName(), std::string(1024, 'f'));
}

TEST_F(ListMappings, a_count_that_is_negative_as_a_signed_number_gives_6) {
  for (const std::uint32_t count : {0x80000000U, 0xFFFFFFFFU}) {
    answerCount(count);
    EXPECT_EQ(driver().GetRelocFileMapping(mappings), 6U);
    EXPECT_EQ(log.count(LOG_ERR, "Unable to obtained the number of mappings.\n"), 1U) << log.dump();
    log.clear();
  }
  EXPECT_TRUE(kernel.calls(IOC_GET_RELOC_FILE_MAPPING).empty());
  EXPECT_EQ(mappings.size(), 1U);
}

TEST_F(ListMappings, a_count_whose_command_has_no_length_is_short_memory) {
  answerCount(0x7FFFFFFF);
  EXPECT_EQ(driver().GetRelocFileMapping(mappings), 3U);
  EXPECT_TRUE(kernel.calls(IOC_GET_RELOC_FILE_MAPPING).empty());
  EXPECT_EQ(lines().back(), error("Error Allocating memory.\n"));
  EXPECT_EQ(mappings.size(), 1U);
}

TEST_F(ListMappings, a_failed_count_is_used_as_the_count_6) {
  kernel.fail(IOC_GET_NUM_OF_RELOC_FILE_MAPPING, EIO);
  answerListing(1, {{10, "/dev/vol-1", "/a/f1"}});
  EXPECT_EQ(driver().GetRelocFileMapping(mappings), 0U);
  EXPECT_EQ(mappings.size(), 2U);
  EXPECT_EQ(kernel.calls(IOC_GET_RELOC_FILE_MAPPING).at(0).header().requestValue, 6U);
}

TEST_F(ListMappings, without_a_driver_the_count_is_5_and_the_listing_fails_to_open) {
  unload();
  EXPECT_EQ(driver().GetRelocFileMapping(mappings), 5U);
  expectOpenFailure();
  EXPECT_EQ(log.count(LOG_ERR, "Failed to open device: /dev/mirelsnapctl, errno: 2.\n"), 2U);
  EXPECT_EQ(mappings.size(), 1U);
}

TEST_F(ListMappings, a_failed_listing_gives_6_and_leaves_the_list) {
  answerCount(1);
  kernel.fail(IOC_GET_RELOC_FILE_MAPPING, ENODEV);
  EXPECT_EQ(driver().GetRelocFileMapping(mappings), 6U);
  EXPECT_EQ(mappings.size(), 1U);
  EXPECT_EQ(lines().back(), error("IOC_GET_RELOC_FILE_MAPPING IOCTL failed, errno:19\n"));
}

}  // namespace
