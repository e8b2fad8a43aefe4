// SPDX-License-Identifier: Apache-2.0
//
// The driver's commands. All that the emulator knows of a command is its row in Commands.cpp: a new command is a row
// there, and the functions that the row names.
#pragma once

#include <cstddef>
#include <nlohmann/json_fwd.hpp>
#include <span>
#include <string_view>

#include "emulator/driver/CommandBuffer.h"
#include "emulator/driver/PayloadCheck.h"
#include "emulator/machine/Result.h"

namespace emulator {

class Caller;
class EmulatedDriver;

// How long a command's buffer is, its header included.
struct LengthRule {
  enum Kind {
    kFixed,    // `bytes`
    kRecords,  // as many records of `bytes` each as the request value says, and the trailer
    kSnap,     // as many volumes as the request value says, and runs
    kBitmap,   // up to kMaxBitmapRuns runs
  };
  Kind kind;
  std::size_t bytes = 0;
};

// The fields of the header other than length and handshake.
enum class HeaderRule {
  Plain,      // request value 0
  OneVolume,  // request value 1
  Volumes,    // request value: how many volumes there are, at least 1
  Room,       // request value: how many records there is room for
  Bitmap,     // request value 1, command flags 1; the flags of all others are 0
  Unset,      // request value 0; the client does not set flags and status
};

// How much of the buffer is written back to the caller.
enum class Answered { Header, Whole };

struct Command {
  unsigned long request;
  std::string_view name;  // on the command line, in the trace and in messages
  LengthRule length;
  HeaderRule header;
  Complaint (*checkPayload)(const CommandBuffer& buffer);
  Answer (EmulatedDriver::*carryOut)(const Caller& caller, CommandBuffer& buffer);
  void (*describe)(nlohmann::ordered_json& line, const CommandBuffer& buffer);
  Answered answered;
};

// In the order of their numbers.
extern const std::span<const Command> kCommands;

// Null when there is none.
const Command* findCommand(unsigned long request);
const Command* findCommand(std::string_view name);

}  // namespace emulator
