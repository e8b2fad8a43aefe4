// SPDX-License-Identifier: Apache-2.0
//
// What reaches the system log: a listener on the private world's /dev/log.
#pragma once

#include <atomic>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace test {

struct LogLine {
  int priority;       // LOG_ERR, LOG_DEBUG, ...
  int facility;       // LOG_USER, ...
  std::string ident;  // "MIRELSNAP_SDK[123]" as it stands before the colon
  std::string text;   // letter for letter, line end included

  bool operator==(const LogLine& other) const { return priority == other.priority && text == other.text; }
};

// Listens from construction to destruction. The process's log mask is opened to all priorities at construction and put
// back at destruction; a driver-interface singleton that is made meanwhile narrows it: call openMask() again after
// that.
class LogCapture {
 public:
  LogCapture();
  ~LogCapture();
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  void openMask();
  // Everything logged so far.
  std::vector<LogLine> lines();
  // The texts of one priority, in order.
  std::vector<std::string> texts(int priority);
  // How often exactly this text was logged at this priority.
  std::size_t count(int priority, const std::string& text);
  bool has(int priority, const std::string& text) { return count(priority, text) > 0; }
  void clear();
  // All lines as one text, for a failure's message.
  std::string dump();

 private:
  void listen();
  void waitUntilDrained();

  int mSocket;
  int mOldMask;
  std::thread mListener;
  std::mutex mMutex;
  std::vector<LogLine> mLines;
  std::atomic<unsigned int> mMarksSeen{0};
  unsigned int mMarksSent = 0;
};

}  // namespace test
