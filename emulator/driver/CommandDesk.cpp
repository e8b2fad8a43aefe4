// SPDX-License-Identifier: Apache-2.0
#include "emulator/driver/CommandDesk.h"

#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <new>
#include <span>
#include <string>
#include <vector>

#include "emulator/driver/CommandCheck.h"

namespace emulator {
namespace {

constexpr std::uint32_t kDebug = 7;  // the log level at which what went well is told too

// How much of the buffer the driver writes: of a command that only asks for something to be done, the header.
std::size_t writtenBytes(Layout layout, std::size_t size) {
  switch (layout) {
    case Layout::Version:
    case Layout::MappingListing:
    case Layout::SnappedListing:
    case Layout::Discard:
    case Layout::TrackingVars:
    case Layout::ReadBitmap:
      return size;
    default:
      return sizeof(_ioctlCmd);
  }
}

std::string hexadecimal(unsigned long number) {
  char text[32];
  std::snprintf(text, sizeof text, "0x%lX", number);
  return text;
}

}  // namespace

std::optional<int> CommandDesk::serve(const Caller& caller, unsigned long request, std::uint64_t address,
                                      const StillWaits& stillWaits) {
  const Command* command = findCommand(request);
  if (command == nullptr) {
    mMessages.say("request " + hexadecimal(request) + " is no command of the driver");
    return ENOTTY;
  }
  const Injection* injection = mInjections.next(*command);
  const auto refuseUnread = [&](Answer answer) {
    tell(*command, caller, nullptr, 0, answer, false);
    return answer.error;
  };

  std::array<std::byte, sizeof(_ioctlCmd)> start;
  const bool readStart = caller.readMemory(address, start);
  if (!stillWaits()) return std::nullopt;
  if (!readStart) return refuseUnread(refuse(EFAULT, "its header cannot be read"));
  const _ioctlCmd header = CommandBuffer(start).header();
  if (auto complaint = checkLength(*command, header)) return refuseUnread(refuse(EINVAL, *complaint));

  std::vector<std::byte> bytes;
  try {
    bytes.resize(header.length);
  } catch (const std::bad_alloc&) {
    return refuseUnread(refuse(ENOMEM, "no memory for its " + std::to_string(header.length) + " bytes"));
  }
  const bool readAll = caller.readMemory(address, bytes);
  if (!stillWaits()) return std::nullopt;
  if (!readAll) return refuseUnread(refuse(EFAULT, "its " + std::to_string(header.length) + " bytes cannot be read"));
  CommandBuffer buffer(bytes);
  // Another thread of the caller may have changed the header between the two reads.
  if (buffer.header().length != header.length || buffer.header().requestValue != header.requestValue) {
    return refuseUnread(refuse(EINVAL, "it changes while it is read"));
  }

  Answer answer;
  if (auto complaint = checkCommand(*command, buffer)) {
    answer = refuse(EINVAL, *complaint);
  } else {
    answer = carryOut(*command, injection, caller, buffer);
    if (answer.status) buffer.putStatus(*answer.status);
    const auto written = std::span(bytes).first(writtenBytes(command->layout, bytes.size()));
    if (!stillWaits()) {
      tell(*command, caller, &buffer, header.requestValue, answer, injection != nullptr);
      return std::nullopt;
    }
    if (!caller.writeMemory(address, written) && !answer.failed())
      answer = refuse(EFAULT, "its answer cannot be written");
  }
  tell(*command, caller, &buffer, header.requestValue, answer, injection != nullptr);
  return answer.error;
}

Answer CommandDesk::carryOut(const Command& command, const Injection* injection, const Caller& caller,
                             CommandBuffer& buffer) {
  if (injection == nullptr) return handle(command, caller, buffer);
  if (injection->lost) {
    std::vector<std::byte> unseen(buffer.bytes().begin(), buffer.bytes().end());
    CommandBuffer answered(unseen);
    static_cast<void>(handle(command, caller, answered));
    return refuse(injection->error, "as asked, though it was carried out", injection->status);
  }
  if (injection->error != 0) return refuse(injection->error, "as asked", injection->status);
  Answer answer = handle(command, caller, buffer);
  if (!answer.failed()) answer.status = injection->status;
  return answer;
}

Answer CommandDesk::handle(const Command& command, const Caller& caller, CommandBuffer& buffer) {
  try {
    return mDriver.handle(command, caller, buffer);
  } catch (const std::bad_alloc&) {
    return refuse(ENOMEM, "no memory");
  } catch (const std::exception& problem) {
    return refuse(EIO, problem.what());
  }
}

void CommandDesk::tell(const Command& command, const Caller& caller, const CommandBuffer* buffer,
                       std::uint32_t requestValue, const Answer& answer, bool injected) {
  const pid_t process = caller.process();
  if (answer.failed()) {
    mMessages.say(std::string(command.name) + " from process " + std::to_string(process) + " refused: " + answer.why);
  } else if (mDriver.logLevel() >= kDebug) {
    mMessages.say(std::string(command.name) + " from process " + std::to_string(process) + " done");
  }
  mTrace.write({process, &command, buffer, requestValue, &answer, injected});
}

}  // namespace emulator
