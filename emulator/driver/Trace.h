// SPDX-License-Identifier: Apache-2.0
//
// One line of JSON per command: request and answer.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>

#include "base/Handle.h"
#include "emulator/driver/Commands.h"
#include "emulator/driver/Messages.h"
#include "emulator/machine/Result.h"

namespace emulator {

struct TraceEntry {
  pid_t process;
  const Command* command;
  const CommandBuffer* buffer;  // as it is written back; null if it could not be read
  std::uint32_t requestValue;   // as it came
  const Answer* answer;
  bool injected;
};

class Trace {
 public:
  // Writes to a file, which the trace then owns; an invalid one: no trace.
  explicit Trace(UniqueFd file);
  void write(const TraceEntry& entry);

 private:
  UniqueFd mFile;
  std::optional<LineWriter> mWriter;
};

// The line for a command at a time, microseconds since 1970.
std::string traceLine(const TraceEntry& entry, std::int64_t time);

}  // namespace emulator
