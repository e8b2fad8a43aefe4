// SPDX-License-Identifier: Apache-2.0
//
// Fails a test that leaves a mount, a descriptor, a device node or a scratch file behind.
#pragma once

#include <gtest/gtest.h>

#include <set>
#include <string>

namespace test {

class LeakListener : public testing::EmptyTestEventListener {
 public:
  void OnTestStart(const testing::TestInfo& info) override;
  void OnTestEnd(const testing::TestInfo& info) override;

 private:
  std::set<std::string> mBefore;
};

}  // namespace test
