// SPDX-License-Identifier: Apache-2.0
#include "Command.h"

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>

extern char** environ;

namespace cli {
namespace {

constexpr std::array kHeldBack = {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGUSR1, SIGUSR2};

volatile std::sig_atomic_t firstSignal = 0;
volatile std::sig_atomic_t commandPid = 0;
// Signals for a pipe without a reader and for a file that the limits do not let grow: what failed says so itself.
constexpr std::array kForWriters = {SIGPIPE, SIGXFSZ};
std::array<bool, kForWriters.size()> ignoredAtStart = {};  // by whoever started this process

// A signal that a terminal sends reaches the command by itself (si_pid is 0 then); what a process sends is passed on.
void remember(int signal, siginfo_t* info, void*) {
  const int saved = errno;
  if (firstSignal == 0) firstSignal = signal;
  if (commandPid > 0 && info->si_code <= 0) kill(static_cast<pid_t>(commandPid), signal);
  errno = saved;
}

// A run inside another one's COMMAND would find that one's volumes behind its own.
std::vector<std::string> environmentWith(const std::map<std::string, std::string>& variables) {
  const std::string prefix = "MIRELSNAP_VOLUME_";
  std::vector<std::string> environment;
  for (char** entry = environ; *entry != nullptr; ++entry) {
    const std::string text = *entry;
    if (variables.count(text.substr(0, text.find('='))) == 0 && text.rfind(prefix, 0) != 0) environment.push_back(text);
  }
  for (const auto& [name, value] : variables) environment.push_back(name + "=" + value);
  return environment;
}

std::vector<char*> pointers(std::vector<std::string>& texts) {
  std::vector<char*> result;
  for (std::string& text : texts) result.push_back(text.data());
  result.push_back(nullptr);
  return result;
}

// Handlers become the defaults again in the command; what was ignored at the start stays so.
int spawn(pid_t& child, std::vector<std::string> arguments, std::vector<std::string> environment) {
  sigset_t defaults;
  sigemptyset(&defaults);
  for (std::size_t i = 0; i < kForWriters.size(); ++i) {
    if (!ignoredAtStart.at(i)) sigaddset(&defaults, kForWriters.at(i));
  }
  posix_spawnattr_t attributes;
  if (const int error = posix_spawnattr_init(&attributes); error != 0) return error;
  posix_spawnattr_setsigdefault(&attributes, &defaults);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF);
  const int error = posix_spawnp(&child, arguments[0].c_str(), nullptr, &attributes, pointers(arguments).data(),
                                 pointers(environment).data());
  posix_spawnattr_destroy(&attributes);
  return error;
}

// Waits for the end without reaping, so that no signal is passed on to a number that is somebody else's by then.
void waitForEnd(pid_t child) {
  siginfo_t ended{};
  while (waitid(P_PID, static_cast<id_t>(child), &ended, WEXITED | WNOWAIT) != 0 && errno == EINTR) {
  }
}

}  // namespace

void holdSignalsBack() {
  struct sigaction action {};
  action.sa_sigaction = &remember;
  action.sa_flags = SA_SIGINFO | SA_RESTART;
  sigemptyset(&action.sa_mask);
  for (const int held : kHeldBack) {
    struct sigaction previous {};
    sigaction(held, nullptr, &previous);
    // A signal that was ignored at the start (nohup) stays ignored.
    if (previous.sa_handler != SIG_IGN) sigaction(held, &action, nullptr);
  }
  for (std::size_t i = 0; i < kForWriters.size(); ++i)
    ignoredAtStart.at(i) = signal(kForWriters.at(i), SIG_IGN) == SIG_IGN;
  // Whoever ignores the ends of children (some services do) would keep COMMAND's exit code from here.
  signal(SIGCHLD, SIG_DFL);
}

int receivedSignal() { return firstSignal; }

CommandResult runCommand(const std::vector<std::string>& arguments,
                         const std::map<std::string, std::string>& variables) {
  CommandResult result;
  pid_t child = -1;
  result.spawnError = spawn(child, arguments, environmentWith(variables));
  if (result.spawnError != 0) return result;
  commandPid = child;
  // One that came while the command was being started was passed to nobody.
  if (firstSignal != 0) kill(child, firstSignal);
  waitForEnd(child);
  commandPid = 0;
  int status = 0;
  while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  result.signal = WIFSIGNALED(status) ? WTERMSIG(status) : 0;
  result.exitCode = WIFSIGNALED(status) ? 128 + result.signal : WEXITSTATUS(status);
  return result;
}

}  // namespace cli
