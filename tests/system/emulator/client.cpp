// SPDX-License-Identifier: Apache-2.0
//
// A client of the driver that does what the tests tell it: emulator_client FD... runs one process for each descriptor,
// the end of a socket over which the test speaks to it, and ends with the last of them.
#include <fcntl.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "ClientProtocol.h"

namespace {

using client::Answer;
using client::Order;

bool readAll(int from, void* data, std::size_t length) {
  auto* at = static_cast<char*>(data);
  while (length > 0) {
    const ssize_t got = read(from, at, length);
    if (got <= 0) return false;
    at += got;
    length -= static_cast<std::size_t>(got);
  }
  return true;
}

// As a client finds the driver: the numbers from the driver's file, a node made of them, the node opened.
int openControlNode() {
  std::FILE* file = std::fopen("/proc/mirelsnap/dev", "r");
  if (file == nullptr) return -1;
  unsigned int majorNum = 0;
  unsigned int minorNum = 0;
  const int numbers = std::fscanf(file, "%u %u", &majorNum, &minorNum);
  std::fclose(file);
  if (numbers != 2) return -1;
  mknod("/dev/mirelsnapctl", S_IFCHR, makedev(majorNum, minorNum));
  return open("/dev/mirelsnapctl", O_RDONLY | O_CLOEXEC);
}

Answer issue(const Order& order, char* buffer, int control) {
  if (control < 0) return {errno, -1};
  const int result = ioctl(control, order.argument, buffer);
  const Answer answer{result == 0 ? 0 : errno, result};
  close(control);
  return answer;
}

Answer answerTo(const Order& order, std::vector<char>& buffer) {
  switch (order.kind) {
    case Order::kRequest:
      return issue(order, buffer.data(), openControlNode());
    case Order::kRequestOn:
      return issue(order, buffer.data() + client::kPathRoom, open(buffer.data(), O_RDONLY | O_CLOEXEC));
    case Order::kProcess:
      return {0, getpid()};
    case Order::kShell: {
      const int status = std::system(buffer.data());
      return {0, WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status)};
    }
    case Order::kLeaveNamespace:
      return unshare(CLONE_NEWNS) == 0 ? Answer{0, 0} : Answer{errno, -1};
  }
  return {ENOSYS, -1};
}

int serve(int socket) {
  for (Order order; readAll(socket, &order, sizeof order);) {
    std::vector<char> buffer(order.length);
    if (!readAll(socket, buffer.data(), buffer.size())) return 1;
    const Answer answer = answerTo(order, buffer);
    if (write(socket, &answer, sizeof answer) != sizeof answer) return 1;
    for (std::size_t done = 0; done < buffer.size();) {
      const ssize_t written = write(socket, buffer.data() + done, buffer.size() - done);
      if (written <= 0) return 1;
      done += static_cast<std::size_t>(written);
    }
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  for (int i = 1; i < argc; ++i) {
    if (fork() != 0) continue;
    for (int other = 1; other < argc; ++other) {
      if (other != i) close(std::atoi(argv[other]));
    }
    _exit(serve(std::atoi(argv[i])));
  }
  for (int i = 1; i < argc; ++i) close(std::atoi(argv[i]));
  while (wait(nullptr) > 0) {
  }
  _exit(0);  // past a sanitizer's look for leaks, which wants a /proc with processes
}
