// SPDX-License-Identifier: Apache-2.0
#include "Command.h"

#include <spawn.h>
#include <sys/wait.h>
#include <termios.h>
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
volatile std::sig_atomic_t hangsUp = 0;  // the command heeds nothing else
constexpr unsigned int kSecondsBetweenHangUps = 2;
// Signals for a pipe without a reader and for a file that the limits do not let grow: what failed says so itself.
constexpr std::array kForWriters = {SIGPIPE, SIGXFSZ};
std::array<bool, kForWriters.size()> ignoredAtStart = {};  // by whoever started this process

// Shells lose a hang-up that comes just before they begin to read: it is sent until the shell ends.
void hangUp(int = SIGALRM) {
  const int saved = errno;
  if (commandPid > 0) {
    kill(static_cast<pid_t>(commandPid), SIGHUP);
    alarm(kSecondsBetweenHangUps);
  }
  errno = saved;
}

void passOn(int signal) {
  if (hangsUp != 0) {
    hangUp();
  } else {
    kill(static_cast<pid_t>(commandPid), signal);
  }
}

// A signal that a terminal sends reaches the command by itself (si_pid is 0 then); what a process sends is passed on.
void remember(int signal, siginfo_t* info, void*) {
  const int saved = errno;
  if (firstSignal == 0) firstSignal = signal;
  if (commandPid > 0 && info->si_code <= 0) passOn(signal);
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
int spawn(pid_t& child, std::vector<std::string> arguments, std::vector<std::string> environment,
          const std::string& folder) {
  sigset_t defaults;
  sigemptyset(&defaults);
  for (std::size_t i = 0; i < kForWriters.size(); ++i) {
    if (!ignoredAtStart.at(i)) sigaddset(&defaults, kForWriters.at(i));
  }
  posix_spawnattr_t attributes;
  if (const int error = posix_spawnattr_init(&attributes); error != 0) return error;
  posix_spawnattr_setsigdefault(&attributes, &defaults);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF);
  posix_spawn_file_actions_t actions;
  if (const int error = posix_spawn_file_actions_init(&actions); error != 0) {
    posix_spawnattr_destroy(&attributes);
    return error;
  }
  int error = folder.empty() ? 0 : posix_spawn_file_actions_addchdir_np(&actions, folder.c_str());
  if (error == 0) {
    error = posix_spawnp(&child, arguments[0].c_str(), &actions, &attributes, pointers(arguments).data(),
                         pointers(environment).data());
  }
  posix_spawn_file_actions_destroy(&actions);
  posix_spawnattr_destroy(&attributes);
  return error;
}

// The terminal that an interactive command is given, as this process had it; comes back in the end.
class LentTerminal {
 public:
  explicit LentTerminal(bool wanted) : mLent(wanted && tcgetpgrp(STDIN_FILENO) == getpgrp()) {
    if (mLent) mLent = tcgetattr(STDIN_FILENO, &mSettings) == 0;
  }
  ~LentTerminal() {
    if (!mLent) return;
    takeBack(getpgrp());
    tcsetattr(STDIN_FILENO, TCSADRAIN, &mSettings);
  }
  LentTerminal(const LentTerminal&) = delete;
  LentTerminal& operator=(const LentTerminal&) = delete;

  // The command stopped itself: so does this process, and both go on together.
  void stopTogether(pid_t child) const {
    const pid_t group = getpgid(child);
    if (mLent) takeBack(getpgrp());
    raise(SIGSTOP);
    if (mLent) takeBack(group);
    kill(-group, SIGCONT);
  }

 private:
  // Makes `group` the terminal's foreground, also from the background.
  static void takeBack(pid_t group) {
    const auto before = signal(SIGTTOU, SIG_IGN);
    tcsetpgrp(STDIN_FILENO, group);
    signal(SIGTTOU, before);
  }

  bool mLent;
  termios mSettings{};
};

// Waits for the end without reaping, so that no signal is passed on to a number that is somebody else's by then.
void waitForEnd(pid_t child, bool mayStop, const LentTerminal& terminal) {
  const int events = WEXITED | (mayStop ? WSTOPPED : 0);
  siginfo_t event{};
  for (;;) {
    if (waitid(P_PID, static_cast<id_t>(child), &event, events | WNOWAIT) != 0) {
      if (errno == EINTR) continue;
      return;
    }
    if (event.si_code != CLD_STOPPED) return;
    waitid(P_PID, static_cast<id_t>(child), &event, WSTOPPED | WNOHANG);
    terminal.stopTogether(child);
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

CommandResult runCommand(const std::vector<std::string>& arguments, const std::map<std::string, std::string>& variables,
                         const CommandManner& manner) {
  CommandResult result;
  const LentTerminal terminal(manner.interactive);
  pid_t child = -1;
  hangsUp = manner.interactive ? 1 : 0;
  if (manner.interactive) signal(SIGALRM, &hangUp);
  result.spawnError = spawn(child, arguments, environmentWith(variables), manner.folder);
  if (result.spawnError != 0) return result;
  commandPid = child;
  // One that came while the command was being started was passed to nobody.
  if (firstSignal != 0) passOn(firstSignal);
  waitForEnd(child, manner.interactive, terminal);
  commandPid = 0;
  alarm(0);
  int status = 0;
  while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  result.signal = WIFSIGNALED(status) ? WTERMSIG(status) : 0;
  result.exitCode = WIFSIGNALED(status) ? 128 + result.signal : WEXITSTATUS(status);
  return result;
}

}  // namespace cli
