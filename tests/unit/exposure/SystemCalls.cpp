// SPDX-License-Identifier: Apache-2.0
#include "SystemCalls.h"

#include <sys/mount.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>
#include <filesystem>

namespace test {
namespace {

thread_local SystemCalls* watcher = nullptr;

double seconds(const timespec& time) {
  return static_cast<double>(time.tv_sec) + 1e-9 * static_cast<double>(time.tv_nsec);
}

std::string textOf(const void* text) { return text == nullptr ? "(null)" : static_cast<const char*>(text); }

// The folder that a path by a descriptor leads to; other paths as they are.
std::string folderOf(const char* path) {
  if (!textOf(path).starts_with("/proc/self/fd/")) return textOf(path);
  return std::filesystem::read_symlink(path);
}

}  // namespace

SystemCalls::SystemCalls() { watcher = this; }
SystemCalls::~SystemCalls() { watcher = nullptr; }

}  // namespace test

// These take the place of the C library's functions in this program.

extern "C" int access(const char* path, int mode) noexcept {
  if (test::watcher != nullptr && mode == F_OK) test::watcher->accesses.emplace_back(path);
  return static_cast<int>(syscall(SYS_access, path, mode));
}

extern "C" int nanosleep(const timespec* time, timespec* left) {
  if (test::watcher == nullptr) return static_cast<int>(syscall(SYS_nanosleep, time, left));
  test::SystemCalls& calls = *test::watcher;
  calls.sleeps.push_back(test::seconds(*time));
  if (!calls.onSleep || calls.onSleep(static_cast<int>(calls.sleeps.size()))) return 0;
  *left = {0, 500'000'000};
  errno = EINTR;
  return -1;
}

extern "C" int mount(const char* source, const char* target, const char* type, unsigned long flags,
                     const void* data) noexcept {
  if (test::watcher != nullptr) {
    test::watcher->mounts.push_back(
        {test::folderOf(source), test::folderOf(target), test::textOf(type), test::textOf(data), flags});
  }
  return static_cast<int>(syscall(SYS_mount, source, target, type, flags, data));
}
