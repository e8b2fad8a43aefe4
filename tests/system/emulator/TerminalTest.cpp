// SPDX-License-Identifier: Apache-2.0
//
// On a terminal: a shell under the emulator controls its jobs, and a typed interrupt is the command's.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <memory>
#include <string>

#include "EmulatorRun.h"
#include "ProcessState.h"
#include "Waiting.h"
#include "World.h"
#include "base/Handle.h"

namespace {

// Somebody at a terminal.
class Terminal {
 public:
  explicit Terminal(const std::vector<std::string>& command)
      : mPts("terminals", mFolder.path(), "devpts", 0, "newinstance,ptmxmode=0666"),
        mMaster(open((mFolder / "ptmx").c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC)) {
    int unlocked = 0;
    ioctl(mMaster.get(), TIOCSPTLCK, &unlocked);
    mRun = std::make_unique<test::EmulatorRun>(std::vector<std::string>{}, command, [this] {
      const int slave = ioctl(mMaster.get(), TIOCGPTPEER, O_RDWR);
      setsid();
      ioctl(slave, TIOCSCTTY, 0);
      for (const int standard : {0, 1, 2}) dup2(slave, standard);
      setenv("PS1", "ready$ ", 1);
      setenv("HISTFILE", "", 1);
    });
  }
  ~Terminal() { mRun.reset(); }

  void type(const std::string& text) {
    EXPECT_EQ(write(mMaster.get(), text.data(), text.size()), ssize_t(text.size()));
  }
  // Waits until the terminal shows a text, and forgets all up to it.
  bool shows(const std::string& text) {
    const bool shown = test::comesTrue([&] { return readOn().find(text) != std::string::npos; });
    EXPECT_TRUE(shown) << "\"" << text << "\" is not shown, but \"" << mSeen << "\"";
    if (shown) mSeen.erase(0, mSeen.find(text) + text.size());
    return shown;
  }
  // Waits until `program` gets what is typed.
  bool givesKeysTo(const std::string& program) {
    return test::comesTrue([&] { return test::runsInForeground(mMaster.get(), program); });
  }
  test::EmulatorRun& emulator() { return *mRun; }

 private:
  const std::string& readOn() {
    pollfd waiting{mMaster.get(), POLLIN, 0};
    char piece[1024];
    const ssize_t got = poll(&waiting, 1, 0) == 1 ? read(mMaster.get(), piece, sizeof piece) : 0;
    if (got > 0) mSeen.append(piece, static_cast<std::size_t>(got));
    return mSeen;
  }

  test::TempDir mFolder;
  test::Mounted mPts;
  UniqueFd mMaster;
  std::unique_ptr<test::EmulatorRun> mRun;
  std::string mSeen;
};

struct OnATerminal : testing::Test {
  test::Node tty{"/dev/tty", S_IFCHR, 5, 0};
};

TEST_F(OnATerminal, a_shell_stops_continues_and_interrupts_its_jobs) {
  Terminal terminal({"bash", "--norc", "--noprofile", "-i"});
  ASSERT_TRUE(terminal.shows("ready$ "));
  terminal.type("cat /proc/mirelsnap/dev\n");
  EXPECT_TRUE(terminal.shows("1 3\r\n"));
  EXPECT_TRUE(terminal.shows("ready$ "));
  terminal.type("sleep 1000\n");
  EXPECT_TRUE(terminal.shows("sleep 1000\r\n"));
  EXPECT_TRUE(terminal.givesKeysTo("sleep"));
  terminal.type("\x1A");
  EXPECT_TRUE(terminal.shows("Stopped"));
  EXPECT_TRUE(terminal.shows("ready$ "));
  terminal.type("fg\n");
  EXPECT_TRUE(terminal.shows("sleep 1000\r\n"));
  EXPECT_TRUE(terminal.givesKeysTo("sleep"));
  terminal.type("\x03");
  EXPECT_TRUE(terminal.shows("ready$ "));
  terminal.type("echo status $?\n");
  EXPECT_TRUE(terminal.shows("status 130\r\n"));
  terminal.type("exit 3\n");
  EXPECT_EQ(terminal.emulator().wait(), 3);
}

TEST_F(OnATerminal, a_typed_interrupt_is_the_commands_to_handle) {
  Terminal terminal(
      {"sh", "-c", "trap 'echo interrupted' INT; sh -c 'echo begun; exec sleep 1000'; echo after; exit 4"});
  ASSERT_TRUE(terminal.shows("begun"));
  terminal.type("\x03");
  EXPECT_TRUE(terminal.shows("interrupted"));
  EXPECT_TRUE(terminal.shows("after"));
  EXPECT_EQ(terminal.emulator().wait(), 4);
}

TEST_F(OnATerminal, a_typed_interrupt_ends_a_command_that_does_not_handle_it) {
  Terminal terminal({"sh", "-c", "echo begun; exec sleep 1000"});
  ASSERT_TRUE(terminal.shows("begun"));
  terminal.type("\x03");
  EXPECT_EQ(terminal.emulator().wait(), 130);
}

TEST_F(OnATerminal, a_shell_that_suspends_itself_stops_the_emulator_until_both_go_on) {
  Terminal terminal({"bash", "--norc", "--noprofile", "-i"});
  ASSERT_TRUE(terminal.shows("ready$ "));
  terminal.type("suspend -f\n");
  int status = 0;
  ASSERT_EQ(waitpid(terminal.emulator().process(), &status, WUNTRACED), terminal.emulator().process());
  EXPECT_TRUE(WIFSTOPPED(status));
  kill(terminal.emulator().process(), SIGCONT);
  terminal.type("echo back\n");
  EXPECT_TRUE(terminal.shows("back\r\n"));
  terminal.type("exit 6\n");
  EXPECT_EQ(terminal.emulator().wait(), 6);
}

}  // namespace
