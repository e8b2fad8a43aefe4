// SPDX-License-Identifier: Apache-2.0
#include "reloc/RelocationFileLocation.h"

#include <sys/stat.h>
#include <syslog.h>

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "base/Handle.h"
#include "driver/VolumeRecords.h"
#include "reloc/DriverReference.h"
#include "sysinfo/LinuxSystemInfo.h"
#include "sysinfo/MountTable.h"

namespace {

using mirelsnapsdk_linuxcomputer::MountEntry;
using MountTable = std::vector<MountEntry>;

// A table that cannot be read lists nothing.
MountTable currentMounts() { return mirelsnapsdk_linuxcomputer::readMountTable().value_or(MountTable()); }

std::optional<std::string> resolve(const std::string& path) {
  const std::unique_ptr<char, FreeMemory> resolved(realpath(path.c_str(), nullptr));
  if (resolved == nullptr) return std::nullopt;
  return resolved.get();
}

std::optional<dev_t> blockDeviceNumber(const std::string& path) {
  struct stat status {};
  if (stat(path.c_str(), &status) != 0 || !S_ISBLK(status.st_mode)) return std::nullopt;
  return status.st_rdev;
}

// A block device, to be recognised under any of its names.
class SoughtDevice {
 public:
  explicit SoughtDevice(const std::string& name) : mPath(resolve(name)), mNumber(blockDeviceNumber(name)) {}

  bool isNamed(const std::string& name) const {
    return (mPath && resolve(name) == mPath) || (mNumber && blockDeviceNumber(name) == mNumber);
  }

 private:
  std::optional<std::string> mPath;
  std::optional<dev_t> mNumber;
};

bool isMountedOn(const MountTable& table, const SoughtDevice& device, const std::string& folder) {
  for (const MountEntry& entry : table) {
    if (entry.dir == folder && device.isNamed(entry.fsname)) return true;
  }
  return false;
}

// The folder that holds `path`, an absolute one; empty above "/".
std::string parentOf(const std::string& path) {
  if (path == "/") return {};
  const std::size_t slash = path.rfind('/');
  return path.substr(0, slash == 0 ? 1 : slash);
}

// The device, as the mount table names it, of the mount that holds `path`; empty when there is none. Of several on one
// folder the last covers the others.
std::string deviceHolding(const std::string& path) {
  const std::optional<std::string> resolved = resolve(path);
  if (!resolved) return {};
  const MountTable table = currentMounts();
  for (std::string current = *resolved; !current.empty(); current = parentOf(current)) {
    const auto top =
        std::find_if(table.rbegin(), table.rend(), [&](const MountEntry& entry) { return entry.dir == current; });
    if (top != table.rend()) return top->fsname;
  }
  return {};
}

// Whether the blocks of `file` are those of `volume`. inPartitionRelocFile alone would harm a volume in two ways:
// - it looks past a mount inside the volume. Blocks of another device, given to the driver as the volume's, would keep
//   it from preserving the volume's own;
// - it knows no root file system that the kernel mounted as "/dev/root", which has no node. The driver would then copy
//   the blocks of the volume's own relocation file into that file.
bool liesOn(const std::string& file, const std::string& volume, const std::string& bootDevice) {
  const std::string holder = deviceHolding(file);
  const SoughtDevice sought(volume);
  if (holder == "/dev/root") return sought.isNamed(bootDevice);
  return inPartitionRelocFile(file, volume) && sought.isNamed(holder);
}

}  // namespace

bool inPartitionRelocFile(const std::string& path, const std::string& device) {
  const std::optional<std::string> resolved = resolve(path);
  if (!resolved) return false;
  const MountTable table = currentMounts();
  const SoughtDevice sought(device);
  // The contract: a mount of another device does not end the search, so a file also lies on the device that its file
  // system's mount point lies on.
  for (std::string current = *resolved; !current.empty(); current = parentOf(current)) {
    if (isMountedOn(table, sought, current)) return true;
  }
  return false;
}

int getAllRelocFileInVol(const std::string& snapVolumeName, const std::string& relocFileName,
                         std::list<std::string>& files) {
  mirelsnapsdk_linuxcomputer::LinuxSystemInfo system;
  system.Initialize();
  if (system.GetMountPoints(snapVolumeName).empty()) {
    syslog(LOG_ERR, "Snap Vol is not mounted.\n");
    return 0;
  }
  const DriverReference driver;
  if (driver.get() == nullptr) {
    syslog(LOG_ERR, "Error allocating memory.\n");
    return 3;
  }
  std::list<SnappedVolumeInformation> snappedVolumes;
  if (driver.get()->GetSnappedVolumeDetails(snappedVolumes) != 0) {
    syslog(LOG_ERR, "Unable to obtain snapped vol details\n");
    return 3;
  }
  // The contract: finding a file is logged as an error, in two spellings.
  for (const SnappedVolumeInformation& snapped : snappedVolumes) {
    const std::string file = WStringToString(snapped.getRelocFileName());
    if (!liesOn(file, snapVolumeName, system.bootDeviceName)) continue;
    syslog(LOG_ERR, "Reloc File %s is in Volume: %s\n", file.c_str(), snapVolumeName.c_str());
    files.push_back(file);
  }
  if (liesOn(relocFileName, snapVolumeName, system.bootDeviceName)) {
    syslog(LOG_ERR, "Reloc file %s is in Volume: %s\n", relocFileName.c_str(), snapVolumeName.c_str());
    files.push_back(relocFileName);
  }
  return 0;
}
