// SPDX-License-Identifier: Apache-2.0
#include <mirelsnap/SnapshotEngine.h>

#include <cstdlib>

namespace UnixSnapshotCoordinator {
namespace {

template <class T>
void FreeAndClear(T*& memory) {
  std::free(memory);
  memory = nullptr;
}

}  // namespace

void UscFreeSnapshotProperties(_USC_SNAPSHOT_PROP* props) {
  if (props == nullptr) return;
  FreeAndClear(props->SnapshotDeviceName);
  FreeAndClear(props->OriginalVolumeName);
  if (props->MountPoints != nullptr) {
    for (std::int32_t i = 0; i < props->MountPointCount; ++i) FreeAndClear(props->MountPoints[i]);
  }
  FreeAndClear(props->MountPoints);
  props->MountPointCount = 0;
  FreeAndClear(props->RelocationFileName);
}

}  // namespace UnixSnapshotCoordinator
