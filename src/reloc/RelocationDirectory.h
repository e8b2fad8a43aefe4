// SPDX-License-Identifier: Apache-2.0
//
// A directory of relocation files, "M/.verrelocarea" at the top M of a file system, and the files in it. The file
// system may belong to a user: whatever he puts there, nothing outside the directory is reached, and nothing is used
// that root did not make.
//
// M is reached without a symbolic link and stays open, and so does the directory: files are named relative to it, so
// that renaming or replacing a directory of the path changes nothing any more. What is refused is told in the system
// log, once.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <list>
#include <optional>
#include <string>
#include <vector>

#include "base/Causes.h"
#include "base/FileIdentity.h"
#include "base/Handle.h"

class RelocationDirectory {
 public:
  // Opens the directory at `path`, where one stands that root made. `error` tells why it is not open: ENOENT where
  // nothing is, EACCES for one that is refused, else as open(): ENOTDIR or ELOOP for what is no directory, EXDEV for a
  // mount point.
  explicit RelocationDirectory(std::string path);

  // Makes the directory where it is missing, and closes it to everybody but root. `device` is the file system that M
  // is expected on, where its number is known; another one is refused.
  static RelocationDirectory make(std::string path, std::optional<dev_t> device);

  explicit operator bool() const { return mDirectory.valid(); }
  int error() const { return mError; }  // errno; 0 when it is open
  // Of the last failure: the call, or why something was refused. Nothing without one.
  const std::optional<Cause>& cause() const { return mCause; }

  // Appends "`path`/NAME" of each entry, of any kind, in the directory's own order. 0, or the errno that keeps the
  // directory from being read.
  int list(std::list<std::string>& files) const;

  // Each of these is about the file `name` in the directory and sets errno where it fails. What has that name and is no
  // file that root made is neither opened nor removed: EACCES, EISDIR for a directory.

  // Makes it anew, empty, for writing. One that is there goes first: whoever has it open sees nothing of the new one.
  UniqueFd create(const std::string& name) const;
  // Opens it for reading.
  UniqueFd open(const std::string& name) const;
  bool remove(const std::string& name) const;
  // The same unless it is another file by now than `expected`: ESTALE.
  bool remove(const std::string& name, const std::optional<FileIdentity>& expected) const;

  // Removes the directory when it has no entries. That it cannot be read is logged. 0 when it is gone or keeps its
  // entries; else an errno.
  int removeIfEmpty() const;

 private:
  RelocationDirectory() = default;

  void openTop();
  void openDirectory();
  void closeToOthers();
  // Logs, and keeps as the cause, why something is not used.
  void tell(const std::string& path, const std::string& why) const;
  void refuse(const std::string& why);
  // Keeps the call that failed as the cause. errno stays.
  void failed(const char* call, const std::string& path, int error) const;
  void fail(int error);
  // Which file it is, when it is one that root made; nothing, errno being set, when not.
  std::optional<FileIdentity> ours(const std::string& name) const;

  // The directory to be read from its beginning; null, with errno set, when it cannot be.
  UniqueDirectory stream() const;
  // Names of the entries of any kind. 0, or an errno.
  int readEntries(std::vector<std::string>& names) const;

  std::string mPath;
  std::string mName;  // last component of the path
  int mError = 0;
  mutable std::optional<Cause> mCause;
  struct stat mTopStatus {};
  UniqueFd mTop;
  UniqueFd mDirectory;
};

// The number of a block device, which files on it carry; nothing when there is no such device.
std::optional<dev_t> deviceNumber(const std::string& device);
// Whether what was `found` lies on another device than is expected. A file system with a number of no device (btrfs,
// tmpfs) cannot be compared.
bool liesElsewhere(dev_t found, std::optional<dev_t> expected);

// Why a directory of relocation files could not be used on the file system mounted at `mountPoint`; nothing when what
// stands there is ours, or nothing does. Makes nothing.
std::optional<Cause> whyNotHoldingRelocationFiles(const std::string& mountPoint);
