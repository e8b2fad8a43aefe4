// SPDX-License-Identifier: Apache-2.0
//
// Which block devices are mounted where. Every query reads the kernel's table afresh.
#include "sysinfo/MountTable.h"

#include <mntent.h>
#include <sys/vfs.h>
#include <syslog.h>

#include <algorithm>
#include <cerrno>
#include <iostream>
#include <string_view>
#include <utility>

#include "base/Handle.h"
#include "sysinfo/LinuxSystemInfo.h"

namespace mirelsnapsdk_linuxcomputer {
namespace {

// Room for one line of the table: two paths of 4095 bytes, every byte escaped in four, and as much again for the
// options, which are cut beyond it.
constexpr std::size_t kLineLength = 65536;

// Whether the table lists the device: all block devices but floppies and (by prefix, /dev/cdrom1 as well) CD-ROMs.
bool isListedDevice(std::string_view device) {
  return device.starts_with("/dev/") && !device.starts_with("/dev/fd") && !device.starts_with("/dev/cdrom");
}

void printSizes(const struct statfs& sizes) {
  // Whole KB a block: blocks under 1024 bytes print sizes of 0. That is the contract.
  const std::uint64_t blockKB = static_cast<std::uint64_t>(sizes.f_bsize) / 1024;
  const std::uint64_t totalKB = blockKB * sizes.f_blocks;
  const std::uint64_t freeKB = blockKB * sizes.f_bfree;
  std::cout << "BlockSize of volume: " << sizes.f_bsize << '\n'
            << "TotalSizeOfVolume (in K): " << totalKB << '\n'
            << "AvailSizeKofVolume (in K): " << freeKB << '\n'
            << "UsedSizeKofVolume (in K): " << totalKB - freeKB << '\n';
}

}  // namespace

std::optional<std::vector<MountEntry>> readMountTable() {
  const UniqueMountTable table(setmntent("/proc/mounts", "re"));
  if (!table) return std::nullopt;
  std::vector<MountEntry> entries;
  std::vector<char> line(kLineLength);
  mntent record;
  while (getmntent_r(table.get(), &record, line.data(), static_cast<int>(line.size())) != nullptr) {
    entries.emplace_back(record);
  }
  return entries;
}

std::vector<MountEntry> LinuxSystemInfo::GetProcMounts() {
  std::optional<std::vector<MountEntry>> mounts = readMountTable();
  if (!mounts) {
    syslog(LOG_ERR, "GetProcMounts Could not open /proc/mounts : %d.\n", errno);
    return {};
  }
  std::erase_if(*mounts, [](const MountEntry& entry) { return !isListedDevice(entry.fsname); });
  for (MountEntry& entry : *mounts) entry.fsname = realDeviceOf(entry.fsname);
  // Of several mounts of one device the earlier line comes first, however many there are.
  std::stable_sort(mounts->begin(), mounts->end(), MountEntryDeviceLess());
  return std::move(*mounts);
}

std::string LinuxSystemInfo::realDeviceOf(const std::string& device) {
  // Every device that is looked up stays in the map, those without an alias with an empty value. That is the contract.
  const std::string& realDevice = volumeAliases[device];
  // Asked of the name as read, so that it wins over an alias.
  if (device == "/dev/root") return bootDeviceName;
  return realDevice.empty() ? device : realDevice;
}

std::vector<std::string> LinuxSystemInfo::GetMountPoints(const std::string& volume) {
  std::vector<std::string> mountPoints;
  for (const MountEntry& entry : GetProcMounts()) {
    if (entry.fsname != volume) continue;
    syslog(LOG_DEBUG, "User selected VolumeName: %s System discovered: %s.\n", volume.c_str(), entry.fsname.c_str());
    mountPoints.push_back(entry.dir);
  }
  return mountPoints;
}

std::vector<std::string> LinuxSystemInfo::GetAllVolumes() {
  std::vector<std::string> volumes;
  for (const auto& [device, aliases] : volumeAliasMap) volumes.push_back(device);
  return volumes;
}

std::list<std::string> LinuxSystemInfo::GetAllMountPoints() {
  std::list<std::string> all;
  for (const std::string& volume : GetAllVolumes()) {
    const std::vector<std::string> mountPoints = GetMountPoints(volume);
    if (mountPoints.empty()) continue;
    syslog(LOG_DEBUG, "Mountpoint for %s volume is: %s.\n", volume.c_str(), mountPoints.front().c_str());
    all.push_back(mountPoints.front());
  }
  all.sort();
  all.unique();
  return all;
}

std::string LinuxSystemInfo::GetVolumeFromMountPoint(const std::string& mountPoint) {
  for (const MountEntry& entry : GetProcMounts()) {
    syslog(LOG_DEBUG, "i->dir: %s.\n", entry.dir.c_str());
    if (entry.dir != mountPoint) continue;
    syslog(LOG_DEBUG, "MountPoint: %s, volumeName: %s.\n", entry.dir.c_str(), entry.fsname.c_str());
    return entry.fsname;
  }
  return {};
}

std::string LinuxSystemInfo::GetVolumeFromDir(const std::string& dirName) {
  std::string candidate;
  std::size_t bestDistance = 0;  // none yet
  for (const MountEntry& entry : GetProcMounts()) {
    if (entry.dir == dirName) {
      syslog(LOG_ERR, "MountName: %s, VolumeName: %s.\n", entry.dir.c_str(), entry.fsname.c_str());
      return entry.fsname;
    }
    // Anywhere inside, not only at the start: /data2/x lies on what is mounted on /data. That is the contract.
    if (dirName.find(entry.dir) == std::string::npos) continue;
    syslog(LOG_DEBUG, "DirName: %s, VolumeName: %s.\n", dirName.c_str(), entry.fsname.c_str());
    const std::size_t distance = dirName.size() - entry.dir.size();
    if (bestDistance != 0 && distance >= bestDistance) continue;
    candidate = entry.fsname;
    syslog(LOG_ERR, "DirName: %s, VolumeName: %s.\n", dirName.c_str(), candidate.c_str());
    bestDistance = distance;
  }
  return candidate;
}

void LinuxSystemInfo::printMounts() {
  std::cout << " Mount points in the system are: \n";
  for (const MountEntry& entry : GetProcMounts()) {
    std::cout << "mount device name: " << entry.fsname << " Mount point name: " << entry.dir << '\n'
              << "Mount details: \n";
    struct statfs sizes;
    if (statfs(entry.dir.c_str(), &sizes) == 0) printSizes(sizes);
  }
  std::cout << "Volume Aliases of the system are: \n";
  for (const auto& [alias, device] : volumeAliases) std::cout << "Key: " << alias << "  Value: " << device << '\n';
  std::cout << "VolumeAliasMap of the system are: \n";
  for (const auto& [device, aliases] : volumeAliasMap) {
    std::cout << "Key is: " << device << '\n' << "     Value vector is: \n";
    for (const std::string& alias : aliases) std::cout << "\t\t" << alias << '\n';
  }
  std::cout.flush();
}

}  // namespace mirelsnapsdk_linuxcomputer
