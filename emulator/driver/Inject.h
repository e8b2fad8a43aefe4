// SPDX-License-Identifier: Apache-2.0
//
// Failures on purpose: the n-th command of a kind fails, or returns a status, as the user asked.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "emulator/driver/Commands.h"

namespace emulator {

// COMMAND:N:[lost=]ERRNO[:STATUS], e.g. "snap:1:EIO:size-changed", "check-snapped:2:0:99", "snap:1:lost=EIO".
struct Injection {
  const Command* command = nullptr;
  unsigned int number = 0;             // which command of the kind, from 1
  int error = 0;                       // the request fails with it; 0: it is carried out and succeeds
  bool lost = false;                   // it is carried out and fails all the same: what it answered is lost
  std::optional<std::int32_t> status;  // the driver status to answer

  // Fills `injection`, or returns what is wrong with the text.
  static std::optional<std::string> parse(const std::string& text, Injection& injection);
};

class Injections {
 public:
  explicit Injections(std::vector<Injection> injections) : mInjections(std::move(injections)) {}

  // Counts a command that arrived. The injection for it, or null.
  const Injection* next(const Command& command);

 private:
  std::vector<Injection> mInjections;
  std::map<unsigned long, unsigned int> mSeen;  // commands so far, by request
};

}  // namespace emulator
