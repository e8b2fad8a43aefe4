// SPDX-License-Identifier: Apache-2.0
//
// How failures are asked for, and when they come.
#include <gtest/gtest.h>

#include <cerrno>

#include "emulator/driver/Inject.h"

namespace {

using emulator::findCommand;
using emulator::Injection;
using emulator::Injections;

Injection parsed(const std::string& text) {
  Injection injection;
  EXPECT_EQ(Injection::parse(text, injection), std::nullopt);
  return injection;
}

std::string complaint(const std::string& text) {
  Injection injection;
  return Injection::parse(text, injection).value_or("nothing");
}

TEST(Injection, names_a_command_a_number_an_errno_and_a_status) {
  const Injection injection = parsed("snap:3:EIO:-8");
  EXPECT_EQ(injection.command, findCommand(IOC_SNAP));
  EXPECT_EQ(injection.number, 3u);
  EXPECT_EQ(injection.error, EIO);
  EXPECT_EQ(injection.status, -8);
}

TEST(Injection, the_status_may_be_left_out) { EXPECT_EQ(parsed("discard:1:ENOMEM").status, std::nullopt); }

TEST(Injection, an_errno_may_be_a_number_and_0_is_success_with_a_status) {
  EXPECT_EQ(parsed("version:1:5").error, EIO);
  const Injection success = parsed("check-snapped:1:0:99");
  EXPECT_EQ(success.error, 0);
  EXPECT_EQ(success.status, 99);
}

TEST(Injection, an_answer_may_be_lost_with_an_errno) {
  const Injection injection = parsed("snap:1:lost=EIO");
  EXPECT_TRUE(injection.lost);
  EXPECT_EQ(injection.error, EIO);
  EXPECT_EQ(injection.status, std::nullopt);
  EXPECT_EQ(parsed("snap:1:lost=5:-8").status, -8);
  EXPECT_FALSE(parsed("snap:1:EIO").lost);
  EXPECT_EQ(complaint("snap:1:lost=0"), "\"snap:1:lost=0\": lost= needs an ERRNO other than 0");
  EXPECT_EQ(complaint("snap:1:lost=0:-8"), "\"snap:1:lost=0:-8\": lost= needs an ERRNO other than 0");
  EXPECT_EQ(complaint("snap:1:lost="), "\"snap:1:lost=\": ERRNO is a name such as EIO, a number, or 0");
}

TEST(Injection, a_status_may_be_given_by_its_name) {
  EXPECT_EQ(parsed("snap:1:EIO:size-changed").status, -8);
  EXPECT_EQ(parsed("check-frozen:1:0:frozen").status, -6);
  EXPECT_EQ(parsed("is-vtrack-active:1:0:not-tracked").status, 3);
}

TEST(Injection, every_command_can_be_named) {
  for (const emulator::Command& command : emulator::kCommands) {
    EXPECT_EQ(parsed(std::string(command.name) + ":1:EIO").command, &command);
  }
}

TEST(Injection, says_what_is_wrong_with_a_text) {
  EXPECT_EQ(complaint("snap"), "\"snap\": not COMMAND:N:[lost=]ERRNO[:STATUS]");
  EXPECT_EQ(complaint("snap:1:EIO:-8:0"), "\"snap:1:EIO:-8:0\": not COMMAND:N:[lost=]ERRNO[:STATUS]");
  EXPECT_EQ(complaint("snapshot:1:EIO"), "\"snapshot:1:EIO\": unknown command \"snapshot\"");
  for (const char* number : {"0", "", "-1", "x", "1x"}) {
    const std::string text = std::string("snap:") + number + ":EIO";
    EXPECT_EQ(complaint(text), "\"" + text + "\": N counts from 1");
  }
  for (const char* error : {"", "EWHAT", "-5", "1000", "eio"}) {
    const std::string text = std::string("snap:1:") + error;
    EXPECT_EQ(complaint(text), "\"" + text + "\": ERRNO is a name such as EIO, a number, or 0");
  }
  const std::string statuses =
      "STATUS is a number or one of snapped, one-snapped, not-snapped, one-not-snapped, frozen, not-frozen, "
      "size-changed, tracked, not-tracked";
  EXPECT_EQ(complaint("snap:1:EIO:x"), "\"snap:1:EIO:x\": " + statuses);
  EXPECT_EQ(complaint("snap:1:EIO:"), "\"snap:1:EIO:\": " + statuses);
  EXPECT_EQ(complaint("snap:1:0"), "\"snap:1:0\": ERRNO 0 needs a STATUS");
}

TEST(Injections, hit_the_nth_command_of_their_kind_only) {
  Injections injections({parsed("snap:2:EIO"), parsed("snap:3:EBUSY"), parsed("discard:1:EPERM")});
  const auto error = [&](unsigned long request) {
    const Injection* injection = injections.next(*findCommand(request));
    return injection == nullptr ? 0 : injection->error;
  };
  EXPECT_EQ(error(IOC_SNAP), 0);
  EXPECT_EQ(error(IOC_THAW), 0);
  EXPECT_EQ(error(IOC_SNAP), EIO);
  EXPECT_EQ(error(IOC_SNAP_DISCARD), EPERM);
  EXPECT_EQ(error(IOC_SNAP), EBUSY);
  EXPECT_EQ(error(IOC_SNAP), 0);
  EXPECT_EQ(error(IOC_SNAP_DISCARD), 0);
}

}  // namespace
