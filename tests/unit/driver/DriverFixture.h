// SPDX-License-Identifier: Apache-2.0
//
// The driver interface on a scripted driver, its control node in place, everything that it logs captured.
#pragma once

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <syslog.h>

#include <memory>
#include <string>
#include <vector>

#include "Interposed.h"
#include "LogCapture.h"
#include "ScriptedDriver.h"
#include "World.h"
#include "driver/LinuxSnapLib.h"

namespace test {

inline LogLine error(const std::string& text) { return {LOG_ERR, 0, "", text}; }
inline LogLine info(const std::string& text) { return {LOG_INFO, 0, "", text}; }
inline LogLine debug(const std::string& text) { return {LOG_DEBUG, 0, "", text}; }

class DriverTest : public testing::Test {
 protected:
  DriverTest() : mDriver(SnapDriverInterface::Instance()), mNode(kControlNode, S_IFCHR, 1, 3) { log.openMask(); }
  ~DriverTest() override { SnapDriverInterface::releaseInstance(); }

  SnapDriverInterface& driver() { return *mDriver; }

  // From now on the module is not loaded and does not load.
  void unload() {
    mShell = std::make_unique<FakeSystem>(0, 0);
    mMissing = std::make_unique<ProcFile>("mirelsnap/dev");
    std::remove("/proc/mirelsnap/dev");
  }
  // The last words of an operation without a driver.
  void expectOpenFailure() {
    EXPECT_TRUE(kernel.calls().empty());
    const std::vector<LogLine> lines = log.lines();
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines.back(), error("Failed to open device: /dev/mirelsnapctl, errno: 2.\n")) << log.dump();
  }
  // Everything logged, but for the opening of the control device.
  std::vector<LogLine> lines() {
    std::vector<LogLine> all = log.lines();
    std::erase(all, debug("major-minor remained same.\n"));
    return all;
  }

  LogCapture log;
  ScriptedDriver kernel;

 private:
  SnapDriverInterface* mDriver;
  Node mNode;
  std::unique_ptr<FakeSystem> mShell;
  std::unique_ptr<ProcFile> mMissing;
};

}  // namespace test
