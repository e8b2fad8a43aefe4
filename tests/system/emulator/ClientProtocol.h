// SPDX-License-Identifier: Apache-2.0
//
// What goes over the socket between a test and a client: an order and its bytes, then an answer and the same bytes.
#pragma once

#include <cstddef>

namespace client {

inline constexpr std::size_t kPathRoom = 64;

struct Order {
  enum Kind {
    kRequest,         // issue request `argument` with the bytes as its buffer
    kRequestOn,       // the same on the open device of a path, which stands before the buffer in kPathRoom bytes
    kProcess,         // tell the process id
    kShell,           // run the bytes, a text with its NUL, with sh
    kLeaveNamespace,  // into a mount namespace of its own
  } kind;
  unsigned long argument;
  std::size_t length;  // of the bytes
};

struct Answer {
  int error;
  int result;
};

}  // namespace client
