// SPDX-License-Identifier: Apache-2.0
//
// An emulated driver that is asked directly, over real loop volumes.
#pragma once

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <vector>

#include "emulator/driver/EmulatedDriver.h"

#include "LoopVolume.h"
#include "WireCommand.h"
#include "World.h"

namespace {

inline constexpr std::uint64_t kVolumeBytes = 8 << 20;
// Of every tracking.
inline constexpr char kGuid[] = "0123cdef-89ab-1def-8012-0123456789ab";

struct DriverTest : testing::Test {
  DriverTest() { make(); }

  void make(std::chrono::milliseconds freezeLimit = std::chrono::seconds(60)) {
    driver.reset();
    driver = std::make_unique<emulator::EmulatedDriver>(
        kernel, messages, emulator::DriverSettings{"version 1", {store.path()}, freezeLimit});
  }

  // Answers a command into its buffer.
  emulator::Answer answer(unsigned long request, test::WireCommand& command) {
    emulator::CommandBuffer buffer(command.bytes());
    emulator::Answer answer = driver->handle(*emulator::findCommand(request), self, buffer);
    if (!answer && answer.error().status) buffer.putStatus(*answer.error().status);
    return answer;
  }
  // The errno, 0 when it succeeds.
  int ask(unsigned long request, test::WireCommand& command) {
    const emulator::Answer answered = answer(request, command);
    return answered ? 0 : answered.error().error;
  }
  int error(unsigned long request, test::WireCommand command) { return ask(request, command); }
  int snap(const std::vector<test::WireSnapVolume>& volumes) { return error(IOC_SNAP, test::snapCommand(volumes)); }

  // The driver status of a successful check.
  std::int32_t status(unsigned long request, test::WireDevice device) {
    test::WireCommand command = test::volumeCheckCommand(device);
    EXPECT_EQ(ask(request, command), 0);
    return command.status();
  }
  bool isSnapped(test::WireDevice device) { return status(IOC_CHECK_VOLUME_SNAPPED, device) == -2; }
  std::uint32_t count(unsigned long request) {
    test::WireCommand command = test::countCommand();
    EXPECT_EQ(ask(request, command), 0);
    return command.requestValue();
  }

  static test::WireDevice deviceOf(const test::LoopDevice& loop) { return {loop.major(), loop.minor()}; }

  // What the driver takes for a relocation file: root's alone.
  static void makeRelocFile(const std::string& path, std::size_t size) {
    test::writeFile(path, std::string(size, 'r'));
    EXPECT_EQ(chmod(path.c_str(), 0600), 0);
  }
  // A snap entry for a loop device whose relocation file lies on the scratch file system, the mapping made.
  test::WireSnapVolume candidate(const test::LoopDevice& loop, std::uint64_t bytes = kVolumeBytes) {
    test::WireSnapVolume volume;
    volume.device = deviceOf(loop);
    volume.name = loop.path();
    volume.blockSize = 4096;
    volume.numBlocks = bytes / 4096;
    volume.relocFile = files / ("reloc" + std::to_string(loop.minor()));
    volume.relocBlocks = 4;
    volume.process = static_cast<std::uint32_t>(getpid());
    makeRelocFile(volume.relocFile, 4 * 4096);
    EXPECT_EQ(error(IOC_CREATE_RELOC_FILE_MAPPING, test::createMappingCommand(getpid(), volume.name, volume.relocFile)),
              0);
    return volume;
  }
  void snapTracked(const test::LoopDevice& loop) {
    test::WireSnapVolume wire = candidate(loop);
    wire.trackingGuid = kGuid;
    ASSERT_EQ(snap({wire}), 0);
  }
  std::string dump() {
    const std::string file = files / "state";
    EXPECT_EQ(error(IOC_DUMP_STATE, test::dumpStateCommand(file)), 0);
    return test::readFile(file);
  }
  static std::string nodeOf(const test::LoopDevice& loop) { return "/dev/snap7_" + std::to_string(loop.minor()); }
  static bool exists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }

  test::TempDir store;
  test::TempDir files;
  emulator::Result<emulator::Kernel> reached = emulator::Kernel::reach();
  const emulator::Kernel& kernel = *reached;
  emulator::Messages messages{true};
  emulator::Caller self{kernel, getpid()};
  std::unique_ptr<emulator::EmulatedDriver> driver;
};

}  // namespace
