// SPDX-License-Identifier: Apache-2.0
#include "Interposed.h"

#include <dirent.h>
#include <dlfcn.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <stdexcept>

namespace {

test::Interposed* current = nullptr;

template <class Function>
Function next(const char* name) {
  return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

int finish(int error) {
  if (error == 0) return 0;
  errno = error;
  return -1;
}

}  // namespace

namespace test {

Interposed::Interposed() {
  if (current != nullptr) throw std::logic_error("one set of hooks at a time");
  current = this;
}

Interposed::~Interposed() { current = nullptr; }

}  // namespace test

extern "C" int stat(const char* path, struct stat* result) noexcept {
  if (current != nullptr && current->onStat) {
    if (const test::Answer answer = current->onStat(path, result)) return finish(*answer);
  }
  return next<int (*)(const char*, struct stat*)>("stat")(path, result);
}

extern "C" int lstat(const char* path, struct stat* result) noexcept {
  if (current != nullptr && current->onLstat) {
    if (const test::Answer answer = current->onLstat(path, result)) return finish(*answer);
  }
  return next<int (*)(const char*, struct stat*)>("lstat")(path, result);
}

extern "C" int statfs(const char* path, struct statfs* result) noexcept {
  if (current != nullptr && current->onStatfs) {
    if (const test::Answer answer = current->onStatfs(path, result)) return finish(*answer);
  }
  return next<int (*)(const char*, struct statfs*)>("statfs")(path, result);
}

extern "C" ssize_t readlink(const char* path, char* buffer, std::size_t size) noexcept {
  if (current != nullptr && current->onReadlink) {
    if (const auto answer = current->onReadlink(path, buffer, size)) return *answer;
  }
  return next<ssize_t (*)(const char*, char*, std::size_t)>("readlink")(path, buffer, size);
}

extern "C" char* realpath(const char* path, char* resolved) noexcept {
  if (current != nullptr && current->onRealpath) {
    if (const test::Answer answer = current->onRealpath(path, resolved))
      return finish(*answer) == 0 ? resolved : nullptr;
  }
  return next<char* (*)(const char*, char*)>("realpath")(path, resolved);
}

extern "C" dirent* readdir(DIR* directory) {
  if (current != nullptr && current->onReaddir) current->onReaddir();
  return next<dirent* (*)(DIR*)>("readdir")(directory);
}

extern "C" void syslog(int priority, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  vsyslog(priority, format, arguments);
  va_end(arguments);
  if (current != nullptr && current->afterSyslog) current->afterSyslog();
}
