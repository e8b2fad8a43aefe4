// SPDX-License-Identifier: Apache-2.0
#include "emulator/supervise/Session.h"

#include <fcntl.h>
#include <linux/loop.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <exception>
#include <optional>

#include "base/ChildProcess.h"
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

using std::chrono::milliseconds;

constexpr milliseconds kGraceAfterSignal{10000};  // for COMMAND, after a signal
constexpr milliseconds kGraceForTheRest{2000};    // for what COMMAND left running

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

// Terminates what is left of COMMAND's processes, also after an exception. They are served until then.
class Ending {
 public:
  Ending(const Kernel& kernel, EmulatedDriver& driver, Supervisor& supervisor)
      : mKernel(kernel), mDriver(driver), mSupervisor(supervisor) {}
  ~Ending() {
    try {
      // A process that waits for a frozen volume cannot be terminated.
      mSupervisor.betweenCommands([&driver = mDriver] { driver.thawAll(); });
      endAll(mKernel, kGraceForTheRest, [&driver = mDriver] { driver.cancel(); });
    } catch (const std::exception&) {
      // Out of memory: COMMAND itself is killed with the emulator.
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

// Owns everything that exists while COMMAND runs; destroyed in reverse order.
int superviseCommand(const Kernel& kernel, const Options& options, StartedCommand& command, DriverFile driverFile,
                     UniqueFd traceFile, HeldSignals& signals) {
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
  ChildProcess child(signals, {.grace = kGraceAfterSignal, .stopsTogether = true, .reapsOrphans = true});
  const std::optional<int> status = child.wait(command.process);
  return status ? exitCodeOf(*status) : 128 + SIGKILL;
}

}  // namespace

std::string whyNot() {
  if (geteuid() != 0) return "must be run as root: it freezes file systems and creates loop devices and device nodes";
  if (!canHandOverSystemCalls()) return "this kernel lacks seccomp user notification; Linux 5.14 or newer is needed";
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
      return complain("cannot write the trace file " + options.trace + ": " + std::strerror(errno), kExitRefused);
  }
  auto driverFile = DriverFile::ofNumbers();
  if (!driverFile) return complain(driverFile.error().why, kExitRefused);

  HeldSignals signals({SIGTERM, SIGINT, SIGHUP, SIGQUIT}, {SIGPIPE});
  FilterOptions filter;
  filter.executions = options.unloaded;
  auto command = startCommand(options.command, filter, signals);
  if (!command) return complain(command.error().why, kExitRefused);
  closeInheritedDescriptors(kernel);
  auto net = SafetyNet::spread(kernel);
  if (!net) return complain(net.error().why, kExitRefused);
  const Kernel::NetInUse netInUse = kernel.use(*net);
  // Orphans among COMMAND's processes become children of the emulator.
  prctl(PR_SET_CHILD_SUBREAPER, 1);
  return superviseCommand(kernel, options, *command, std::move(*driverFile), std::move(traceFile), signals);
}

}  // namespace emulator
