// SPDX-License-Identifier: Apache-2.0
//
// Lines that go out behind the emulator's back: whoever speaks never waits for the file, which may lie on a file system
// that the emulator holds still at that moment.
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
  // Writes what is left first.
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

// What the emulator tells its user, on the standard error.
class Messages {
 public:
  explicit Messages(bool quiet);
  // Unless the user wants it quiet.
  void say(const std::string& text);
  // Whatever the user wants: something did not go as it should.
  void warn(const std::string& text);

 private:
  bool mQuiet;
  LineWriter mWriter;
};

}  // namespace emulator
