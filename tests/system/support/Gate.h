// SPDX-License-Identifier: Apache-2.0
//
// A gate at which a program stands still in the middle of what it does, as slow as the test wants it (mischief.cpp).
#pragma once

#include <map>
#include <string>

#include "World.h"

namespace test {

class Gate {
 public:
  Gate();
  ~Gate();
  Gate(const Gate&) = delete;
  Gate& operator=(const Gate&) = delete;

  // The environment of a program whose `mischief` stands still here.
  std::map<std::string, std::string> environment(const std::string& mischief) const;
  // Waits until a program stands at the gate; throws when none comes within kPatience.
  void waitForProgram();
  // The program that stands at the gate goes on.
  void letGoOn();

 private:
  TempDir mDir;
  int mListening = -1;
  int mProgram = -1;
};

}  // namespace test
