// SPDX-License-Identifier: Apache-2.0
//
// Any bytes as a driver command: the emulator's checks read nothing past it, and what they let pass has the length that
// its counts imply.
#include <cstdlib>
#include <cstring>
#include <vector>

#include "FuzzWorld.h"
#include "emulator/driver/CommandCheck.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 1 + sizeof(_ioctlCmd)) return 0;
  const emulator::Command& command = emulator::kCommands[data[0] % emulator::kCommands.size()];
  std::vector<std::byte> bytes(size - 1);
  std::memcpy(bytes.data(), data + 1, bytes.size());
  // The length is the one thing that the emulator takes from the header before it has the rest.
  _ioctlCmd header;
  std::memcpy(&header, bytes.data(), sizeof header);
  header.length = static_cast<std::uint32_t>(bytes.size());
  if (data[0] < 128) {
    header.handshakeCheck = (header.handshakeValue % 12 + 1234) % 20;
    std::memcpy(bytes.data(), &header, sizeof header);
  }
  if (emulator::checkLength(command, header)) return 0;
  const emulator::CommandBuffer buffer(bytes);
  if (emulator::checkCommand(command, buffer)) return 0;
  if (command.request != IOC_SNAP) return 0;
  emulator::SnapEntries entries(buffer);
  std::uint32_t count = 0;
  while (entries.next()) ++count;
  if (count != header.requestValue) std::abort();
  return 0;
}
