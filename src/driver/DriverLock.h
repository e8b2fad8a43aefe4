// SPDX-License-Identifier: Apache-2.0
//
// The lock among all processes that use the driver, so that nobody removes what another one is just making:
//
//   shared      from the first relocation-file mapping of a set to the end of its snap command
//   exclusive   while snapshots are discarded and relocation files unlinked
//
// It is a flock on the control node, which only root can open (it has no permission bits): nobody else can hold it up.
// Waiting ends after a while, because a process that is stopped keeps its lock: a snapshot fails then, a removal leaves
// what it cannot judge. Not covered are processes that reach the driver through another node (a mount namespace with a
// /dev of its own), and builds without this lock; whoever removes something asks the driver once more just before it.
#pragma once

#include <chrono>

#include "base/Handle.h"

class DriverLock {
 public:
  enum class Kind { kShared, kExclusive };
  enum class Outcome {
    kHeld,
    kBusy,         // others hold it, to the end of the wait
    kUnavailable,  // there is no such lock here (a node that cannot be opened, a file system without locks)
  };

  DriverLock() = default;
  ~DriverLock() { release(); }
  DriverLock(const DriverLock&) = delete;
  DriverLock& operator=(const DriverLock&) = delete;

  // Makes `control`, a descriptor of the control node or an invalid one, what take() locks.
  void adopt(UniqueFd control) noexcept;
  // Opens the control node for that, where it stands already: nothing is loaded, made or logged.
  void adoptNode() noexcept;
  // The descriptor, another one when take() had to open the node again; -1 without one.
  [[nodiscard]] int descriptor() const noexcept { return mNode.get(); }

  // Takes the lock, waiting for others up to `limit`. What is not held keeps nobody from going on: see Outcome.
  [[nodiscard]] Outcome take(Kind kind, std::chrono::milliseconds limit) noexcept;
  // Gives the lock back, also where a child process has inherited the descriptor, and closes it.
  void release() noexcept;

 private:
  UniqueFd mNode;
};
