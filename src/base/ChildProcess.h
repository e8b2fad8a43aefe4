// SPDX-License-Identifier: Apache-2.0
//
// Running a program on somebody's behalf: what asks this process to end is passed on to the program, a terminal is lent
// to it, and both stop and go on together.
#pragma once

#include <signal.h>
#include <spawn.h>
#include <sys/types.h>
#include <termios.h>

#include <chrono>
#include <initializer_list>
#include <optional>
#include <vector>

#include "base/Handle.h"

// Signals that no longer act on this process but wait to be read, so that it can clean up. For the main thread, before
// there are others (they inherit the mask), and once a process.
class HeldSignals {
 public:
  struct Signal {
    int number;
    bool fromTerminal;  // typed, or a hang-up: the kernel sends it to the whole foreground group
  };

  // `held` are held back; one that was ignored before (nohup) stays ignored. `ignored` (SIGPIPE) are ignored here, but
  // act in children as they did before. The ends of children are heard of even where they were ignored before. Throws
  // std::system_error.
  explicit HeldSignals(std::initializer_list<int> held, std::initializer_list<int> ignored = {});
  // Restores the mask, so that what was not read acts now, and what `ignored` did before.
  ~HeldSignals();
  HeldSignals(const HeldSignals&) = delete;
  HeldSignals& operator=(const HeldSignals&) = delete;

  // The next signal, SIGCHLD among them; nothing when none comes within `limit` (negative: waits for ever).
  std::optional<Signal> next(std::chrono::milliseconds limit);
  // The first signal that came, but for SIGCHLD, however long ago; does not wait.
  std::optional<Signal> first();

  // Gives a forked child the mask and the actions of before. Async-signal-safe.
  void restoreInChild() const noexcept;
  // The same for a child that is spawned. An errno.
  [[nodiscard]] int restoreInChild(posix_spawnattr_t& attributes) const noexcept;

 private:
  sigset_t mOldMask{};
  sigset_t mActInChildren{};  // ignored here, but not before
  std::vector<int> mIgnored;  // the same as a list
  std::optional<Signal> mFirst;
  UniqueFd mDescriptor;
};

// How a child is kept.
struct ChildManner {
  // How long it may go on once this process was asked to end; none: for ever.
  std::optional<std::chrono::milliseconds> grace = {};
  // An interactive shell heeds SIGHUP alone, and loses one that comes just before it begins to read: where this is set,
  // SIGHUP is sent in place of what came, again and again, until the child ends.
  std::optional<std::chrono::milliseconds> hangUpEvery = {};
  // When the child stops while it or this process has the terminal, this process stops too; both go on together.
  bool stopsTogether = false;
  // The terminal and its settings are given back when the child has ended, whatever it did to them.
  bool lendsTerminal = false;
  // Other children are reaped on the way: orphans that this process adopts.
  bool reapsOrphans = false;
};

class ChildProcess {
 public:
  // Made before the child is started, to see the terminal as it was. `signals` outlives it.
  ChildProcess(HeldSignals& signals, const ChildManner& manner);
  // Gives the terminal back.
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  // Waits for the end of a child of this process. What was sent to this process is passed on, also what came before the
  // child was there; what the terminal sends reaches the child by itself. Its wait status, or nothing when it outlived
  // the grace, or is no child of this process any more.
  std::optional<int> wait(pid_t process);

 private:
  using Clock = std::chrono::steady_clock;

  void askedToEnd(const HeldSignals::Signal& signal, bool passOn);
  void hangUp();
  void stopWithChild() const;
  std::chrono::milliseconds untilNextStep() const;

  HeldSignals& mSignals;
  ChildManner mManner;
  pid_t mProcess = -1;
  std::optional<Clock::time_point> mDeadline;
  std::optional<Clock::time_point> mNextHangUp;
  UniqueFd mLentTerminal;
  termios mSettings{};
};

// As shells tell it: the exit code, or 128 + the signal that ended the process.
[[nodiscard]] int exitCodeOf(int waitStatus) noexcept;

// Reaps children that have ended. The wait status of `process` when it is among them.
std::optional<int> reapAll(pid_t process = -1) noexcept;
