// SPDX-License-Identifier: Apache-2.0
//
// What the kernel says while tests run: a test that lets it warn has failed.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <regex>
#include <string>

namespace test {

class KernelLog {
 public:
  KernelLog() : mFile(open("/dev/kmsg", O_RDONLY | O_NONBLOCK | O_CLOEXEC)) { lseek(mFile, 0, SEEK_END); }
  ~KernelLog() { close(mFile); }
  KernelLog(const KernelLog&) = delete;
  KernelLog& operator=(const KernelLog&) = delete;

  // The warnings since the last look.
  std::string warnings() {
    static const std::regex kWarning("WARNING|BUG|Oops|Call Trace|blocked for more than|stall|refcount");
    std::string found;
    char line[8192];
    for (ssize_t length; (length = read(mFile, line, sizeof line - 1)) > 0;) {
      const std::string text(line, static_cast<std::size_t>(length));
      if (std::regex_search(text, kWarning)) found += text;
    }
    return found;
  }

 private:
  int mFile;
};

class KernelLogListener : public testing::EmptyTestEventListener {
  void OnTestEnd(const testing::TestInfo&) override { EXPECT_EQ(mLog.warnings(), ""); }
  KernelLog mLog;
};

}  // namespace test
