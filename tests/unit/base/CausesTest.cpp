// SPDX-License-Identifier: Apache-2.0
#include "base/Causes.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <string>
#include <vector>

namespace {

std::vector<std::string> textsOf(const std::vector<Cause>& causes) {
  std::vector<std::string> texts;
  for (const Cause& cause : causes) texts.push_back(cause.text());
  return texts;
}

class Causes : public testing::Test {
 protected:
  Causes() { takeCauses(); }
};

TEST_F(Causes, are_taken_in_order_and_once) {
  noteFailedCall("open", "/proc/meminfo", EACCES);
  noteCause("/srv/.verrelocarea", "is a symbolic link");
  EXPECT_EQ(textsOf(takeCauses()), (std::vector<std::string>{"open(/proc/meminfo): Permission denied",
                                                             "/srv/.verrelocarea: is a symbolic link"}));
  EXPECT_TRUE(takeCauses().empty());
}

TEST_F(Causes, leave_errno_as_it_was) {
  errno = EXDEV;
  noteFailedCall("open", "/nothing", ENOENT);
  noteCause("/nothing", "is nothing");
  EXPECT_EQ(errno, EXDEV);
}

TEST_F(Causes, that_nobody_takes_are_kept_up_to_64) {
  for (int i = 0; i < 100; ++i) noteCause(std::to_string(i).c_str(), "failed");
  const std::vector<Cause> causes = takeCauses();
  ASSERT_EQ(causes.size(), 64u);
  EXPECT_EQ(causes.front().what, "0");
  EXPECT_EQ(causes.back().what, "63");
}

}  // namespace
