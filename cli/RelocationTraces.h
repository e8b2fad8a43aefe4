// SPDX-License-Identifier: Apache-2.0
//
// What the making of relocation files leaves on the mounted file systems when it is cut short: the files, the empty
// directories that were made for them, and the file that probes whether anything can be written.
//
// A file system may belong to a user: only what root made counts, and nothing is reached through a link. The snapshots'
// own mounts are left out: what they show are pictures, and whoever looks at them keeps them from being unmounted.
#pragma once

#include <sys/types.h>

#include <set>
#include <string>
#include <vector>

#include "MountTable.h"

namespace cli {

// A file, whatever path leads to it.
using FileId = std::pair<dev_t, ino_t>;
// FileId{} when nothing is there.
FileId fileAt(const std::string& path);
// Whether a file lies where a reconciliation looks for relocation files.
bool isInRelocationDirectory(const std::string& path);

// An empty directory for relocation files, or a probe.
struct Trace {
  enum class Kind { kDirectory, kProbe };
  Kind kind;
  std::string path;
  std::string volume;  // the device that it lies on
  FileId id;
};

// Every relocation file, under every path that shows it.
std::vector<std::string> findRelocationFiles(const MountTable& table);
// Every trace, once. File systems that are mounted read-only are left out: nothing can be removed there.
std::vector<Trace> findTraces(const MountTable& table);
// 0 or an errno. What has become something else meanwhile stays, and counts as removed.
int removeTrace(const Trace& trace);
// The same for a directory of relocation files, which stays while it holds any.
int removeEmptyDirectory(const std::string& path);

}  // namespace cli
