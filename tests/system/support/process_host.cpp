// SPDX-License-Identifier: Apache-2.0
//
// Starts processes for a test, all below one emulator, and tells how they ended.
#include <fcntl.h>
#include <grp.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <map>
#include <string>
#include <vector>

#include "Channel.h"

namespace {

using test::Json;

std::map<pid_t, int> ended;  // wait statuses that nobody asked for yet

// Puts `descriptors` at 0, 1, 2, ... They all lie above, because those numbers are taken in this process.
void placeDescriptors(const std::vector<int>& descriptors) {
  for (std::size_t i = 0; i < descriptors.size(); ++i) dup2(descriptors[i], static_cast<int>(i));
}

// errno of what went wrong.
int becomeProgram(const Json& order, const std::vector<int>& descriptors) {
  placeDescriptors(descriptors);
  if (order.value("terminal", false) && (setsid() < 0 || ioctl(STDIN_FILENO, TIOCSCTTY, 0) != 0)) return errno;
  if (order.contains("root") && (chroot(order["root"].get<std::string>().c_str()) != 0 || chdir("/") != 0)) {
    return errno;
  }
  if (order.contains("folder") && chdir(order["folder"].get<std::string>().c_str()) != 0) return errno;
  if (order.contains("user")) {
    const auto user = order["user"].get<uid_t>();
    if (setgroups(0, nullptr) != 0 || setresgid(user, user, user) != 0 || setresuid(user, user, user) != 0) {
      return errno;
    }
  }
  if (order.contains("environment")) {
    for (const auto& [name, value] : order["environment"].items()) {
      value.is_null() ? unsetenv(name.c_str()) : setenv(name.c_str(), value.get<std::string>().c_str(), 1);
    }
  }
  for (const int ignored : order.value("ignored_signals", std::vector<int>())) signal(ignored, SIG_IGN);
  auto arguments = order["arguments"].get<std::vector<std::string>>();
  std::vector<char*> pointers;
  for (std::string& argument : arguments) pointers.push_back(argument.data());
  pointers.push_back(nullptr);
  execvp(pointers[0], pointers.data());
  return errno;
}

Json start(const Json& order, const std::vector<int>& descriptors) {
  int report[2];
  if (pipe2(report, O_CLOEXEC) != 0) return {{"error", errno}};
  // Out of the way of the numbers that the program gets.
  const int reportEnd = fcntl(report[1], F_DUPFD_CLOEXEC, 64);
  close(report[1]);
  const pid_t child = fork();
  if (child == 0) {
    const int error = becomeProgram(order, descriptors);
    static_cast<void>(!write(reportEnd, &error, sizeof error));
    _exit(127);
  }
  close(reportEnd);
  int error = 0;
  const bool failed = read(report[0], &error, sizeof error) == sizeof error;
  close(report[0]);
  if (child < 0) return {{"error", EAGAIN}};
  if (!failed) {
    ended.erase(child);
    return {{"process", child}};
  }
  waitpid(child, nullptr, 0);
  return {{"error", error}};
}

// A process that ended stays a zombie, and so alive for whoever asks the kernel, until the test asks here.
Json state(pid_t process) {
  int status = 0;
  const pid_t found = waitpid(process, &status, WNOHANG);
  if (found == process) ended[process] = status;
  const auto known = ended.find(process);
  return known == ended.end() ? Json{{"running", true}} : Json{{"status", known->second}};
}

Json handle(const Json& order, const std::vector<int>& descriptors) {
  Json answer = order.contains("start") ? start(order["start"], descriptors) : state(order["state"].get<pid_t>());
  for (const int descriptor : descriptors) close(descriptor);
  return answer;
}

}  // namespace

int main() {
  fcntl(test::kChannelDescriptor, F_SETFD, FD_CLOEXEC);
  test::serve(test::Channel(test::kChannelDescriptor), handle);
}
