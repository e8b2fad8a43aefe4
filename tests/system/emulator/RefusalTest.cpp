// SPDX-License-Identifier: Apache-2.0
//
// What the emulator refuses, and what it leaves to the kernel.
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>

#include "EmulatorRun.h"

namespace {

using test::ClientRun;
using test::WireCommand;

WireCommand spoilt(WireCommand command) {
  _ioctlCmd header = command.header();
  header.handshakeCheck ^= 1;
  command.put(0, header);
  return command;
}

TEST(Refusal, of_a_spoilt_command_is_EINVAL_with_one_line_and_changes_nothing) {
  ClientRun run;
  const pid_t process = run->process();
  const WireCommand command = spoilt(test::createMappingCommand(process, "/dev/a", "/r"));
  const auto outcome = run->issue(IOC_CREATE_RELOC_FILE_MAPPING, command);
  EXPECT_EQ(outcome.error, EINVAL);
  EXPECT_EQ(outcome.command.bytes(), command.bytes());
  EXPECT_EQ(run->issue(IOC_GET_NUM_OF_RELOC_FILE_MAPPING, test::countCommand()).command.requestValue(), 0u);
  run.end();
  const _ioctlCmd header = command.header();
  EXPECT_EQ(run.emulator().errors(), "mirelsnap-emulator: create-mapping from process " + std::to_string(process) +
                                         " refused: its handshake check is " + std::to_string(header.handshakeCheck) +
                                         ", not " + std::to_string(header.handshakeCheck ^ 1) + "\n");
}

TEST(Refusal, is_silent_when_asked_to_be) {
  ClientRun run({"--quiet"});
  EXPECT_EQ(run->issue(IOC_GET_NUM_OF_RELOC_FILE_MAPPING, spoilt(test::countCommand())).error, EINVAL);
  run.end();
  EXPECT_EQ(run.emulator().errors(), "");
}

TEST(Refusal, of_what_is_no_command_is_ENOTTY_with_one_line) {
  ClientRun run;
  EXPECT_EQ(run->issue(driverRequest(5), test::countCommand()).error, ENOTTY);
  run.end();
  EXPECT_EQ(run.emulator().errors(), "mirelsnap-emulator: unknown driver request 0xC01C5305\n");
}

TEST(Refusal, is_the_kernels_for_a_driver_request_on_another_device) {
  ClientRun run;
  EXPECT_EQ(run->issueOn("/dev/zero", IOC_GET_NUM_OF_RELOC_FILE_MAPPING, test::countCommand()).error, ENOTTY);
  run.end();
  EXPECT_EQ(run.emulator().errors(), "");
}

TEST(Refusal, of_a_discard_brings_its_status_to_the_client_and_its_name_to_the_user) {
  ClientRun run;
  const pid_t process = run->process();
  const auto outcome = run->issue(IOC_SNAP_DISCARD, test::discardCommand({{7, 200}}));
  EXPECT_EQ(outcome.error, ENOENT);
  EXPECT_EQ(outcome.status(), -4);
  run.end();
  EXPECT_EQ(run.emulator().errors(), "mirelsnap-emulator: discard from process " + std::to_string(process) +
                                         " refused: the volume 7:200 is not snapped (status not-snapped)\n");
}

// ---- options

TEST(Inject, makes_the_nth_command_fail_as_asked_and_the_next_one_work) {
  ClientRun run({"--quiet", "--inject", "check-snapped:2:EIO:-8", "--inject", "check-snapped:3:0:99"});
  const WireCommand command = test::volumeCheckCommand({7, 200});
  EXPECT_EQ(run->issue(IOC_CHECK_VOLUME_SNAPPED, command).status(), -4);
  const auto second = run->issue(IOC_CHECK_VOLUME_SNAPPED, command);
  EXPECT_EQ(second.error, EIO);
  EXPECT_EQ(second.status(), -8);
  const auto third = run->issue(IOC_CHECK_VOLUME_SNAPPED, command);
  EXPECT_EQ(third.error, 0);
  EXPECT_EQ(third.status(), 99);
  EXPECT_EQ(run->issue(IOC_CHECK_VOLUME_SNAPPED, command).status(), -4);
}

TEST(Version, is_the_text_that_was_given) {
  ClientRun run({"--version", "driver 7.1"});
  EXPECT_STREQ(
      run->issue(IOC_GET_DRIVER_VERSION, test::versionCommand()).command.record<DriverVersionPayload>().version,
      "driver 7.1");
}

TEST(Trace, has_one_json_line_a_command_in_their_order) {
  const test::TempDir dir;
  ClientRun run({"--quiet", "--trace", dir / "trace"});
  const pid_t process = run->process();
  run->issue(IOC_CREATE_RELOC_FILE_MAPPING, test::createMappingCommand(process, "/dev/a", "/r"));
  run->issue(IOC_GET_NUM_OF_RELOC_FILE_MAPPING, test::countCommand());
  run->issue(IOC_GET_NUM_OF_RELOC_FILE_MAPPING, spoilt(test::countCommand()));
  run.end();
  const std::string trace = test::readFile(dir / "trace");
  EXPECT_EQ(std::count(trace.begin(), trace.end(), '\n'), 3);
  const std::string pid = "\"pid\":" + std::to_string(process);
  for (const std::string& part :
       {pid +
            ",\"command\":\"create-mapping\",\"length\":2079,\"request_in\":0,\"request_out\":0,\"status\":0,"
            "\"errno\":0,\"mappings\":[{\"process\":" +
            std::to_string(process) + ",\"volume\":\"/dev/a\",\"relocation_file\":\"/r\"}]}\n",
        pid + ",\"command\":\"count-mappings\",\"length\":28,\"request_in\":0,\"request_out\":1,\"status\":0,\"errno\":"
              "0}\n",
        std::string("\"errno\":22,\"error\":\"EINVAL\",\"why\":\"its handshake check is ")}) {
    EXPECT_NE(trace.find(part), std::string::npos) << part << " not in\n" << trace;
  }
}

// ---- the driver's file

TEST(DriverFile, is_there_for_whoever_opens_or_asks_for_it_by_its_full_path) {
  const auto shell = [](const std::string& script) { return test::runToTheEnd({}, {"sh", "-c", script}); };
  EXPECT_EQ(shell("cat /proc/mirelsnap/dev").output, "1 3\n");
  EXPECT_EQ(shell("exec 3</proc/mirelsnap/dev 4</proc/mirelsnap/dev; cat <&3; cat <&4").output, "1 3\n1 3\n");
  EXPECT_EQ(shell("test -e /proc/mirelsnap/dev && test -f /proc/mirelsnap/dev && test -r /proc/mirelsnap/dev").exitCode,
            0);
  EXPECT_EQ(shell("stat -c '%s %a' /proc/mirelsnap/dev").output, "4 444\n");
  EXPECT_NE(shell("test -x /proc/mirelsnap/dev").exitCode, 0);
  EXPECT_NE(shell("cat /proc/mirelsnap/dev2 /proc/mirelsnap/de").exitCode, 0);
}

TEST(DriverFile, is_gone_with_the_emulator) {
  EXPECT_EQ(test::runToTheEnd({}, {"true"}).exitCode, 0);
  EXPECT_NE(access("/proc/mirelsnap/dev", F_OK), 0);
}

TEST(Unloaded, there_is_no_driver_until_modprobe_is_executed_for_it) {
  const test::TempDir dir;
  const std::string modprobe = dir / "modprobe";
  test::writeFile(modprobe, "#!/bin/sh\nexit 1\n");
  chmod(modprobe.c_str(), 0755);
  const auto isThere = [](test::Client& client) {
    return client.shell("cat /proc/mirelsnap/dev > /dev/null 2>&1") == 0;
  };
  ClientRun run({"--unloaded", "--quiet"}, 2);
  EXPECT_FALSE(isThere(*run));
  EXPECT_NE(run->issue(IOC_GET_DRIVER_VERSION, test::versionCommand()).error, 0);
  run->shell(modprobe + " other");
  run->shell("echo modprobe mirelsnap > /dev/null");
  run->shell(dir / "nowhere/modprobe mirelsnap 2> /dev/null");
  EXPECT_FALSE(isThere(*run));
  run->shell(modprobe + " --allow-unsupported-modules mirelsnap 2> /dev/null");
  EXPECT_TRUE(isThere(run.client(0)));
  EXPECT_TRUE(isThere(run.client(1)));
  EXPECT_EQ(run->issue(IOC_GET_DRIVER_VERSION, test::versionCommand()).error, 0);
}

TEST(Unloaded, a_request_on_a_control_node_that_is_there_is_the_kernels_until_then) {
  const test::Node node("/dev/mirelsnapctl", S_IFCHR, 1, 3);
  const test::TempDir dir;
  const std::string modprobe = dir / "modprobe";
  test::writeFile(modprobe, "#!/bin/sh\nexit 1\n");
  chmod(modprobe.c_str(), 0755);
  ClientRun run({"--unloaded"});
  EXPECT_EQ(run->issueOn(node.path(), IOC_GET_DRIVER_VERSION, test::versionCommand()).error, ENOTTY);
  run->shell(modprobe + " mirelsnap");
  EXPECT_EQ(run->issueOn(node.path(), IOC_GET_DRIVER_VERSION, test::versionCommand()).error, 0);
  run.end();
  EXPECT_EQ(run.emulator().errors(), "");
}

}  // namespace
