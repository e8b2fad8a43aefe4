// SPDX-License-Identifier: Apache-2.0
#include "Remains.h"

#include <sys/stat.h>

#include <algorithm>
#include <list>
#include <regex>
#include <set>
#include <utility>

#include "ExposureBase.h"
#include "Processes.h"
#include "driver/VolumeRecords.h"
#include "reloc/LinuxSnapshotreloc.h"

namespace cli {
namespace {

// A file, whatever path leads to it.
using FileId = std::pair<dev_t, ino_t>;

FileId idOf(const std::string& path) {
  struct stat status {};
  return lstat(path.c_str(), &status) == 0 ? FileId{status.st_dev, status.st_ino} : FileId{};
}

// Relocation files that no living process holds: those in the snapshots themselves are only pictures.
std::vector<std::string> abandonedFiles(const std::set<FileId>& held, const MountTable& table) {
  std::list<std::string> all;
  LinuxSnapshotreloc("", 0, 0UL, 0UL).GetAllRelocationFiles(all);
  std::vector<std::string> found;
  for (const std::string& path : all) {
    const std::optional<Mount> mount = table.holding(path.starts_with("//") ? path.substr(1) : path);
    const bool picture = mount && isSnapshotDevice(mount->source);
    const FileId id = idOf(path);
    if (picture || id == FileId{} || held.contains(id)) continue;
    if (std::find(found.begin(), found.end(), path) == found.end()) found.push_back(path);
  }
  return found;
}

}  // namespace

std::string snapshotDeviceOf(const SnappedVolumeInformation& volume) {
  return "/dev/snap" + std::to_string(volume.getMajorNum()) + "_" + std::to_string(volume.getMinorNum());
}

bool isSnapshotDevice(const std::string& path) {
  static const std::regex pattern("/dev/snap[0-9]+_[0-9]+");
  return std::regex_match(path, pattern);
}

Remains findRemains(Driver& driver, const std::string& base) {
  Remains remains;
  std::set<FileId> held;
  for (const SnappedVolumeInformation& volume : driver.snappedVolumes()) {
    const std::string file = WStringToString(volume.getRelocFileName());
    if (isGone(volume.getAppPid())) {
      remains.snapshots.push_back({WStringToString(volume.getSnappedVolumeName()), file, volume.getAppPid()});
    } else {
      held.insert(idOf(file));
    }
  }
  for (const RelocFileMappingInformation& mapping : driver.mappings()) {
    if (isGone(mapping.getAppPid())) {
      remains.mappings.push_back({mapping.getSnappedVolumeName(), mapping.getRelocFileName(), mapping.getAppPid()});
    } else {
      held.insert(idOf(mapping.getRelocFileName()));
    }
  }
  const MountTable table;
  remains.relocationFiles = abandonedFiles(held, table);
  remains.bases = abandonedBases();
  std::vector<std::string> places = remains.bases;
  if (!base.empty()) places.push_back(base);
  for (const std::string& place : places) {
    for (const Mount& mount : table.under(place)) remains.mounts.push_back(mount);
  }
  return remains;
}

}  // namespace cli
