// SPDX-License-Identifier: Apache-2.0
//
// The narrow and the wide string of the engine.
#pragma once

#include <string>

// Narrow text.
class cstring : public std::string {
 public:
  using std::string::string;
  using std::string::operator=;
  cstring() = default;
  cstring(const std::string& text) : std::string(text) {}
};

// Wide text.
class wcstring : public std::wstring {
 public:
  using std::wstring::assign;
  using std::wstring::wstring;
  using std::wstring::operator=;
  wcstring() = default;
  wcstring(const std::wstring& text) : std::wstring(text) {}

  // Takes narrow text in the process's locale; the code page is accepted for the interface's sake and must be 0. Bytes
  // that the locale cannot decode become U+FFFD. Null empties the string.
  wcstring& assign(const char* text, unsigned int codePage);
};
