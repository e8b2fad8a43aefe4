// SPDX-License-Identifier: Apache-2.0
#include "emulator/driver/Commands.h"

#include <algorithm>

#include "emulator/driver/Description.h"
#include "emulator/driver/EmulatedDriver.h"

namespace emulator {
namespace {

using Driver = EmulatedDriver;

constexpr LengthRule plain(std::size_t payload) { return {LengthRule::kFixed, sizeof(_ioctlCmd) + payload}; }
constexpr LengthRule trailed(std::size_t payload) { return plain(payload + kDriverTrailerSize); }
constexpr LengthRule records(std::size_t record) { return {LengthRule::kRecords, record}; }
constexpr LengthRule kSnapLength{LengthRule::kSnap};
constexpr LengthRule kBitmapLength{LengthRule::kBitmap};

// clang-format off
constexpr Command kTable[] = {
    {IOC_FREEZE, "freeze",
     records(sizeof(VolumeListEntry)), HeaderRule::Volumes, checkVolumeList,
     &Driver::freeze, describeVolumeList, Answered::Header},
    {IOC_THAW, "thaw",
     records(sizeof(VolumeListEntry)), HeaderRule::Volumes, checkVolumeList,
     &Driver::thaw, describeVolumeList, Answered::Header},
    {IOC_SET_LOG_LEVEL, "set-log-level",
     plain(sizeof(LogLevelPayload)), HeaderRule::Plain, checkLogLevel,
     &Driver::setLogLevel, describeLogLevel, Answered::Header},
    {IOC_DUMP_STATE, "dump-state",
     plain(sizeof(DumpStatePayload)), HeaderRule::Plain, checkDumpState,
     &Driver::dumpState, describeDumpState, Answered::Header},
    {IOC_UPDATE_BITMAP, "update-bitmap",
     kBitmapLength, HeaderRule::Bitmap, checkBitmap,
     &Driver::pushBitmap, describeBitmap, Answered::Header},
    {IOC_CHECK_VOLUME_SNAPPED, "check-snapped",
     trailed(sizeof(VolumeCheckPayload)), HeaderRule::OneVolume, checkVolumeCheck,
     &Driver::checkSnapped, describeVolumeCheck, Answered::Header},
    {IOC_GET_NUM_OF_SNAPPED_VOLUMES, "count-snapped",
     plain(sizeof(CountPayload)), HeaderRule::Plain, checkEmpty,
     &Driver::countSnapped, describeNothing, Answered::Header},
    {IOC_GET_SNAPPED_VOL_DETAILS, "list-snapped",
     records(sizeof(SnappedVolumeEntry)), HeaderRule::Room, checkEmpty,
     &Driver::listSnapped, describeSnappedVolumes, Answered::Whole},
    {IOC_CREATE_RELOC_FILE_MAPPING, "create-mapping",
     trailed(sizeof(RelocFileMappingEntry)), HeaderRule::Plain, checkCreateMapping,
     &Driver::createMapping, describeMapping, Answered::Header},
    {IOC_DELETE_RELOC_FILE_MAPPING, "delete-mapping",
     trailed(sizeof(RelocFileMappingEntry)), HeaderRule::Plain, checkDeleteMapping,
     &Driver::deleteMapping, describeMapping, Answered::Header},
    {IOC_GET_NUM_OF_RELOC_FILE_MAPPING, "count-mappings",
     plain(sizeof(CountPayload)), HeaderRule::Plain, checkEmpty,
     &Driver::countMappings, describeNothing, Answered::Header},
    {IOC_GET_RELOC_FILE_MAPPING, "list-mappings",
     records(sizeof(RelocFileMappingEntry)), HeaderRule::Room, checkEmpty,
     &Driver::listMappings, describeMappings, Answered::Whole},
    {IOC_GET_DRIVER_VERSION, "version",
     plain(sizeof(DriverVersionPayload)), HeaderRule::Plain, checkEmpty,
     &Driver::version, describeVersion, Answered::Whole},
    {IOC_CHECK_VOLUME_FROZEN, "check-frozen",
     trailed(sizeof(VolumeCheckPayload)), HeaderRule::OneVolume, checkVolumeCheck,
     &Driver::checkFrozen, describeVolumeCheck, Answered::Header},
    {IOC_SNAP, "snap",
     kSnapLength, HeaderRule::Volumes, checkSnap,
     &Driver::snap, describeSnap, Answered::Header},
    {IOC_SNAP_DISCARD, "discard",
     records(sizeof(DiscardEntry)), HeaderRule::Volumes, checkDiscard,
     &Driver::discard, describeDiscard, Answered::Whole},
    {IOC_GET_VDIFF, "get-vdiff",
     kBitmapLength, HeaderRule::Bitmap, checkBitmap,
     &Driver::readBitmap, describeBitmap, Answered::Whole},
    {IOC_GET_VTRACK_VARS, "get-vtrack-vars",
     plain(sizeof(TrackingVarsPayload)), HeaderRule::OneVolume, checkTrackingVars,
     &Driver::trackingVars, describeTrackingVars, Answered::Whole},
    {IOC_STOP_VTRACK, "stop-vtrack",
     records(sizeof(VolumeListEntry)), HeaderRule::Volumes, checkVolumeList,
     &Driver::stopTracking, describeVolumeList, Answered::Header},
    {IOC_IS_VTRACK_ACTIVE, "is-vtrack-active",
     trailed(sizeof(VolumeCheckPayload)), HeaderRule::OneVolume, checkVolumeCheck,
     &Driver::checkTracked, describeVolumeCheck, Answered::Header},
    {IOC_VERIFY_AND_CLEAN_VOLUMES, "verify-and-clean",
     plain(sizeof(CountPayload)), HeaderRule::Unset, checkVerify,
     &Driver::verifyAndClean, describeNothing, Answered::Header},
};
// clang-format on

template <class Predicate>
const Command* findCommandIf(Predicate predicate) {
  const auto found = std::find_if(kCommands.begin(), kCommands.end(), predicate);
  return found == kCommands.end() ? nullptr : &*found;
}

}  // namespace

constinit const std::span<const Command> kCommands = kTable;

const Command* findCommand(unsigned long request) {
  return findCommandIf([=](const Command& command) { return command.request == request; });
}

const Command* findCommand(std::string_view name) {
  return findCommandIf([=](const Command& command) { return command.name == name; });
}

}  // namespace emulator
