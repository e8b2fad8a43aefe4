// SPDX-License-Identifier: Apache-2.0
#include "base/ReadText.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "World.h"

namespace {

class ReadText : public testing::Test {
 protected:
  const test::TempDir dir;
  const std::string file = dir / "file";
};

TEST_F(ReadText, gives_all_of_a_file_whatever_its_bytes_and_its_length) {
  const std::string text = std::string("a\0b\n", 4) + std::string(10000, 'x');
  test::writeFile(file, text);
  EXPECT_EQ(readText(file), text);
  test::writeFile(file, "");
  EXPECT_EQ(readText(file), "");
}

TEST_F(ReadText, of_what_cannot_be_opened_or_read_gives_nothing_and_the_reason) {
  EXPECT_EQ(readText(file), std::nullopt);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(readText(dir.path()), std::nullopt);
  EXPECT_EQ(errno, EISDIR);
}

TEST_F(ReadText, takes_the_callers_flags_too) {
  ASSERT_EQ(symlink("/etc/hostname", file.c_str()), 0);
  EXPECT_EQ(readText(file, O_NOFOLLOW), std::nullopt);
  EXPECT_EQ(errno, ELOOP);
}

TEST_F(ReadText, gives_a_first_line_without_its_end) {
  test::writeFile(file, "first\nsecond\n");
  EXPECT_EQ(readLine(file), "first");
  test::writeFile(file, "only");
  EXPECT_EQ(readLine(file), "only");
  EXPECT_EQ(readLine(dir / "nowhere"), "");
}

}  // namespace
