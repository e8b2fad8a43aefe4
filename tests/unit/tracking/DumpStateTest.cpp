// SPDX-License-Identifier: Apache-2.0
//
// Having the driver tell its state.
#include <cerrno>

#include "TrackingFixture.h"

namespace {

using test::debug;
using test::error;
using test::LogLine;
using test::Wire;

class DumpState : public test::TrackingTest {
 protected:
  const std::wstring unused = L"/never/looked/at", file = L"/var/tmp/dump";
};

TEST_F(DumpState, sends_299_bytes_with_both_flags_and_the_file_name) {
  EXPECT_EQ(driver().DumpState(-2, 1, unused, file), 0U);
  expectSent(0xC01C5308, Wire(0, 0, 299).u8(24, 0xFE).u8(25, 1).text(36, "/var/tmp/dump"));
  EXPECT_EQ(lines(), std::vector<LogLine>{debug("DumpState: file : /var/tmp/dump\n")});
}

TEST_F(DumpState, file_flag_0_leaves_the_file_name_zero_and_shows_an_empty_one) {
  EXPECT_EQ(driver().DumpState(7, 0, unused, file), 0U);
  expectSent(0xC01C5308, Wire(0, 0, 299).u8(24, 7));
  EXPECT_EQ(lines(), std::vector<LogLine>{debug("DumpState: file : \n")});
}

TEST_F(DumpState, only_file_flag_1_selects_the_file) {
  for (const int flag : {2, 127, -1, -128}) {
    kernel.clearCalls();
    EXPECT_EQ(driver().DumpState(0, static_cast<signed char>(flag), unused, file), 0U);
    expectSent(0xC01C5308, Wire(0, 0, 299).u8(25, static_cast<std::uint8_t>(flag)));
  }
  EXPECT_EQ(lines(), std::vector<LogLine>(4, debug("DumpState: file : \n")));
}

TEST_F(DumpState, the_file_name_keeps_the_low_bytes_of_its_characters) {
  driver().DumpState(0, 1, unused, L"/\x161\xE9");
  expectSent(0xC01C5308, Wire(0, 0, 299).u8(25, 1).text(36, "/a\xE9"));
}

TEST_F(DumpState, the_file_name_is_copied_whole_also_behind_a_nul) {
  EXPECT_EQ(driver().DumpState(0, 1, unused, std::wstring(L"/a\0b", 4)), 0U);
  expectSent(0xC01C5308, Wire(0, 0, 299).u8(25, 1).text(36, std::string("/a\0b", 4)));
  EXPECT_EQ(lines(), std::vector<LogLine>{debug("DumpState: file : /a\n")});
}

TEST_F(DumpState, a_file_name_of_256_characters_fills_its_field_but_for_the_end) {
  EXPECT_EQ(driver().DumpState(0, 1, unused, std::wstring(256, L'n')), 0U);
  expectSent(0xC01C5308, Wire(0, 0, 299).u8(25, 1).text(36, std::string(256, 'n')));
}

TEST_F(DumpState, a_file_name_of_257_characters_or_more_gives_3_before_anything_is_asked_of_the_driver) {
  EXPECT_EQ(driver().DumpState(0, 1, unused, std::wstring(257, L'n')), 3U);
  EXPECT_EQ(driver().DumpState(0, 1, unused, std::wstring(100000, L'n')), 3U);
  EXPECT_EQ(log.lines(),
            (std::vector<LogLine>{error("Length of the dump file name 257 exceeds the maximum 256.\n"),
                                  error("Length of the dump file name 100000 exceeds the maximum 256.\n")}));
  expectUntouched();
}

TEST_F(DumpState, a_long_file_name_that_does_not_count_is_no_obstacle) {
  EXPECT_EQ(driver().DumpState(0, 0, std::wstring(257, L'u'), std::wstring(257, L'n')), 0U);
  expectSent(0xC01C5308, Wire(0, 0, 299));
}

TEST_F(DumpState, a_failed_request_gives_6_with_the_text_of_the_log_level) {
  kernel.fail(IOC_DUMP_STATE, EACCES, -4);
  EXPECT_EQ(driver().DumpState(0, 0, unused, file), 6U);
  EXPECT_EQ(lines().back(), error("Set Log Level ioctl failed, errno:13\n"));
}

TEST_F(DumpState, a_request_that_answers_anything_but_0_failed) {
  kernel.fail(IOC_DUMP_STATE, -1);
  EXPECT_EQ(driver().DumpState(0, 0, unused, file), 6U);
}

TEST_F(DumpState, without_a_driver_gives_5) {
  unload();
  EXPECT_EQ(driver().DumpState(0, 1, unused, file), 5U);
  expectOpenFailure();
  EXPECT_TRUE(log.texts(LOG_DEBUG).empty());
}

}  // namespace
