// SPDX-License-Identifier: Apache-2.0
//
// What a person at a terminal sees while a verb works: what it is doing, for how long, and a bar where the amount of
// work is known. Nothing is drawn when standard error is no terminal.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

namespace cli {

class Terminal {
 public:
  // `verbose` prints one plain line a phase when there is no terminal.
  explicit Terminal(bool verbose);
  ~Terminal();
  Terminal(const Terminal&) = delete;
  Terminal& operator=(const Terminal&) = delete;

  bool interactive() const { return mInteractive; }

  // Begins a phase; the one before it is finished with its time.
  void begin(const std::string& what);
  // Redraws the phase's line with the time that it has taken.
  void tick();
  // As tick, with a bar: `done` of `total` bytes of `what` (without a bar when `total` is 0).
  void bar(const std::string& what, std::uint64_t done, std::uint64_t total);
  // Finishes the phase.
  void end();

 private:
  void draw(const std::string& text);

  bool mInteractive;
  bool mVerbose;
  std::string mPhase;
  std::chrono::steady_clock::time_point mStarted;
};

// "████░░░░", `width` cells wide; plain characters when the locale has no others.
std::string barText(std::uint64_t done, std::uint64_t total, unsigned int width);
// Columns of the terminal behind a descriptor; 80 when there is none.
unsigned int columnsOf(int descriptor);
// Columns that standard output has; 0, without a limit, when it is no terminal.
std::size_t outputColumns();
// Four cells, from nothing to all of it; plain characters when the locale has no others.
const std::vector<std::string>& mapShades();

}  // namespace cli
