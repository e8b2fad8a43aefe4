// SPDX-License-Identifier: Apache-2.0
#include "emulator/driver/CommandCheck.h"

namespace emulator {
namespace {

// More than any command needs (16 million runs): a greater length is a mistake.
constexpr std::uint64_t kLongest = 256u << 20;

const Complaint kFine;

std::string number(std::uint64_t value) { return std::to_string(value); }

Complaint wrongLength(const _ioctlCmd& header, const std::string& right) {
  return "its length is " + number(header.length) + ", " + right;
}

std::uint64_t lengthOfRecords(std::uint64_t count, std::uint64_t size) {
  return sizeof(_ioctlCmd) + count * size + kDriverTrailerSize;
}

Complaint checkFixedLength(const _ioctlCmd& header, std::uint64_t right) {
  return header.length == right ? kFine : wrongLength(header, "not " + number(right));
}

Complaint checkRecordsLength(const _ioctlCmd& header, std::uint64_t size) {
  const std::uint64_t right = lengthOfRecords(header.requestValue, size);
  if (header.length == right) return kFine;
  return wrongLength(header, "not the " + number(right) + " of " + number(header.requestValue) + " records");
}

// How many runs the volumes have is seen once the buffer is there.
Complaint checkSnapLength(const _ioctlCmd& header) {
  const std::uint64_t withoutRuns = lengthOfRecords(header.requestValue, kSnapEntrySize);
  if (header.length < withoutRuns) {
    return wrongLength(header,
                       "less than the " + number(withoutRuns) + " of " + number(header.requestValue) + " volumes");
  }
  if ((header.length - withoutRuns) % sizeof(_run) != 0) return wrongLength(header, "not a whole number of runs");
  return kFine;
}

// The count of runs follows the header.
Complaint checkBitmapLength(const _ioctlCmd& header) {
  const std::uint64_t shortest = bitmapCommandLength(0);
  const std::uint64_t longest = bitmapCommandLength(kMaxBitmapRuns);
  if (header.length < shortest) return wrongLength(header, "less than the " + number(shortest) + " of no runs");
  if (header.length > longest) {
    return wrongLength(header, "more than the " + number(longest) + " of " + number(kMaxBitmapRuns) + " runs");
  }
  if ((header.length - shortest) % sizeof(_run) != 0) return wrongLength(header, "not a whole number of runs");
  return kFine;
}

Complaint checkHandshake(const _ioctlCmd& header) {
  const std::uint32_t right = (header.handshakeValue % 12 + 1234) % 20;
  if (header.handshakeCheck == right) return kFine;
  return "its handshake check is " + number(header.handshakeCheck) + ", not " + number(right);
}

Complaint checkFlagsAndStatus(HeaderRule rule, const _ioctlCmd& header) {
  const std::uint32_t flags = rule == HeaderRule::Bitmap ? 1 : 0;
  if (header.flags != flags) return "its command flags are " + number(header.flags) + ", not " + number(flags);
  if (header.driverStatus != 0) return "its driver status is " + std::to_string(header.driverStatus) + ", not 0";
  return kFine;
}

Complaint checkRequestValue(HeaderRule rule, const _ioctlCmd& header) {
  const auto mustBe = [&](std::uint32_t right) -> Complaint {
    if (header.requestValue == right) return kFine;
    return "its request value is " + number(header.requestValue) + ", not " + number(right);
  };
  switch (rule) {
    case HeaderRule::Plain:
    case HeaderRule::Unset:
      return mustBe(0);
    case HeaderRule::OneVolume:
    case HeaderRule::Bitmap:
      return mustBe(1);
    case HeaderRule::Volumes:
      return header.requestValue == 0 ? Complaint("it names no volume") : kFine;
    case HeaderRule::Room:
      break;
  }
  return kFine;
}

Complaint checkHeader(HeaderRule rule, const _ioctlCmd& header) {
  if (rule != HeaderRule::Unset) {
    if (Complaint complaint = checkFlagsAndStatus(rule, header)) return complaint;
  }
  if (Complaint complaint = checkHandshake(header)) return complaint;
  return checkRequestValue(rule, header);
}

}  // namespace

Complaint checkLength(const Command& command, const _ioctlCmd& header) {
  if (header.length > kLongest) return wrongLength(header, "longer than any command");
  switch (command.length.kind) {
    case LengthRule::kFixed:
      return checkFixedLength(header, command.length.bytes);
    case LengthRule::kRecords:
      return checkRecordsLength(header, command.length.bytes);
    case LengthRule::kSnap:
      return checkSnapLength(header);
    case LengthRule::kBitmap:
      return checkBitmapLength(header);
  }
  return kFine;
}

Complaint checkCommand(const Command& command, const CommandBuffer& buffer) {
  if (Complaint complaint = checkHeader(command.header, buffer.header())) return complaint;
  return command.checkPayload(buffer);
}

}  // namespace emulator
