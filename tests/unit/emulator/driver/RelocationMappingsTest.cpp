// SPDX-License-Identifier: Apache-2.0
//
// Mappings from volumes to relocation files.
#include <cerrno>
#include <string>

#include "DriverFixture.h"

namespace {

using test::WireCommand;

struct Mappings : DriverTest {};

TEST_F(Mappings, mappings_of_several_processes_are_counted_and_listed_in_their_order) {
  EXPECT_EQ(count(IOC_GET_NUM_OF_RELOC_FILE_MAPPING), 0u);
  ASSERT_EQ(error(IOC_CREATE_RELOC_FILE_MAPPING, test::createMappingCommand(11, "/dev/a", "/r/a")), 0);
  ASSERT_EQ(error(IOC_CREATE_RELOC_FILE_MAPPING, test::createMappingCommand(12, "/dev/b", "/r/b")), 0);
  EXPECT_EQ(count(IOC_GET_NUM_OF_RELOC_FILE_MAPPING), 2u);
  WireCommand list = test::mappingListingCommand(2);
  ASSERT_EQ(ask(IOC_GET_RELOC_FILE_MAPPING, list), 0);
  EXPECT_EQ(list.requestValue(), 2u);
  const auto first = list.record<RelocFileMappingEntry>(0);
  EXPECT_EQ(first.appPid, 11);
  EXPECT_STREQ(first.snappedVolumeName, "/dev/a");
  EXPECT_STREQ(first.relocFileName, "/r/a");
  EXPECT_EQ(list.record<RelocFileMappingEntry>(1).appPid, 12);
}

TEST_F(Mappings, a_listing_fills_no_more_than_the_room_asked_and_says_how_much) {
  ASSERT_EQ(error(IOC_CREATE_RELOC_FILE_MAPPING, test::createMappingCommand(11, "/dev/a", "/r/a")), 0);
  ASSERT_EQ(error(IOC_CREATE_RELOC_FILE_MAPPING, test::createMappingCommand(12, "/dev/b", "/r/b")), 0);
  WireCommand one = test::mappingListingCommand(1);
  ASSERT_EQ(ask(IOC_GET_RELOC_FILE_MAPPING, one), 0);
  EXPECT_EQ(one.requestValue(), 1u);
  EXPECT_STREQ(one.record<RelocFileMappingEntry>(0).snappedVolumeName, "/dev/a");
  WireCommand five = test::mappingListingCommand(5);
  ASSERT_EQ(ask(IOC_GET_RELOC_FILE_MAPPING, five), 0);
  EXPECT_EQ(five.requestValue(), 2u);
  EXPECT_EQ(five.record<RelocFileMappingEntry>(2).appPid, 0);
  ASSERT_EQ(error(IOC_CREATE_RELOC_FILE_MAPPING, test::createMappingCommand(11, "/dev/a", "/r/again")), 0);
  WireCommand again = test::mappingListingCommand(1);
  ASSERT_EQ(ask(IOC_GET_RELOC_FILE_MAPPING, again), 0);
  EXPECT_STREQ(again.record<RelocFileMappingEntry>(0).relocFileName, "/r/again") << "it keeps its place";
  WireCommand none = test::mappingListingCommand(0);
  ASSERT_EQ(ask(IOC_GET_RELOC_FILE_MAPPING, none), 0);
  EXPECT_EQ(none.requestValue(), 0u);
}

TEST_F(Mappings, a_second_mapping_of_a_volume_replaces_the_same_processs_and_is_refused_to_another) {
  ASSERT_EQ(error(IOC_CREATE_RELOC_FILE_MAPPING, test::createMappingCommand(11, "/dev/a", "/r/a")), 0);
  EXPECT_EQ(error(IOC_CREATE_RELOC_FILE_MAPPING, test::createMappingCommand(12, "/dev/a", "/r/b")), EEXIST);
  EXPECT_EQ(error(IOC_CREATE_RELOC_FILE_MAPPING, test::createMappingCommand(11, "/dev/a", "/r/c")), 0);
  EXPECT_EQ(count(IOC_GET_NUM_OF_RELOC_FILE_MAPPING), 1u);
  WireCommand list = test::mappingListingCommand(1);
  ASSERT_EQ(ask(IOC_GET_RELOC_FILE_MAPPING, list), 0);
  EXPECT_STREQ(list.record<RelocFileMappingEntry>(0).relocFileName, "/r/c");
  EXPECT_EQ(list.record<RelocFileMappingEntry>(0).appPid, 11);
}

TEST_F(Mappings, a_mapping_is_deleted_by_its_volume_and_its_makers_process_id) {
  ASSERT_EQ(error(IOC_CREATE_RELOC_FILE_MAPPING, test::createMappingCommand(11, "/dev/a", "/r/a")), 0);
  EXPECT_EQ(error(IOC_DELETE_RELOC_FILE_MAPPING, test::deleteMappingCommand(12, "/dev/a")), ENOENT);
  EXPECT_EQ(error(IOC_DELETE_RELOC_FILE_MAPPING, test::deleteMappingCommand(11, "/dev/b")), ENOENT);
  EXPECT_EQ(count(IOC_GET_NUM_OF_RELOC_FILE_MAPPING), 1u);
  EXPECT_EQ(error(IOC_DELETE_RELOC_FILE_MAPPING, test::deleteMappingCommand(11, "/dev/a")), 0);
  EXPECT_EQ(count(IOC_GET_NUM_OF_RELOC_FILE_MAPPING), 0u);
  EXPECT_EQ(error(IOC_DELETE_RELOC_FILE_MAPPING, test::deleteMappingCommand(11, "/dev/a")), ENOENT);
}

TEST_F(Mappings, a_name_of_1023_bytes_comes_back_whole) {
  const std::string name = "/" + std::string(1022, 'n');
  ASSERT_EQ(error(IOC_CREATE_RELOC_FILE_MAPPING, test::createMappingCommand(11, name, name)), 0);
  WireCommand list = test::mappingListingCommand(1);
  ASSERT_EQ(ask(IOC_GET_RELOC_FILE_MAPPING, list), 0);
  EXPECT_EQ(list.record<RelocFileMappingEntry>(0).relocFileName, name);
}

}  // namespace
