// SPDX-License-Identifier: Apache-2.0
#include "qxtools/Multibyte.h"

#include <cstdlib>

DecodedCharacter DecodeCharacter(const char* text, std::mbstate_t& state) noexcept {
  wchar_t character = 0;
  const std::size_t bytes = std::mbrtowc(&character, text, MB_CUR_MAX, &state);
  if (bytes <= MB_CUR_MAX) return {bytes, character, true};
  state = std::mbstate_t{};
  return {1, 0, false};
}
