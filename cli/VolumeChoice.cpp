// SPDX-License-Identifier: Apache-2.0
#include "VolumeChoice.h"

#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <filesystem>
#include <optional>
#include <sstream>

#include "Text.h"
#include "base/ReadText.h"
#include "qxtools/UnixUtils.h"
#include "sysinfo/LinuxSystemInfo.h"

namespace fs = std::filesystem;

namespace cli {
namespace {

using Chosen = std::variant<ChosenVolume, Failure>;

// File systems whose relocation files can be mapped to blocks.
constexpr std::array kSnappableTypes = {"ext2", "ext3", "ext4", "xfs", "vfat", "msdos", "jfs", "reiserfs"};

// File systems whose files have no blocks of their own on the device.
constexpr std::array kUnmappableTypes = {"btrfs", "bcachefs"};

Failure unsupported(const std::string& subject, const std::string& cause, const std::string& advice) {
  return {kVolumeNotSupported, subject, cause, advice};
}

// The path of a device as relocation placement compares it: the mount table's, aliases resolved.
std::string deviceName(mirelsnapsdk_linuxcomputer::LinuxSystemInfo& system, const Mount& mount) {
  for (const auto& entry : system.GetProcMounts()) {
    if (entry.dir == mount.folder && UnixUtils::GetBlockDeviceNumber(entry.fsname.c_str()) == mount.device) {
      return entry.fsname;
    }
  }
  return mount.source;
}

class Chooser {
 public:
  explicit Chooser(const MountTable& table) : mTable(table) { mSystem.LinkVolumeDeviceAliases(); }

  Chosen byName(const std::string& name) {
    struct stat status {};
    if (stat(name.c_str(), &status) == 0) {
      if (S_ISBLK(status.st_mode)) return byDevice(name, status.st_rdev);
      if (S_ISDIR(status.st_mode)) return byMountPoint(name);
      return unsupported(name, "is neither a block device nor a mount point",
                         "name a device such as /dev/sdb1 or its mount point");
    }
    const std::string reason = std::strerror(errno);
    // Device paths may hold colons themselves: the separator is the last one that a path follows.
    const std::size_t separator = name.rfind(":/");
    if (separator != std::string::npos && separator > 0) {
      return byPair(name.substr(0, separator), name.substr(separator + 1));
    }
    return unsupported(name, reason, "name a mounted block device or a mount point (lsblk shows them)");
  }

  std::vector<ChosenVolume> everySnappable() {
    std::vector<ChosenVolume> chosen;
    for (const Mount& mount : mTable.mounts()) {
      const bool known = std::find(kSnappableTypes.begin(), kSnappableTypes.end(), mount.type) != kSnappableTypes.end();
      const bool taken = std::any_of(chosen.begin(), chosen.end(),
                                     [&](const ChosenVolume& volume) { return volume.number == mount.device; });
      if (known && !taken && mount.device != 0 && isWhole(mount)) chosen.push_back(volumeAt(mount));
    }
    return chosen;
  }

  std::vector<ChosenVolume> everyMounted() {
    std::vector<ChosenVolume> found;
    for (const Mount& mount : mTable.mounts()) {
      const bool known = std::any_of(found.begin(), found.end(),
                                     [&](const ChosenVolume& volume) { return volume.number == mount.device; });
      if (mount.device != 0 && !known) found.push_back(volumeAt(mount));
    }
    return found;
  }

 private:
  static Failure unmappable(const std::string& name, const Mount& mount) {
    return unsupported(name, "is " + mount.type + ", whose files cannot be mapped to blocks",
                       "leave it out: it cannot be snapped");
  }

  // "/dev/sda1 on /srv" each: partitions of the disk that are mounted.
  std::string mountedPartsOf(std::uint64_t disk) {
    std::vector<std::string> texts;
    std::error_code error;
    const std::string folder = "/sys/dev/block/" + std::to_string(major(disk)) + ":" + std::to_string(minor(disk));
    for (fs::directory_iterator entry(folder, error), end; !error && entry != end; entry.increment(error)) {
      std::istringstream numbers(readLine(entry->path() / "dev"));
      unsigned int partMajor = 0, partMinor = 0;
      char colon = 0;
      if (!fs::exists(entry->path() / "partition", error) || !(numbers >> partMajor >> colon >> partMinor)) continue;
      for (const Mount& mount : mTable.of(makedev(partMajor, partMinor)))
        texts.push_back(deviceName(mSystem, mount) + " on " + mount.folder);
    }
    std::sort(texts.begin(), texts.end());
    return listed(texts);
  }

  ChosenVolume volumeAt(const Mount& mount) {
    return {deviceName(mSystem, mount), mount.folder, mount.type, mount.device};
  }

  Chosen byDevice(const std::string& name, std::uint64_t number) {
    if (const std::optional<Mount> whole = wholeMountOf(number))
      return canBeMapped(whole->type) ? Chosen(volumeAt(*whole)) : unmappable(name, *whole);
    for (const Mount& mount : mTable.of(number)) {
      if (isWhole(mount)) continue;
      return unsupported(name, "is mounted in part only: " + mount.root + " at " + mount.folder,
                         "mount all of it: a snapshot is of a whole volume");
    }
    if (const std::string parts = mountedPartsOf(number); !parts.empty())
      return unsupported(name, "is a whole disk, of which partitions are mounted: " + parts, "name the partitions");
    return unsupported(name, "is not mounted", "mount it first: only mounted volumes can be snapped");
  }

  // Where all of the device can be seen.
  std::optional<Mount> wholeMountOf(std::uint64_t number) const {
    for (const Mount& mount : mTable.of(number)) {
      const std::optional<Mount> visible = mTable.at(mount.folder);
      if (visible && visible->device == number && isWhole(*visible)) return visible;
    }
    return std::nullopt;
  }

  // A snapshot that is mounted in its place would show other files there.
  Chosen onlyPart(const std::string& name, const Mount& mount) {
    const std::optional<Mount> whole = wholeMountOf(mount.device);
    return unsupported(name,
                       "shows only " + mount.root + " of " + mount.source + ", and a snapshot is of a whole volume",
                       whole ? "name " + whole->folder + ", whose snapshot holds it at " + mount.root
                             : "mount the volume itself and name that");
  }

  Chosen byMountPoint(const std::string& name) {
    const std::string folder = resolved(name);
    const std::optional<Mount> mount = mTable.at(folder);
    if (!mount) {
      const std::optional<Mount> holder = mTable.holding(folder);
      return unsupported(name, "is not a mount point",
                         holder ? "it lies on the volume mounted at " + holder->folder : "name a mount point");
    }
    if (mount->device == 0) {
      return unsupported(name, "is a " + mount->type + " file system without a block device",
                         "only block devices can be snapped");
    }
    if (!canBeMapped(mount->type)) return unmappable(name, *mount);
    return isWhole(*mount) ? Chosen(volumeAt(*mount)) : onlyPart(name, *mount);
  }

  Chosen byPair(const std::string& device, const std::string& mountPoint) {
    struct stat status {};
    if (stat(device.c_str(), &status) != 0)
      return unsupported(device, std::strerror(errno), "name an existing block device");
    if (!S_ISBLK(status.st_mode))
      return unsupported(device, "is not a block device", "name a device such as /dev/sdb1");
    const Chosen chosen = byMountPoint(mountPoint);
    if (const auto* volume = std::get_if<ChosenVolume>(&chosen);
        volume != nullptr && volume->number != status.st_rdev) {
      return unsupported(device, "is not what is mounted at " + mountPoint, "that is " + volume->device);
    }
    return chosen;
  }

  const MountTable& mTable;
  mirelsnapsdk_linuxcomputer::LinuxSystemInfo mSystem;
};

}  // namespace

bool canBeMapped(const std::string& type) {
  return std::find(kUnmappableTypes.begin(), kUnmappableTypes.end(), type) == kUnmappableTypes.end();
}

std::vector<std::string> devicesOf(const std::vector<ChosenVolume>& volumes) {
  std::vector<std::string> devices;
  for (const ChosenVolume& volume : volumes) {
    if (std::find(devices.begin(), devices.end(), volume.device) == devices.end()) devices.push_back(volume.device);
  }
  return devices;
}

std::vector<ChosenVolume> everyMounted(const MountTable& table) { return Chooser(table).everyMounted(); }

std::variant<std::string, Failure> deviceNamed(const std::string& name, const MountTable& table) {
  Chosen chosen = Chooser(table).byName(name);
  if (const auto* volume = std::get_if<ChosenVolume>(&chosen)) return volume->device;
  struct stat status {};
  if (stat(name.c_str(), &status) == 0 && S_ISBLK(status.st_mode)) return resolved(name);
  return std::get<Failure>(chosen);
}

std::variant<std::vector<ChosenVolume>, Failure> chooseVolumes(const std::vector<std::string>& names,
                                                               const MountTable& table) {
  Chooser chooser(table);
  if (names.empty()) {
    std::vector<ChosenVolume> all = chooser.everySnappable();
    if (all.empty()) return unsupported("this machine", "no mounted volume can be snapped", "name one with --volume");
    return all;
  }
  std::vector<ChosenVolume> chosen;
  for (const std::string& name : names) {
    Chosen next = chooser.byName(name);
    if (auto* failure = std::get_if<Failure>(&next)) return *failure;
    auto& volume = std::get<ChosenVolume>(next);
    // A volume may well be named twice, by its device and by its mount point: it is mounted there once.
    const bool known = std::any_of(chosen.begin(), chosen.end(), [&](const ChosenVolume& other) {
      return other.number == volume.number && other.mountPoint == volume.mountPoint;
    });
    if (!known) chosen.push_back(std::move(volume));
  }
  return chosen;
}

}  // namespace cli
