// SPDX-License-Identifier: Apache-2.0
#include "Command.h"

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>

#include "base/ChildProcess.h"

extern char** environ;

namespace cli {
namespace {

constexpr std::chrono::seconds kBetweenHangUps{2};

// Never destroyed: what came too late to be heeded must not end the process while it exits.
HeldSignals* held = nullptr;

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

// The command has the signal mask and the actions that this process was started with.
int spawn(pid_t& child, std::vector<std::string> arguments, std::vector<std::string> environment,
          const std::string& folder) {
  posix_spawnattr_t attributes;
  if (const int error = posix_spawnattr_init(&attributes); error != 0) return error;
  posix_spawn_file_actions_t actions;
  if (const int error = posix_spawn_file_actions_init(&actions); error != 0) {
    posix_spawnattr_destroy(&attributes);
    return error;
  }
  int error = held->restoreInChild(attributes);
  if (error == 0 && !folder.empty()) error = posix_spawn_file_actions_addchdir_np(&actions, folder.c_str());
  if (error == 0) {
    error = posix_spawnp(&child, arguments[0].c_str(), &actions, &attributes, pointers(arguments).data(),
                         pointers(environment).data());
  }
  posix_spawn_file_actions_destroy(&actions);
  posix_spawnattr_destroy(&attributes);
  return error;
}

ChildManner childManner(bool interactive) {
  if (!interactive) return {};
  return {.hangUpEvery = kBetweenHangUps, .stopsTogether = true, .lendsTerminal = true};
}

}  // namespace

void holdSignalsBack() {
  // A pipe without a reader and a file that the limits do not let grow: what failed says so itself.
  if (held == nullptr) held = new HeldSignals({SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGUSR1, SIGUSR2}, {SIGPIPE, SIGXFSZ});
}

int receivedSignal() {
  const auto first = held == nullptr ? std::nullopt : held->first();
  return first ? first->number : 0;
}

CommandResult runCommand(const std::vector<std::string>& arguments, const std::map<std::string, std::string>& variables,
                         const CommandManner& manner) {
  CommandResult result;
  ChildProcess child(*held, childManner(manner.interactive));
  pid_t process = -1;
  result.spawnError = spawn(process, arguments, environmentWith(variables), manner.folder);
  if (result.spawnError != 0) return result;
  const int status = child.wait(process).value_or(0);
  result.signal = WIFSIGNALED(status) ? WTERMSIG(status) : 0;
  result.exitCode = exitCodeOf(status);
  return result;
}

}  // namespace cli
