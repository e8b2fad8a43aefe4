// SPDX-License-Identifier: Apache-2.0
#include "emulator/machine/SafetyNet.h"

#include <linux/fs.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <map>
#include <optional>
#include <set>

#include "emulator/machine/ControlNode.h"
#include "emulator/machine/Kernel.h"
#include "emulator/machine/Mounts.h"
#include "emulator/machine/SnapshotImage.h"

namespace emulator {
namespace {

// What is sent over the socket, with a descriptor of what is to be held.
struct Note {
  enum Kind : unsigned int { kFrozen, kSnapshot, kReleased } kind;
  unsigned int number;
  DeviceNumber volume;
  DeviceNumber device;
};

struct Held {
  Note note;
  UniqueFd descriptor;
};

// The control message that carries one descriptor.
union DescriptorMessage {
  char room[CMSG_SPACE(sizeof(int))];
  cmsghdr alignment;
};

void send(int socket, Note note, int descriptor) {
  DescriptorMessage control{};
  iovec content{&note, sizeof note};
  msghdr message{};
  message.msg_iov = &content;
  message.msg_iovlen = 1;
  if (descriptor >= 0) {
    message.msg_control = &control;
    message.msg_controllen = sizeof control;
    cmsghdr* header = CMSG_FIRSTHDR(&message);
    header->cmsg_level = SOL_SOCKET;
    header->cmsg_type = SCM_RIGHTS;
    header->cmsg_len = CMSG_LEN(sizeof descriptor);
    std::memcpy(CMSG_DATA(header), &descriptor, sizeof descriptor);
  }
  // Without the net the emulator works all the same.
  sendmsg(socket, &message, MSG_NOSIGNAL);
}

// Nothing once the emulator has gone.
std::optional<Held> receive(int socket) {
  Held held;
  DescriptorMessage control{};
  iovec content{&held.note, sizeof held.note};
  msghdr message{};
  message.msg_iov = &content;
  message.msg_iovlen = 1;
  message.msg_control = &control;
  message.msg_controllen = sizeof control;
  if (recvmsg(socket, &message, MSG_CMSG_CLOEXEC) != sizeof held.note) return std::nullopt;
  if (const cmsghdr* header = CMSG_FIRSTHDR(&message); header != nullptr && header->cmsg_type == SCM_RIGHTS) {
    int descriptor = -1;
    std::memcpy(&descriptor, CMSG_DATA(header), sizeof descriptor);
    held.descriptor = UniqueFd(descriptor);
  }
  return held;
}

void undo(const Kernel& kernel, std::map<unsigned int, Held>& holds) {
  for (auto hold = holds.rbegin(); hold != holds.rend(); ++hold) {
    Held& held = hold->second;
    if (held.note.kind != Note::kFrozen) continue;
    ioctl(held.descriptor.get(), FITHAW, 0);
    held.descriptor.reset();
  }
  std::set<DeviceNumber> devices;
  for (const auto& [number, held] : holds) {
    if (held.note.kind != Note::kSnapshot) continue;
    devices.insert(held.note.device);
    removeSnapshotNode(held.descriptor, held.note.volume, held.note.device);
  }
  if (!devices.empty()) unmountAll(kernel, devices, [](const std::string&) {});
  removeControlNode();
}

// A reader waiting for the end of a pipe must not wait for this process.
void closeAllBut(const std::set<int>& kept) {
  unsigned int next = 0;
  for (const int descriptor : kept) {
    const auto end = static_cast<unsigned int>(descriptor);
    if (end > next) close_range(next, end - 1, 0);
    next = end + 1;
  }
  close_range(next, ~0u, 0);
}

[[noreturn]] void keepNet(const Kernel& kernel, int socket) {
  setsid();  // out of reach of signals to the emulator's process group
  sigset_t all;
  sigfillset(&all);
  sigprocmask(SIG_BLOCK, &all, nullptr);
  closeAllBut({socket, kernel.proc(), kernel.sys(), kernel.nodes()});
  std::map<unsigned int, Held> holds;
  try {
    while (auto held = receive(socket)) {
      if (held->note.kind == Note::kReleased) {
        holds.erase(held->note.number);
        send(socket, held->note, -1);  // the emulator waits for it
      } else {
        holds.emplace(held->note.number, std::move(*held));
      }
    }
    if (!holds.empty()) undo(kernel, holds);
  } catch (const std::exception&) {
    // Out of memory: closing the descriptors has to do.
  }
  _exit(0);
}

unsigned int nextNumber() {
  static std::atomic<unsigned int> last{0};
  return ++last;
}

}  // namespace

void SafetyNet::Hold::release() noexcept {
  if (mNet != nullptr) mNet->letGo(mNumber);
  mNet = nullptr;
}

// Waits until it is done: a file system that the net holds open cannot be unmounted.
void SafetyNet::letGo(unsigned int number) noexcept {
  const std::lock_guard lock(*mMutex);
  send(mSocket.get(), {Note::kReleased, number, {}, {}}, -1);
  receive(mSocket.get());
}

Result<SafetyNet> SafetyNet::spread(const Kernel& kernel) {
  int ends[2];
  if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0)
    return failedCall(errno, "cannot create a socket");
  UniqueFd emulatorEnd(ends[0]);
  UniqueFd netEnd(ends[1]);
  const pid_t child = fork();
  if (child < 0) return failedCall(errno, "cannot create a process");
  if (child == 0) {
    emulatorEnd.reset();
    // A grandchild need not be waited for.
    if (fork() == 0) keepNet(kernel, netEnd.get());
    _exit(0);
  }
  waitpid(child, nullptr, 0);
  return SafetyNet(std::move(emulatorEnd));
}

SafetyNet::Hold SafetyNet::holdFrozen(const UniqueFd& root) {
  const unsigned int number = nextNumber();
  send(mSocket.get(), {Note::kFrozen, number, {}, {}}, root.get());
  return Hold(this, number);
}

SafetyNet::Hold SafetyNet::holdSnapshot(const UniqueFd& folder, DeviceNumber volume, DeviceNumber device) {
  const unsigned int number = nextNumber();
  send(mSocket.get(), {Note::kSnapshot, number, volume, device}, folder.get());
  return Hold(this, number);
}

}  // namespace emulator
