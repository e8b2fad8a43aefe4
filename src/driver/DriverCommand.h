// SPDX-License-Identifier: Apache-2.0
//
// One driver command: a zero-filled buffer with its header, and the one request that it is issued with.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "driver/DriverProtocol.h"
#include "driver/LinuxSnapLibUtil.h"

class DriverCommand {
 public:
  // An empty command.
  DriverCommand() = default;
  // A command of `length` bytes (at least the header's), header included, with length, request value and handshake set.
  // A fresh helper for the handshake is stored, after the buffer was allocated. An empty command (operator! is true)
  // when memory is short for either, or when the header cannot express the length.
  DriverCommand(std::size_t length, std::uint32_t requestValue);
  // As above, for an operation that has stored its helper already.
  DriverCommand(std::size_t length, std::uint32_t requestValue, SnapDriverInterfaceUtility& utility);

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
  explicit DriverCommand(std::size_t length);

  struct Free {
    void operator()(std::byte* buffer) const { std::free(buffer); }
  };
  std::unique_ptr<std::byte[], Free> mBuffer;
  std::size_t mLength = 0;
};

// The steps of a command for one that lives in a buffer of its own: fills the header of a zero-filled command, and
// issues it (the request call's result, errno set when it failed).
void fillDriverHeader(_ioctlCmd& header, std::uint32_t length, std::uint32_t requestValue,
                      SnapDriverInterfaceUtility& utility);
int issueDriverRequest(int descriptor, unsigned long request, _ioctlCmd* command);

// Copies `text` into a record's text field, cut to what leaves room for the terminating NUL.
template <std::size_t N>
void putText(char (&field)[N], const char* text) {
  const std::size_t length = strnlen(text, N - 1);
  std::memcpy(field, text, length);
  field[length] = '\0';
}

// The text in a field that the driver filled; one that it left without a NUL ends with its field.
template <std::size_t N>
std::string getText(const char (&field)[N]) {
  return std::string(field, strnlen(field, N));
}
