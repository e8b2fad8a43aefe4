// SPDX-License-Identifier: Apache-2.0
//
// Names that a source file declares.
#pragma once

#include <regex>
#include <set>
#include <string>

#include "World.h"

namespace test {

/// What the first group of `pattern` holds, wherever the pattern matches in the file at `path`.
inline std::set<std::string> namesIn(const std::string& path, const std::string& pattern) {
  const std::string text = readFile(path);
  const std::regex expression(pattern);
  std::set<std::string> names;
  for (std::sregex_iterator match(text.begin(), text.end(), expression), end; match != end; ++match)
    names.insert((*match)[1]);
  return names;
}

}  // namespace test
