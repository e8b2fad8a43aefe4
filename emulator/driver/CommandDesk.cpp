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

constexpr std::uint32_t kDebug = 7;  // the log level from which on successes are reported too

std::span<std::byte> answeredBytes(const Command& command, std::vector<std::byte>& bytes) {
  return std::span(bytes).first(command.answered == Answered::Whole ? bytes.size() : sizeof(_ioctlCmd));
}

// " (status not-snapped)"; empty where the refusal has none.
std::string statusText(const Refusal& refusal) {
  if (!refusal.status) return "";
  const char* name = driverStatusName(*refusal.status);
  return " (status " + (name != nullptr ? name : std::to_string(*refusal.status)) + ")";
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
    mMessages.say("unknown driver request " + hexadecimal(request));
    return ENOTTY;
  }
  const Injection* injection = mInjections.next(*command);
  const auto refuseUnread = [&](int error, std::string why) {
    tell(*command, caller, nullptr, 0, refuse(error, std::move(why)), false);
    return error;
  };

  std::array<std::byte, sizeof(_ioctlCmd)> start;
  const bool readStart = caller.readMemory(address, start);
  if (!stillWaits()) return std::nullopt;
  if (!readStart) return refuseUnread(EFAULT, "its header cannot be read");
  const _ioctlCmd header = CommandBuffer(start).header();
  if (auto complaint = checkLength(*command, header)) return refuseUnread(EINVAL, *complaint);

  std::vector<std::byte> bytes;
  try {
    bytes.resize(header.length);
  } catch (const std::bad_alloc&) {
    return refuseUnread(ENOMEM, "no memory for its " + std::to_string(header.length) + " bytes");
  }
  const bool readAll = caller.readMemory(address, bytes);
  if (!stillWaits()) return std::nullopt;
  if (!readAll) return refuseUnread(EFAULT, "its " + std::to_string(header.length) + " bytes cannot be read");
  CommandBuffer buffer(bytes);
  // Another thread of the caller may have changed the header between the two reads.
  if (buffer.header().length != header.length || buffer.header().requestValue != header.requestValue) {
    return refuseUnread(EINVAL, "it changed while it was read");
  }

  Answer answer;
  if (auto complaint = checkCommand(*command, buffer)) {
    answer = refuse(EINVAL, *complaint);
  } else {
    answer = carryOut(*command, injection, caller, buffer);
    if (!answer && answer.error().status) buffer.putStatus(*answer.error().status);
    const auto written = answeredBytes(*command, bytes);
    if (!stillWaits()) {
      tell(*command, caller, &buffer, header.requestValue, answer, injection != nullptr);
      return std::nullopt;
    }
    if (!caller.writeMemory(address, written) && answer) answer = refuse(EFAULT, "its answer cannot be written");
  }
  tell(*command, caller, &buffer, header.requestValue, answer, injection != nullptr);
  return answer ? 0 : answer.error().error;
}

Answer CommandDesk::carryOut(const Command& command, const Injection* injection, const Caller& caller,
                             CommandBuffer& buffer) {
  if (injection == nullptr) return handle(command, caller, buffer);
  if (injection->lost) {
    std::vector<std::byte> unseen(buffer.bytes().begin(), buffer.bytes().end());
    CommandBuffer answered(unseen);
    static_cast<void>(handle(command, caller, answered));
    return refuse(injection->error, "failure injected after it was carried out", injection->status);
  }
  if (injection->error != 0) return refuse(injection->error, "failure injected", injection->status);
  Answer answer = handle(command, caller, buffer);
  if (answer && injection->status) buffer.putStatus(*injection->status);
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
  if (!answer) {
    mMessages.say(std::string(command.name) + " from process " + std::to_string(process) +
                  " refused: " + answer.error().why + statusText(answer.error()));
  } else if (mDriver.logLevel() >= kDebug) {
    mMessages.say(std::string(command.name) + " from process " + std::to_string(process) + " done");
  }
  mTrace.write({process, &command, buffer, requestValue, &answer, injected});
}

}  // namespace emulator
