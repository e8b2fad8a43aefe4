// SPDX-License-Identifier: Apache-2.0
#include "emulator/supervise/Session.h"

#include <fcntl.h>
#include <linux/loop.h>
#include <poll.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <exception>
#include <optional>

#include "emulator/driver/CommandDesk.h"
#include "emulator/driver/EmulatedDriver.h"
#include "emulator/driver/Messages.h"
#include "emulator/driver/Trace.h"
#include "emulator/machine/ControlNode.h"
#include "emulator/machine/SafetyNet.h"
#include "emulator/supervise/CommandProcess.h"
#include "emulator/supervise/DriverFile.h"
#include "emulator/supervise/Supervisor.h"
#include "emulator/supervise/SyscallFilter.h"

namespace emulator {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr milliseconds kGraceAfterSignal{10000};  // for COMMAND, when the emulator is told to end
constexpr milliseconds kGraceForTheRest{2000};    // for what COMMAND left running

// The signals that the session waits for, taken from a descriptor instead of interrupting it.
class Signals {
 public:
  Signals() {
    signal(SIGCHLD, SIG_DFL);  // who starts the emulator may ignore it, and then nobody could be waited for
    sigset_t taken;
    sigemptyset(&taken);
    sigaddset(&taken, SIGCHLD);
    for (const int number : {SIGTERM, SIGINT, SIGHUP, SIGQUIT}) {
      struct sigaction action;
      // Who starts the emulator with a signal ignored (nohup) means it.
      if (sigaction(number, nullptr, &action) == 0 && action.sa_handler != SIG_IGN) sigaddset(&taken, number);
    }
    sigprocmask(SIG_BLOCK, &taken, &mOldMask);
    mDescriptor = UniqueFd(signalfd(-1, &taken, SFD_CLOEXEC | SFD_NONBLOCK));
  }
  ~Signals() { sigprocmask(SIG_SETMASK, &mOldMask, nullptr); }
  Signals(const Signals&) = delete;
  Signals& operator=(const Signals&) = delete;

  const sigset_t& oldMask() const { return mOldMask; }
  // Waits for a signal; nothing when the time is up.
  std::optional<signalfd_siginfo> wait(milliseconds limit) {
    signalfd_siginfo info;
    pollfd waiting{mDescriptor.get(), POLLIN, 0};
    poll(&waiting, 1, static_cast<int>(limit.count()));
    if (read(mDescriptor.get(), &info, sizeof info) != sizeof info) return std::nullopt;
    return info;
  }

 private:
  sigset_t mOldMask;
  UniqueFd mDescriptor;
};

// COMMAND stopped while it had the terminal (a shell's "suspend"): whoever waits for the emulator waits for COMMAND, so
// the emulator stops too, and gives COMMAND the terminal back when both go on.
void stopWithCommand(pid_t command) {
  siginfo_t info{};
  if (waitid(P_PID, static_cast<id_t>(command), &info, WSTOPPED | WNOHANG) != 0 || info.si_pid != command) return;
  const UniqueFd terminal(open("/dev/tty", O_RDWR | O_CLOEXEC | O_NOCTTY));
  const pid_t group = getpgid(command);
  const pid_t foreground = terminal ? tcgetpgrp(terminal.get()) : -1;
  if (foreground < 0 || (foreground != group && foreground != getpgrp())) return;
  raise(SIGSTOP);
  if (tcgetpgrp(terminal.get()) == getpgrp()) tcsetpgrp(terminal.get(), foreground);
  killpg(group, SIGCONT);
}

// Waits for COMMAND's end: its wait status, or nothing when it outlived the grace after a signal.
std::optional<int> waitForCommand(pid_t command, Signals& signals) {
  std::optional<Clock::time_point> deadline;
  while (true) {
    if (const auto status = reap(command)) return status;
    milliseconds patience{-1};
    if (deadline) {
      patience = std::max(milliseconds(0), std::chrono::ceil<milliseconds>(*deadline - Clock::now()));
      if (patience.count() == 0) return std::nullopt;
    }
    const auto signal = signals.wait(patience);
    if (!signal) continue;
    const int number = static_cast<int>(signal->ssi_signo);
    if (number == SIGCHLD) {
      stopWithCommand(command);
      continue;
    }
    const bool fromTerminal = signal->ssi_code == SI_KERNEL;
    if (!fromTerminal) kill(command, number);
    // An interrupt that was typed is COMMAND's to make something of.
    if (fromTerminal && number != SIGHUP) continue;
    if (!deadline) deadline = Clock::now() + kGraceAfterSignal;
  }
}

int exitCode(int status) { return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status); }

DriverSettings driverSettings(const Options& options) {
  DriverSettings settings;
  settings.version = options.version;
  settings.stores = options.store.empty() ? std::vector<std::string>{"/var/tmp", "/dev/shm"}
                                          : std::vector<std::string>{options.store};
  settings.freezeLimit = options.freezeLimit;
  return settings;
}

int complain(const std::string& what, int code) {
  std::fprintf(stderr, "mirelsnap-emulator: %s\n", what.c_str());
  return code;
}

// Ends what is left of COMMAND's processes, at the latest when something went wrong. They are still served meanwhile.
class Ending {
 public:
  Ending(const Kernel& kernel, EmulatedDriver& driver, Supervisor& supervisor)
      : mKernel(kernel), mDriver(driver), mSupervisor(supervisor) {}
  ~Ending() {
    try {
      // Nobody who waits for a frozen volume could end.
      mSupervisor.betweenCommands([&driver = mDriver] { driver.thawAll(); });
      endAll(mKernel, kGraceForTheRest, [&driver = mDriver] { driver.cancel(); });
    } catch (const std::exception&) {
      // Memory is short: COMMAND itself dies with the emulator.
    }
    mDriver.cancel();
    removeControlNode();
  }
  Ending(const Ending&) = delete;
  Ending& operator=(const Ending&) = delete;

 private:
  const Kernel& mKernel;
  EmulatedDriver& mDriver;
  Supervisor& mSupervisor;
};

// All that exists while COMMAND runs; it goes in the reverse order.
int superviseCommand(const Kernel& kernel, const Options& options, StartedCommand& command, DriverFile driverFile,
                     UniqueFd traceFile, Signals& signals) {
  Messages messages(options.quiet);
  Trace trace(std::move(traceFile));
  EmulatedDriver driver(kernel, messages, driverSettings(options));
  CommandDesk desk(driver, Injections(options.injections), trace, messages);
  Supervisor supervisor(kernel, desk, messages, std::move(driverFile), std::move(command.listener), !options.unloaded,
                        [] { kill(getpid(), SIGTERM); });
  const Ending ending(kernel, driver, supervisor);

  if (const int error = letGo(command); error != 0) {
    complain(options.command[0] + ": " + std::strerror(error), 0);
  }
  const std::optional<int> status = waitForCommand(command.process, signals);
  return status ? exitCode(*status) : 128 + SIGKILL;
}

}  // namespace

std::string whyNot() {
  if (geteuid() != 0) return "must be run as root: it freezes file systems, and makes loop devices and nodes";
  if (!canHandOverSystemCalls()) return "this kernel has no seccomp user notification (Linux 5.14 or newer has it)";
  const UniqueFd control(open("/dev/loop-control", O_RDWR | O_CLOEXEC));
  if (!control || ioctl(control.get(), LOOP_CTL_GET_FREE) < 0) {
    return std::string("no loop devices (/dev/loop-control): ") + std::strerror(errno);
  }
  return "";
}

int runSession(Kernel& kernel, const Options& options) {
  UniqueFd traceFile;
  if (!options.trace.empty()) {
    traceFile = UniqueFd(open(options.trace.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC, 0644));
    if (!traceFile)
      return complain("cannot write the trace " + options.trace + ": " + std::strerror(errno), kExitRefused);
  }
  auto driverFile = DriverFile::make();
  if (!driverFile) return complain(driverFile.error().why, kExitRefused);

  Signals signals;
  FilterOptions filter;
  filter.executions = options.unloaded;
  auto command = startCommand(options.command, filter, signals.oldMask());
  if (!command) return complain(command.error().why, kExitRefused);
  closeInheritedDescriptors(kernel);
  auto net = SafetyNet::spread(kernel);
  if (!net) return complain(net.error().why, kExitRefused);
  const Kernel::NetInUse netInUse = kernel.use(*net);
  // What is left of COMMAND's processes comes to the emulator, whoever their parents were.
  prctl(PR_SET_CHILD_SUBREAPER, 1);
  signal(SIGPIPE, SIG_IGN);
  return superviseCommand(kernel, options, *command, std::move(*driverFile), std::move(traceFile), signals);
}

}  // namespace emulator
