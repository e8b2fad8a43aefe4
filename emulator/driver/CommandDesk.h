// SPDX-License-Identifier: Apache-2.0
//
// The way of a command: read from the caller, checked, carried out (or made to fail), written back, reported.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>

#include "emulator/driver/Commands.h"
#include "emulator/driver/EmulatedDriver.h"
#include "emulator/driver/Inject.h"
#include "emulator/driver/Messages.h"
#include "emulator/driver/Trace.h"
#include "emulator/machine/Caller.h"
#include "emulator/machine/Result.h"

namespace emulator {

class CommandDesk {
 public:
  CommandDesk(EmulatedDriver& driver, Injections injections, Trace& trace, Messages& messages)
      : mDriver(driver), mInjections(std::move(injections)), mTrace(trace), mMessages(messages) {}

  // Whether the caller still waits for the answer: its memory is its own as long as it does.
  using StillWaits = std::function<bool()>;

  // Answers a request on the control node whose argument is the address of the buffer. The errno that the request fails
  // with, 0 when it succeeds; nothing when the caller has gone away.
  std::optional<int> serve(const Caller& caller, unsigned long request, std::uint64_t address,
                           const StillWaits& stillWaits);

  // A line a snapshot that the driver holds.
  std::string snapshotLines() const { return mDriver.snapshotLines(); }

 private:
  // Does what an injection asks for, where there is one.
  Answer carryOut(const Command& command, const Injection* injection, const Caller& caller, CommandBuffer& buffer);
  Answer handle(const Command& command, const Caller& caller, CommandBuffer& buffer);
  void tell(const Command& command, const Caller& caller, const CommandBuffer* buffer, std::uint32_t requestValue,
            const Answer& answer, bool injected);

  EmulatedDriver& mDriver;
  Injections mInjections;
  Trace& mTrace;
  Messages& mMessages;
};

}  // namespace emulator
