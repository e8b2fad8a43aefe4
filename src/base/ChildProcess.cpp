// SPDX-License-Identifier: Apache-2.0
#include "base/ChildProcess.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/signalfd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <system_error>

namespace {

using std::chrono::milliseconds;

bool isIgnored(int number) {
  struct sigaction action {};
  return sigaction(number, nullptr, &action) == 0 && action.sa_handler == SIG_IGN;
}

// The controlling terminal: only of that one the kernel tells the foreground. A container may have no /dev/tty.
UniqueFd openTerminal() {
  UniqueFd terminal(open("/dev/tty", O_RDWR | O_CLOEXEC | O_NOCTTY));
  if (!terminal && tcgetpgrp(STDIN_FILENO) >= 0) terminal = UniqueFd(fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 0));
  return terminal;
}

// Touching a terminal from the background would stop this process.
class NotStoppedByTerminal {
 public:
  NotStoppedByTerminal() {
    sigset_t output;
    sigemptyset(&output);
    sigaddset(&output, SIGTTOU);
    sigprocmask(SIG_BLOCK, &output, &mOldMask);
  }
  ~NotStoppedByTerminal() { sigprocmask(SIG_SETMASK, &mOldMask, nullptr); }
  NotStoppedByTerminal(const NotStoppedByTerminal&) = delete;
  NotStoppedByTerminal& operator=(const NotStoppedByTerminal&) = delete;

 private:
  sigset_t mOldMask{};
};

void setForeground(const UniqueFd& terminal, pid_t group) {
  const NotStoppedByTerminal guard;
  tcsetpgrp(terminal.get(), group);
}

}  // namespace

// ---- signals

HeldSignals::HeldSignals(std::initializer_list<int> held, std::initializer_list<int> ignored) {
  signal(SIGCHLD, SIG_DFL);
  sigset_t taken;
  sigemptyset(&taken);
  sigaddset(&taken, SIGCHLD);
  for (const int number : held) {
    if (!isIgnored(number)) sigaddset(&taken, number);
  }
  mDescriptor = UniqueFd(signalfd(-1, &taken, SFD_CLOEXEC | SFD_NONBLOCK));
  if (!mDescriptor) throw std::system_error(errno, std::generic_category(), "signalfd");
  sigemptyset(&mActInChildren);
  for (const int number : ignored) {
    if (isIgnored(number)) continue;
    mIgnored.push_back(number);
    sigaddset(&mActInChildren, number);
    signal(number, SIG_IGN);
  }
  sigprocmask(SIG_BLOCK, &taken, &mOldMask);
}

HeldSignals::~HeldSignals() {
  for (const int number : mIgnored) signal(number, SIG_DFL);
  sigprocmask(SIG_SETMASK, &mOldMask, nullptr);
}

std::optional<HeldSignals::Signal> HeldSignals::next(milliseconds limit) {
  pollfd waiting{mDescriptor.get(), POLLIN, 0};
  poll(&waiting, 1, static_cast<int>(limit.count()));
  signalfd_siginfo info;
  if (read(mDescriptor.get(), &info, sizeof info) != sizeof info) return std::nullopt;
  const Signal signal{static_cast<int>(info.ssi_signo), info.ssi_code == SI_KERNEL};
  if (!mFirst && signal.number != SIGCHLD) mFirst = signal;
  return signal;
}

std::optional<HeldSignals::Signal> HeldSignals::first() {
  while (!mFirst && next(milliseconds(0))) {
  }
  return mFirst;
}

void HeldSignals::restoreInChild() const noexcept {
  for (const int number : mIgnored) signal(number, SIG_DFL);
  sigprocmask(SIG_SETMASK, &mOldMask, nullptr);
}

int HeldSignals::restoreInChild(posix_spawnattr_t& attributes) const noexcept {
  if (const int error = posix_spawnattr_setsigmask(&attributes, &mOldMask); error != 0) return error;
  if (const int error = posix_spawnattr_setsigdefault(&attributes, &mActInChildren); error != 0) return error;
  return posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
}

// ---- the child

ChildProcess::ChildProcess(HeldSignals& signals, const ChildManner& manner) : mSignals(signals), mManner(manner) {
  if (!manner.lendsTerminal) return;
  UniqueFd terminal = openTerminal();
  if (!terminal || tcgetpgrp(terminal.get()) != getpgrp() || tcgetattr(terminal.get(), &mSettings) != 0) return;
  mLentTerminal = std::move(terminal);
}

ChildProcess::~ChildProcess() {
  if (!mLentTerminal) return;
  const NotStoppedByTerminal guard;
  tcsetpgrp(mLentTerminal.get(), getpgrp());
  tcsetattr(mLentTerminal.get(), TCSADRAIN, &mSettings);
}

std::optional<int> ChildProcess::wait(pid_t process) {
  mProcess = process;
  if (const auto early = mSignals.first()) askedToEnd(*early, true);
  while (true) {
    int status = 0;
    const pid_t ended = waitpid(process, &status, WNOHANG);
    if (ended == process) return status;
    if (ended < 0) return std::nullopt;
    if (mManner.reapsOrphans) {
      if (const auto statusOfChild = reapAll(process)) return statusOfChild;
    }
    if (mManner.stopsTogether) stopWithChild();
    if (mDeadline && Clock::now() >= *mDeadline) return std::nullopt;
    if (mNextHangUp && Clock::now() >= *mNextHangUp) hangUp();
    const auto signal = mSignals.next(untilNextStep());
    if (signal && signal->number != SIGCHLD) askedToEnd(*signal, !signal->fromTerminal);
  }
}

void ChildProcess::askedToEnd(const HeldSignals::Signal& signal, bool passOn) {
  if (passOn && mManner.hangUpEvery) {
    hangUp();
  } else if (passOn) {
    kill(mProcess, signal.number);
  }
  // An interrupt that was typed is for the child to make something of; a terminal that is gone is not.
  const bool mustEnd = !signal.fromTerminal || signal.number == SIGHUP;
  if (mustEnd && mManner.grace && !mDeadline) mDeadline = Clock::now() + *mManner.grace;
}

void ChildProcess::hangUp() {
  kill(mProcess, SIGHUP);
  mNextHangUp = Clock::now() + *mManner.hangUpEvery;
}

// Whoever waits for this process waits for the child, and learns of the stop (a shell's "suspend") from this process.
void ChildProcess::stopWithChild() const {
  siginfo_t info{};
  if (waitid(P_PID, static_cast<id_t>(mProcess), &info, WSTOPPED | WNOHANG) != 0 || info.si_pid != mProcess) return;
  const UniqueFd terminal = openTerminal();
  const pid_t own = getpgrp();
  const pid_t group = getpgid(mProcess);
  const pid_t foreground = terminal ? tcgetpgrp(terminal.get()) : -1;
  if (foreground < 0 || (foreground != group && foreground != own)) return;
  if (mLentTerminal) setForeground(terminal, own);
  raise(SIGSTOP);
  // Continued in the foreground: the terminal is the child's again.
  if (tcgetpgrp(terminal.get()) == own) setForeground(terminal, group);
  killpg(group, SIGCONT);
}

milliseconds ChildProcess::untilNextStep() const {
  const auto until = [](const std::optional<Clock::time_point>& step) {
    if (!step) return milliseconds::max();
    return std::max(milliseconds(0), std::chrono::ceil<milliseconds>(*step - Clock::now()));
  };
  const milliseconds next = std::min(until(mDeadline), until(mNextHangUp));
  return next == milliseconds::max() ? milliseconds(-1) : next;
}

int exitCodeOf(int waitStatus) noexcept {
  return WIFSIGNALED(waitStatus) ? 128 + WTERMSIG(waitStatus) : WEXITSTATUS(waitStatus);
}

std::optional<int> reapAll(pid_t process) noexcept {
  std::optional<int> statusOfProcess;
  int status = 0;
  for (pid_t ended; (ended = waitpid(-1, &status, WNOHANG)) > 0;) {
    if (ended == process) statusOfProcess = status;
  }
  return statusOfProcess;
}
