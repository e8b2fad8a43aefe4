// SPDX-License-Identifier: Apache-2.0
#include "emulator/supervise/Supervisor.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <exception>
#include <string>
#include <system_error>

#include "base/Paths.h"
#include "emulator/machine/ControlNode.h"

#ifndef SECCOMP_IOCTL_NOTIF_SET_FLAGS
#define SECCOMP_IOCTL_NOTIF_SET_FLAGS SECCOMP_IOW(4, __u64)
#define SECCOMP_USER_NOTIF_FD_SYNC_WAKE_UP (1UL << 0)
#endif

namespace emulator {
namespace {

// A buffer of the size that the running kernel needs: it may know more fields than this program.
class Notification {
 public:
  Notification() {
    seccomp_notif_sizes sizes{};
    syscall(SYS_seccomp, SECCOMP_GET_NOTIF_SIZES, 0, &sizes);
    mBytes.resize(std::max<std::size_t>(sizes.seccomp_notif, sizeof(seccomp_notif)));
  }
  bool receive(int listener) {
    std::fill(mBytes.begin(), mBytes.end(), std::byte{0});  // the kernel insists
    return ioctl(listener, SECCOMP_IOCTL_NOTIF_RECV, mBytes.data()) == 0;
  }
  const seccomp_notif& call() const { return *reinterpret_cast<const seccomp_notif*>(mBytes.data()); }

 private:
  std::vector<std::byte> mBytes;
};

constexpr std::size_t kLongestPath = 4096;
constexpr unsigned int kMostArguments = 64;

}  // namespace

struct Supervisor::ControlRequest {
  std::uint64_t id;
  unsigned long request;
  std::uint64_t address;
  Caller caller;
};

Supervisor::Supervisor(const Kernel& kernel, CommandDesk& desk, Messages& messages, DriverFile numbers,
                       UniqueFd listener, bool loaded, std::function<void()> broken)
    : mKernel(kernel),
      mDesk(desk),
      mMessages(messages),
      mNumbers(std::move(numbers)),
      mListener(std::move(listener)),
      mStop(eventfd(0, EFD_CLOEXEC)),
      mLoaded(loaded),
      mBroken(std::move(broken)) {
  if (!mStop) throw std::system_error(errno, std::generic_category(), "eventfd");
  // Makes a call and its answer cheaper where the kernel (6.6) can: both sides stay on one processor.
  ioctl(mListener.get(), SECCOMP_IOCTL_NOTIF_SET_FLAGS, SECCOMP_USER_NOTIF_FD_SYNC_WAKE_UP);
  mCommandThread = std::thread([this] { carryOutCommands(); });
  mCallThread = std::thread([this] { takeCalls(); });
}

Supervisor::~Supervisor() {
  const std::uint64_t one = 1;
  static_cast<void>(!write(mStop.get(), &one, sizeof one));
  mCallThread.join();
  {
    const std::lock_guard lock(mMutex);
    mEnding = true;
  }
  mChanged.notify_one();
  mCommandThread.join();
}

// ---- taking calls

void Supervisor::takeCalls() {
  Notification notification;
  pollfd waiting[2] = {{mListener.get(), POLLIN, 0}, {mStop.get(), POLLIN, 0}};
  while (true) {
    if (poll(waiting, 2, -1) < 0 && errno != EINTR) break;
    if (waiting[1].revents != 0) return;
    if ((waiting[0].revents & POLLIN) == 0) {
      if (waiting[0].revents == 0) continue;
      return;  // no supervised process is left
    }
    if (notification.receive(mListener.get())) {
      takeCall(notification.call());
    } else if (errno != EINTR && errno != ENOENT) {  // ENOENT: the caller has gone away
      break;
    }
  }
  mMessages.warn(std::string("cannot receive system calls any more: ") + std::strerror(errno));
  mBroken();
}

void Supervisor::takeCall(const seccomp_notif& call) {
  try {
    const CallerMemory caller(static_cast<pid_t>(call.pid));
    if (call.data.nr == SYS_ioctl) return takeRequest(call);
    if (call.data.nr == SYS_execve || call.data.nr == SYS_execveat) {
      takeExecution(call);
    } else if (mLoaded && takeDriverFile(call, caller)) {
      return;
    }
    letThrough(call.id);
  } catch (const std::exception& problem) {
    mMessages.warn(std::string("a system call could not be answered: ") + problem.what());
    answer(call.id, ENOMEM);
  }
}

bool Supervisor::takeDriverFile(const seccomp_notif& call, const CallerMemory& caller) {
  const auto name = driverFileOf(call.data, caller);
  if (!name) return false;
  if (*name == DriverFileName::kSnapshots) {
    queue([this, call] { serveSnapshots(call); });
    return true;
  }
  const auto fileReply = mNumbers.answer(mKernel, call.data, caller);
  if (fileReply) reply(call.id, caller, *fileReply);
  return fileReply.has_value();
}

void Supervisor::takeRequest(const seccomp_notif& call) {
  Caller caller(mKernel, static_cast<pid_t>(call.pid));
  // Once the caller is sure to be waiting, the process looked at is the caller.
  if (!stillWaits(call.id)) return;
  const auto open = caller.descriptor(static_cast<int>(call.data.args[0]));
  const bool onControlNode = open && S_ISCHR(open->st_mode) && numberOf(open->st_rdev) == kControlDevice;
  if (!mLoaded || !onControlNode) return letThrough(call.id);
  const auto request = std::make_shared<ControlRequest>(
      ControlRequest{call.id, static_cast<std::uint32_t>(call.data.args[1]), call.data.args[2], std::move(caller)});
  queue([this, request] { serve(*request); });
}

// The driver counts as loaded once a supervised process executes modprobe for it, whatever modprobe returns.
void Supervisor::takeExecution(const seccomp_notif& call) {
  if (mLoaded) return;
  const Caller caller(mKernel, static_cast<pid_t>(call.pid));
  const bool atFolder = call.data.nr == SYS_execveat;
  const std::string program = caller.readText(call.data.args[atFolder ? 1 : 0], kLongestPath);
  if (lastPart(program) != "modprobe" || !caller.findsProgram(program)) return;
  const std::uint64_t arguments = call.data.args[atFolder ? 2 : 1];
  for (unsigned int i = 1; i < kMostArguments; ++i) {
    std::uint64_t address = 0;
    if (!caller.readMemory(arguments + i * sizeof address, std::as_writable_bytes(std::span(&address, 1)))) return;
    if (address == 0) return;
    if (caller.readText(address, kLongestPath) == "mirelsnap") {
      mLoaded = stillWaits(call.id);
      return;
    }
  }
}

// ---- carrying out commands

void Supervisor::queue(std::function<void()> work) {
  {
    const std::lock_guard lock(mMutex);
    mQueue.push_back(std::move(work));
  }
  mChanged.notify_one();
}

void Supervisor::betweenCommands(std::function<void()> work) { queue(std::move(work)); }

void Supervisor::carryOutCommands() {
  std::unique_lock lock(mMutex);
  while (true) {
    mChanged.wait(lock, [this] { return mEnding || !mQueue.empty(); });
    if (mQueue.empty()) return;
    const std::function<void()> work = std::move(mQueue.front());
    mQueue.pop_front();
    lock.unlock();
    work();
    lock.lock();
  }
}

void Supervisor::serve(const ControlRequest& request) {
  try {
    const auto error =
        mDesk.serve(request.caller, request.request, request.address, [&] { return stillWaits(request.id); });
    if (error) answer(request.id, *error);
  } catch (const std::exception& problem) {
    mMessages.warn(std::string("a command failed: ") + problem.what());
    answer(request.id, EIO);
  }
}

// The snapshots as they are between two commands.
void Supervisor::serveSnapshots(const seccomp_notif& call) {
  try {
    const CallerMemory caller(static_cast<pid_t>(call.pid));
    const auto file = DriverFile::make(mDesk.snapshotLines());
    if (!file) return answer(call.id, file.error().error);
    const auto fileReply = file->answer(mKernel, call.data, caller);
    fileReply ? reply(call.id, caller, *fileReply) : letThrough(call.id);
  } catch (const std::exception& problem) {
    mMessages.warn(std::string("the driver's file could not be shown: ") + problem.what());
    answer(call.id, EIO);
  }
}

// ---- answering

bool Supervisor::stillWaits(std::uint64_t id) const {
  return ioctl(mListener.get(), SECCOMP_IOCTL_NOTIF_ID_VALID, &id) == 0;
}

// Answering a caller that has gone away is not an error.
void Supervisor::letThrough(std::uint64_t id) const {
  seccomp_notif_resp response{id, 0, 0, SECCOMP_USER_NOTIF_FLAG_CONTINUE};
  ioctl(mListener.get(), SECCOMP_IOCTL_NOTIF_SEND, &response);
}

void Supervisor::answer(std::uint64_t id, int error) const {
  seccomp_notif_resp response{id, 0, -error, 0};
  ioctl(mListener.get(), SECCOMP_IOCTL_NOTIF_SEND, &response);
}

void Supervisor::reply(std::uint64_t id, const CallerMemory& caller, const DriverFile::Reply& reply) const {
  if (reply.error != 0) return answer(id, reply.error);
  if (reply.opened) {
    seccomp_notif_addfd added{};
    added.id = id;
    added.flags = SECCOMP_ADDFD_FLAG_SEND;
    added.srcfd = static_cast<std::uint32_t>(reply.opened.get());
    added.newfd_flags = reply.closeOnExecution ? O_CLOEXEC : 0;
    if (ioctl(mListener.get(), SECCOMP_IOCTL_NOTIF_ADDFD, &added) < 0) answer(id, errno);
    return;
  }
  if (!stillWaits(id)) return;
  const bool written = reply.written.empty() || caller.writeMemory(reply.address, reply.written);
  answer(id, written ? 0 : EFAULT);
}

}  // namespace emulator
