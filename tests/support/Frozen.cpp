// SPDX-License-Identifier: Apache-2.0
#include "Frozen.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <stdexcept>

namespace test {
namespace {

struct Pipe {
  UniqueFd read;
  UniqueFd write;
};

Pipe makePipe() {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) throw std::runtime_error("cannot make a pipe");
  return {UniqueFd(ends[0]), UniqueFd(ends[1])};
}

void awaitEnd(int descriptor) {
  char none;
  while (read(descriptor, &none, 1) < 0 && errno == EINTR) {
  }
}

// Runs `work` in a process that is nobody's child: what ends a test with all that it started does not find it. `work`
// may call what a signal handler may.
template <class Work>
void detach(Work work) {
  int reaps = 0;
  prctl(PR_GET_CHILD_SUBREAPER, &reaps);
  prctl(PR_SET_CHILD_SUBREAPER, 0);
  const pid_t child = fork();
  if (child == 0) {
    setsid();
    if (fork() == 0) work();
    _exit(0);
  }
  if (child > 0) waitpid(child, nullptr, 0);
  prctl(PR_SET_CHILD_SUBREAPER, reaps);
  if (child < 0) throw std::runtime_error("cannot fork");
}

}  // namespace

Frozen::Frozen(const std::string& folder) {
  if (const int error = freeze(folder)) {
    throw std::runtime_error("cannot freeze " + folder + ": " + std::strerror(error));
  }
}

int Frozen::freeze(const std::string& folder) {
  const UniqueFd root(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!root) return errno;
  Pipe hold = makePipe();
  Pipe done = makePipe();
  detach([&] {
    // At the descriptors 0 to 2, and nothing else of the test's stays open.
    dup2(fcntl(hold.read.get(), F_DUPFD, 3), 0);
    dup2(fcntl(root.get(), F_DUPFD, 3), 1);
    dup2(fcntl(done.write.get(), F_DUPFD, 3), 2);
    close_range(3, ~0U, 0);
    const int error = ioctl(1, FIFREEZE, 0) == 0 ? 0 : errno;
    static_cast<void>(!write(2, &error, sizeof error));
    if (error == 0) {
      awaitEnd(0);
      ioctl(1, FITHAW, 0);
    }
    close(1);  // here, because the end of a process closes its descriptors in no order
  });
  done.write.reset();
  int error = EPIPE;
  static_cast<void>(!read(done.read.get(), &error, sizeof error));
  if (error != 0) {
    awaitEnd(done.read.get());
    return error;
  }
  mHold = std::move(hold.write);
  mDone = std::move(done.read);
  return 0;
}

void Frozen::thaw() {
  if (!mHold) return;
  mHold.reset();
  awaitEnd(mDone.get());
  mDone.reset();
}

bool isFrozen(const std::string& folder) {
  Frozen probe;
  return probe.freeze(folder) == EBUSY;
}

}  // namespace test
