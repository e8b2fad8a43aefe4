// SPDX-License-Identifier: Apache-2.0
#include "qxtools/Strings.h"

#include <cwchar>

#include "qxtools/Multibyte.h"

wcstring& wcstring::assign(const char* text, unsigned int) {
  constexpr wchar_t kReplacement = 0xFFFD;
  std::wstring wide;
  std::mbstate_t state{};
  while (text != nullptr) {
    const DecodedCharacter next = DecodeCharacter(text, state);
    if (next.bytes == 0) break;
    wide.push_back(next.decoded ? next.character : kReplacement);
    text += next.bytes;
  }
  swap(wide);
  return *this;
}
