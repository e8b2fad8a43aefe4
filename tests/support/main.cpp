// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include "LeakListener.h"
#include "World.h"

int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  if (!testing::GTEST_FLAG(list_tests)) {
    test::layPrivateWorld();
    testing::UnitTest::GetInstance()->listeners().Append(new test::LeakListener);
  }
  return RUN_ALL_TESTS();
}
