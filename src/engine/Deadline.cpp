// SPDX-License-Identifier: Apache-2.0
#include "engine/Deadline.h"

namespace MirelSnapSnapshotCoordinator {

void AddMilliseconds(timespec& deadline, unsigned int timeoutMs) {
  constexpr long kNanosecondsInSecond = 1'000'000'000;
  constexpr long kNanosecondsInMillisecond = 1'000'000;
  deadline.tv_sec += timeoutMs / 1000;
  deadline.tv_nsec += static_cast<long>(timeoutMs % 1000) * kNanosecondsInMillisecond;
  // Strictly greater is the contract: a full second of nanoseconds stays as it is, and the wait refuses it.
  if (deadline.tv_nsec > kNanosecondsInSecond) {
    deadline.tv_sec += 1;
    deadline.tv_nsec -= kNanosecondsInSecond;
  }
}

}  // namespace MirelSnapSnapshotCoordinator
