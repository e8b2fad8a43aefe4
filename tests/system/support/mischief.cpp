// SPDX-License-Identifier: Apache-2.0
//
// Laid under a program with LD_PRELOAD: makes happen what the driver and the machine do not do of themselves. What it
// is to be stands in $MISCHIEF:
//   no-more-runs            each answer about changed runs says that more follow, and brings none
//   same-run                each answer about changed runs says that more follow, and brings the volume's first block
//   stop-after-mapping      the process stops itself when the driver knows its first relocation file
//   no-memory-for-removal   the first allocation behind the discarding of a snapshot fails
//   held-relocation-file    the writing of a relocation file stands still at kHeldAt, and again before it is flushed,
//                           each time at the gate (Gate.h) at $MISCHIEF_GATE
//   stop-before:R:N         the process stops itself before the N-th driver command with number R, as SIGSTOP does
//   stop-after:R:N          the same when that command has been answered
//   stop-before-unlink:F    the same before the first removal of a file with the name F, in whatever folder
//   stop-before-flush       the same before the first volume is flushed, which is when the relocation files are made
//   tell-locked-out:PATH    the file PATH is made when a lock is not to be had at once
//   no-mount                nothing can be mounted
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string_view>
#include <utility>

#include "driver/DriverProtocol.h"

namespace {

constexpr off_t kHeldAt = 16 << 20;  // bytes

bool isAsked(std::string_view mischief) {
  const char* asked = std::getenv("MISCHIEF");
  return asked != nullptr && asked == mischief;
}

// What follows `name` and a colon in the mischief; null when it is another one.
const char* argumentOf(std::string_view name) {
  const char* asked = std::getenv("MISCHIEF");
  if (asked == nullptr || !std::string_view(asked).starts_with(name) || asked[name.size()] != ':') return nullptr;
  return asked + name.size() + 1;
}

void stopOnce() {
  static bool stopped = false;
  if (!std::exchange(stopped, true)) raise(SIGSTOP);
}

// Counts a command, for "stop-before" or "stop-after", and stops at the one that is named.
void countCommand(std::string_view mischief, unsigned long request) {
  const char* argument = argumentOf(mischief);
  if (argument == nullptr) return;
  char* rest = nullptr;
  if (std::strtoul(argument, &rest, 10) != (request & 0xFF) || request != driverRequest(request & 0xFF)) return;
  static unsigned long seen = 0;
  if (++seen == std::strtoul(rest + 1, nullptr, 10)) stopOnce();
}

void stopBeforeUnlinkOf(std::string_view path) {
  const char* name = argumentOf("stop-before-unlink");
  if (name != nullptr && path.substr(path.rfind('/') + 1) == name) stopOnce();
}

thread_local bool memoryEnds = false;

void answerWithRuns(std::byte* command, std::uint32_t count) {
  BitmapPayload payload;
  std::memcpy(&payload, command + sizeof(_ioctlCmd), sizeof payload);
  payload.updateType = UPDATE_BITMAP_CONTINUE;
  payload.numRuns = count;
  std::memcpy(command + sizeof(_ioctlCmd), &payload, sizeof payload);
  const _run first{0, 1};
  if (count != 0) std::memcpy(command + kBitmapRunsOffset, &first, sizeof first);
}

bool isRelocationFile(int descriptor) {
  std::array<char, 4096> path{};
  const std::string link = "/proc/self/fd/" + std::to_string(descriptor);
  return readlink(link.c_str(), path.data(), path.size() - 1) > 0 && std::strstr(path.data(), "/.verrelocarea/");
}

bool isBlockDevice(int descriptor) {
  struct stat status {};
  return fstat(descriptor, &status) == 0 && S_ISBLK(status.st_mode);
}

// Comes to the gate, and stays until the test lets it go on or is gone.
void standAtGate() {
  sockaddr_un gate{};
  gate.sun_family = AF_UNIX;
  std::strncpy(gate.sun_path, std::getenv("MISCHIEF_GATE"), sizeof gate.sun_path - 1);
  const int visit = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (connect(visit, reinterpret_cast<const sockaddr*>(&gate), sizeof gate) == 0) {
    char nothing = 0;
    while (recv(visit, &nothing, sizeof nothing, 0) < 0 && errno == EINTR) {
    }
  }
  close(visit);
}

}  // namespace

extern "C" __attribute__((visibility("default"))) ssize_t write(int descriptor, const void* data, size_t size) {
  static const auto real = reinterpret_cast<ssize_t (*)(int, const void*, size_t)>(dlsym(RTLD_NEXT, "write"));
  if (isAsked("held-relocation-file") && lseek(descriptor, 0, SEEK_CUR) == kHeldAt && isRelocationFile(descriptor)) {
    standAtGate();
  }
  return real(descriptor, data, size);
}

extern "C" __attribute__((visibility("default"))) int fsync(int descriptor) {
  static const auto real = reinterpret_cast<int (*)(int)>(dlsym(RTLD_NEXT, "fsync"));
  if (isAsked("held-relocation-file") && isRelocationFile(descriptor)) standAtGate();
  if (isAsked("stop-before-flush") && isBlockDevice(descriptor)) stopOnce();
  return real(descriptor);
}

extern "C" __attribute__((visibility("default"))) int ioctl(int descriptor, unsigned long request, ...) noexcept {
  static const auto real = reinterpret_cast<int (*)(int, unsigned long, void*)>(dlsym(RTLD_NEXT, "ioctl"));
  va_list rest;
  va_start(rest, request);
  void* argument = va_arg(rest, void*);
  va_end(rest);
  countCommand("stop-before", request);
  const int result = real(descriptor, request, argument);
  countCommand("stop-after", request);
  if (request == IOC_GET_VDIFF && isAsked("no-more-runs")) answerWithRuns(static_cast<std::byte*>(argument), 0);
  if (request == IOC_GET_VDIFF && isAsked("same-run")) answerWithRuns(static_cast<std::byte*>(argument), 1);
  if (request == IOC_CREATE_RELOC_FILE_MAPPING && isAsked("stop-after-mapping")) raise(SIGSTOP);
  if (request == IOC_SNAP_DISCARD && isAsked("no-memory-for-removal")) memoryEnds = true;
  return result;
}

extern "C" __attribute__((visibility("default"))) int unlink(const char* path) noexcept {
  static const auto real = reinterpret_cast<int (*)(const char*)>(dlsym(RTLD_NEXT, "unlink"));
  stopBeforeUnlinkOf(path);
  return real(path);
}

extern "C" __attribute__((visibility("default"))) int unlinkat(int folder, const char* path, int flags) noexcept {
  static const auto real = reinterpret_cast<int (*)(int, const char*, int)>(dlsym(RTLD_NEXT, "unlinkat"));
  stopBeforeUnlinkOf(path);
  return real(folder, path, flags);
}

extern "C" __attribute__((visibility("default"))) int flock(int descriptor, int operation) noexcept {
  static const auto real = reinterpret_cast<int (*)(int, int)>(dlsym(RTLD_NEXT, "flock"));
  const int result = real(descriptor, operation);
  if (result == 0 || errno != EWOULDBLOCK) return result;
  if (const char* told = argumentOf("tell-locked-out")) close(open(told, O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
  errno = EWOULDBLOCK;
  return result;
}

extern "C" __attribute__((visibility("default"))) int mount(const char* source, const char* target, const char* type,
                                                            unsigned long flags, const void* data) noexcept {
  static const auto real = reinterpret_cast<decltype(&mount)>(dlsym(RTLD_NEXT, "mount"));
  if (!isAsked("no-mount")) return real(source, target, type, flags, data);
  errno = EPERM;
  return -1;
}

__attribute__((visibility("default"))) void* operator new(std::size_t size) {
  if (std::exchange(memoryEnds, false)) throw std::bad_alloc();
  if (void* memory = std::malloc(size)) return memory;
  throw std::bad_alloc();
}
