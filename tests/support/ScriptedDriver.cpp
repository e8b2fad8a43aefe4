// SPDX-License-Identifier: Apache-2.0
#include "ScriptedDriver.h"

#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <stdexcept>

#include "HarnessScope.h"

namespace test {
namespace {

ScriptedDriver* current = nullptr;

constexpr unsigned int kMajor = 1, kMinor = 3;

// Only what was opened through the control node reaches the driver; the kernel refuses a closed or foreign descriptor.
bool isControlDevice(int fd) {
  struct stat status {};
  return fstat(fd, &status) == 0 && S_ISCHR(status.st_mode) && status.st_rdev == makedev(kMajor, kMinor);
}

void putStatus(std::byte* buffer, std::int32_t status) {
  std::memcpy(buffer + offsetof(_ioctlCmd, driverStatus), &status, sizeof status);
}

// What a request call with this outcome returns, errno set when that is -1.
int finish(int error) {
  if (error <= 0) return -error;
  errno = error;
  return -1;
}

}  // namespace

ScriptedDriver::ScriptedDriver()
    : mProcFile(
          std::make_unique<ProcFile>("mirelsnap/dev", std::to_string(kMajor) + " " + std::to_string(kMinor) + "\n")) {
  if (current != nullptr) throw std::logic_error("one scripted driver at a time");
  current = this;
  status(IOC_CHECK_VOLUME_SNAPPED, -4);
  status(IOC_CHECK_VOLUME_FROZEN, -7);
  on(IOC_GET_DRIVER_VERSION, [](std::byte* buffer, std::size_t) {
    std::strcpy(reinterpret_cast<char*>(buffer) + sizeof(_ioctlCmd), "scripted");
    return 0;
  });
}

ScriptedDriver::~ScriptedDriver() {
  current = nullptr;
  unlink("/dev/mirelsnapctl");
}

void ScriptedDriver::on(unsigned long request, Script script) { mScripts[request] = std::move(script); }

void ScriptedDriver::fail(unsigned long request, int error, std::int32_t status) {
  on(request, [=](std::byte* buffer, std::size_t) {
    putStatus(buffer, status);
    return error;
  });
}

void ScriptedDriver::status(unsigned long request, std::int32_t status) {
  on(request, [=](std::byte* buffer, std::size_t) {
    putStatus(buffer, status);
    return 0;
  });
}

std::vector<DriverCall> ScriptedDriver::calls(unsigned long request) const {
  std::vector<DriverCall> found;
  for (const DriverCall& call : mCalls) {
    if (call.request == request) found.push_back(call);
  }
  return found;
}

int ScriptedDriver::answer(unsigned long request, void* argument) {
  auto* buffer = static_cast<std::byte*>(argument);
  _ioctlCmd header;
  std::memcpy(&header, buffer, sizeof header);
  mCalls.push_back({request, std::vector<std::byte>(buffer, buffer + header.length)});
  const auto script = mScripts.find(request);
  return finish(script == mScripts.end() ? 0 : script->second(buffer, header.length));
}

std::optional<int> ScriptedDriver::intercepted(int descriptor, unsigned long request, void* argument) {
  const auto taken = mIntercepts.find(request);
  if (taken == mIntercepts.end()) return std::nullopt;
  const std::optional<int> error = taken->second(descriptor, argument);
  if (!error) return std::nullopt;
  return finish(*error);
}

}  // namespace test

// Takes the place of the C library's function in every program that uses a scripted driver.
extern "C" int ioctl(int fd, unsigned long request, ...) noexcept {
  va_list arguments;
  va_start(arguments, request);
  void* argument = va_arg(arguments, void*);
  va_end(arguments);
  if (test::current != nullptr) {
    const test::HarnessScope own;
    if (((request >> 8) & 0xFF) == 'S' && (request >> 30) == 3 && test::isControlDevice(fd)) {
      return test::current->answer(request, argument);
    }
    if (const std::optional<int> result = test::current->intercepted(fd, request, argument)) return *result;
  }
  return static_cast<int>(syscall(SYS_ioctl, fd, request, argument));
}
