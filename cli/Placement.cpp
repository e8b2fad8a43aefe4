// SPDX-License-Identifier: Apache-2.0
#include "Placement.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>

#include "driver/LinuxSnapLibUtil.h"
#include "qxtools/Handle.h"
#include "reloc/LinuxSnapshotreloc.h"

namespace cli {
namespace {

// Bytes of the block device; 0 when it cannot be asked.
std::uint64_t deviceSize(const std::string& device) {
  const UniqueFd descriptor(open(device.c_str(), O_RDONLY | O_CLOEXEC));
  std::uint64_t size = 0;
  return descriptor && ioctl(descriptor.get(), BLKGETSIZE64, &size) == 0 ? size : 0;
}

unsigned int blockSize(const std::string& folder) {
  const UniqueFd descriptor(open(folder.c_str(), O_RDONLY | O_CLOEXEC));
  int size = 0;
  return descriptor && ioctl(descriptor.get(), FIGETBSZ, &size) == 0 && size > 0 ? static_cast<unsigned int>(size)
                                                                                 : 512;
}

// Relocation blocks that the driver could hold; read without the sizing's own helper, which stays allocated.
std::uint64_t entriesInMemory() {
  mirelsnapsdk_linuxcomputer::LinuxSystemInfo system;
  mirelsnapsdk_linuxcomputer::_sysMemStateInfo state{};
  if (system.InitializeSystemMemoryState() != 0 || system.GetSpecificSystemMemoryState(&state) != 0) return 0;
  return SnapDriverInterfaceUtility().calculateMaxRelocBlocks(state);
}

unsigned int place(LinuxSnapshotreloc& file, const RelocationOptions& options) {
  if (options.blocks == 0) return file.initialize();
  const unsigned int status = file.validate();
  return status != 0 ? status : file.initializeUserSelectedOptions();
}

}  // namespace

Placement predictPlacement(const ChosenVolume& volume, const RelocationOptions& options) {
  const unsigned int block = blockSize(volume.mountPoint);
  const std::uint64_t entries = entriesInMemory();
  LinuxSnapshotreloc file = options.blocks == 0
                                ? LinuxSnapshotreloc(volume.device, block, deviceSize(volume.device) / block, entries)
                                : LinuxSnapshotreloc(volume.device, block, options.blocks, options.mountPoint, entries);
  const unsigned int status = place(file, options);
  if (status != 0) return {status, "", 0};
  return {0, file.GetRelocFileName(), file.GetRelocNumBlks() * block};
}

}  // namespace cli
