// SPDX-License-Identifier: Apache-2.0
//
// The tests of the driver, run inside the virtual machine. A test that leaves a snapshot, a mapping or a frozen volume
// behind, or lets the kernel warn, has failed.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "Driver.h"
#include "KernelLog.h"

namespace {

class Watcher : public testing::EmptyTestEventListener {
  void OnTestEnd(const testing::TestInfo&) override {
    EXPECT_EQ(mLog.warnings(), "");
    if (!guest::isLoaded()) return;
    const std::string state = guest::dumpedState();
    EXPECT_NE(state.find("snapped volumes: 0\nmappings: 0\nfrozen volumes: 0\n"), std::string::npos) << state;
  }
  test::KernelLog mLog;
};

}  // namespace

int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  // The listener that prints comes last: what the watcher finds belongs to the test.
  auto& listeners = testing::UnitTest::GetInstance()->listeners();
  auto* printer = listeners.Release(listeners.default_result_printer());
  listeners.Append(new Watcher);
  listeners.Append(printer);
  // The hook is installed once: an emulator may stumble over code that is patched under load.
  if (testing::GTEST_FLAG(filter).find("Loading") != 0 && guest::loadModule("hook_stays=1") != 0) {
    std::perror("mirelsnap.ko");
    return 1;
  }
  return RUN_ALL_TESTS();
}
