// SPDX-License-Identifier: Apache-2.0
//
// A driver that answers as a test says. The control device's path (/proc/mirelsnap/dev, the node, opening it) is real;
// only ioctl requests of type 'S' are answered here, every other request goes to the kernel unless a test takes it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "World.h"
#include "driver/DriverProtocol.h"

namespace test {

// One command as the library sent it.
struct DriverCall {
  unsigned long request;
  std::vector<std::byte> sent;

  template <class T>
  T get(std::size_t offset) const {
    T value;
    std::memcpy(&value, sent.data() + offset, sizeof value);
    return value;
  }
  std::string text(std::size_t offset) const { return reinterpret_cast<const char*>(sent.data()) + offset; }
  _ioctlCmd header() const { return get<_ioctlCmd>(0); }
};

// Answers commands from construction to destruction; one at a time exists. Without a script a command succeeds with
// what a driver answers that holds nothing: not snapped, not frozen, counts of 0, version "scripted".
class ScriptedDriver {
 public:
  // Gets the whole buffer and may write to it; returns 0, or the errno that the request fails with (the request call
  // then returns -1), or -n: the request call returns n.
  using Script = std::function<int(std::byte* buffer, std::size_t length)>;

  // Lays /proc/mirelsnap/dev, which names the null device.
  ScriptedDriver();
  ~ScriptedDriver();
  ScriptedDriver(const ScriptedDriver&) = delete;
  ScriptedDriver& operator=(const ScriptedDriver&) = delete;

  // Replaces the answer to `request`.
  void on(unsigned long request, Script script);
  // `request` fails with `error`, the status word set to `status` first.
  void fail(unsigned long request, int error, std::int32_t status = 0);
  // `request` succeeds with this status word.
  void status(unsigned long request, std::int32_t status);

  // Takes a request that is not the driver's (FIBMAP, FIGETBSZ, BLKFLSBUF): the answer is 0 or an errno; nothing leaves
  // it to the kernel.
  using Intercept = std::function<std::optional<int>(int descriptor, void* argument)>;
  void intercept(unsigned long request, Intercept intercept) { mIntercepts[request] = std::move(intercept); }

  const std::vector<DriverCall>& calls() const { return mCalls; }
  // The calls of one request.
  std::vector<DriverCall> calls(unsigned long request) const;
  void clearCalls() { mCalls.clear(); }

  // What the interposed ioctl calls.
  int answer(unsigned long request, void* argument);
  std::optional<int> intercepted(int descriptor, unsigned long request, void* argument);

 private:
  std::unique_ptr<ProcFile> mProcFile;
  std::map<unsigned long, Script> mScripts;
  std::map<unsigned long, Intercept> mIntercepts;
  std::vector<DriverCall> mCalls;
};

}  // namespace test
