// SPDX-License-Identifier: Apache-2.0
#include "emulator/driver/PayloadCheck.h"

#include <algorithm>
#include <cctype>
#include <initializer_list>
#include <set>
#include <span>

#include "emulator/machine/DeviceNumber.h"

namespace emulator {
namespace {

constexpr std::size_t kHeader = sizeof(_ioctlCmd);

const Complaint kFine;

std::string number(std::uint64_t value) { return std::to_string(value); }

Complaint firstOf(std::initializer_list<Complaint> complaints) {
  for (const Complaint& complaint : complaints) {
    if (complaint) return complaint;
  }
  return kFine;
}

// Bytes that the client leaves zero: spare ones, and those that the driver fills in.
Complaint checkZero(const CommandBuffer& buffer, std::size_t start, std::size_t end) {
  const auto bytes = buffer.bytes().subspan(start, end - start);
  const auto bad = std::find_if(bytes.begin(), bytes.end(), [](std::byte byte) { return byte != std::byte{0}; });
  if (bad == bytes.end()) return kFine;
  return "the byte at offset " + number(start + static_cast<std::size_t>(bad - bytes.begin())) + " is not zero";
}

Complaint checkTrailer(const CommandBuffer& buffer) {
  return checkZero(buffer, buffer.size() - kDriverTrailerSize, buffer.size());
}

bool isTerminated(std::span<const char> field) { return std::find(field.begin(), field.end(), '\0') != field.end(); }

Complaint checkTerminated(std::span<const char> field, const std::string& what) {
  return isTerminated(field) ? kFine : "the " + what + " is not terminated";
}

Complaint checkName(std::span<const char> field, const std::string& what) {
  if (!isTerminated(field)) return checkTerminated(field, what);
  if (field[0] == '/') return kFine;
  return "the " + what + " \"" + field.data() + "\" is not a full path";
}

Complaint checkFlag(std::uint32_t value, const char* what) {
  if (value <= 1) return kFine;
  return std::string("the ") + what + " is " + number(value) + ", not 0 or 1";
}

Complaint checkProcess(std::int64_t process) {
  if (process > 0 && process <= INT32_MAX) return kFine;
  return "the process id is " + std::to_string(process) + ", out of range";
}

// The volumes named so far, to find one that is named twice.
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

// The fields that both mapping commands have.
Complaint checkMapping(const RelocFileMappingEntry& entry) {
  return firstOf({checkProcess(entry.appPid), checkName(entry.snappedVolumeName, "volume name")});
}

// A GUID where tracking needs one, else nothing.
Complaint checkTrackingGuid(const SnapVolumeEntry& entry) {
  const std::string guid = textOf(entry.trackingGuid);
  const bool wanted = entry.vtrackRequest == 1 && entry.independentSnapshotRequest == 0;
  if (!wanted) {
    for (const char c : entry.trackingGuid) {
      if (c != '\0') return "it carries a tracking GUID but requests no tracking";
    }
    return kFine;
  }
  const std::string shape = "xxxxxxxx-xxxx-xxxx-xxxx-xxxxxxxxxxxx";
  const auto fits = [](char expected, char c) {
    return expected == '-' ? c == '-' : std::isdigit(static_cast<unsigned char>(c)) != 0 || (c >= 'a' && c <= 'f');
  };
  if (guid.size() == shape.size() && std::equal(shape.begin(), shape.end(), guid.begin(), fits)) return kFine;
  return "the tracking GUID \"" + guid + "\" is malformed";
}

Complaint checkSizes(const SnapVolumeEntry& entry) {
  if (entry.blockSize < 512 || (entry.blockSize & (entry.blockSize - 1)) != 0) {
    return "the block size " + number(entry.blockSize) + " is not a power of two of at least 512";
  }
  if (entry.numBlocks == 0) return "the volume has no blocks";
  if (entry.relocFileSize == 0) return "the relocation file has no blocks";
  if (entry.hashSize == 0) return "the hash size is 0";
  return kFine;
}

// Whether the runs lie within the volume's size as the entry gives it.
Complaint checkRuns(const CommandBuffer& buffer, const SnapEntry& entry) {
  for (std::uint32_t i = 0; i < entry.fixed.numRuns; ++i) {
    const auto run = buffer.get<_run>(entry.runsAt + i * sizeof(_run));
    if (run.startBlock == 0 || run.numBlocks == 0 || run.startBlock >= entry.fixed.numBlocks ||
        run.numBlocks > entry.fixed.numBlocks - run.startBlock) {
      return "run " + number(i) + " (" + number(run.startBlock) + " + " + number(run.numBlocks) +
             " blocks) does not lie within the volume's " + number(entry.fixed.numBlocks) + " blocks";
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

}  // namespace

Complaint checkEmpty(const CommandBuffer& buffer) { return checkZero(buffer, kHeader, buffer.size()); }

// Any level is accepted: agents may set any, and what is above 7 means 7.
Complaint checkLogLevel(const CommandBuffer&) { return kFine; }

Complaint checkVolumeCheck(const CommandBuffer& buffer) { return checkTrailer(buffer); }

Complaint checkCreateMapping(const CommandBuffer& buffer) {
  const auto entry = buffer.record<RelocFileMappingEntry>(0);
  return firstOf({checkMapping(entry), checkName(entry.relocFileName, "relocation file name"), checkTrailer(buffer)});
}

Complaint checkDeleteMapping(const CommandBuffer& buffer) {
  const auto entry = buffer.record<RelocFileMappingEntry>(0);
  return firstOf({checkMapping(entry),
                  checkZero(buffer, kHeader + offsetof(RelocFileMappingEntry, relocFileName), buffer.size())});
}

Complaint checkTrackingVars(const CommandBuffer& buffer) {
  return checkZero(buffer, kHeader + offsetof(TrackingVarsPayload, sequenceNumber), buffer.size());
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
  if (length != buffer.size())
    return "its length is " + number(buffer.header().length) + ", not the " + number(length) + " that its volumes take";
  return checkTrailer(buffer);
}

// The runs are not looked at: in a read they are room to be filled, in a push the driver checks them against the
// volume.
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

Complaint checkVerify(const CommandBuffer& buffer) { return checkZero(buffer, kHeader, kHeader + 1); }

}  // namespace emulator
