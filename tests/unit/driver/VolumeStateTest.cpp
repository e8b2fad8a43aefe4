// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <syslog.h>

#include <cerrno>
#include <ostream>

#include "DriverFixture.h"

namespace {

using test::debug;
using test::DriverCall;
using test::error;
using test::LogLine;
using test::Node;

class VolumeState : public test::DriverTest {
 protected:
  // The driver answers `status` for the volume with this minor number, else not snapped and not frozen.
  void answer(unsigned long request, std::uint32_t minorNum, std::int32_t status) {
    const std::int32_t otherwise = request == IOC_CHECK_VOLUME_SNAPPED ? -4 : -7;
    kernel.on(request, [=](std::byte* buffer, std::size_t) {
      std::uint32_t asked = 0;
      std::memcpy(&asked, buffer + 28, sizeof asked);
      const std::int32_t answered = asked == minorNum ? status : otherwise;
      std::memcpy(buffer + 20, &answered, sizeof answered);
      return 0;
    });
  }
  static SnapVolumeInformation volume(const std::wstring& name) { return {4096, 10, name, false, true, 0}; }

  const Node first{"/dev/vol-1", S_IFBLK, 8, 1}, second{"/dev/vol-2", S_IFBLK, 8, 2},
      third{"/dev/vol-3", S_IFBLK, 9, 3};
  std::list<SnapVolumeInformation> three = {volume(L"/dev/vol-1"), volume(L"/dev/vol-2"), volume(L"/dev/vol-3")};
};

class IsVolumeSnapped : public VolumeState {};
class IsVolumeFrozen : public VolumeState {};
class CheckIfVolSnapped : public VolumeState {};
class CheckIfVolFrozen : public VolumeState {};

TEST_F(IsVolumeSnapped, minus_2_is_snapped) {
  kernel.status(IOC_CHECK_VOLUME_SNAPPED, -2);
  EXPECT_TRUE(driver().IsVolumeSnapped("/dev/vol-1"));
  EXPECT_EQ(lines(), std::vector<LogLine>{debug("The volume is snapped.\n")});
}

TEST_F(IsVolumeSnapped, minus_4_is_not_snapped) {
  kernel.status(IOC_CHECK_VOLUME_SNAPPED, -4);
  EXPECT_FALSE(driver().IsVolumeSnapped("/dev/vol-1"));
  EXPECT_EQ(lines(), std::vector<LogLine>{debug("The volume is not snapped.\n")});
}

TEST_F(IsVolumeSnapped, any_other_status_is_unknown_and_false) {
  for (const int status : {0, 2, 4, -1, -3, -6, -7}) {
    log.clear();
    kernel.status(IOC_CHECK_VOLUME_SNAPPED, status);
    EXPECT_FALSE(driver().IsVolumeSnapped("/dev/vol-1")) << status;
    EXPECT_EQ(lines(), std::vector<LogLine>{error("Unkown return code.\n")}) << status;
  }
}

TEST_F(IsVolumeSnapped, a_regular_file_logs_two_lines_and_answers_false_without_opening_the_control_device) {
  const test::TempDir dir;
  const std::string file = dir / "file";
  test::writeFile(file, "");
  EXPECT_FALSE(driver().IsVolumeSnapped(file));
  EXPECT_EQ(log.lines(), (std::vector<LogLine>{error(file + ": is not a valid block device.\n"),
                                               error("Invalid block device: " + file + ".\n")}));
  EXPECT_TRUE(kernel.calls().empty());
}

TEST_F(IsVolumeSnapped, a_missing_device_logs_two_lines_and_answers_false_without_opening_the_control_device) {
  EXPECT_FALSE(driver().IsVolumeSnapped("/dev/nothing"));
  EXPECT_EQ(log.lines(), (std::vector<LogLine>{error("/dev/nothing: Device does not exist.\n"),
                                               error("Invalid block device: /dev/nothing.\n")}));
  EXPECT_TRUE(kernel.calls().empty());
}

TEST_F(IsVolumeSnapped, a_failed_request_is_false_whatever_its_status) {
  kernel.fail(IOC_CHECK_VOLUME_SNAPPED, EBUSY, -2);
  EXPECT_FALSE(driver().IsVolumeSnapped("/dev/vol-1"));
  EXPECT_EQ(lines(), std::vector<LogLine>{error("CheckVolume IOCTL failed, errno:16\n")});
}

TEST_F(IsVolumeSnapped, without_a_driver_is_false) {
  unload();
  EXPECT_FALSE(driver().IsVolumeSnapped("/dev/vol-1"));
  expectOpenFailure();
}

TEST_F(IsVolumeFrozen, minus_6_is_frozen) {
  kernel.status(IOC_CHECK_VOLUME_FROZEN, -6);
  EXPECT_TRUE(driver().IsVolumeFrozen("/dev/vol-1"));
  EXPECT_EQ(lines(), std::vector<LogLine>{debug("The volume is frozen.\n")});
}

TEST_F(IsVolumeFrozen, minus_7_is_not_frozen) {
  kernel.status(IOC_CHECK_VOLUME_FROZEN, -7);
  EXPECT_FALSE(driver().IsVolumeFrozen("/dev/vol-1"));
  EXPECT_EQ(lines(), std::vector<LogLine>{debug("The volume is not frozen.\n")});
}

TEST_F(IsVolumeFrozen, any_other_status_is_unknown_and_false) {
  for (const int status : {0, 6, 7, -2, -4, -8}) {
    log.clear();
    kernel.status(IOC_CHECK_VOLUME_FROZEN, status);
    EXPECT_FALSE(driver().IsVolumeFrozen("/dev/vol-1")) << status;
    EXPECT_EQ(lines(), std::vector<LogLine>{error("Unkown return code.\n")}) << status;
  }
}

TEST_F(IsVolumeFrozen, what_is_no_block_device_is_false_without_opening_the_control_device) {
  EXPECT_FALSE(driver().IsVolumeFrozen("/dev/nothing"));
  EXPECT_FALSE(driver().IsVolumeFrozen("/dev/null"));
  EXPECT_EQ(log.lines(), (std::vector<LogLine>{
                             error("/dev/nothing: Device does not exist.\n"),
                             error("Invalid block device: /dev/nothing.\n"),
                             error("/dev/null: is not a valid block device.\n"),
                             error("Invalid block device: /dev/null.\n"),
                         }));
  EXPECT_TRUE(kernel.calls().empty());
}

TEST_F(IsVolumeFrozen, a_failed_request_logs_the_text_of_both_checks) {
  kernel.fail(IOC_CHECK_VOLUME_FROZEN, EINVAL, -6);
  EXPECT_FALSE(driver().IsVolumeFrozen("/dev/vol-1"));
  EXPECT_EQ(lines(), std::vector<LogLine>{error("CheckVolume IOCTL failed, errno:22\n")});
}

TEST_F(IsVolumeFrozen, without_a_driver_is_false) {
  unload();
  EXPECT_FALSE(driver().IsVolumeFrozen("/dev/vol-1"));
  expectOpenFailure();
}

TEST_F(CheckIfVolSnapped, asks_in_order_and_stops_at_the_first_snapped_volume) {
  answer(IOC_CHECK_VOLUME_SNAPPED, 2, -2);
  EXPECT_EQ(driver().checkIfVolSnapped(&three), 17U);
  const auto calls = kernel.calls(IOC_CHECK_VOLUME_SNAPPED);
  ASSERT_EQ(calls.size(), 2U);
  EXPECT_EQ(kernel.calls().size(), 2U);
  EXPECT_EQ(calls[0].get<std::uint32_t>(28), 1U);
  EXPECT_EQ(calls[1].get<std::uint32_t>(28), 2U);
  EXPECT_EQ(lines(), (std::vector<LogLine>{debug("The volume is not snapped.\n"), debug("The volume is snapped.\n")}));
}

TEST_F(CheckIfVolSnapped, is_0_when_none_is_snapped_or_none_is_asked_for) {
  EXPECT_EQ(driver().checkIfVolSnapped(&three), 0U);
  EXPECT_EQ(kernel.calls(IOC_CHECK_VOLUME_SNAPPED).size(), 3U);
  kernel.clearCalls();
  std::list<SnapVolumeInformation> none;
  EXPECT_EQ(driver().checkIfVolSnapped(&none), 0U);
  EXPECT_EQ(driver().checkIfVolSnapped(nullptr), 0U);
  EXPECT_TRUE(kernel.calls().empty());
}

TEST_F(CheckIfVolSnapped, a_volume_that_cannot_be_checked_counts_as_not_snapped) {
  kernel.fail(IOC_CHECK_VOLUME_SNAPPED, EIO);
  EXPECT_EQ(driver().checkIfVolSnapped(&three), 0U);
}

TEST_F(CheckIfVolSnapped, asks_with_the_narrow_name_of_the_record) {
  std::list<SnapVolumeInformation> one = {volume(L"/dev/vol-3")};
  one.front().getSnapVolumeName() = L"/dev/vol-1";
  driver().checkIfVolSnapped(&one);
  EXPECT_EQ(kernel.calls().at(0).get<std::uint32_t>(24), 9U);
}

TEST_F(CheckIfVolFrozen, stops_at_the_first_frozen_volume_and_says_so) {
  answer(IOC_CHECK_VOLUME_FROZEN, 2, -6);
  EXPECT_EQ(driver().checkIfVolFrozen(&three), 17U);
  EXPECT_EQ(kernel.calls(IOC_CHECK_VOLUME_FROZEN).size(), 2U);
  EXPECT_EQ(lines(), (std::vector<LogLine>{debug("The volume is not frozen.\n"), debug("The volume is frozen.\n"),
                                           error("One of the Volumes is already frozen.\n")}));
}

TEST_F(CheckIfVolFrozen, is_0_when_none_is_frozen_or_none_is_asked_for) {
  EXPECT_EQ(driver().checkIfVolFrozen(&three), 0U);
  EXPECT_EQ(kernel.calls(IOC_CHECK_VOLUME_FROZEN).size(), 3U);
  kernel.clearCalls();
  std::list<SnapVolumeInformation> none;
  EXPECT_EQ(driver().checkIfVolFrozen(&none), 0U);
  EXPECT_EQ(driver().checkIfVolFrozen(nullptr), 0U);
  EXPECT_TRUE(kernel.calls().empty());
}

TEST_F(CheckIfVolFrozen, a_volume_that_cannot_be_checked_counts_as_not_frozen) {
  kernel.fail(IOC_CHECK_VOLUME_FROZEN, EIO, -6);
  EXPECT_EQ(driver().checkIfVolFrozen(&three), 0U);
}

TEST_F(CheckIfVolFrozen, asks_with_the_narrow_name_of_the_record) {
  std::list<SnapVolumeInformation> one = {volume(L"/dev/vol-3")};
  one.front().getSnapVolumeName() = L"/dev/vol-1";
  driver().checkIfVolFrozen(&one);
  EXPECT_EQ(kernel.calls().at(0).get<std::uint32_t>(24), 9U);
}

// Freezing and thawing are one shape with their own request, texts and refusal.
struct Way {
  const char* name;
  unsigned int (SnapDriverInterface::*operation)(std::list<std::wstring>*);
  unsigned long request;
  const char* missingList;
  const char* emptyList;
  const char* failure;  // without its errno
  std::int32_t refusal;
  unsigned int refused;
  std::int32_t otherRefusal;
};

void PrintTo(const Way& way, std::ostream* out) { *out << way.name; }

class FreezeAndThaw : public VolumeState, public testing::WithParamInterface<Way> {
 protected:
  unsigned int call(std::list<std::wstring>* volumes) { return (driver().*GetParam().operation)(volumes); }
  std::list<std::wstring> names = {L"/dev/vol-1", L"/dev/vol-2", L"/dev/vol-3"};
};

TEST_P(FreezeAndThaw, a_missing_list_and_an_empty_one_are_asserts_of_their_own) {
  std::list<std::wstring> none;
  EXPECT_EQ(call(nullptr), 3U);
  EXPECT_EQ(call(&none), 3U);
  EXPECT_EQ(log.lines(), (std::vector<LogLine>{error(GetParam().missingList), error(GetParam().emptyList)}));
}

TEST_P(FreezeAndThaw, sends_one_command_for_all_volumes_in_list_order) {
  EXPECT_EQ(call(&names), 0U);
  ASSERT_EQ(kernel.calls().size(), 1U);
  const DriverCall& sent = kernel.calls()[0];
  EXPECT_EQ(sent.request, GetParam().request);
  EXPECT_EQ(sent.sent.size(), 63U);
  EXPECT_EQ(sent.header().requestValue, 3U);
  EXPECT_EQ(lines(), (std::vector<LogLine>{debug("FREEZE VOL ID: (MAJ, MIN): (8, 1).\n"),
                                           debug("FREEZE VOL ID: (MAJ, MIN): (8, 2).\n"),
                                           debug("FREEZE VOL ID: (MAJ, MIN): (9, 3).\n")}));
}

TEST_P(FreezeAndThaw, a_name_that_does_not_resolve_gives_3_and_issues_nothing) {
  std::list<std::wstring> missing = {L"/dev/vol-1", L"/dev/nothing"}, wrong = {L"/dev/null"};
  EXPECT_EQ(call(&missing), 3U);
  EXPECT_EQ(call(&wrong), 3U);
  EXPECT_TRUE(kernel.calls().empty());
  EXPECT_EQ(log.lines(), (std::vector<LogLine>{error("/dev/nothing: Device does not exist.\n"),
                                               error("/dev/null: is not a valid block device.\n")}))
      << "names are resolved before the control device is opened";
}

TEST_P(FreezeAndThaw, without_a_driver_gives_5) {
  unload();
  EXPECT_EQ(call(&names), 5U);
  expectOpenFailure();
  EXPECT_TRUE(log.texts(LOG_DEBUG).empty()) << "no volume is named before the control device is open";
}

TEST_P(FreezeAndThaw, a_failed_request_gives_3) {
  kernel.fail(GetParam().request, EIO);
  EXPECT_EQ(call(&names), 3U);
  EXPECT_EQ(lines().back(), error(std::string(GetParam().failure) + "5\n"));
}

TEST_P(FreezeAndThaw, the_drivers_refusal_counts_after_a_request_that_succeeded) {
  kernel.status(GetParam().request, GetParam().refusal);
  EXPECT_EQ(call(&names), GetParam().refused);
  EXPECT_EQ(log.texts(LOG_ERR), std::vector<std::string>{});
}

TEST_P(FreezeAndThaw, the_drivers_refusal_counts_after_a_request_that_failed) {
  kernel.fail(GetParam().request, EBUSY, GetParam().refusal);
  EXPECT_EQ(call(&names), GetParam().refused);
  EXPECT_EQ(lines().back(), error(std::string(GetParam().failure) + "16\n"));
}

TEST_P(FreezeAndThaw, any_other_status_leaves_the_result) {
  for (const std::int32_t status : {GetParam().otherRefusal, -2, -4, 1, 24, 25}) {
    kernel.status(GetParam().request, status);
    EXPECT_EQ(call(&names), 0U) << status;
    kernel.fail(GetParam().request, EIO, status);
    EXPECT_EQ(call(&names), 3U) << status;
  }
}

INSTANTIATE_TEST_SUITE_P(
    Both, FreezeAndThaw,
    testing::Values(Way{"freeze", &SnapDriverInterface::FreezeVolume, IOC_FREEZE,
                        "assert at 2502 in LinuxSnapLib.cpp failed.\n", "assert at 2503 in LinuxSnapLib.cpp failed.\n",
                        "Freeze IOCTL failed, errno:", -6, 24, -7},
                    Way{"thaw", &SnapDriverInterface::ThawVolume, IOC_THAW,
                        "assert at 2606 in LinuxSnapLib.cpp failed.\n", "assert at 2607 in LinuxSnapLib.cpp failed.\n",
                        "Thaw IOCTL failed, errno:", -7, 25, -6}),
    [](const testing::TestParamInfo<Way>& way) { return way.param.name; });

}  // namespace
