// SPDX-License-Identifier: Apache-2.0
//
// A command's way from the caller's memory and back.
#include "emulator/driver/CommandDesk.h"

#include <sys/mman.h>

#include <cerrno>

#include "DriverFixture.h"

namespace {

using test::WireCommand;

struct Desk : DriverTest {
  // Serves a command that lies in this process's own memory.
  std::optional<int> serve(unsigned long request, WireCommand& command, bool waits = true) {
    return serveAt(request, command.bytes().data(), waits);
  }
  std::optional<int> serveAt(unsigned long request, const void* address, bool waits = true) {
    return desk.serve(self, request, reinterpret_cast<std::uint64_t>(address), [=] { return waits; });
  }

  static emulator::Injection injection(const std::string& text) {
    emulator::Injection parsed;
    EXPECT_EQ(emulator::Injection::parse(text, parsed), std::nullopt);
    return parsed;
  }

  emulator::Trace trace{UniqueFd()};
  emulator::CommandDesk desk{
      *driver,
      emulator::Injections({injection("check-snapped:2:EIO:-8"), injection("check-snapped:3:0:99"),
                            injection("get-vdiff:1:EPERM"), injection("create-mapping:1:lost=EIO"),
                            injection("version:2:lost=ENODEV:-8")}),
      trace, messages};
};

TEST_F(Desk, answers_into_the_callers_memory) {
  WireCommand version = test::versionCommand();
  EXPECT_EQ(serve(IOC_GET_DRIVER_VERSION, version), 0);
  EXPECT_STREQ(version.record<DriverVersionPayload>().version, "version 1");
}

TEST_F(Desk, a_spoilt_command_is_refused_with_EINVAL_and_left_as_it_was) {
  WireCommand command = test::volumeCheckCommand({7, 1});
  _ioctlCmd header = command.header();
  header.handshakeCheck = 99;
  command.put(0, header);
  const std::vector<std::byte> before = command.bytes();
  EXPECT_EQ(serve(IOC_CHECK_VOLUME_SNAPPED, command), EINVAL);
  EXPECT_EQ(command.bytes(), before);
  header.length = 36;
  command.put(0, header);
  EXPECT_EQ(serve(IOC_CHECK_VOLUME_SNAPPED, command), EINVAL);
}

TEST_F(Desk, a_refused_mapping_is_not_made) {
  WireCommand command = test::createMappingCommand(1, "no path", "/r");
  EXPECT_EQ(serve(IOC_CREATE_RELOC_FILE_MAPPING, command), EINVAL);
  EXPECT_EQ(count(IOC_GET_NUM_OF_RELOC_FILE_MAPPING), 0u);
}

TEST_F(Desk, a_failed_command_carries_its_status_back) {
  WireCommand command = test::discardCommand({{7, 99}});
  EXPECT_EQ(serve(IOC_SNAP_DISCARD, command), ENOENT);
  EXPECT_EQ(command.status(), -4);
}

TEST_F(Desk, a_number_that_is_no_command_is_no_request) {
  WireCommand command = test::countCommand();
  for (const unsigned int number : {0u, 1u, 2u, 5u, 6u, 26u, 255u}) {
    EXPECT_EQ(serve(driverRequest(number), command), ENOTTY) << number;
  }
}

TEST_F(Desk, memory_that_is_not_there_is_EFAULT) {
  EXPECT_EQ(serveAt(IOC_GET_DRIVER_VERSION, nullptr), EFAULT);
  // The header is there, the rest is not.
  auto* page = static_cast<std::byte*>(mmap(nullptr, 8192, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
  munmap(page + 4096, 4096);
  const WireCommand command = test::versionCommand();
  std::copy_n(command.bytes().begin(), 24, page + 4096 - 24);
  EXPECT_EQ(serveAt(IOC_GET_DRIVER_VERSION, page + 4096 - 24), EFAULT);
  // It can be read, but not written.
  std::copy(command.bytes().begin(), command.bytes().end(), page);
  mprotect(page, 4096, PROT_READ);
  EXPECT_EQ(serveAt(IOC_GET_DRIVER_VERSION, page), EFAULT);
  munmap(page, 4096);
}

TEST_F(Desk, a_caller_that_went_away_gets_no_answer) {
  WireCommand command = test::versionCommand();
  EXPECT_EQ(serve(IOC_GET_DRIVER_VERSION, command, false), std::nullopt);
  EXPECT_STREQ(command.record<DriverVersionPayload>().version, "");
}

TEST_F(Desk, injected_failures_are_answered_without_carrying_the_command_out) {
  WireCommand first = test::volumeCheckCommand({7, 1});
  EXPECT_EQ(serve(IOC_CHECK_VOLUME_SNAPPED, first), 0);
  EXPECT_EQ(first.status(), -4);
  WireCommand second = test::volumeCheckCommand({7, 1});
  EXPECT_EQ(serve(IOC_CHECK_VOLUME_SNAPPED, second), EIO);
  EXPECT_EQ(second.status(), -8);
  WireCommand third = test::volumeCheckCommand({7, 1});
  EXPECT_EQ(serve(IOC_CHECK_VOLUME_SNAPPED, third), 0);
  EXPECT_EQ(third.status(), 99);
  WireCommand vdiff = test::bitmapCommand({7, 1}, {});
  EXPECT_EQ(serve(IOC_GET_VDIFF, vdiff), EPERM);
  EXPECT_EQ(serve(IOC_GET_VDIFF, vdiff), ENOENT);
}

TEST_F(Desk, a_command_whose_answer_is_lost_is_carried_out_and_writes_nothing_but_a_status) {
  WireCommand mapping = test::createMappingCommand(1, "/dev/loop0", "/r");
  const std::vector<std::byte> before = mapping.bytes();
  EXPECT_EQ(serve(IOC_CREATE_RELOC_FILE_MAPPING, mapping), EIO);
  EXPECT_EQ(mapping.bytes(), before);
  EXPECT_EQ(count(IOC_GET_NUM_OF_RELOC_FILE_MAPPING), 1u);

  WireCommand first = test::versionCommand();
  EXPECT_EQ(serve(IOC_GET_DRIVER_VERSION, first), 0);
  WireCommand second = test::versionCommand();
  EXPECT_EQ(serve(IOC_GET_DRIVER_VERSION, second), ENODEV);
  EXPECT_STREQ(second.record<DriverVersionPayload>().version, "");
  EXPECT_EQ(second.status(), -8);
}

}  // namespace
