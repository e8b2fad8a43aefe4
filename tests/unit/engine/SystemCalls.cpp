// SPDX-License-Identifier: Apache-2.0
#include "SystemCalls.h"

#include <fcntl.h>
#include <sys/types.h>

#include <cerrno>
#include <cstdarg>
#include <cstddef>
#include <utility>

namespace {

bool recording = false;
std::vector<std::string> accessed;
std::string emptyDrive;
std::string protectedDrive;
bool noCalloc = false;
std::size_t askedBytes = 0;

}  // namespace

namespace test {

AccessedNames::AccessedNames() { recording = true; }
AccessedNames::~AccessedNames() {
  recording = false;
  accessed.clear();
}
const std::vector<std::string>& AccessedNames::all() const { return accessed; }

NoMedium::NoMedium(std::string device) { emptyDrive = std::move(device); }
NoMedium::~NoMedium() { emptyDrive.clear(); }

WriteProtected::WriteProtected(std::string device) { protectedDrive = std::move(device); }
WriteProtected::~WriteProtected() { protectedDrive.clear(); }

NoCalloc::NoCalloc() {
  askedBytes = 0;
  noCalloc = true;
}
NoCalloc::~NoCalloc() { noCalloc = false; }
std::size_t NoCalloc::asked() const { return askedBytes; }

}  // namespace test

extern "C" {
int __real_access(const char* name, int mode);
int __real_open(const char* name, int flags, ...);
void* __real_calloc(std::size_t count, std::size_t size);

int __wrap_access(const char* name, int mode) {
  if (recording) accessed.emplace_back(name);
  return __real_access(name, mode);
}

int __wrap_open(const char* name, int flags, ...) {
  mode_t mode = 0;
  if ((flags & O_CREAT) != 0) {
    std::va_list arguments;
    va_start(arguments, flags);
    mode = va_arg(arguments, mode_t);
    va_end(arguments);
  }
  if (!emptyDrive.empty() && name == emptyDrive && (flags & O_NONBLOCK) == 0) {
    errno = ENOMEDIUM;
    return -1;
  }
  if (!protectedDrive.empty() && name == protectedDrive && (flags & O_ACCMODE) != O_RDONLY) {
    errno = EROFS;
    return -1;
  }
  return __real_open(name, flags, mode);
}

void* __wrap_calloc(std::size_t count, std::size_t size) {
  if (!noCalloc) return __real_calloc(count, size);
  askedBytes = count * size;
  errno = ENOMEM;
  return nullptr;
}
}
