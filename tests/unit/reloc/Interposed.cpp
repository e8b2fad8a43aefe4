// SPDX-License-Identifier: Apache-2.0
#include "Interposed.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <new>

#include "HarnessScope.h"
#include "reloc/LinuxSnapshotreloc.h"

namespace test {
Hooks hooks;
}

using test::hooks;

namespace {

// The path of the entry `name` of an open directory.
std::string pathOf(int directory, const char* name) {
  char folder[4096];
  const std::string link = "/proc/self/fd/" + std::to_string(directory);
  const ssize_t length = readlink(link.c_str(), folder, sizeof folder);
  return length < 0 ? std::string(name) : std::string(folder, static_cast<std::size_t>(length)) + "/" + name;
}

}  // namespace

extern "C" int open(const char* path, int flags, ...) {
  va_list arguments;
  va_start(arguments, flags);
  const mode_t mode = (flags & (O_CREAT | O_TMPFILE)) != 0 ? va_arg(arguments, mode_t) : 0;
  va_end(arguments);
  if (hooks.open && !test::HarnessScope::running()) {
    if (const int error = hooks.open(path, flags, mode); error != 0) {
      errno = error;
      return -1;
    }
  }
  return static_cast<int>(syscall(SYS_openat, AT_FDCWD, path, flags, mode));
}

extern "C" int openat(int directory, const char* path, int flags, ...) {
  va_list arguments;
  va_start(arguments, flags);
  const mode_t mode = (flags & (O_CREAT | O_TMPFILE)) != 0 ? va_arg(arguments, mode_t) : 0;
  va_end(arguments);
  if (hooks.open && !test::HarnessScope::running()) {
    if (const int error = hooks.open(pathOf(directory, path).c_str(), flags, mode); error != 0) {
      errno = error;
      return -1;
    }
  }
  const auto file = static_cast<int>(syscall(SYS_openat, directory, path, flags, mode));
  if (file >= 0 && (flags & O_CREAT) != 0 && hooks.modeOfAllFiles) syscall(SYS_fchmod, file, *hooks.modeOfAllFiles);
  return file;
}

extern "C" int statfs(const char* path, struct statfs* sizes) noexcept {
  if (hooks.statfs) {
    if (const std::optional<int> error = hooks.statfs(path, sizes)) {
      if (*error == 0) return 0;
      errno = *error;
      return -1;
    }
  }
  return static_cast<int>(syscall(SYS_statfs, path, sizes));
}

extern "C" ssize_t write(int fd, const void* data, size_t size) {
  if (hooks.write) {
    if (const std::optional<ssize_t> result = hooks.write(fd, data, size)) return *result;
  }
  return syscall(SYS_write, fd, data, size);
}

extern "C" off_t lseek(int fd, off_t offset, int whence) noexcept {
  if (hooks.lseek) {
    if (const std::optional<off_t> result = hooks.lseek(fd, offset, whence)) return *result;
  }
  return syscall(SYS_lseek, fd, offset, whence);
}

extern "C" int posix_fallocate(int fd, off_t offset, off_t length) {
  if (hooks.posixFallocate) {
    if (const std::optional<int> result = hooks.posixFallocate(fd, offset, length)) return *result;
  }
  static const auto real = reinterpret_cast<int (*)(int, off_t, off_t)>(dlsym(RTLD_NEXT, "posix_fallocate"));
  return real(fd, offset, length);
}

extern "C" int fchmod(int fd, mode_t mode) noexcept {
  return hooks.modeOfAllFiles ? 0 : static_cast<int>(syscall(SYS_fchmod, fd, mode));
}

extern "C" int fsync(int fd) {
  if (hooks.fsync) {
    if (const int error = hooks.fsync(fd); error != 0) {
      errno = error;
      return -1;
    }
  }
  return static_cast<int>(syscall(SYS_fsync, fd));
}

void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  if (hooks.noMemory) return nullptr;
  try {
    return ::operator new(size);
  } catch (...) {
    return nullptr;
  }
}

extern "C" {
unsigned int __real__ZN18LinuxSnapshotreloc16GetVolumeDetailsERKNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEE(
    LinuxSnapshotreloc* reloc, const std::string& volume);
unsigned int __wrap__ZN18LinuxSnapshotreloc16GetVolumeDetailsERKNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEE(
    LinuxSnapshotreloc* reloc, const std::string& volume) {
  if (hooks.getVolumeDetails) return *hooks.getVolumeDetails;
  return __real__ZN18LinuxSnapshotreloc16GetVolumeDetailsERKNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEE(
      reloc, volume);
}

unsigned int __real__ZN18LinuxSnapshotreloc29initializeUserSelectedOptionsEv(LinuxSnapshotreloc* reloc);
unsigned int __wrap__ZN18LinuxSnapshotreloc29initializeUserSelectedOptionsEv(LinuxSnapshotreloc* reloc) {
  if (hooks.initializeUserSelectedOptions) return *hooks.initializeUserSelectedOptions;
  return __real__ZN18LinuxSnapshotreloc29initializeUserSelectedOptionsEv(reloc);
}
}

// An allocation beyond 2 GiB answers null under the address sanitizer too.
extern "C" __attribute__((visibility("default"))) const char* __asan_default_options() {
  return "allocator_may_return_null=1:max_allocation_size_mb=2048";
}
