// SPDX-License-Identifier: Apache-2.0
#include "emulator/driver/CommandBuffer.h"

namespace emulator {

std::optional<SnapEntry> SnapEntries::next() {
  const std::size_t room = mCommand.size() - mPosition;
  if (room < kSnapEntrySize) return std::nullopt;
  const SnapEntry entry{mCommand.get<SnapVolumeEntry>(mPosition), mPosition + sizeof(SnapVolumeEntry)};
  const std::size_t runs = entry.fixed.numRuns;
  if (runs > (room - kSnapEntrySize) / sizeof(_run)) return std::nullopt;
  mPosition += kSnapEntrySize + runs * sizeof(_run);
  return entry;
}

}  // namespace emulator
