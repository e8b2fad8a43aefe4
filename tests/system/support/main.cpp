// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include "KernelDriver.h"
#include "KernelLog.h"
#include "LeakListener.h"
#include "Leftovers.h"
#include "SystemWorld.h"

int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  if (!testing::GTEST_FLAG(list_tests)) {
    test::laySystemWorld();
    auto& listeners = testing::UnitTest::GetInstance()->listeners();
    listeners.Append(new test::LeakListener);
    listeners.Append(new test::LeftoverListener);
    if (test::hasKernelDriver()) listeners.Append(new test::KernelLogListener);
  }
  return RUN_ALL_TESTS();
}
