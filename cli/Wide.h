// SPDX-License-Identifier: Apache-2.0
//
// Text for the engine's wide interface and back, in the process's locale. The driver interface's names are wide too,
// but hold a byte a character, whatever it means: StringToWString and WStringToString (driver/VolumeRecords.h).
#pragma once

#include <string>

#include "qxtools/UnixUtils.h"

namespace cli {

// Empty for text that the locale cannot decode: no name is empty, so the engine refuses it.
inline std::wstring wide(const std::string& text) {
  const UnixUtils::WideText converted = UnixUtils::ConvertToWide(text.c_str());
  return converted == nullptr ? std::wstring() : std::wstring(converted.get());
}

// Whether the engine can be given a name.
inline bool isDecodable(const std::string& name) { return !wide(name).empty(); }
constexpr char kUndecodable[] = "a name that cannot be decoded in this locale";
constexpr char kUndecodableAdvice[] = "use another name, or the locale that this one is written in (LC_ALL)";

inline std::string narrow(const wchar_t* text) {
  const UnixUtils::NarrowText converted = UnixUtils::ConvertToANSI(text);
  return converted == nullptr ? std::string() : std::string(converted.get());
}

}  // namespace cli
