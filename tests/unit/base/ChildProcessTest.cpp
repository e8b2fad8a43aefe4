// SPDX-License-Identifier: Apache-2.0
//
// A process of its own keeps a child, so that signals, the terminal and stopping are real.
#include "base/ChildProcess.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <functional>
#include <initializer_list>
#include <optional>
#include <string>

#include "LoopVolume.h"
#include "World.h"

namespace {

using std::chrono::milliseconds;

constexpr int kOutlived = 99;  // the keeper's exit code when wait() has no status

// What the child does; its exit code.
using Work = std::function<int()>;

Work shell(const std::string& script) {
  return [=] {
    execl("/bin/sh", "sh", "-c", script.c_str(), nullptr);
    return 127;
  };
}

// Tells its process id, then each signal of `heard` by its number, until `answer` gives an exit code for one.
Work listening(std::initializer_list<int> heard, const std::function<std::optional<int>(int)>& answer) {
  sigset_t signals;
  sigemptyset(&signals);
  for (const int number : heard) sigaddset(&signals, number);
  return [=] {
    sigprocmask(SIG_BLOCK, &signals, nullptr);
    dprintf(STDOUT_FILENO, "%d\n", static_cast<int>(getpid()));
    for (int number = 0; sigwait(&signals, &number) == 0;) {
      dprintf(STDOUT_FILENO, "%d\n", number);
      if (const auto code = answer(number)) return *code;
    }
    return 126;
  };
}

// A forked process that keeps a child and ends with its exit code. What the child writes comes here.
class Keeper {
 public:
  explicit Keeper(
      const Work& work, const ChildManner& manner = {}, const std::function<void()>& prepare = [] {},
      const std::function<void(HeldSignals&)>& beforeStart = [](HeldSignals&) {}) {
    int ends[2];
    EXPECT_EQ(pipe2(ends, O_CLOEXEC), 0);
    mProcess = fork();
    if (mProcess == 0) {
      prepare();
      dup2(ends[1], STDOUT_FILENO);
      HeldSignals signals({SIGTERM, SIGINT, SIGHUP, SIGQUIT}, {SIGPIPE});
      beforeStart(signals);
      _exit(keep(signals, work, manner));
    }
    close(ends[1]);
    mOutput = UniqueFd(ends[0]);
  }
  ~Keeper() {
    if (mProcess <= 0) return;
    kill(mProcess, SIGKILL);
    waitpid(mProcess, nullptr, 0);
  }
  Keeper(const Keeper&) = delete;
  Keeper& operator=(const Keeper&) = delete;

  pid_t process() const { return mProcess; }
  // The next line that the child writes; what there is when it ends.
  std::string line() {
    std::string text;
    for (char byte = 0; read(mOutput.get(), &byte, 1) == 1 && byte != '\n';) text += byte;
    return text;
  }
  // All that is still to come.
  std::string rest() {
    std::string text;
    for (char byte = 0; read(mOutput.get(), &byte, 1) == 1;) text += byte;
    return text;
  }
  int exitCode() {
    int status = 0;
    EXPECT_EQ(waitpid(mProcess, &status, 0), mProcess);
    mProcess = -1;
    return exitCodeOf(status);
  }

 private:
  static int keep(HeldSignals& signals, const Work& work, const ChildManner& manner) {
    ChildProcess child(signals, manner);
    const pid_t process = fork();
    if (process == 0) {
      signals.restoreInChild();
      _exit(work());
    }
    const auto status = child.wait(process);
    return status ? exitCodeOf(*status) : kOutlived;
  }

  pid_t mProcess = -1;
  UniqueFd mOutput;
};

TEST(ChildProcess, tells_how_the_child_ended) {
  EXPECT_EQ(Keeper([] { return 3; }).exitCode(), 3);
  EXPECT_EQ(Keeper([] { return raise(SIGKILL); }).exitCode(), 128 + SIGKILL);
}

TEST(ChildProcess, that_is_no_child_has_no_end) {
  HeldSignals signals({});
  ChildProcess child(signals, {});
  EXPECT_EQ(child.wait(getpid()), std::nullopt);
}

TEST(ChildProcess, passes_on_what_the_keeper_is_sent) {
  for (const int number : {SIGTERM, SIGINT, SIGHUP, SIGQUIT}) {
    Keeper keeper(listening({number}, [](int) { return 7; }));
    EXPECT_NE(keeper.line(), "");
    kill(keeper.process(), number);
    EXPECT_EQ(keeper.line(), std::to_string(number));
    EXPECT_EQ(keeper.exitCode(), 7);
  }
}

TEST(ChildProcess, passes_on_what_came_before_the_child_was_there) {
  const auto interrupted = [](HeldSignals&) { kill(getpid(), SIGTERM); };
  const auto seen = [](HeldSignals& signals) {
    kill(getpid(), SIGTERM);
    if (signals.first()->number != SIGTERM) _exit(1);
  };
  EXPECT_EQ(Keeper([] { return pause(); }, {}, [] {}, interrupted).exitCode(), 128 + SIGTERM);
  EXPECT_EQ(Keeper([] { return pause(); }, {}, [] {}, seen).exitCode(), 128 + SIGTERM);
}

TEST(ChildProcess, is_given_up_when_it_outlives_the_grace) {
  Keeper keeper(listening({SIGTERM}, [](int) { return std::nullopt; }), {.grace = milliseconds(1)});
  const pid_t child = std::stoi(keeper.line());
  kill(keeper.process(), SIGTERM);
  EXPECT_EQ(keeper.exitCode(), kOutlived);
  EXPECT_EQ(kill(child, 0), 0);
  kill(child, SIGKILL);
}

TEST(ChildProcess, has_no_grace_to_outlive_before_anybody_asks_for_its_end) {
  EXPECT_EQ(Keeper(shell("sleep 0.05; exit 4"), {.grace = milliseconds(1)}).exitCode(), 4);
}

TEST(ChildProcess, is_hung_up_again_and_again_in_place_of_other_signals) {
  int hangUps = 0;
  Keeper keeper(listening({SIGHUP, SIGTERM},
                          [&](int number) {
                            hangUps += number == SIGHUP ? 1 : 0;
                            return hangUps == 3 ? std::optional<int>(5) : std::nullopt;
                          }),
                {.hangUpEvery = milliseconds(1)});
  EXPECT_NE(keeper.line(), "");
  kill(keeper.process(), SIGTERM);
  EXPECT_EQ(keeper.exitCode(), 5);
  EXPECT_EQ(keeper.rest(), "1\n1\n1\n");
}

// An orphan comes to the keeper, and the child ends once it is reaped.
TEST(ChildProcess, is_waited_for_among_orphans_that_are_reaped) {
  const auto leavingAnOrphan = [] {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) return 1;
    const pid_t parent = fork();
    if (parent == 0) {
      const pid_t orphan = fork();
      if (orphan != 0) static_cast<void>(!write(ends[1], &orphan, sizeof orphan));
      _exit(0);
    }
    pid_t orphan = 0;
    if (waitpid(parent, nullptr, 0) != parent || read(ends[0], &orphan, sizeof orphan) != sizeof orphan) return 2;
    while (kill(orphan, 0) == 0) usleep(1000);
    return 6;
  };
  Keeper keeper(leavingAnOrphan, {.reapsOrphans = true}, [] { prctl(PR_SET_CHILD_SUBREAPER, 1); });
  EXPECT_EQ(keeper.exitCode(), 6);
}

// ---- signals

// Prints which signals it blocks and ignores.
const std::string kStatus = std::string(test::kRealProc) + "/self/status";
int printSignals() {
  execlp("grep", "grep", "-E", "Sig(Blk|Ign)", kStatus.c_str(), nullptr);
  return 127;
}

TEST(HeldSignals, of_a_child_are_as_they_were_before) {
  Keeper keeper(printSignals, {}, [] {
    signal(SIGHUP, SIG_IGN);
    signal(SIGCHLD, SIG_IGN);
    sigset_t blocked;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGUSR1);
    sigprocmask(SIG_SETMASK, &blocked, nullptr);
  });
  EXPECT_EQ(keeper.rest(), "SigBlk:\t0000000000000200\nSigIgn:\t0000000000000001\n");
  EXPECT_EQ(keeper.exitCode(), 0);
}

TEST(HeldSignals, of_a_spawned_child_are_as_they_were_before) {
  int ends[2];
  ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
  {
    HeldSignals signals({SIGTERM}, {SIGPIPE});
    posix_spawnattr_t attributes;
    ASSERT_EQ(posix_spawnattr_init(&attributes), 0);
    ASSERT_EQ(signals.restoreInChild(attributes), 0);
    posix_spawn_file_actions_t actions;
    ASSERT_EQ(posix_spawn_file_actions_init(&actions), 0);
    posix_spawn_file_actions_adddup2(&actions, ends[1], STDOUT_FILENO);
    std::string words[] = {"grep", "-E", "Sig(Blk|Ign)", kStatus};
    char* arguments[] = {words[0].data(), words[1].data(), words[2].data(), words[3].data(), nullptr};
    pid_t process = -1;
    ASSERT_EQ(posix_spawnp(&process, "grep", &actions, &attributes, arguments, nullptr), 0);
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attributes);
    EXPECT_EQ(ChildProcess(signals, {}).wait(process), 0);
  }
  close(ends[1]);
  char text[200] = {};
  EXPECT_GT(read(ends[0], text, sizeof text - 1), 0);
  close(ends[0]);
  unsigned long long blocked = 0;
  unsigned long long ignored = 0;
  ASSERT_EQ(std::sscanf(text, "SigBlk: %llx SigIgn: %llx", &blocked, &ignored), 2) << text;
  EXPECT_EQ(blocked, 0u);
  EXPECT_EQ(ignored & 0x7FFFFFFF, 0u) << "but for the C library's own";
}

TEST(HeldSignals, that_were_ignored_stay_so) {
  signal(SIGHUP, SIG_IGN);
  {
    HeldSignals signals({SIGHUP});
    raise(SIGHUP);
    EXPECT_FALSE(signals.first());
  }
  signal(SIGHUP, SIG_DFL);
}

TEST(HeldSignals, tell_the_first_that_came_and_are_read_one_by_one) {
  HeldSignals signals({SIGTERM, SIGINT});
  EXPECT_FALSE(signals.first());
  raise(SIGINT);
  const auto first = signals.first();
  ASSERT_TRUE(first);
  EXPECT_EQ(first->number, SIGINT);
  EXPECT_FALSE(first->fromTerminal);
  raise(SIGTERM);
  const auto next = signals.next(milliseconds(-1));
  ASSERT_TRUE(next);
  EXPECT_EQ(next->number, SIGTERM);
  EXPECT_EQ(signals.first()->number, SIGINT);
  EXPECT_FALSE(signals.next(milliseconds(0)));
}

// ---- on a terminal

struct OnATerminal : testing::Test {
  OnATerminal() {
    int unlocked = 0;
    ioctl(mOuter.get(), TIOCSPTLCK, &unlocked);
  }
  // Makes the terminal the calling process's own.
  std::function<void()> sitDown() {
    return [this] {
      const int inner = ioctl(mOuter.get(), TIOCGPTPEER, O_RDWR | O_CLOEXEC);
      setsid();
      ioctl(inner, TIOCSCTTY, 0);
    };
  }
  void type(const char* keys) { EXPECT_EQ(write(mOuter.get(), keys, 1), 1); }

  test::TempDir mFolder;
  test::Mounted mPts{"terminals", mFolder.path(), "devpts", 0, "newinstance,ptmxmode=0666"};
  test::Node mTty{"/dev/tty", S_IFCHR, 5, 0};
  UniqueFd mOuter{open((mFolder / "ptmx").c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC)};
};

TEST_F(OnATerminal, a_typed_interrupt_reaches_the_child_once_and_is_its_to_handle) {
  Keeper keeper(
      listening({SIGINT, SIGTERM}, [](int number) { return number == SIGTERM ? std::optional<int>(8) : std::nullopt; }),
      {.grace = milliseconds(60000)}, sitDown());
  EXPECT_NE(keeper.line(), "");
  type("\x03");
  EXPECT_EQ(keeper.line(), std::to_string(SIGINT));
  kill(keeper.process(), SIGTERM);
  EXPECT_EQ(keeper.exitCode(), 8);
  EXPECT_EQ(keeper.rest(), std::to_string(SIGTERM) + "\n");
}

TEST_F(OnATerminal, a_child_that_stops_stops_the_keeper_and_both_go_on_together) {
  Keeper keeper([] { return raise(SIGSTOP) == 0 ? 9 : 1; }, {.stopsTogether = true}, sitDown());
  int status = 0;
  ASSERT_EQ(waitpid(keeper.process(), &status, WUNTRACED), keeper.process());
  ASSERT_TRUE(WIFSTOPPED(status));
  kill(keeper.process(), SIGCONT);
  EXPECT_EQ(keeper.exitCode(), 9);
}

TEST_F(OnATerminal, a_child_that_stops_in_a_group_of_its_own_gets_the_terminal_back) {
  const auto inAGroupOfItsOwn = [] {
    signal(SIGTTOU, SIG_IGN);
    const int terminal = open("/dev/tty", O_RDWR | O_CLOEXEC);
    setpgid(0, 0);
    tcsetpgrp(terminal, getpid());
    raise(SIGSTOP);
    return tcgetpgrp(terminal) == getpid() ? 9 : 1;
  };
  Keeper keeper(inAGroupOfItsOwn, {.stopsTogether = true, .lendsTerminal = true}, sitDown());
  int status = 0;
  ASSERT_EQ(waitpid(keeper.process(), &status, WUNTRACED), keeper.process());
  ASSERT_TRUE(WIFSTOPPED(status));
  pid_t foreground = 0;
  EXPECT_EQ(ioctl(mOuter.get(), TIOCGPGRP, &foreground), 0);
  EXPECT_EQ(foreground, keeper.process());
  kill(keeper.process(), SIGCONT);
  EXPECT_EQ(keeper.exitCode(), 9);
}

TEST_F(OnATerminal, a_child_that_stops_without_the_terminal_stops_nobody_else) {
  const auto stopping = [] {
    dprintf(STDOUT_FILENO, "%d\n", static_cast<int>(getpid()));
    return raise(SIGSTOP) == 0 ? 9 : 1;
  };
  Keeper keeper(stopping, {.stopsTogether = true}, [] { setsid(); });
  const pid_t child = std::stoi(keeper.line());
  const std::string status = std::string(test::kRealProc) + "/" + std::to_string(child) + "/stat";
  while (test::readFile(status).find(") T ") == std::string::npos) usleep(1000);
  kill(child, SIGCONT);
  siginfo_t info{};
  EXPECT_EQ(waitid(P_PID, static_cast<id_t>(keeper.process()), &info, WEXITED | WSTOPPED | WNOWAIT), 0);
  ASSERT_EQ(info.si_code, CLD_EXITED);
  EXPECT_EQ(keeper.exitCode(), 9);
}

TEST_F(OnATerminal, a_lent_terminal_comes_back_with_its_settings) {
  const auto keeps = [](const ChildManner& manner) {
    HeldSignals signals({SIGTERM});
    pid_t process = -1;
    {
      ChildProcess child(signals, manner);
      process = fork();
      if (process == 0) {
        // As a shell does: a group of its own in the foreground, other settings.
        signal(SIGTTOU, SIG_IGN);
        const int terminal = open("/dev/tty", O_RDWR | O_CLOEXEC);
        setpgid(0, 0);
        tcsetpgrp(terminal, getpid());
        termios settings{};
        tcgetattr(terminal, &settings);
        settings.c_lflag &= ~static_cast<tcflag_t>(ECHO);
        tcsetattr(terminal, TCSANOW, &settings);
        _exit(0);
      }
      if (child.wait(process) != 0) _exit(1);
    }
    const int terminal = open("/dev/tty", O_RDWR | O_CLOEXEC);
    termios settings{};
    tcgetattr(terminal, &settings);
    const bool isBack = tcgetpgrp(terminal) == getpgrp() && (settings.c_lflag & ECHO) != 0;
    _exit(isBack ? 10 : 11);
  };
  for (const bool lent : {true, false}) {
    const pid_t keeper = fork();
    if (keeper == 0) {
      sitDown()();
      keeps({.lendsTerminal = lent});
    }
    int status = 0;
    EXPECT_EQ(waitpid(keeper, &status, 0), keeper);
    EXPECT_EQ(exitCodeOf(status), lent ? 10 : 11);
  }
}

}  // namespace
