// SPDX-License-Identifier: Apache-2.0
//
// Lines that are written by a thread of their own: a caller never waits for the file, which may lie on a file system
// that the emulator keeps frozen at that moment.
#pragma once

#include <condition_variable>
#include <deque>
#include <mutex>
#include <string>
#include <thread>

namespace emulator {

class LineWriter {
 public:
  // Writes to `descriptor`, which the caller keeps open. Lines that it does not take are lost.
  explicit LineWriter(int descriptor);
  // Writes the remaining lines first.
  ~LineWriter();
  LineWriter(const LineWriter&) = delete;
  LineWriter& operator=(const LineWriter&) = delete;

  // Adds the line end.
  void write(std::string line);

 private:
  void run();

  int mDescriptor;
  std::mutex mMutex;
  std::condition_variable mChanged;
  std::deque<std::string> mLines;
  bool mEnding = false;
  std::thread mThread;
};

// The emulator's messages on the standard error.
class Messages {
 public:
  explicit Messages(bool quiet);
  // A notice, suppressed by --quiet.
  void say(const std::string& text);
  // A warning, never suppressed.
  void warn(const std::string& text);

 private:
  bool mQuiet;
  LineWriter mWriter;
};

}  // namespace emulator
