// SPDX-License-Identifier: Apache-2.0
#include "PlacementText.h"

#include "Text.h"

namespace cli {
namespace {

std::string notThere(OwnVolume why) {
  switch (why) {
    case OwnVolume::kNotMounted:
      return "the volume is not mounted";
    case OwnVolume::kNotWritable:
      return "nothing can be written to the volume";
    case OwnVolume::kNoBlocks:
      return "the volume has no space for a block of it";
    case OwnVolume::kNearlyFull:
      return "the volume is nine tenths full";
    case OwnVolume::kNoRoom:
      return "the volume has less space free than that";
    case OwnVolume::kSnapped:
      return "the volume is snapped already";
    case OwnVolume::kFits:
      break;
  }
  return "";
}

std::string refusal(ChosenMount why) {
  switch (why) {
    case ChosenMount::kNoSuchPath:
      return "there is no such directory";
    case ChosenMount::kNotMountPoint:
      return "it is not the mount point of a block device";
    case ChosenMount::kSnapped:
      return "that volume is snapped already";
    case ChosenMount::kFrozen:
      return "that volume is frozen";
    case ChosenMount::kNotWritable:
      return "nothing can be written there";
    case ChosenMount::kNotReadable:
      return "its sizes cannot be read";
    case ChosenMount::kBeyondFileSystem:
      return "its file system takes no file of that size";
    case ChosenMount::kBeyondMemory:
      return "the driver could not hold that many blocks in memory";
    case ChosenMount::kNotEnoughSpace:
      return "not enough space is free there";
    case ChosenMount::kAccepted:
      break;
  }
  return "it cannot be used";
}

const char* passedOverText(PassedOver why) {
  switch (why) {
    case PassedOver::kSnapped:
      return "snapped";
    case PassedOver::kFrozen:
      return "frozen";
    case PassedOver::kNotWritable:
      break;
  }
  return "cannot be written";
}

}  // namespace

Mount holderOf(const Placement& placement, const MountTable& table) {
  return table.at(placement.file.mountPoint)
      .value_or(Mount{placement.file.mountPoint, "/", "", placement.file.device, 0});
}

bool onOwnVolume(const Placement& placement) { return placement.file.device == placement.volume.device; }

std::string whereText(const Placement& placement) {
  const RelocationReasons& reasons = placement.file.reasons;
  if (!placement.asked.mountPoint.empty()) return "--reloc-mount says so";
  if (onOwnVolume(placement)) {
    if (reasons.ownVolume == OwnVolume::kNearlyFull)
      return "the volume is nine tenths full, but no other file system has more space free";
    return "it stays on the volume itself";
  }
  return notThere(reasons.ownVolume) +
         (reasons.fatAsLastResort ? "; this FAT file system has the most space free, and no other one has 40 GiB free"
                                  : "; this file system has the most space free of the others");
}

std::string sizeReasonText(const Placement& placement) {
  switch (placement.file.reasons.size) {
    case RelocSize::kAsked:
      return "--reloc-size says so";
    case RelocSize::kTenthOfFree:
      return "a tenth of the space free there";
    case RelocSize::kTenthOfUsed:
      return "a tenth of what the volume has in use";
    case RelocSize::kTenthOfVolume:
      return "a tenth of the volume";
    case RelocSize::kLimit:
      return "the most for a volume with less than 512 MiB in use";
    case RelocSize::kMemory:
      break;
  }
  return "capped by memory: the driver can hold " + std::to_string(placement.memoryLimit) + " blocks for the whole set";
}

std::uint64_t bytesWritten(const Placement& placement, const std::string& type) {
  constexpr std::uint64_t kXfsMagic = 0x58465342;
  return type == "ext4" && placement.file.fsType != kXfsMagic ? 0 : placement.bytes();
}

std::string costText(const Placement& placement, const std::string& type) {
  const std::uint64_t bytes = bytesWritten(placement, type);
  if (bytes == 0) return "allocated at once";
  return "written out: " + sizeText(bytes) + ", " + type +
         "; a place on ext4 takes no time (--reloc-mount and --reloc-size)";
}

std::vector<std::string> passedOverTexts(const Placement& placement) {
  std::vector<std::string> texts;
  for (const PassedOverMount& mount : placement.file.reasons.passedOver)
    texts.push_back(mount.mountPoint + " (" + passedOverText(mount.why) + ")");
  return texts;
}

Failure notPlaced(const Placement& placement) {
  const RelocationReasons& reasons = placement.file.reasons;
  if (!placement.memoryProblem.empty())
    return {kNoRoom, placement.volume.device, placement.memoryProblem, "mount proc on /proc"};
  if (reasons.beyondMemory || placement.memoryLimit == 0) {
    return {kNoRoom, placement.volume.device, "memory is short: the driver could hold no block of its relocation file",
            "free some memory, or snapshot fewer volumes at once"};
  }
  if (placement.asked.blocks != 0) {
    return {kNoRoom, placement.asked.mountPoint,
            "cannot hold a relocation file of " + std::to_string(placement.asked.blocks) + " blocks for " +
                placement.volume.device + ": " + refusal(reasons.chosenMount),
            "name another --reloc-mount or a smaller --reloc-size"};
  }
  const std::string own = notThere(reasons.ownVolume);
  return {kNoRoom, placement.volume.device,
          "no mounted file system has room for its relocation file" + (own.empty() ? "" : " (" + own + ")"),
          "free some space or name a place with --reloc-mount and --reloc-size"};
}

}  // namespace cli
