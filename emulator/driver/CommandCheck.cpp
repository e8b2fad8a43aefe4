// SPDX-License-Identifier: Apache-2.0
#include "emulator/driver/CommandCheck.h"

#include <algorithm>
#include <cctype>
#include <cstring>
#include <initializer_list>
#include <set>

#include "emulator/machine/DeviceNumber.h"

namespace emulator {
namespace {

constexpr std::uint64_t kHeader = sizeof(_ioctlCmd);
// More than any command needs (16 million runs); a length beyond is a mistake.
constexpr std::uint64_t kLongest = 256u << 20;

const Complaint kFine;

std::string number(std::uint64_t value) { return std::to_string(value); }

Complaint firstOf(std::initializer_list<Complaint> complaints) {
  for (const Complaint& complaint : complaints) {
    if (complaint) return complaint;
  }
  return kFine;
}

// ---- lengths

std::optional<std::uint64_t> fixedLength(Layout layout) {
  switch (layout) {
    case Layout::Version:
      return kHeader + sizeof(DriverVersionPayload);
    case Layout::LogLevel:
      return kHeader + sizeof(LogLevelPayload);
    case Layout::VolumeCheck:
      return kHeader + sizeof(VolumeCheckPayload) + kDriverTrailerSize;
    case Layout::CreateMapping:
    case Layout::DeleteMapping:
      return kHeader + sizeof(RelocFileMappingEntry) + kDriverTrailerSize;
    case Layout::TrackingVars:
      return kHeader + sizeof(TrackingVarsPayload);
    case Layout::DumpState:
      return kHeader + sizeof(DumpStatePayload);
    case Layout::Count:
    case Layout::Verify:
      return kHeader + sizeof(CountPayload);
    default:
      return std::nullopt;
  }
}

std::uint64_t recordSize(Layout layout) {
  switch (layout) {
    case Layout::VolumeList:
      return sizeof(VolumeListEntry);
    case Layout::MappingListing:
      return sizeof(RelocFileMappingEntry);
    case Layout::SnappedListing:
      return sizeof(SnappedVolumeEntry);
    default:
      return sizeof(DiscardEntry);
  }
}

std::uint64_t countedLength(std::uint64_t count, std::uint64_t size) {
  return kHeader + count * size + kDriverTrailerSize;
}

Complaint wrongLength(const _ioctlCmd& header, const std::string& right) {
  return "its length is " + number(header.length) + ", not " + right;
}

Complaint checkSnapLength(const _ioctlCmd& header) {
  const std::uint64_t withoutRuns = countedLength(header.requestValue, kSnapEntrySize);
  if (header.length < withoutRuns) {
    return wrongLength(header,
                       "at least the " + number(withoutRuns) + " of " + number(header.requestValue) + " volumes");
  }
  if ((header.length - withoutRuns) % sizeof(_run) != 0) return wrongLength(header, "a whole number of runs");
  return kFine;
}

bool isBitmap(Layout layout) { return layout == Layout::ReadBitmap || layout == Layout::PushBitmap; }

// How many runs there must be stands behind the header.
Complaint checkBitmapLength(const _ioctlCmd& header) {
  if (header.length < bitmapCommandLength(0)) {
    return wrongLength(header, "at least the " + number(bitmapCommandLength(0)) + " of no runs");
  }
  if (header.length > bitmapCommandLength(kMaxBitmapRuns)) {
    return wrongLength(header, "at most the " + number(bitmapCommandLength(kMaxBitmapRuns)) + " of " +
                                   number(kMaxBitmapRuns) + " runs");
  }
  if ((header.length - bitmapCommandLength(0)) % sizeof(_run) != 0)
    return wrongLength(header, "a whole number of runs");
  return kFine;
}

// ---- the header

Complaint checkHandshake(const _ioctlCmd& header) {
  const std::uint32_t right = (header.handshakeValue % 12 + 1234) % 20;
  if (header.handshakeCheck == right) return kFine;
  return "its handshake check is " + number(header.handshakeCheck) + ", not " + number(right);
}

bool takesVolumes(Layout layout) {
  return layout == Layout::VolumeList || layout == Layout::Snap || layout == Layout::Discard;
}

Complaint checkRequestValue(Layout layout, const _ioctlCmd& header) {
  const auto mustBe = [&](std::uint32_t right) -> Complaint {
    if (header.requestValue == right) return kFine;
    return "its request value is " + number(header.requestValue) + ", not " + number(right);
  };
  if (layout == Layout::VolumeCheck || layout == Layout::TrackingVars || isBitmap(layout)) return mustBe(1);
  if (layout == Layout::MappingListing || layout == Layout::SnappedListing) return kFine;
  if (!takesVolumes(layout)) return mustBe(0);
  return header.requestValue == 0 ? Complaint("it names no volume") : kFine;
}

Complaint checkHeader(Layout layout, const _ioctlCmd& header) {
  const std::uint32_t flags = isBitmap(layout) ? 1 : 0;
  if (header.flags != flags) return "its command flags are " + number(header.flags) + ", not " + number(flags);
  if (header.driverStatus != 0) return "its driver status is " + std::to_string(header.driverStatus) + ", not 0";
  return firstOf({checkHandshake(header), checkRequestValue(layout, header)});
}

// ---- fields

// Bytes that the client leaves zero: spare ones, and those that the driver fills.
Complaint checkZero(const CommandBuffer& buffer, std::size_t start, std::size_t end) {
  const auto bytes = buffer.bytes().subspan(start, end - start);
  const auto bad = std::find_if(bytes.begin(), bytes.end(), [](std::byte byte) { return byte != std::byte{0}; });
  if (bad == bytes.end()) return kFine;
  return "the byte at offset " + number(start + static_cast<std::size_t>(bad - bytes.begin())) + " is not zero";
}

Complaint checkTrailer(const CommandBuffer& buffer) {
  return checkZero(buffer, buffer.size() - kDriverTrailerSize, buffer.size());
}

template <std::size_t N>
Complaint checkTerminated(const char (&field)[N], const char* what) {
  if (std::memchr(field, '\0', N) != nullptr) return kFine;
  return std::string("the ") + what + " has no end";
}

template <std::size_t N>
Complaint checkName(const char (&field)[N], const char* what) {
  if (Complaint complaint = checkTerminated(field, what)) return complaint;
  if (field[0] == '/') return kFine;
  return std::string("the ") + what + " \"" + field + "\" is not a full path";
}

Complaint checkFlag(std::uint32_t value, const char* what) {
  if (value <= 1) return kFine;
  return std::string("the ") + what + " is " + number(value) + ", not 0 or 1";
}

Complaint checkProcess(std::int64_t process) {
  if (process > 0 && process <= INT32_MAX) return kFine;
  return "the process id is " + std::to_string(process);
}

// Remembers volumes, to find one that is named twice.
class Seen {
 public:
  Complaint add(std::uint32_t majorNum, std::uint32_t minorNum) {
    const DeviceNumber device{majorNum, minorNum};
    if (mSeen.insert(device).second) return kFine;
    return "it names the volume " + device.text() + " twice";
  }

 private:
  std::set<DeviceNumber> mSeen;
};

// ---- payloads

Complaint checkLogLevel(const CommandBuffer& buffer) {
  const auto level = buffer.record<LogLevelPayload>(0).level;
  if (level <= 7) return kFine;
  return "the log level is " + number(level) + ", above 7";
}

Complaint checkVolumeList(const CommandBuffer& buffer) {
  Seen seen;
  for (std::uint32_t i = 0; i < buffer.header().requestValue; ++i) {
    const auto entry = buffer.record<VolumeListEntry>(i);
    const std::size_t at = kHeader + i * sizeof entry;
    Complaint complaint = firstOf({checkZero(buffer, at + offsetof(VolumeListEntry, reserved_), at + sizeof entry),
                                   seen.add(entry.majorNum, entry.minorNum)});
    if (complaint) return complaint;
  }
  return checkTrailer(buffer);
}

Complaint checkMapping(const CommandBuffer& buffer, Layout layout) {
  const auto entry = buffer.record<RelocFileMappingEntry>(0);
  const std::size_t relocFileName = kHeader + offsetof(RelocFileMappingEntry, relocFileName);
  return firstOf({checkProcess(entry.appPid), checkName(entry.snappedVolumeName, "volume name"),
                  layout == Layout::CreateMapping
                      ? checkName(entry.relocFileName, "relocation file name")
                      : checkZero(buffer, relocFileName, relocFileName + sizeof entry.relocFileName),
                  checkTrailer(buffer)});
}

Complaint checkDiscard(const CommandBuffer& buffer) {
  Seen seen;
  for (std::uint32_t i = 0; i < buffer.header().requestValue; ++i) {
    const auto entry = buffer.record<DiscardEntry>(i);
    const std::size_t at = kHeader + i * sizeof entry;
    Complaint complaint =
        firstOf({checkZero(buffer, at + offsetof(DiscardEntry, result), at + offsetof(DiscardEntry, flag)),
                 checkFlag(entry.flag, "flag of a volume"),
                 checkZero(buffer, at + offsetof(DiscardEntry, relocFileName), at + sizeof entry),
                 seen.add(entry.majorNum, entry.minorNum)});
    if (complaint) return complaint;
  }
  return checkTrailer(buffer);
}

// A GUID text where tracking wants one, else nothing.
Complaint checkTrackingGuid(const SnapVolumeEntry& entry) {
  const std::string guid = textOf(entry.trackingGuid);
  const bool wanted = entry.vtrackRequest == 1 && entry.independentSnapshotRequest == 0;
  if (!wanted) {
    for (const char c : entry.trackingGuid) {
      if (c != '\0') return "it carries a tracking GUID that nothing asks for";
    }
    return kFine;
  }
  const std::string shape = "xxxxxxxx-xxxx-xxxx-xxxx-xxxxxxxxxxxx";
  const auto fits = [](char expected, char c) {
    return expected == '-' ? c == '-' : std::isdigit(static_cast<unsigned char>(c)) != 0 || (c >= 'a' && c <= 'f');
  };
  if (guid.size() == shape.size() && std::equal(shape.begin(), shape.end(), guid.begin(), fits)) return kFine;
  return "the tracking GUID \"" + guid + "\" is none";
}

Complaint checkSizes(const SnapVolumeEntry& entry) {
  if (entry.blockSize < 512 || (entry.blockSize & (entry.blockSize - 1)) != 0) {
    return "the block size " + number(entry.blockSize) + " is no power of two from 512 up";
  }
  if (entry.numBlocks == 0) return "the volume has no blocks";
  if (entry.relocFileSize == 0) return "the relocation file has no blocks";
  if (entry.hashSize == 0) return "the hash size is 0";
  return kFine;
}

// Whether the runs lie in the volume, as it says that it is.
Complaint checkRuns(const CommandBuffer& buffer, const SnapEntry& entry) {
  for (std::uint32_t i = 0; i < entry.fixed.numRuns; ++i) {
    const auto run = buffer.get<_run>(entry.runsAt + i * sizeof(_run));
    if (run.startBlock == 0 || run.numBlocks == 0 || run.startBlock >= entry.fixed.numBlocks ||
        run.numBlocks > entry.fixed.numBlocks - run.startBlock) {
      return "run " + number(i) + " (" + number(run.startBlock) + " + " + number(run.numBlocks) +
             " blocks) does not lie in the volume's " + number(entry.fixed.numBlocks);
    }
  }
  const std::size_t end = entry.runsAt + entry.fixed.numRuns * sizeof(_run);
  return checkZero(buffer, end, end + kSnapEntryTail);
}

Complaint checkSnapEntry(const CommandBuffer& buffer, const SnapEntry& entry) {
  const SnapVolumeEntry& fixed = entry.fixed;
  return firstOf({checkName(fixed.volumeName, "volume name"), checkName(fixed.relocFileName, "relocation file name"),
                  checkTerminated(fixed.trackingGuid, "tracking GUID"), checkProcess(fixed.appPid), checkSizes(fixed),
                  checkFlag(fixed.vtrackRequest, "change-tracking request"),
                  checkFlag(fixed.independentSnapshotRequest, "independent-snapshot request"), checkTrackingGuid(fixed),
                  checkRuns(buffer, entry)});
}

Complaint checkSnap(const CommandBuffer& buffer) {
  SnapEntries entries(buffer);
  Seen seen;
  for (std::uint32_t i = 0; i < buffer.header().requestValue; ++i) {
    const auto entry = entries.next();
    Complaint complaint =
        !entry
            ? Complaint("its entry does not fit into the command")
            : firstOf({checkSnapEntry(buffer, *entry), seen.add(entry->fixed.volumeMajor, entry->fixed.volumeMinor)});
    if (complaint) return "volume " + number(i) + ": " + *complaint;
  }
  const std::uint64_t length = entries.position() + kDriverTrailerSize;
  if (length != buffer.size()) return wrongLength(buffer.header(), "the " + number(length) + " that its volumes take");
  return checkTrailer(buffer);
}

// Where the runs of a push lie, the driver looks at: it knows the volume. Those of a reading are room to be filled.
Complaint checkBitmap(const CommandBuffer& buffer) {
  const auto bitmap = buffer.record<BitmapPayload>(0);
  const std::size_t room = (buffer.size() - bitmapCommandLength(0)) / sizeof(_run);
  if (bitmap.numRuns != room) {
    return "its number of runs is " + number(bitmap.numRuns) + ", not the " + number(room) + " that it has room for";
  }
  if (bitmap.updateType > UPDATE_BITMAP_CONTINUE) {
    return "the update type is " + number(bitmap.updateType) + ", not 0 or 1";
  }
  return checkTrailer(buffer);
}

Complaint checkDumpState(const CommandBuffer& buffer) {
  const auto payload = buffer.record<DumpStatePayload>(0);
  const auto at = [](std::size_t field) { return kHeader + field; };
  const std::size_t name = at(offsetof(DumpStatePayload, fileName));
  return firstOf({checkZero(buffer, at(offsetof(DumpStatePayload, reserved_)), name),
                  payload.fileFlag == 1 ? checkName(payload.fileName, "file name")
                                        : checkZero(buffer, name, name + sizeof payload.fileName),
                  checkZero(buffer, at(offsetof(DumpStatePayload, tail_)), buffer.size())});
}

Complaint checkPayload(Layout layout, const CommandBuffer& buffer) {
  switch (layout) {
    case Layout::LogLevel:
      return checkLogLevel(buffer);
    case Layout::VolumeCheck:
      return checkTrailer(buffer);
    case Layout::VolumeList:
      return checkVolumeList(buffer);
    case Layout::CreateMapping:
    case Layout::DeleteMapping:
      return checkMapping(buffer, layout);
    case Layout::Snap:
      return checkSnap(buffer);
    case Layout::Discard:
      return checkDiscard(buffer);
    case Layout::Version:
    case Layout::Count:
    case Layout::MappingListing:
    case Layout::SnappedListing:
      return checkZero(buffer, kHeader, buffer.size());
    case Layout::TrackingVars:
      return checkZero(buffer, kHeader + offsetof(TrackingVarsPayload, sequenceNumber), buffer.size());
    case Layout::ReadBitmap:
    case Layout::PushBitmap:
      return checkBitmap(buffer);
    case Layout::DumpState:
      return checkDumpState(buffer);
    case Layout::Verify:
      return kFine;
  }
  return kFine;
}

// Of this one only the handshake, the request value, the length and the first byte behind the header mean something:
// the client leaves the rest as its memory happened to be.
Complaint checkVerify(const CommandBuffer& buffer) {
  const _ioctlCmd header = buffer.header();
  return firstOf(
      {checkHandshake(header), checkRequestValue(Layout::Verify, header), checkZero(buffer, kHeader, kHeader + 1)});
}

}  // namespace

Complaint checkLength(const Command& command, const _ioctlCmd& header) {
  if (header.length > kLongest) return wrongLength(header, "plausible");
  if (const auto right = fixedLength(command.layout)) {
    return header.length == *right ? kFine : wrongLength(header, number(*right));
  }
  if (command.layout == Layout::Snap) return checkSnapLength(header);
  if (isBitmap(command.layout)) return checkBitmapLength(header);
  const std::uint64_t right = countedLength(header.requestValue, recordSize(command.layout));
  if (header.length == right) return kFine;
  return wrongLength(header, "the " + number(right) + " of " + number(header.requestValue) + " records");
}

Complaint checkCommand(const Command& command, const CommandBuffer& buffer) {
  if (command.layout == Layout::Verify) return checkVerify(buffer);
  return firstOf({checkHeader(command.layout, buffer.header()), checkPayload(command.layout, buffer)});
}

}  // namespace emulator
