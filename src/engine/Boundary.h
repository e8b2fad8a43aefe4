// SPDX-License-Identifier: Apache-2.0
//
// The agent's boundary: nothing that an operation throws ends the agent's process.
#pragma once

#include <mirelsnap/SnapshotEngine.h>

#include <new>
#include <utility>

namespace MirelSnapSnapshotCoordinator {

// The operation's result, or E_OUTOFMEMORY when memory ran out, or `otherwise` for anything else that it threw.
template <class Operation>
int AtBoundary(Operation&& operation, int otherwise = E_UNEXPECTED) noexcept {
  try {
    return std::forward<Operation>(operation)();
  } catch (const std::bad_alloc&) {
    return E_OUTOFMEMORY;
  } catch (...) {
    return otherwise;
  }
}

}  // namespace MirelSnapSnapshotCoordinator
