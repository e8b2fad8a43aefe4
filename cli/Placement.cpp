// SPDX-License-Identifier: Apache-2.0
#include "Placement.h"

#include <algorithm>
#include <list>

#include "Attempt.h"
#include "Wide.h"
#include "driver/LinuxSnapLibUtil.h"
#include "engine/GetDoneWrapper.h"
#include "qxtools/MountPointCollection.h"

namespace cli {
namespace {

using MirelSnapSnapshotCoordinator::GetDoneWrapper;
using UnixUtils::SystemMountPointCollection;

// Relocation blocks that the driver could hold; read without the sizing's own helper, which stays allocated. `problem`
// says why that cannot be told.
std::uint64_t entriesInMemory(std::string& problem) {
  Attempt attempt;
  mirelsnapsdk_linuxcomputer::LinuxSystemInfo system;
  mirelsnapsdk_linuxcomputer::_sysMemStateInfo state{};
  if (system.InitializeSystemMemoryState() != 0 || system.GetSpecificSystemMemoryState(&state) != 0) {
    problem = "the state of memory cannot be read" + attempt.because("");
    return 0;
  }
  return SnapDriverInterfaceUtility().calculateMaxRelocBlocks(state);
}

// Block size and size of a volume, as the engine reads them.
void readSizes(const SystemMountPointCollection& mounts, Placement& placement) {
  const GetDoneWrapper<SystemMountPointCollection::MountPointInformation> mount(
      mounts.FindMountPointFromPath(placement.volume.mountPoint.c_str()));
  if (!mount) return;
  placement.blockSize = mount->GetBlockSize();
  placement.volumeSize = mount->GetDeviceSize();
}

// What the engine would ask the driver interface for.
SnapVolumeInformation requestFor(const Placement& placement, const RelocationOptions& options) {
  const std::uint64_t blocks = placement.blockSize == 0 ? 0 : placement.volumeSize / placement.blockSize;
  return {placement.blockSize,
          blocks,
          wide(placement.volume.device),
          options.blocks,
          wide(options.mountPoint),
          false,
          true,
          0};
}

}  // namespace

std::vector<Placement> predictPlacements(const std::vector<ChosenVolume>& volumes, const RelocationOptions& options) {
  std::vector<Placement> placements;
  const GetDoneWrapper<SystemMountPointCollection> mounts(
      SystemMountPointCollection::GetLocalSystemMountPointCollection());
  std::string memoryProblem;
  const std::uint64_t memoryLimit = entriesInMemory(memoryProblem);
  std::list<SnapVolumeInformation> requests;
  for (const ChosenVolume& volume : volumes) {
    const bool known = std::any_of(placements.begin(), placements.end(),
                                   [&](const Placement& other) { return other.volume.number == volume.number; });
    if (known) continue;
    Placement& placement = placements.emplace_back(Placement{volume, options, {}, 0, 0, memoryProblem, memoryLimit});
    if (mounts.get() != nullptr) readSizes(*mounts.get(), placement);
    requests.push_back(requestFor(placement, options));
  }
  const std::vector<RelocationForecast> forecasts = forecastRelocLocations(requests, memoryLimit);
  for (std::size_t i = 0; i < placements.size(); ++i) placements[i].file = forecasts[i];
  return placements;
}

}  // namespace cli
