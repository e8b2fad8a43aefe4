// SPDX-License-Identifier: Apache-2.0
#include "Remains.h"

#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <list>
#include <optional>
#include <set>
#include <utility>

#include "BaseSweep.h"
#include "Processes.h"
#include "SnapshotDevice.h"
#include "driver/VolumeRecords.h"
#include "snapping/FilesInUse.h"

namespace cli {
namespace {

// What living processes hold.
struct Held {
  std::vector<UsedFile> files;
  std::set<dev_t> fileSystems;      // that the files lie on, or will
  std::set<std::string> snapshots;  // their devices
};

void noteFile(const std::string& path, Held& held) {
  held.files.emplace_back(path);
  // The file may not be there yet, nor its directory.
  held.fileSystems.insert(fileAt(std::filesystem::path(path).parent_path().parent_path()).first);
}

// Whether a living process holds it: then it is noted.
bool note(const SnappedVolumeInformation& volume, Held& held) {
  if (isGone(volume.getAppPid())) return false;
  noteFile(WStringToString(volume.getRelocFileName()), held);
  held.snapshots.insert(snapshotDeviceOf(volume));
  return true;
}

bool note(const RelocFileMappingInformation& mapping, Held& held) {
  if (isGone(mapping.getAppPid())) return false;
  noteFile(mapping.getRelocFileName(), held);
  return true;
}

// Of all relocation files those that no living process holds.
std::vector<std::string> abandonedFiles(std::vector<std::string> all, const std::vector<UsedFile>& held) {
  std::erase_if(all, [&](const std::string& path) {
    const auto isHeld = [&](const UsedFile& file) { return file.isAt(path); };
    return fileAt(path) == FileId{} || std::any_of(held.begin(), held.end(), isHeld);
  });
  return all;
}

// Those that were there earlier too, where nobody is at work: a living process has each for a moment.
std::vector<Trace> abandonedTraces(std::vector<Trace> now, const std::vector<Trace>& earlier,
                                   const std::set<dev_t>& held) {
  std::erase_if(now, [&](const Trace& trace) {
    const bool lasts =
        std::any_of(earlier.begin(), earlier.end(), [&](const Trace& other) { return other.id == trace.id; });
    return !lasts || held.contains(trace.id.first);
  });
  return now;
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
  const std::vector<Trace> earlierTraces = findTraces(earlier);
  std::list<SnappedVolumeInformation> snapped, snappedLater;
  std::list<RelocFileMappingInformation> mapped, mappedLater;
  Outcome unknown = driver.holdings(snapped, mapped);
  for (const SnappedVolumeInformation& volume : snapped) {
    if (!note(volume, held))
      remains.snapshots.push_back({WStringToString(volume.getSnappedVolumeName()),
                                   WStringToString(volume.getRelocFileName()), volume.getAppPid()});
  }
  for (const RelocFileMappingInformation& mapping : mapped) {
    if (!note(mapping, held))
      remains.mappings.push_back({mapping.getSnappedVolumeName(), mapping.getRelocFileName(), mapping.getAppPid()});
  }
  const std::vector<std::string> files = findRelocationFiles(earlier);
  const MountTable table;
  const std::vector<Trace> traces = findTraces(table);
  if (const Outcome later = driver.holdings(snappedLater, mappedLater); !unknown) unknown = later;
  for (const SnappedVolumeInformation& volume : snappedLater) note(volume, held);
  for (const RelocFileMappingInformation& mapping : mappedLater) note(mapping, held);

  remains.unknown = unknownBases();
  remains.bases = abandonedFolders();
  const std::vector<BaseRecord> records = abandonedBases();
  const std::vector<std::string> places = placesOf(records, base);
  for (const std::string& place : places) {
    for (const Mount& mount : table.under(place))
      (isOfExposure(mount, records) ? remains.mounts : remains.others).push_back(mount);
  }
  if (unknown) {
    remains.unknown.push_back(*unknown);
    return remains;
  }
  remains.relocationFiles = abandonedFiles(files, held.files);
  remains.traces = abandonedTraces(traces, earlierTraces, held.fileSystems);
  remains.strays = straysOf(earlier, table, held.snapshots, places);
  return remains;
}

}  // namespace cli
