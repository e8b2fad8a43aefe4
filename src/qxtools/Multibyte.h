// SPDX-License-Identifier: Apache-2.0
//
// Narrow text read one character at a time in the process's locale, for those who may not lose a text over one bad
// byte.
#pragma once

#include <cstddef>
#include <cwchar>

// One step through a narrow text.
struct DecodedCharacter {
  std::size_t bytes;  // how far the step goes; 0 at the end of the text
  wchar_t character;  // meaningless when the byte was undecodable
  bool decoded;       // false: one byte that the locale cannot decode
};

// The character at `text`. `state` is zero at the start of a text and handed on from step to step.
DecodedCharacter DecodeCharacter(const char* text, std::mbstate_t& state) noexcept;
