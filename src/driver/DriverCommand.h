// SPDX-License-Identifier: Apache-2.0
//
// One driver command: a zero-filled buffer with its header, and the one request that it is issued with.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>

#include "driver/DriverProtocol.h"

class DriverCommand {
 public:
  // A command of `length` bytes, header included, with length, request value and handshake set. An empty command
  // (operator! is true) when memory is short, for the buffer or for the helper that makes the handshake.
  DriverCommand(std::size_t length, std::uint32_t requestValue);

  bool operator!() const { return mBuffer == nullptr; }

  _ioctlCmd& header() { return *reinterpret_cast<_ioctlCmd*>(mBuffer.get()); }
  std::size_t length() const { return mLength; }
  // The record of type T at `offset` bytes from the start of the buffer.
  template <class T>
  T* at(std::size_t offset) {
    return reinterpret_cast<T*>(mBuffer.get() + offset);
  }
  // Record `index` of a command whose payload is an array of T.
  template <class T>
  T* record(std::size_t index = 0) {
    return at<T>(sizeof(_ioctlCmd) + index * sizeof(T));
  }
  // How many records of type T the driver may have filled: the count that it wrote back, but never more than the buffer
  // holds.
  template <class T>
  std::uint32_t filledRecords() {
    const std::size_t room = (mLength - sizeof(_ioctlCmd)) / sizeof(T);
    return header().requestValue < room ? header().requestValue : static_cast<std::uint32_t>(room);
  }

  // Issues `request` on the control device `descriptor`; the request call's result, errno set when it failed.
  int issue(int descriptor, unsigned long request);

 private:
  struct Free {
    void operator()(std::byte* buffer) const { std::free(buffer); }
  };
  std::unique_ptr<std::byte[], Free> mBuffer;
  std::size_t mLength;
};
