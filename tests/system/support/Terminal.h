// SPDX-License-Identifier: Apache-2.0
//
// A pseudo-terminal: a test sits at its outer side, a program at its inner one.
#pragma once

#include <string>

namespace test {

class Terminal {
 public:
  explicit Terminal(unsigned short columns = 120);
  ~Terminal();
  Terminal(const Terminal&) = delete;
  Terminal& operator=(const Terminal&) = delete;

  // The descriptor for the program's streams.
  int inner() const { return mInner; }
  void type(const std::string& keys) const;
  // Reads on until `text` has been written; false when it is not within kPatience.
  bool waitFor(const std::string& text);
  // Waits until `program` is what gets the keys that are typed; reads on meanwhile.
  bool waitForForeground(const std::string& program);
  // All that has been written so far.
  const std::string& written();

 private:
  // False when nothing is there.
  bool readOn();

  int mOuter = -1;
  int mInner = -1;
  std::string mWritten;
};

}  // namespace test
