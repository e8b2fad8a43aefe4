// SPDX-License-Identifier: Apache-2.0
#include "qxtools/Strings.h"

#include <gtest/gtest.h>

#include "Locale.h"
#include "interpose/Allocations.h"
#include "qxtools/Multibyte.h"

TEST(wcstring, takes_narrow_text_in_the_processs_locale) {
  const test::Locale utf8(test::kUtf8);
  wcstring text(L"before");
  EXPECT_EQ(text.assign("caf\xC3\xA9 \xF0\x9F\x98\x80", 0), L"caf\u00E9 \U0001F600");
}

TEST(wcstring, shows_bytes_that_the_locale_cannot_decode_as_the_replacement_character) {
  for (const char* name : {test::kPlain, test::kUtf8}) {
    const test::Locale locale(name);
    wcstring text;
    EXPECT_EQ(text.assign("a\xE9z\xFF", 0), L"a\uFFFDz\uFFFD") << name;
  }
}

TEST(wcstring, takes_every_byte_of_a_broken_character_for_itself) {
  const test::Locale utf8(test::kUtf8);
  wcstring text;
  EXPECT_EQ(text.assign("\xE2\x82", 0), L"\uFFFD\uFFFD");
  EXPECT_EQ(text.assign("\xE2\x82z\xC3\xA9", 0), L"\uFFFD\uFFFDz\u00E9");
}

TEST(wcstring, null_and_empty_text_empty_it) {
  wcstring text(L"before");
  EXPECT_TRUE(text.assign(static_cast<const char*>(nullptr), 0).empty());
  text = L"before";
  EXPECT_TRUE(text.assign("", 0).empty());
}

TEST(wcstring, its_own_narrow_assignment_leaves_the_wide_ones_open) {
  wcstring text;
  text.assign(L"wide");
  EXPECT_EQ(text, L"wide");
  text = std::wstring(L"moved");
  EXPECT_EQ(text, L"moved");
}

TEST(wcstring, keeps_its_text_when_memory_is_short) {
  wcstring text(L"before");
  const std::string longer(100, 'x');
  {
    const test::FailingAllocation failing(0);
    EXPECT_THROW(text.assign(longer.c_str(), 0), std::bad_alloc);
  }
  EXPECT_EQ(text, L"before");
}

TEST(cstring, is_a_narrow_string) {
  cstring text;
  EXPECT_TRUE(text.empty());
  text = "/mnt";
  EXPECT_STREQ(text.c_str(), "/mnt");
  EXPECT_EQ(cstring(std::string("a")), "a");
}

TEST(DecodeCharacter, ends_at_the_end_of_the_text) {
  std::mbstate_t state{};
  EXPECT_EQ(DecodeCharacter("", state).bytes, 0u);
  EXPECT_TRUE(DecodeCharacter("", state).decoded);
}
