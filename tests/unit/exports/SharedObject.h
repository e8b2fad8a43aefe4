// SPDX-License-Identifier: Apache-2.0
//
// What a shared library tells the dynamic linker.
#pragma once

#include <string>
#include <vector>

namespace test {

class SharedObject {
 public:
  // Reads the file; throws when it is no shared library of this machine's kind.
  explicit SharedObject(const std::string& path);

  // Its own name, as programs that link with it remember it.
  const std::string& soname() const { return mSoname; }
  // The symbols that it offers, as the compiler spells them.
  const std::vector<std::string>& exported() const { return mExported; }

 private:
  std::string mSoname;
  std::vector<std::string> mExported;
};

// The name of a symbol as it stands in the source, without its arguments.
std::string sourceName(const std::string& symbol);

}  // namespace test
