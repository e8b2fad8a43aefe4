// SPDX-License-Identifier: Apache-2.0
#include "emulator/driver/Commands.h"

#include <algorithm>

namespace emulator {
namespace {

template <class Predicate>
const Command* findCommandIf(Predicate predicate) {
  const auto found = std::find_if(kCommands.begin(), kCommands.end(), predicate);
  return found == kCommands.end() ? nullptr : &*found;
}

}  // namespace

const Command* findCommand(unsigned long request) {
  return findCommandIf([=](const Command& command) { return command.request == request; });
}

const Command* findCommand(std::string_view name) {
  return findCommandIf([=](const Command& command) { return command.name == name; });
}

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
