// SPDX-License-Identifier: Apache-2.0
//
// The tests of the driver, run inside the virtual machine. A test that leaves a snapshot, a mapping or a frozen volume
// behind, or lets the kernel warn, has failed.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <regex>
#include <string>

#include "Driver.h"

namespace {

// What the kernel has said since the last look.
class KernelLog {
 public:
  KernelLog() : mFile(open("/dev/kmsg", O_RDONLY | O_NONBLOCK | O_CLOEXEC)) { lseek(mFile, 0, SEEK_END); }
  ~KernelLog() { close(mFile); }

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

class Watcher : public testing::EmptyTestEventListener {
  void OnTestEnd(const testing::TestInfo&) override {
    EXPECT_EQ(mLog.warnings(), "");
    if (!guest::isLoaded()) return;
    const std::string state = guest::dumpedState();
    EXPECT_NE(state.find("snapped volumes: 0\nmappings: 0\nfrozen volumes: 0\n"), std::string::npos) << state;
  }
  KernelLog mLog;
};

}  // namespace

int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  // The listener that prints comes last: what the watcher finds belongs to the test.
  auto& listeners = testing::UnitTest::GetInstance()->listeners();
  auto* printer = listeners.Release(listeners.default_result_printer());
  listeners.Append(new Watcher);
  listeners.Append(printer);
  // The hook is installed once: an emulator may stumble over code that is patched under load.
  if (testing::GTEST_FLAG(filter).find("Loading") != 0 && guest::loadModule("hook_stays=1") != 0) {
    std::perror("mirelsnap.ko");
    return 1;
  }
  return RUN_ALL_TESTS();
}
