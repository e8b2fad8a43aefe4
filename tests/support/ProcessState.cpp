// SPDX-License-Identifier: Apache-2.0
#include "ProcessState.h"

#include <sys/ioctl.h>
#include <sys/syscall.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "World.h"

namespace fs = std::filesystem;

namespace test {
namespace {

fs::path folderOf(pid_t process) { return fs::path(kRealProc) / std::to_string(process); }

// The text behind "Key:\t" in the process's status.
std::string statusOf(pid_t process, const std::string& key) {
  std::ifstream status(folderOf(process) / "status");
  for (std::string line; std::getline(status, line);) {
    if (line.starts_with(key + ":\t")) return line.substr(key.size() + 2);
  }
  return "";
}

bool isPending(pid_t process, const std::string& key, int signal) {
  return (std::strtoull(statusOf(process, key).c_str(), nullptr, 16) >> (signal - 1) & 1) != 0;
}

}  // namespace

std::string programOf(pid_t process) { return statusOf(process, "Name"); }

char stateOf(pid_t process) {
  const std::string state = statusOf(process, "State");
  return state.empty() ? '\0' : state.front();
}

bool isInCall(pid_t process, long call) {
  std::ifstream file(folderOf(process) / "syscall");
  std::string number;
  return file >> number && number == std::to_string(call);
}

bool waitsForAThread(pid_t process) { return isInCall(process, SYS_futex); }

bool hasTaken(pid_t process, int signal) {
  return !isPending(process, "ShdPnd", signal) && !isPending(process, "SigPnd", signal) && stateOf(process) == 'S';
}

std::vector<pid_t> threadsOf(pid_t process) {
  std::vector<pid_t> threads;
  std::error_code gone;
  for (const auto& entry : fs::directory_iterator(folderOf(process) / "task", gone)) {
    threads.push_back(std::atoi(entry.path().filename().c_str()));
  }
  return threads;
}

bool runsInForeground(int terminal, const std::string& program) {
  pid_t group = 0;
  return ioctl(terminal, TIOCGPGRP, &group) == 0 && programOf(group) == program;
}

}  // namespace test
