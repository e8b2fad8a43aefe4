// SPDX-License-Identifier: Apache-2.0
#include "BaseSweep.h"

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>

#include "SnapshotDevice.h"
#include "Unmount.h"
#include "base/DirectoryEntry.h"
#include "base/Resolve.h"

namespace fs = std::filesystem;

namespace cli {
namespace {

// Where live mounts pass on what is mounted and unmounted in them, a bind does so too: from here on it does not.
void keepToItself(const Mount& bind) {
  const UniqueFd folder = openWithoutLinks(bind.folder.c_str(), O_PATH);
  if (folder) mount(nullptr, DescriptorPath(folder.get()).text(), nullptr, MS_PRIVATE, nullptr);
}

// Those of `records` in `base` or below it, deepest first.
std::vector<Mount> exposedIn(const std::string& base, const std::vector<BaseRecord>& records) {
  std::vector<Mount> found;
  for (const Mount& mount : MountTable().under(base)) {
    if (isOfExposure(mount, records)) found.push_back(mount);
  }
  std::reverse(found.begin(), found.end());  // of several on one folder the last first
  std::stable_sort(found.begin(), found.end(),
                   [](const Mount& a, const Mount& b) { return a.folder.size() > b.folder.size(); });
  return found;
}

bool unmount(const Mount& mount, Patience& patience) {
  if (!isSnapshotDevice(mount.source)) keepToItself(mount);
  return patience.unmount(mount.folder, [&] { return DirectoryEntry(mount.folder.c_str()).unmount(); }) == 0;
}

void removeFolder(const std::string& folder) {
  static_cast<void>(DirectoryEntry(folder.c_str()).removeDirectory());  // what stays shows afterwards
}

// Whether something is mounted at `path`, whatever its kind; so it is taken where that cannot be known.
bool isMountPoint(const fs::path& path) {
  struct statx status {};
  if (statx(AT_FDCWD, path.c_str(), AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT, 0, &status) != 0) return true;
  return (status.stx_attributes_mask & STATX_ATTR_MOUNT_ROOT) == 0 ||
         (status.stx_attributes & STATX_ATTR_MOUNT_ROOT) != 0;
}

// The empty folders below a base in the run directory, where nobody but root makes any. What could not be unmounted may
// be a live folder that was bound: it is not entered.
void removeFoldersBelow(const std::string& base) {
  std::error_code error;
  std::vector<fs::path> folders;
  for (fs::recursive_directory_iterator entry(base, error), end; !error && entry != end; entry.increment(error)) {
    if (isMountPoint(entry->path())) {
      entry.disable_recursion_pending();
    } else {
      folders.push_back(entry->path());
    }
  }
  std::for_each(folders.rbegin(), folders.rend(), &removeFolder);
}

void unmountAll(const BaseRecord& record, Patience& patience) {
  for (const Mount& mount : exposedIn(record.base, {record})) unmount(mount, patience);
}

void sweep(const BaseRecord& record, Patience& patience) {
  // One that says nothing was not written to its end.
  if (!record.base.empty()) unmountAll(record, patience);
  if (record.file.empty()) removeFoldersBelow(record.base);
  std::for_each(record.folders.rbegin(), record.folders.rend(), &removeFolder);
  const bool done = record.base.empty() || (record.shownFolders().empty() && exposedIn(record.base, {record}).empty());
  if (done && !record.file.empty()) unlink(record.file.c_str());
}

// Of a base that no record tells of only the snapshots are known.
void sweepNamed(const std::string& base, const std::vector<BaseRecord>& living, Patience& patience) {
  for (const Mount& mount : exposedIn(base, {})) {
    const bool used = std::any_of(living.begin(), living.end(),
                                  [&](const BaseRecord& record) { return liesWithin(mount.folder, record.base); });
    if (!used && unmount(mount, patience) && mount.folder != base) removeFolder(mount.folder);
  }
}

}  // namespace

bool isOfExposure(const Mount& mount, const std::vector<BaseRecord>& records) {
  return isSnapshotDevice(mount.source) || std::any_of(records.begin(), records.end(), [&](const BaseRecord& record) {
           return std::find(record.binds.begin(), record.binds.end(), mount.folder) != record.binds.end();
         });
}

void unmountExposure(const BaseRecord& record) {
  Patience patience;
  unmountAll(record, patience);
}

Outcome sweepBases(const std::string& base) {
  // While it is held no run makes a base.
  auto directory = base.empty() ? RunDirectory::existing() : std::optional(RunDirectory::make());
  if (!directory) return std::nullopt;
  if (auto* failure = std::get_if<Failure>(&*directory)) {
    failure->code = kCannotCleanUp;
    return *failure;
  }
  Patience patience;
  for (const BaseRecord& record : abandonedBases()) sweep(record, patience);
  if (!base.empty()) sweepNamed(base, livingBases(), patience);
  return std::nullopt;
}

std::vector<std::string> abandonedFolders() {
  std::vector<std::string> found;
  for (const BaseRecord& record : abandonedBases()) {
    for (std::string& folder : record.shownFolders()) found.push_back(std::move(folder));
  }
  std::error_code error;
  if (fs::is_directory(kRunDirectory, error) && fs::is_empty(kRunDirectory, error) && !error)
    found.push_back(kRunDirectory);
  return found;
}

}  // namespace cli
