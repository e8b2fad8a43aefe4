// SPDX-License-Identifier: Apache-2.0
//
// File systems that take no writes for as long as a test wants.
#pragma once

#include <string>

#include "base/Handle.h"

namespace test {

// Holds the file system on a folder frozen until it is thawed or the test is dead, however that comes about: a process
// of its own, which no other knows, waits for that. Throws when it cannot be frozen.
class Frozen {
 public:
  explicit Frozen(const std::string& folder);
  ~Frozen() { thaw(); }
  Frozen(const Frozen&) = delete;
  Frozen& operator=(const Frozen&) = delete;
  // Once it returns nothing holds the folder any more.
  void thaw();

 private:
  Frozen() = default;
  // Answers 0, or the errno of the refusal.
  int freeze(const std::string& folder);
  friend bool isFrozen(const std::string& folder);

  UniqueFd mHold;  // the helper thaws when its other end closes
  UniqueFd mDone;  // what closes when the helper has ended
};

// Whether somebody holds the file system on a folder frozen: whether it can be frozen is tried, and undone.
bool isFrozen(const std::string& folder);

}  // namespace test
