// SPDX-License-Identifier: Apache-2.0
#include "driver/DriverCommand.h"

#include <gtest/gtest.h>
#include <syslog.h>

#include <cstdlib>

#include "Interposed.h"
#include "LogCapture.h"

namespace {

using test::FakeRand;
using test::FakeTime;
using test::LogCapture;

// The words of a handshake made at `now`.
_ioctlCmd handshakeAt(std::time_t now) {
  const FakeTime clock(now);
  _ioctlCmd header{};
  SnapDriverInterfaceUtility().generateHandShake(&header);
  return header;
}

std::uint32_t firstRandomOf(unsigned int seed) {
  std::srand(seed);
  return static_cast<std::uint32_t>(std::rand());
}

TEST(GenerateHandShake, the_first_second_of_january_is_seed_1000) {
  const _ioctlCmd header = handshakeAt(0);  // 1970-01-01 00:00:00 UTC
  EXPECT_EQ(header.handshakeValue, firstRandomOf(1000));
  EXPECT_EQ(header.handshakeCheck, (firstRandomOf(1000) % 12 + 1234) % 20);
}

TEST(GenerateHandShake, the_seed_is_made_of_day_second_minute_and_month_in_utc) {
  setenv("TZ", "XXX-05:30", 1);
  tzset();
  EXPECT_EQ(handshakeAt(1735689598).handshakeValue, firstRandomOf(31 * 1000 + 58 + 59 * 100 + 11 * 10000))
      << "2024-12-31 23:59:58 UTC";
  unsetenv("TZ");
  tzset();
}

TEST(GenerateHandShake, two_commands_of_one_second_carry_the_same_words_and_another_second_others) {
  const _ioctlCmd first = handshakeAt(1000), second = handshakeAt(1000), later = handshakeAt(1001);
  EXPECT_EQ(first.handshakeValue, second.handshakeValue);
  EXPECT_EQ(first.handshakeCheck, second.handshakeCheck);
  EXPECT_NE(first.handshakeValue, later.handshakeValue);
}

TEST(GenerateHandShake, what_the_process_draws_next_follows_from_the_seed) {
  handshakeAt(0);
  const int next = std::rand();
  firstRandomOf(1000);
  EXPECT_EQ(next, std::rand());
}

TEST(GenerateHandShake, the_check_word_follows_from_the_value) {
  const std::pair<int, std::uint32_t> expected[] = {{0, 14}, {12, 14}, {1, 15},        {5, 19},
                                                    {6, 0},  {11, 5},  {2147483647, 1}};
  for (const auto& [value, check] : expected) {
    const FakeRand random({value});
    const _ioctlCmd header = handshakeAt(0);
    EXPECT_EQ(header.handshakeValue, static_cast<std::uint32_t>(value));
    EXPECT_EQ(header.handshakeCheck, check) << value;
  }
}

TEST(GenerateHandShake, only_the_two_words_are_written) {
  const FakeTime clock(0);
  _ioctlCmd header;
  std::memset(&header, 0xAB, sizeof header);
  SnapDriverInterfaceUtility().generateHandShake(&header);
  EXPECT_EQ(header.flags, 0xABABABABU);
  EXPECT_EQ(header.requestValue, 0xABABABABU);
  EXPECT_EQ(header.length, 0xABABABABU);
  EXPECT_EQ(static_cast<std::uint32_t>(header.driverStatus), 0xABABABABU);
}

TEST(GenerateHandShake, a_missing_header_is_assert_55) {
  LogCapture log;
  SnapDriverInterfaceUtility().generateHandShake(nullptr);
  EXPECT_EQ(log.texts(LOG_ERR), std::vector<std::string>{"assert at 55 in LinuxSnapLibUtil.cpp failed.\n"});
}

TEST(DriverCommand, is_zero_but_for_request_value_length_and_handshake) {
  const FakeTime clock(0);
  DriverCommand command(91, 7);
  ASSERT_FALSE(!command);
  EXPECT_EQ(command.length(), 91U);
  EXPECT_EQ(command.header().flags, 0U);
  EXPECT_EQ(command.header().requestValue, 7U);
  EXPECT_EQ(command.header().handshakeValue, firstRandomOf(1000));
  EXPECT_EQ(command.header().handshakeCheck, (firstRandomOf(1000) % 12 + 1234) % 20);
  EXPECT_EQ(command.header().length, 91U);
  EXPECT_EQ(command.header().driverStatus, 0);
  const char* payload = command.at<char>(24);
  EXPECT_EQ(std::string(payload, 67), std::string(67, '\0'));
}

TEST(DriverCommand, stores_a_fresh_helper_each_time_and_keeps_the_one_before) {
  const DriverCommand first(28, 0);
  SnapDriverInterfaceUtility* helper = SnapDriverInterfaceUtility::mUtilInstance;
  ASSERT_NE(helper, nullptr);
  const DriverCommand second(28, 0);
  EXPECT_NE(SnapDriverInterfaceUtility::mUtilInstance, helper);
}

TEST(DriverCommand, made_with_a_stored_helper_stores_none) {
  SnapDriverInterfaceUtility* helper = storeFreshUtility();
  ASSERT_EQ(SnapDriverInterfaceUtility::mUtilInstance, helper);
  const FakeTime clock(0);
  DriverCommand command(28, 3, *helper);
  ASSERT_FALSE(!command);
  EXPECT_EQ(SnapDriverInterfaceUtility::mUtilInstance, helper);
  EXPECT_EQ(command.header().requestValue, 3U);
  EXPECT_EQ(command.header().length, 28U);
  EXPECT_EQ(command.header().handshakeValue, firstRandomOf(1000));
}

TEST(DriverCommand, a_length_that_the_header_cannot_express_is_short_memory) {
  DriverCommand tooLong(0x1'0000'0000UL, 0);
  EXPECT_TRUE(!tooLong);
  DriverCommand farTooLong(~0UL, 0, *storeFreshUtility());
  EXPECT_TRUE(!farTooLong);
}

TEST(DriverCommand, filled_records_are_what_the_driver_says_up_to_what_the_buffer_holds) {
  DriverCommand command(sizeof(_ioctlCmd) + 3 * sizeof(VolumeListEntry) + 3, 3);
  EXPECT_EQ(command.filledRecords<VolumeListEntry>(), 3U);
  command.header().requestValue = 2;
  EXPECT_EQ(command.filledRecords<VolumeListEntry>(), 2U);
  command.header().requestValue = 0;
  EXPECT_EQ(command.filledRecords<VolumeListEntry>(), 0U);
  command.header().requestValue = 4;
  EXPECT_EQ(command.filledRecords<VolumeListEntry>(), 3U);
  command.header().requestValue = 0xFFFFFFFF;
  EXPECT_EQ(command.filledRecords<VolumeListEntry>(), 3U);
}

TEST(TextFields, a_text_is_cut_to_leave_room_for_its_nul) {
  char field[4] = {'x', 'x', 'x', 'x'};
  putText(field, "ab");
  EXPECT_STREQ(field, "ab");
  putText(field, "abc");
  EXPECT_STREQ(field, "abc");
  putText(field, "abcd");
  EXPECT_STREQ(field, "abc");
  putText(field, "");
  EXPECT_STREQ(field, "");
}

TEST(TextFields, a_field_without_a_nul_ends_with_its_field) {
  struct {
    char field[4] = {'a', 'b', 'c', 'd'};
    char behind = 'x';
  } record;
  EXPECT_EQ(getText(record.field), "abcd");
  record.field[2] = '\0';
  EXPECT_EQ(getText(record.field), "ab");
  record.field[0] = '\0';
  EXPECT_EQ(getText(record.field), "");
}

}  // namespace
