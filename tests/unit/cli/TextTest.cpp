// SPDX-License-Identifier: Apache-2.0
//
// Text for a person: how wide it is, and where it may be cut.
#include "Text.h"

#include <gtest/gtest.h>

#include "Locale.h"

namespace {

constexpr char kKana[] = "\xe3\x81\x8b\xe3\x81\xaa\xe3\x81\x8b\xe3\x81\xaa";  // four characters of two cells each

class TextInUtf8 : public testing::Test {
  const test::Locale mLocale{test::kUtf8};
};

TEST_F(TextInUtf8, is_as_wide_as_its_characters) {
  EXPECT_EQ(cli::cellsOf("plain"), 5u);
  EXPECT_EQ(cli::cellsOf("gr\xc3\xb6\xc3\x9f"), 4u);
  EXPECT_EQ(cli::cellsOf(kKana), 8u);
}

TEST_F(TextInUtf8, is_cut_where_the_next_character_would_not_fit) {
  EXPECT_EQ(cli::fitted(kKana, 8), kKana);
  EXPECT_EQ(cli::fitted(kKana, 7), std::string(kKana, 9)) << "half a character is none";
  EXPECT_EQ(cli::fitted(kKana, 6), std::string(kKana, 9));
  EXPECT_EQ(cli::fitted(kKana, 1), "");
  EXPECT_EQ(cli::fitted("gr\xc3\xb6\xc3\x9f", 3), "gr\xc3\xb6");
  EXPECT_EQ(cli::fitted("plain", 0), "");
}

TEST(TextInAPlainLocale, is_as_wide_as_its_bytes) {
  const test::Locale locale(test::kPlain);
  EXPECT_EQ(cli::cellsOf(kKana), 12u);
  EXPECT_EQ(cli::fitted(kKana, 7), std::string(kKana, 7));
}

}  // namespace
