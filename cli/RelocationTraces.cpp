// SPDX-License-Identifier: Apache-2.0
#include "RelocationTraces.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>

#include <algorithm>
#include <cerrno>
#include <list>
#include <optional>

#include "SnapshotDevice.h"
#include "base/Handle.h"
#include "base/Paths.h"
#include "base/Resolve.h"
#include "reloc/LinuxSnapshotreloc.h"
#include "reloc/Planted.h"
#include "reloc/RelocationDirectory.h"
#include "reloc/WritabilityProbe.h"

namespace cli {
namespace {

// At the top of a file system, for a moment.

FileId idOf(const struct stat& status) { return {status.st_dev, status.st_ino}; }

UniqueFd openTop(const std::string& folder) { return openWithoutLinks(folder.c_str(), O_PATH | O_DIRECTORY); }

// FileId{} when nothing is open.
FileId idOf(const UniqueFd& opened) {
  struct stat status {};
  return opened && fstat(opened.get(), &status) == 0 ? idOf(status) : FileId{};
}

bool isReadOnly(const UniqueFd& top) {
  struct statvfs status {};
  return fstatvfs(top.get(), &status) != 0 || (status.f_flag & ST_RDONLY) != 0;
}

// Those that may hold relocation files.
std::vector<Mount> volumesIn(const MountTable& table) {
  std::vector<Mount> volumes;
  for (const Mount& mount : table.mounts()) {
    if (mount.source.starts_with("/dev/") && !isSnapshotDevice(mount.source)) volumes.push_back(mount);
  }
  return volumes;
}

// The path as the library spells it: "//.verrelocarea" on the root file system.
std::string below(const Mount& mount, const std::string& name) { return mount.folder + "/" + name; }

std::optional<FileId> emptyDirectory(const std::string& path) {
  const RelocationDirectory directory(path);
  std::list<std::string> files;
  const bool isEmpty = directory && directory.list(files) == 0 && files.empty();
  return isEmpty ? std::optional(fileAt(path)) : std::nullopt;
}

std::optional<FileId> probe(const UniqueFd& top) {
  struct stat found {};
  if (fstatat(top.get(), PROBE_FILE_NAME.c_str(), &found, AT_SYMLINK_NOFOLLOW) != 0 || found.st_size != 0)
    return std::nullopt;
  return whyNotOurFile(found, idOf(top).first) ? std::nullopt : std::optional(idOf(found));
}

int removeProbe(const Trace& trace) {
  const UniqueFd top = openTop(std::string(folderOf(trace.path)));
  if (!top) return errno;
  return probe(top) != trace.id || unlinkat(top.get(), PROBE_FILE_NAME.c_str(), 0) == 0 ? 0 : errno;
}

}  // namespace

FileId fileAt(const std::string& path) {
  struct stat status {};
  return lstat(path.c_str(), &status) == 0 ? idOf(status) : FileId{};
}

bool isInRelocationDirectory(const std::string& path) {
  const std::string_view directory = folderOf(path);
  return lastPart(directory) == RELOC_FILE_LOCATION && MountTable().at(std::string(folderOf(directory)));
}

std::vector<std::string> findRelocationFiles(const MountTable& table) {
  std::vector<std::string> files;
  for (const Mount& mount : volumesIn(table)) {
    const RelocationDirectory directory(below(mount, RELOC_FILE_LOCATION));
    std::list<std::string> entries;
    if (!directory || directory.list(entries) != 0) continue;
    for (const std::string& path : entries) {
      const bool known = std::find(files.begin(), files.end(), path) != files.end();
      if (!known && directory.open(std::string(lastPart(path)))) files.push_back(path);
    }
  }
  return files;
}

std::vector<Trace> findTraces(const MountTable& table) {
  std::vector<Trace> traces;
  std::set<FileId> seen;
  for (const Mount& mount : volumesIn(table)) {
    const UniqueFd top = openTop(mount.folder);
    if (!top || isReadOnly(top) || !seen.insert(idOf(top)).second) continue;
    const std::string directory = below(mount, RELOC_FILE_LOCATION);
    if (const auto id = emptyDirectory(directory))
      traces.push_back({Trace::Kind::kDirectory, directory, mount.source, *id});
    if (const auto id = probe(top))
      traces.push_back({Trace::Kind::kProbe, below(mount, PROBE_FILE_NAME), mount.source, *id});
  }
  return traces;
}

int removeTrace(const Trace& trace) {
  return trace.kind == Trace::Kind::kDirectory ? removeEmptyDirectory(trace.path) : removeProbe(trace);
}

int removeEmptyDirectory(const std::string& path) {
  const RelocationDirectory directory(path);
  return directory ? directory.removeIfEmpty() : 0;
}

}  // namespace cli
