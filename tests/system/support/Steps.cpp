// SPDX-License-Identifier: Apache-2.0
#include "Steps.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include <csignal>
#include <cstdarg>
#include <mutex>

namespace {

constexpr unsigned long kDriverRequests = 0xC01C5300;  // the low byte is the command's number

std::mutex mutex;
bool counting = false;
unsigned int deathStep = 0;
std::vector<std::string> log;

// The C library's own.
template <class Function>
Function* original(const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

void step(const std::string& what) {
  const std::lock_guard lock(mutex);
  if (!counting) return;
  log.push_back(what);
  if (log.size() != deathStep) return;
  kill(getpid(), SIGKILL);
  pause();
}

// The path of the entry `name` of an open directory. What has no directory has its own path.
std::string pathOf(int directory, const char* name) {
  if (directory == AT_FDCWD || *name == '/') return name;
  char folder[4096];
  const std::string link = "/proc/self/fd/" + std::to_string(directory);
  const ssize_t length = readlink(link.c_str(), folder, sizeof folder);
  return std::string(folder, length < 0 ? 0 : static_cast<std::size_t>(length)) + "/" + name;
}

}  // namespace

namespace steps {

void count(unsigned int last) {
  const std::lock_guard lock(mutex);
  counting = true;
  deathStep = last;
  log.clear();
}

std::vector<std::string> taken() {
  const std::lock_guard lock(mutex);
  return log;
}

}  // namespace steps

// The library's calls come here, because the executable's symbols stand before the C library's.
#pragma GCC visibility push(default)
extern "C" {

int ioctl(int descriptor, unsigned long request, ...) noexcept {
  va_list arguments;
  va_start(arguments, request);
  void* argument = va_arg(arguments, void*);
  va_end(arguments);
  if ((request & 0xFFFFFF00) == kDriverRequests) step("ioctl " + std::to_string(request & 0xFF));
  static auto* const real = original<int(int, unsigned long, ...)>("ioctl");
  return real(descriptor, request, argument);
}

int open(const char* path, int flags, ...) {
  va_list arguments;
  va_start(arguments, flags);
  const auto mode = static_cast<mode_t>(va_arg(arguments, unsigned int));
  va_end(arguments);
  if ((flags & O_CREAT) != 0) step(std::string("create ") + path);
  static auto* const real = original<int(const char*, int, ...)>("open");
  return real(path, flags, mode);
}

int openat(int directory, const char* path, int flags, ...) {
  va_list arguments;
  va_start(arguments, flags);
  const auto mode = static_cast<mode_t>(va_arg(arguments, unsigned int));
  va_end(arguments);
  if ((flags & O_CREAT) != 0) step("create " + pathOf(directory, path));
  static auto* const real = original<int(int, const char*, int, ...)>("openat");
  return real(directory, path, flags, mode);
}

ssize_t write(int descriptor, const void* data, size_t size) {
  step("write " + std::to_string(size));
  static auto* const real = original<ssize_t(int, const void*, size_t)>("write");
  return real(descriptor, data, size);
}

int fsync(int descriptor) {
  step("fsync");
  static auto* const real = original<int(int)>("fsync");
  return real(descriptor);
}

int posix_fallocate(int descriptor, off_t offset, off_t size) {
  step("posix_fallocate");
  static auto* const real = original<int(int, off_t, off_t)>("posix_fallocate");
  return real(descriptor, offset, size);
}

int mknod(const char* path, mode_t mode, dev_t device) noexcept {
  step(std::string("mknod ") + path);
  static auto* const real = original<int(const char*, mode_t, dev_t)>("mknod");
  return real(path, mode, device);
}

int mkdir(const char* path, mode_t mode) noexcept {
  step(std::string("mkdir ") + path);
  static auto* const real = original<int(const char*, mode_t)>("mkdir");
  return real(path, mode);
}

int mkdirat(int directory, const char* path, mode_t mode) noexcept {
  step("mkdir " + pathOf(directory, path));
  static auto* const real = original<int(int, const char*, mode_t)>("mkdirat");
  return real(directory, path, mode);
}

int rmdir(const char* path) noexcept {
  step(std::string("rmdir ") + path);
  static auto* const real = original<int(const char*)>("rmdir");
  return real(path);
}

int unlink(const char* path) noexcept {
  step(std::string("unlink ") + path);
  static auto* const real = original<int(const char*)>("unlink");
  return real(path);
}

int unlinkat(int directory, const char* path, int flags) noexcept {
  step(((flags & AT_REMOVEDIR) != 0 ? "rmdir " : "unlink ") + pathOf(directory, path));
  static auto* const real = original<int(int, const char*, int)>("unlinkat");
  return real(directory, path, flags);
}

int remove(const char* path) noexcept {
  step(std::string("remove ") + path);
  static auto* const real = original<int(const char*)>("remove");
  return real(path);
}

int mount(const char* source, const char* target, const char* type, unsigned long flags, const void* data) noexcept {
  step(std::string("mount ") + target);
  static auto* const real = original<int(const char*, const char*, const char*, unsigned long, const void*)>("mount");
  return real(source, target, type, flags, data);
}

int umount2(const char* target, int flags) noexcept {
  step(std::string("umount ") + target);
  static auto* const real = original<int(const char*, int)>("umount2");
  return real(target, flags);
}
}
#pragma GCC visibility pop
