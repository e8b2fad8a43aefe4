// SPDX-License-Identifier: Apache-2.0
//
// That nothing is left of a record shows under the leak check.
#include <gtest/gtest.h>
#include <mirelsnap/SnapshotEngine.h>

#include <cstdlib>
#include <cwchar>

using UnixSnapshotCoordinator::_USC_SNAPSHOT_PROP;
using UnixSnapshotCoordinator::UscFreeSnapshotProperties;

namespace {

_USC_SNAPSHOT_PROP filledRecord() {
  _USC_SNAPSHOT_PROP record{};
  record.SnapshotId.Data1 = 1;
  record.SnapshotsCount = 3;
  record.SnapshotDeviceName = wcsdup(L"/dev/snap8_1");
  record.OriginalVolumeName = wcsdup(L"/dev/sda1");
  record.MountPointCount = 2;
  record.MountPoints = static_cast<wchar_t**>(std::calloc(2, sizeof(wchar_t*)));
  record.MountPoints[0] = wcsdup(L"/");
  record.MountPoints[1] = wcsdup(L"/home");
  record.CreationTimestamp = 4;
  record.RelocationFileName = wcsdup(L"/.verrelocarea/sda1");
  return record;
}

void expectNothingHangsOn(const _USC_SNAPSHOT_PROP& record) {
  EXPECT_EQ(record.SnapshotDeviceName, nullptr);
  EXPECT_EQ(record.OriginalVolumeName, nullptr);
  EXPECT_EQ(record.MountPointCount, 0);
  EXPECT_EQ(record.MountPoints, nullptr);
  EXPECT_EQ(record.RelocationFileName, nullptr);
}

}  // namespace

TEST(UscFreeSnapshotProperties, frees_and_clears_strings_and_mount_points_and_leaves_the_rest) {
  _USC_SNAPSHOT_PROP record = filledRecord();
  UscFreeSnapshotProperties(&record);
  expectNothingHangsOn(record);
  EXPECT_EQ(record.SnapshotId.Data1, 1u);
  EXPECT_EQ(record.SnapshotsCount, 3);
  EXPECT_EQ(record.CreationTimestamp, 4);
}

TEST(UscFreeSnapshotProperties, finds_nothing_to_free_the_second_time) {
  _USC_SNAPSHOT_PROP record = filledRecord();
  UscFreeSnapshotProperties(&record);
  UscFreeSnapshotProperties(&record);
  expectNothingHangsOn(record);
}

TEST(UscFreeSnapshotProperties, takes_a_record_that_was_filled_in_part) {
  _USC_SNAPSHOT_PROP record = filledRecord();
  std::free(record.MountPoints[1]);
  record.MountPoints[1] = nullptr;
  std::free(record.RelocationFileName);
  record.RelocationFileName = nullptr;
  UscFreeSnapshotProperties(&record);
  expectNothingHangsOn(record);
}

TEST(UscFreeSnapshotProperties, a_count_without_an_array_is_no_array) {
  _USC_SNAPSHOT_PROP record{};
  record.MountPointCount = 2;
  UscFreeSnapshotProperties(&record);
  expectNothingHangsOn(record);
}

TEST(UscFreeSnapshotProperties, ignores_null) { UscFreeSnapshotProperties(nullptr); }
