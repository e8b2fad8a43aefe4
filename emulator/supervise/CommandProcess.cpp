// SPDX-License-Identifier: Apache-2.0
#include "emulator/supervise/CommandProcess.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <optional>
#include <thread>

#include "emulator/supervise/Options.h"

namespace emulator {
namespace {

using Clock = std::chrono::steady_clock;

struct Pipe {
  UniqueFd readEnd;
  UniqueFd writeEnd;

  static Result<Pipe> make() {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) return failedCall(errno, "cannot create a pipe");
    return Pipe{UniqueFd(ends[0]), UniqueFd(ends[1])};
  }
};

// What the child reports about its filter: the number of the listener's descriptor, or a negative errno.
void report(const UniqueFd& to, int number) { static_cast<void>(!write(to.get(), &number, sizeof number)); }

std::optional<int> receive(const UniqueFd& from) {
  int number = 0;
  ssize_t got = 0;
  do {
    got = read(from.get(), &number, sizeof number);
  } while (got < 0 && errno == EINTR);
  if (got != sizeof number) return std::nullopt;
  return number;
}

// In the child: nothing here may open a file, because no supervisor answers its system calls yet.
[[noreturn]] void becomeCommand(const std::vector<std::string>& command, const FilterOptions& options,
                                const HeldSignals& signals, pid_t parent, const Pipe& reports, const Pipe& go) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (getppid() != parent) _exit(kExitRefused);
  signals.restoreInChild();
  signal(SIGPIPE, SIG_DFL);
  std::vector<char*> arguments;
  for (const std::string& argument : command) arguments.push_back(const_cast<char*>(argument.c_str()));
  arguments.push_back(nullptr);

  const UniqueFd listener = installFilter(options);
  report(reports.writeEnd, listener ? listener.get() : -errno);
  char byte = 0;
  if (!listener || read(go.readEnd.get(), &byte, 1) != 1) _exit(kExitRefused);
  execvp(arguments[0], arguments.data());
  const int error = errno;
  report(reports.writeEnd, error);
  _exit(error == ENOENT || error == ENOTDIR ? kExitNotFound : kExitNotExecutable);
}

// The child's descriptor `number`, as a descriptor of this process.
UniqueFd fetchDescriptor(pid_t child, int number) {
  const UniqueFd process(static_cast<int>(syscall(SYS_pidfd_open, child, 0)));
  if (!process) return UniqueFd();
  return UniqueFd(static_cast<int>(syscall(SYS_pidfd_getfd, process.get(), number, 0)));
}

tl::unexpected<Refusal> cannotSupervise(int error) {
  if (error == EBUSY)
    return refuse(error, "the system calls of this process are already supervised (by another emulator?)");
  return failedCall(error, "cannot supervise system calls (seccomp user notification)");
}

void signalAll(const std::vector<pid_t>& processes, int signal) {
  for (const pid_t process : processes) kill(process, signal);
}

bool hasChildren() { return waitid(P_ALL, 0, nullptr, WEXITED | WNOHANG | WNOWAIT) == 0 || errno != ECHILD; }

// Reaps until no child is left or the time is up.
bool waitForAll(Clock::time_point until) {
  while (true) {
    reapAll();
    if (!hasChildren()) return true;
    if (Clock::now() >= until) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
}

}  // namespace

Result<StartedCommand> startCommand(const std::vector<std::string>& command, const FilterOptions& options,
                                    const HeldSignals& signals) {
  auto reports = Pipe::make();
  if (!reports) return refusalOf(reports);
  auto go = Pipe::make();
  if (!go) return refusalOf(go);
  const pid_t parent = getpid();
  StartedCommand started;
  started.process = fork();
  if (started.process < 0) return failedCall(errno, "cannot create a process");
  if (started.process == 0) {
    reports->readEnd.reset();
    go->writeEnd.reset();
    becomeCommand(command, options, signals, parent, *reports, *go);
  }
  reports->writeEnd.reset();
  go->readEnd.reset();
  const int number = receive(reports->readEnd).value_or(-ECHILD);
  int error = number < 0 ? -number : 0;
  if (error == 0) {
    started.listener = fetchDescriptor(started.process, number);
    if (!started.listener) error = errno;
  }
  if (error != 0) {
    go->writeEnd.reset();
    waitpid(started.process, nullptr, 0);
    return cannotSupervise(error);
  }
  started.go = std::move(go->writeEnd);
  started.failure = std::move(reports->readEnd);
  return started;
}

void closeInheritedDescriptors(const Kernel& kernel) {
  const int descriptor = openat(kernel.proc(), "self/fd", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  const UniqueDirectory descriptors(descriptor < 0 ? nullptr : fdopendir(descriptor));
  while (const dirent* entry = descriptors == nullptr ? nullptr : readdir(descriptors.get())) {
    const int number = std::atoi(entry->d_name);
    // Everything that this program opens is close-on-exec; what it was started with was inherited.
    if (number > STDERR_FILENO && fcntl(number, F_GETFD) == 0) close(number);
  }
}

int letGo(StartedCommand& command) {
  const char byte = 1;
  static_cast<void>(!write(command.go.get(), &byte, 1));
  command.go.reset();
  return receive(command.failure).value_or(0);
}

std::vector<pid_t> descendants(const Kernel& kernel) {
  std::multimap<pid_t, pid_t> children;
  const int descriptor = openat(kernel.proc(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  const UniqueDirectory processes(descriptor < 0 ? nullptr : fdopendir(descriptor));
  while (const dirent* entry = processes == nullptr ? nullptr : readdir(processes.get())) {
    const pid_t process = std::atoi(entry->d_name);
    if (process <= 0) continue;
    const std::string text = Kernel::readText(kernel.proc(), std::string(entry->d_name) + "/stat");
    const std::size_t nameEnd = text.rfind(')');  // "7 (name) S 1 ...": the name may hold anything
    int parent = 0;
    if (nameEnd != std::string::npos && std::sscanf(text.c_str() + nameEnd, ") %*c %d", &parent) == 1) {
      children.emplace(parent, process);
    }
  }
  std::vector<pid_t> found{getpid()};
  for (std::size_t i = 0; i < found.size(); ++i) {
    const auto [first, last] = children.equal_range(found[i]);
    for (auto child = first; child != last; ++child) found.push_back(child->second);
  }
  found.erase(found.begin());
  return found;
}

void endAll(const Kernel& kernel, std::chrono::milliseconds grace, const std::function<void()>& beforeKill) {
  reapAll();
  if (!hasChildren()) return;
  const std::vector<pid_t> processes = descendants(kernel);
  signalAll(processes, SIGTERM);
  signalAll(processes, SIGCONT);  // a stopped process sees the other signal only then
  if (waitForAll(Clock::now() + grace)) return;
  beforeKill();
  // Repeatedly: a process that was just being forked was not seen the first time.
  do {
    signalAll(descendants(kernel), SIGKILL);
  } while (!waitForAll(Clock::now() + std::chrono::milliseconds(50)));
}

}  // namespace emulator
