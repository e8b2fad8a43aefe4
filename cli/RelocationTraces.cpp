// SPDX-License-Identifier: Apache-2.0
#include "RelocationTraces.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <optional>

#include "SnapshotDevice.h"
#include "base/Handle.h"
#include "base/Resolve.h"
#include "reloc/LinuxSnapshotreloc.h"
#include "reloc/Planted.h"
#include "reloc/WritabilityProbe.h"

namespace cli {
namespace {

// At the top of a file system, for a moment.

FileId idOf(const struct stat& status) { return {status.st_dev, status.st_ino}; }

// The top of a mounted file system, open.
class Top {
 public:
  explicit Top(const Mount& mount) : mFolder(openWithoutLinks(mount.folder.c_str(), O_RDONLY | O_DIRECTORY)) {
    if (mFolder && fstat(mFolder.get(), &mStatus) != 0) mFolder.reset();
  }
  bool operator!() const { return !mFolder; }
  int descriptor() const { return mFolder.get(); }
  FileId id() const { return idOf(mStatus); }

  // A regular file of root's own with one link; nothing else.
  std::optional<struct stat> file(int folder, const char* name) const {
    struct stat found {};
    if (fstatat(folder, name, &found, AT_SYMLINK_NOFOLLOW) != 0) return std::nullopt;
    return whyNotOurFile(found, mStatus.st_dev) ? std::nullopt : std::optional(found);
  }
  // The directory for relocation files, in which nobody but root can have put anything.
  UniqueFd relocationDirectory() const {
    UniqueFd opened = openBeneath(mFolder.get(), RELOC_FILE_LOCATION.c_str(), O_RDONLY | O_DIRECTORY);
    struct stat found {};
    if (opened && (fstat(opened.get(), &found) != 0 || whyNotRelocationDirectory(mStatus, found))) opened.reset();
    return opened;
  }

 private:
  UniqueFd mFolder;
  struct stat mStatus {};
};

// The names in a directory; nothing when it cannot be read to its end.
std::optional<std::vector<std::string>> namesIn(const UniqueFd& directory) {
  UniqueFd again(openat(directory.get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  const UniqueDirectory opened(again ? fdopendir(again.get()) : nullptr);
  if (!opened) return std::nullopt;
  static_cast<void>(again.release());
  std::vector<std::string> names;
  errno = 0;
  while (const dirent* entry = readdir(opened.get())) {
    if (std::strcmp(entry->d_name, ".") != 0 && std::strcmp(entry->d_name, "..") != 0)
      names.emplace_back(entry->d_name);
  }
  return errno == 0 ? std::optional(names) : std::nullopt;
}

// Those that may hold relocation files.
std::vector<Mount> volumesIn(const MountTable& table) {
  std::vector<Mount> volumes;
  for (const Mount& mount : table.mounts()) {
    if (mount.source.starts_with("/dev/") && !isSnapshotDevice(mount.source)) volumes.push_back(mount);
  }
  return volumes;
}

bool isReadOnly(const Top& top) {
  struct statvfs status {};
  return fstatvfs(top.descriptor(), &status) != 0 || (status.f_flag & ST_RDONLY) != 0;
}

// The path as the library spells it: "//.verrelocarea" on the root file system.
std::string below(const Mount& mount, const std::string& name) { return mount.folder + "/" + name; }

std::optional<FileId> emptyDirectory(const Top& top) {
  const UniqueFd directory = top.relocationDirectory();
  struct stat found {};
  if (!directory || fstat(directory.get(), &found) != 0) return std::nullopt;
  const auto names = namesIn(directory);
  return names && names->empty() ? std::optional(idOf(found)) : std::nullopt;
}

std::optional<FileId> probe(const Top& top) {
  const auto found = top.file(top.descriptor(), PROBE_FILE_NAME.c_str());
  return found && found->st_size == 0 ? std::optional(idOf(*found)) : std::nullopt;
}

std::optional<FileId> find(const Top& top, Trace::Kind kind) {
  return kind == Trace::Kind::kDirectory ? emptyDirectory(top) : probe(top);
}

const char* nameOf(Trace::Kind kind) {
  return kind == Trace::Kind::kDirectory ? RELOC_FILE_LOCATION.c_str() : PROBE_FILE_NAME.c_str();
}

}  // namespace

FileId fileAt(const std::string& path) {
  struct stat status {};
  return lstat(path.c_str(), &status) == 0 ? idOf(status) : FileId{};
}

std::vector<std::string> findRelocationFiles(const MountTable& table) {
  std::vector<std::string> files;
  for (const Mount& mount : volumesIn(table)) {
    const Top top(mount);
    if (!top) continue;
    const UniqueFd directory = top.relocationDirectory();
    if (!directory) continue;
    for (const std::string& name : namesIn(directory).value_or(std::vector<std::string>())) {
      const std::string path = below(mount, RELOC_FILE_LOCATION + "/" + name);
      const bool known = std::find(files.begin(), files.end(), path) != files.end();
      if (!known && top.file(directory.get(), name.c_str())) files.push_back(path);
    }
  }
  return files;
}

std::vector<Trace> findTraces(const MountTable& table) {
  std::vector<Trace> traces;
  std::set<FileId> seen;
  for (const Mount& mount : volumesIn(table)) {
    const Top top(mount);
    if (!top || isReadOnly(top) || !seen.insert(top.id()).second) continue;
    for (const Trace::Kind kind : {Trace::Kind::kDirectory, Trace::Kind::kProbe}) {
      if (const auto id = find(top, kind)) traces.push_back({kind, below(mount, nameOf(kind)), mount.source, *id});
    }
  }
  return traces;
}

int removeTrace(const Trace& trace) {
  const std::string name = nameOf(trace.kind);
  const Mount mount{trace.path.substr(0, trace.path.size() - name.size() - 1), "/", "", trace.volume, 0};
  const Top top(mount);
  if (!top) return errno;
  if (find(top, trace.kind) != trace.id) return 0;
  const int flags = trace.kind == Trace::Kind::kDirectory ? AT_REMOVEDIR : 0;
  return unlinkat(top.descriptor(), name.c_str(), flags) == 0 ? 0 : errno;
}

}  // namespace cli
