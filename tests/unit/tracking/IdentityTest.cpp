// SPDX-License-Identifier: Apache-2.0
//
// Whether a volume is tracked, and what identifies its tracking.
#include <malloc.h>

#include <cerrno>

#include "TrackingFixture.h"

namespace {

using test::debug;
using test::error;
using test::info;
using test::LogLine;
using test::Wire;

class IsVtrackActive : public test::TrackingTest {};

TEST_F(IsVtrackActive, sends_35_bytes_with_the_devices_numbers) {
  kernel.status(IOC_IS_VTRACK_ACTIVE, 3);
  driver().IsVtrackActive(volume);
  expectSent(0xC01C5318, Wire(0, 1, 35).u32(24, 8).u32(28, 0x12345));
}

TEST_F(IsVtrackActive, status_2_is_active) {
  kernel.status(IOC_IS_VTRACK_ACTIVE, 2);
  EXPECT_TRUE(driver().IsVtrackActive(volume));
  EXPECT_EQ(lines(), std::vector<LogLine>{debug("Vtrack is Active.\n")});
}

TEST_F(IsVtrackActive, status_3_is_not_active) {
  kernel.status(IOC_IS_VTRACK_ACTIVE, 3);
  EXPECT_FALSE(driver().IsVtrackActive(volume));
  EXPECT_EQ(lines(), std::vector<LogLine>{debug("Vtrack is not Active.\n")});
}

TEST_F(IsVtrackActive, any_other_status_is_unknown_and_false_also_the_negative_ones_of_the_volume_checks) {
  for (const int status : {-2, 0, 1, 4, -3, -4, -6, -7}) {
    log.clear();
    kernel.status(IOC_IS_VTRACK_ACTIVE, status);
    EXPECT_FALSE(driver().IsVtrackActive(volume)) << status;
    EXPECT_EQ(lines(), std::vector<LogLine>{error("Unkown return code.\n")}) << status;
  }
}

TEST_F(IsVtrackActive, a_failed_request_is_false_whatever_its_status_and_is_logged_without_errno) {
  kernel.fail(IOC_IS_VTRACK_ACTIVE, EBUSY, 2);
  EXPECT_FALSE(driver().IsVtrackActive(volume));
  EXPECT_EQ(lines(), std::vector<LogLine>{error("Is_Vtrack_Active IOCTL failed\n")});
}

TEST_F(IsVtrackActive, a_request_that_answers_anything_but_0_failed) {
  kernel.fail(IOC_IS_VTRACK_ACTIVE, -1, 2);
  EXPECT_FALSE(driver().IsVtrackActive(volume));
  EXPECT_EQ(lines(), std::vector<LogLine>{error("Is_Vtrack_Active IOCTL failed\n")});
}

TEST_F(IsVtrackActive, a_missing_device_logs_two_lines_and_is_false_without_opening_the_control_device) {
  EXPECT_FALSE(driver().IsVtrackActive(missing));
  EXPECT_EQ(log.lines(), (std::vector<LogLine>{error("/dev/nothing: Device does not exist.\n"),
                                               error("Invalid block device: /dev/nothing.\n")}));
  expectUntouched();
}

TEST_F(IsVtrackActive, what_is_no_block_device_logs_two_lines_and_is_false_without_opening_the_control_device) {
  EXPECT_FALSE(driver().IsVtrackActive(wrong));
  EXPECT_EQ(log.lines(), (std::vector<LogLine>{error("/dev/null: is not a valid block device.\n"),
                                               error("Invalid block device: /dev/null.\n")}));
  expectUntouched();
}

TEST_F(IsVtrackActive, asks_for_the_low_bytes_of_the_wide_name) {
  kernel.status(IOC_IS_VTRACK_ACTIVE, 2);
  volume = L"/dev/vol-\x131";  // 0x131 & 0xFF is '1'
  EXPECT_TRUE(driver().IsVtrackActive(volume));
}

TEST_F(IsVtrackActive, without_a_driver_is_false) {
  unload();
  EXPECT_FALSE(driver().IsVtrackActive(volume));
  expectOpenFailure();
}

class GetVtrackVars : public test::TrackingTest {
 protected:
  void answerVars(std::uint32_t number, const std::string& text, int result = 0) {
    kernel.on(IOC_GET_VTRACK_VARS, [=](std::byte* buffer, std::size_t) {
      test::answer(buffer, 32, number);
      std::memcpy(buffer + 36, text.data(), text.size());
      return result;
    });
  }
  unsigned int get(const std::wstring& name) { return driver().GetVtrackVars(name, guid, sequenceNumber); }
  void expectOutputsUnchanged() {
    EXPECT_EQ(guid, "old");
    EXPECT_EQ(sequenceNumber, 77U);
  }

  std::string guid = "old";
  unsigned int sequenceNumber = 77;
};

TEST_F(GetVtrackVars, sends_79_bytes_with_the_devices_numbers) {
  get(L"/dev/vol-2");
  expectSent(0xC01C5316, Wire(0, 1, 79).u32(24, 259).u32(28, 2));
}

TEST_F(GetVtrackVars, hands_out_the_text_and_the_number) {
  answerVars(0xFFFFFFFE, "01234567-89ab-1def-8123-456789abcdef");
  EXPECT_EQ(get(volume), 0U);
  EXPECT_EQ(guid, "01234567-89ab-1def-8123-456789abcdef");
  EXPECT_EQ(sequenceNumber, 0xFFFFFFFEU);
  EXPECT_EQ(lines(), (std::vector<LogLine>{
                         info("Driver returned info for volume: /dev/vol-1.\n"),
                         debug("GUID: 01234567-89ab-1def-8123-456789abcdef, Sequence Number: 4294967294.\n")}));
}

TEST_F(GetVtrackVars, a_text_without_an_end_ends_with_its_43_bytes) {
  kernel.on(IOC_GET_VTRACK_VARS, [](std::byte* buffer, std::size_t) {
    std::memset(buffer + 36, 'g', malloc_usable_size(buffer) - 36);  // no zero follows that could end it
    return 0;
  });
  EXPECT_EQ(get(volume), 0U);
  EXPECT_EQ(guid, std::string(43, 'g'));
}

TEST_F(GetVtrackVars, a_failed_request_gives_6_and_leaves_the_outputs) {
  answerVars(5, "new", ENODATA);
  EXPECT_EQ(get(volume), 6U);
  expectOutputsUnchanged();
  EXPECT_EQ(lines(), std::vector<LogLine>{error("IOC_GET_VTRACK_VARS IOCTL failed, errno:61\n")});
}

TEST_F(GetVtrackVars, a_request_that_answers_anything_but_0_failed) {
  answerVars(5, "new", -1);
  EXPECT_EQ(get(volume), 6U);
  expectOutputsUnchanged();
}

TEST_F(GetVtrackVars, a_missing_device_gives_8_after_the_control_device_was_opened) {
  EXPECT_EQ(get(missing), 8U);
  EXPECT_EQ(log.lines(), (std::vector<LogLine>{debug("major-minor remained same.\n"),
                                               error("/dev/nothing: Device does not exist.\n"),
                                               error("Device is invalid: /dev/nothing.\n")}));
  EXPECT_TRUE(kernel.calls().empty());
  expectOutputsUnchanged();
}

TEST_F(GetVtrackVars, what_is_no_block_device_gives_7_after_the_control_device_was_opened) {
  EXPECT_EQ(get(wrong), 7U);
  EXPECT_EQ(log.lines(), (std::vector<LogLine>{debug("major-minor remained same.\n"),
                                               error("/dev/null: is not a valid block device.\n"),
                                               error("Device is invalid: /dev/null.\n")}));
  EXPECT_TRUE(kernel.calls().empty());
  expectOutputsUnchanged();
}

TEST_F(GetVtrackVars, a_missing_driver_is_found_before_a_missing_device) {
  unload();
  EXPECT_EQ(get(missing), 5U);
  expectOpenFailure();
  EXPECT_FALSE(log.has(LOG_ERR, "/dev/nothing: Device does not exist.\n"));
  expectOutputsUnchanged();
}

class StopVtrack : public test::TrackingTest {
 protected:
  std::list<std::wstring> both = {L"/dev/vol-1", L"/dev/vol-2"};
};

TEST_F(StopVtrack, sends_one_command_for_all_volumes_in_list_order) {
  EXPECT_EQ(driver().StopVtrack(&both), 0U);
  expectSent(0xC01C5317, Wire(0, 2, 51).u32(24, 8).u32(28, 0x12345).u32(36, 259).u32(40, 2));
  EXPECT_EQ(lines(), (std::vector<LogLine>{debug("STOP VTRACK VOL ID: (MAJ, MIN): (8, 74565).\n"),
                                           debug("STOP VTRACK VOL ID: (MAJ, MIN): (259, 2).\n")}));
}

TEST_F(StopVtrack, a_missing_list_and_an_empty_one_are_asserts_of_their_own) {
  std::list<std::wstring> none;
  EXPECT_EQ(driver().StopVtrack(nullptr), 3U);
  EXPECT_EQ(driver().StopVtrack(&none), 3U);
  EXPECT_EQ(log.lines(), (std::vector<LogLine>{error("assert at 1328 in LinuxSnapLib.cpp failed.\n"),
                                               error("assert at 1329 in LinuxSnapLib.cpp failed.\n")}));
  expectUntouched();
}

TEST_F(StopVtrack, a_name_that_does_not_resolve_gives_3_before_the_control_device_is_opened) {
  std::list<std::wstring> oneMissing = {volume, missing}, oneWrong = {wrong};
  EXPECT_EQ(driver().StopVtrack(&oneMissing), 3U);
  EXPECT_EQ(driver().StopVtrack(&oneWrong), 3U);
  EXPECT_EQ(log.lines(), (std::vector<LogLine>{error("/dev/nothing: Device does not exist.\n"),
                                               error("/dev/null: is not a valid block device.\n")}));
  expectUntouched();
}

TEST_F(StopVtrack, without_a_driver_gives_5) {
  unload();
  EXPECT_EQ(driver().StopVtrack(&both), 5U);
  expectOpenFailure();
  EXPECT_TRUE(log.texts(LOG_DEBUG).empty()) << "no volume is named before the control device is open";
}

TEST_F(StopVtrack, a_volume_that_the_driver_does_not_know_gives_0_and_is_logged) {
  for (const int status : {-4, -5}) {
    log.clear();
    kernel.fail(IOC_STOP_VTRACK, ENOENT, status);
    EXPECT_EQ(driver().StopVtrack(&both), 0U) << status;
    EXPECT_EQ(log.texts(LOG_ERR), std::vector<std::string>{"The volume is not snapped\n"}) << status;
  }
}

TEST_F(StopVtrack, any_other_failure_gives_6_with_the_text_of_a_discard) {
  for (const int status : {0, -2, -3, -6, -7, 4, 5}) {
    log.clear();
    kernel.fail(IOC_STOP_VTRACK, EIO, status);
    EXPECT_EQ(driver().StopVtrack(&both), 6U) << status;
    EXPECT_EQ(log.texts(LOG_ERR), std::vector<std::string>{"Snap Discard IOCTL failed, errno:5\n"}) << status;
  }
}

TEST_F(StopVtrack, a_request_that_answers_anything_but_0_failed) {
  kernel.fail(IOC_STOP_VTRACK, -1);
  EXPECT_EQ(driver().StopVtrack(&both), 6U);
  kernel.fail(IOC_STOP_VTRACK, -1, -4);
  EXPECT_EQ(driver().StopVtrack(&both), 0U);
  EXPECT_TRUE(log.has(LOG_ERR, "The volume is not snapped\n"));
}

TEST_F(StopVtrack, the_status_of_a_request_that_succeeded_means_nothing) {
  for (const int status : {-4, -5, -1, 2}) {
    kernel.status(IOC_STOP_VTRACK, status);
    EXPECT_EQ(driver().StopVtrack(&both), 0U) << status;
  }
  EXPECT_TRUE(log.texts(LOG_ERR).empty());
}

}  // namespace
