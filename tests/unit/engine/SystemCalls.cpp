// SPDX-License-Identifier: Apache-2.0
#include "SystemCalls.h"

#include <cerrno>
#include <cstddef>

namespace {

bool recording = false;
std::vector<std::string> accessed;
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

NoCalloc::NoCalloc() {
  askedBytes = 0;
  noCalloc = true;
}
NoCalloc::~NoCalloc() { noCalloc = false; }
std::size_t NoCalloc::asked() const { return askedBytes; }

}  // namespace test

extern "C" {
int __real_access(const char* name, int mode);
void* __real_calloc(std::size_t count, std::size_t size);

int __wrap_access(const char* name, int mode) {
  if (recording) accessed.emplace_back(name);
  return __real_access(name, mode);
}

void* __wrap_calloc(std::size_t count, std::size_t size) {
  if (!noCalloc) return __real_calloc(count, size);
  askedBytes = count * size;
  errno = ENOMEM;
  return nullptr;
}
}
