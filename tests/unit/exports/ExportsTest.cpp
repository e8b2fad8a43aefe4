// SPDX-License-Identifier: Apache-2.0
//
// What leaves the library: exactly the agent's entry, the log handler, the record's deleter and the driver interface.
#include <gtest/gtest.h>

#include <set>
#include <string>

#include "SharedObject.h"

namespace test {
namespace {

using Names = std::set<std::string>;

// What an agent looks up by its plain name.
const Names kPlainNames = {"GetCreatorFunction", "QX_SetLogHandler"};

const Names kSourceNames = {
    "GetCreatorFunction",
    "QX_SetLogHandler",
    "RelocFileMappingInformation::RelocFileMappingInformation",
    "SectorBitmap::SectorBitmap",
    "SnapDriverInterface::CreateRelocationFileMapping",
    "SnapDriverInterface::DeleteRelocationFileMapping",
    "SnapDriverInterface::DumpState",
    "SnapDriverInterface::FreezeVolume",
    "SnapDriverInterface::GetDriverVersionDetail",
    "SnapDriverInterface::GetNumOfRelocFileMapping",
    "SnapDriverInterface::GetNumOfSnappedVolumes",
    "SnapDriverInterface::GetRelocFileMapping",
    "SnapDriverInterface::GetSnappedVolumeDetails",
    "SnapDriverInterface::GetVtrackBitmap",
    "SnapDriverInterface::GetVtrackVars",
    "SnapDriverInterface::Instance",
    "SnapDriverInterface::IsDriverEnabled",
    "SnapDriverInterface::IsSnapInProgress",
    "SnapDriverInterface::IsVolumeFrozen",
    "SnapDriverInterface::IsVolumeSnapped",
    "SnapDriverInterface::IsVtrackActive",
    "SnapDriverInterface::ReconcileAndCleanup",
    "SnapDriverInterface::SetLogLevel",
    "SnapDriverInterface::SnapDriverInterface",
    "SnapDriverInterface::SnapVolume",
    "SnapDriverInterface::StopVtrack",
    "SnapDriverInterface::ThawVolume",
    "SnapDriverInterface::UnSnapVolume",
    "SnapDriverInterface::UpdateUsedSectorBitmap",
    "SnapDriverInterface::checkIfVolFrozen",
    "SnapDriverInterface::checkIfVolSnapped",
    "SnapDriverInterface::cleanRelocFiles",
    "SnapDriverInterface::deduceRelocLocations",
    "SnapDriverInterface::getIoctlCmdSize",
    "SnapDriverInterface::mInstance",
    "SnapDriverInterface::mReferenceCount",
    "SnapDriverInterface::releaseInstance",
    "SnapVolumeInformation::SnapVolumeInformation",
    "SnapVolumeInformation::setRelocFileName",
    "SnapVolumeInformation::setRelocVolumeName",
    "SnappedVolumeInformation::SnappedVolumeInformation",
    "UnixSnapshotCoordinator::UscFreeSnapshotProperties",
};

TEST(Exports, are_the_intended_ones_and_nothing_else) {
  Names exported;
  const SharedObject library(MIRELSNAP_LIBRARY);
  for (const std::string& symbol : library.exported()) exported.insert(sourceName(symbol));
  EXPECT_EQ(exported, kSourceNames);
}

TEST(Exports, of_the_agent_have_C_linkage) {
  Names plain;
  const SharedObject library(MIRELSNAP_LIBRARY);
  for (const std::string& symbol : library.exported()) {
    if (symbol.compare(0, 2, "_Z") != 0) plain.insert(symbol);
  }
  EXPECT_EQ(plain, kPlainNames);
}

TEST(Exports, belong_to_a_library_that_is_known_as_libmirelsnap_so_1) {
  EXPECT_EQ(SharedObject(MIRELSNAP_LIBRARY).soname(), "libmirelsnap.so.1");
}

}  // namespace
}  // namespace test
