// SPDX-License-Identifier: Apache-2.0
#include "StoppedProcess.h"

#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <stdexcept>
#include <utility>

namespace test {
namespace {

constexpr int kSystemCall = SIGTRAP | 0x80;

bool isStep(long call) {
  switch (call) {
    case SYS_mkdir:
    case SYS_mkdirat:
    case SYS_rmdir:
    case SYS_unlink:
    case SYS_unlinkat:
    case SYS_mount:
    case SYS_umount2:
    case SYS_flock:
      return true;
    default:
      return false;
  }
}

void must(bool done, const char* what) {
  if (!done) throw std::runtime_error(std::string(what) + ": " + std::strerror(errno));
}

std::vector<std::string> stoppedFirst(std::vector<std::string> arguments) {
  std::vector<std::string> shell = {"/bin/sh", "-c", "kill -STOP $$; exec \"$@\"", "sh"};
  shell.insert(shell.end(), arguments.begin(), arguments.end());
  return shell;
}

bool isStopped(pid_t process) {
  const std::string status = readFile("/proc/" + std::to_string(process) + "/stat");
  return status[status.rfind(") ") + 2] == 'T';
}

}  // namespace

StoppedProcess::StoppedProcess(Session& session, std::vector<std::string> arguments)
    : StoppedProcess(session.start(stoppedFirst(std::move(arguments)))) {}

StoppedProcess::StoppedProcess(Process stopping) : mProcess(std::move(stopping)) {
  while (mProcess.running() && !isStopped(mProcess.id())) usleep(1000);
  must(ptrace(PTRACE_SEIZE, mProcess.id(), nullptr, PTRACE_O_TRACESYSGOOD) == 0, "seize");
  mTraced = true;
  mProcess.signal(SIGCONT);
}

StoppedProcess::~StoppedProcess() {
  if (mTraced) kill();
}

void StoppedProcess::kill() {
  mProcess.signal(SIGKILL);
  int status = 0;
  // Its end is the tracer's to see first, then its parent's.
  while (mTraced && waitpid(mProcess.id(), &status, __WALL) > 0 && !WIFEXITED(status) && !WIFSIGNALED(status)) {
  }
  mTraced = false;
  mProcess.wait();
}

std::optional<long> StoppedProcess::next() {
  if (std::exchange(mPending, false)) ptrace(PTRACE_SYSCALL, mProcess.id(), nullptr, 0);
  for (;;) {
    int status = 0;
    must(waitpid(mProcess.id(), &status, __WALL) == mProcess.id(), "wait");
    if (WIFEXITED(status) || WIFSIGNALED(status)) {
      mTraced = false;
      return std::nullopt;
    }
    const int signal = WSTOPSIG(status);
    long passedOn = 0;
    if (signal == kSystemCall) {
      __ptrace_syscall_info info{};
      must(ptrace(PTRACE_GET_SYSCALL_INFO, mProcess.id(), sizeof info, &info) > 0, "look at the call");
      if (info.op == PTRACE_SYSCALL_INFO_ENTRY && isStep(static_cast<long>(info.entry.nr))) {
        mPending = true;
        return static_cast<long>(info.entry.nr);
      }
    } else if (status >> 16 == 0) {
      passedOn = signal;
    }
    ptrace(PTRACE_SYSCALL, mProcess.id(), nullptr, passedOn);
  }
}

}  // namespace test
