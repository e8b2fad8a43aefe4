// SPDX-License-Identifier: Apache-2.0
//
// The kernel's mount table as a test wants the library to see it.
#pragma once

#include <filesystem>
#include <string>

#include "OwnWorld.h"
#include "World.h"

namespace test {

// Lays a mount table of the test's own before the library, for a scope.
class KernelTable {
 public:
  explicit KernelTable(const std::string& lines) : mSelf("self") {
    std::filesystem::create_directories("/proc/self");
    writeFile("/proc/self/mountinfo", lines);
  }
  ~KernelTable() { removeTree("/proc/self"); }
  KernelTable(const KernelTable&) = delete;
  KernelTable& operator=(const KernelTable&) = delete;

 private:
  ProcFile mSelf;
};

// One line of it; `number` as "MAJOR:MINOR".
inline std::string tableLine(int id, const std::string& number, const std::string& folder, const std::string& type,
                             const std::string& source) {
  return std::to_string(id) + " 1 " + number + " / " + folder + " rw,relatime - " + type + " " + source + " rw\n";
}

// An identifier that no mount of this machine has, nor any of the next numbers, so that names decide.
inline constexpr int kNobody = 2'000'000'000;

}  // namespace test
