// SPDX-License-Identifier: Apache-2.0
#include "Remains.h"

#include <sys/stat.h>

#include <algorithm>
#include <list>
#include <optional>
#include <set>
#include <utility>

#include "BaseSweep.h"
#include "Processes.h"
#include "SnapshotDevice.h"
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

// What living processes hold.
struct Held {
  std::set<FileId> files;
  std::set<std::string> snapshots;  // their devices
};

// Whether a living process holds it: then it is noted.
bool note(const SnappedVolumeInformation& volume, Held& held) {
  if (isGone(volume.getAppPid())) return false;
  held.files.insert(idOf(WStringToString(volume.getRelocFileName())));
  held.snapshots.insert(snapshotDeviceOf(volume));
  return true;
}

bool note(const RelocFileMappingInformation& mapping, Held& held) {
  if (isGone(mapping.getAppPid())) return false;
  held.files.insert(idOf(mapping.getRelocFileName()));
  return true;
}

// Of all relocation files those that no living process holds: those in the snapshots themselves are only pictures.
std::vector<std::string> abandonedFiles(const std::list<std::string>& all, const std::set<FileId>& held,
                                        const MountTable& table) {
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

// The snapshots' mounts that were there before the driver was asked and still are: one of a run that starts or ends
// meanwhile is none.
std::vector<Mount> straysOf(const MountTable& before, const MountTable& now, const std::set<std::string>& living,
                            const std::vector<std::string>& bases) {
  std::vector<Mount> strays;
  for (const Mount& mount : now.mounts()) {
    if (!isSnapshotDevice(mount.source) || living.contains(mount.source)) continue;
    const auto isSame = [&](const Mount& other) {
      return other.folder == mount.folder && other.source == mount.source;
    };
    const auto holds = [&](const std::string& base) { return liesWithin(mount.folder, base); };
    if (std::any_of(before.mounts().begin(), before.mounts().end(), isSame) &&
        std::none_of(bases.begin(), bases.end(), holds))
      strays.push_back(mount);
  }
  return strays;
}

// The base of an exposure, found again by where its volume is mounted; empty when that does not tell.
std::string baseOf(const Mount& snapshot) {
  const std::optional<dev_t> volume = volumeOf(snapshot.source);
  if (!volume) return {};
  std::string base;
  for (const Mount& mount : MountTable().of(*volume)) {
    const std::size_t length = mount.folder == "/" ? 0 : mount.folder.size();
    if (!snapshot.folder.ends_with(mount.folder) && length != 0) continue;
    const std::string found = snapshot.folder.substr(0, snapshot.folder.size() - length);
    if (!found.empty() && (base.empty() || found.size() < base.size())) base = found;
  }
  return base;
}

// The bases to look at, none of which lies in another.
std::vector<std::string> placesOf(const std::vector<BaseRecord>& records, const std::string& base) {
  std::vector<std::string> places;
  if (!base.empty()) places.push_back(base);
  for (const BaseRecord& record : records) {
    if (!record.base.empty() && (base.empty() || !liesWithin(record.base, base))) places.push_back(record.base);
  }
  return places;
}

}  // namespace

std::string causeOf(const Mount& stray) {
  return "is still mounted (" + stray.source + "), though no living process holds that snapshot";
}

std::string adviceOn(const Mount& stray) {
  const std::string base = baseOf(stray);
  return base.empty() ? "unmount it" : "mirelsnap reconcile --base " + base + " removes it";
}

Remains findRemains(Driver& driver, const std::string& base) {
  Remains remains;
  // Living processes make and remove things meanwhile: what they hold is asked before these are looked for and after.
  Held held;
  const MountTable earlier;
  for (const SnappedVolumeInformation& volume : driver.snappedVolumes()) {
    if (!note(volume, held))
      remains.snapshots.push_back({WStringToString(volume.getSnappedVolumeName()),
                                   WStringToString(volume.getRelocFileName()), volume.getAppPid()});
  }
  for (const RelocFileMappingInformation& mapping : driver.mappings()) {
    if (!note(mapping, held))
      remains.mappings.push_back({mapping.getSnappedVolumeName(), mapping.getRelocFileName(), mapping.getAppPid()});
  }
  std::list<std::string> files;
  LinuxSnapshotreloc("", 0, 0UL, 0UL).GetAllRelocationFiles(files);
  for (const SnappedVolumeInformation& volume : driver.snappedVolumes()) note(volume, held);
  for (const RelocFileMappingInformation& mapping : driver.mappings()) note(mapping, held);
  const MountTable table;
  remains.relocationFiles = abandonedFiles(files, held.files, table);
  remains.bases = abandonedFolders();
  const std::vector<BaseRecord> records = abandonedBases();
  const std::vector<std::string> places = placesOf(records, base);
  for (const std::string& place : places) {
    for (const Mount& mount : table.under(place))
      (isOfExposure(mount, records) ? remains.mounts : remains.others).push_back(mount);
  }
  remains.strays = straysOf(earlier, table, held.snapshots, places);
  return remains;
}

}  // namespace cli
