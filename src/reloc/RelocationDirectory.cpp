// SPDX-License-Identifier: Apache-2.0
#include "reloc/RelocationDirectory.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "base/Causes.h"
#include "base/Resolve.h"
#include "reloc/LinuxSnapshotreloc.h"
#include "reloc/Planted.h"
#include "sysinfo/DirectoryWalk.h"

namespace {

constexpr mode_t kStatedMode = 0644;  // of directory and file, when they are made
// What they are given at once: what the file holds was deleted or overwritten by people who did not mean others to read
// it. The directory has no search bits either, which root needs none of and which no other directory lacks.
constexpr mode_t kPrivateMode = 0600;

constexpr mode_t kForOthers = S_IRWXG | S_IRWXO;
constexpr char kKeepsNoModes[] = "is open to others, and the file system keeps no modes";

int makeDirectory(int parent, const char* name) {
  return mkdirat(parent, name, kStatedMode) == 0 || errno == EEXIST ? 0 : errno;
}

}  // namespace

RelocationDirectory::RelocationDirectory(std::string path) : mPath(std::move(path)) {
  openTop();
  if (mTop) openDirectory();
}

RelocationDirectory RelocationDirectory::make(std::string path, std::optional<dev_t> device) {
  RelocationDirectory made;
  made.mPath = std::move(path);
  made.openTop();
  if (!made.mTop) return made;
  if (liesElsewhere(made.mTopStatus.st_dev, device)) {
    made.refuse("would lie on another file system");
  } else if (const int error = makeDirectory(made.mTop.get(), made.mName.c_str()); error != 0) {
    made.failed("mkdir", made.mPath, error);
    made.fail(error);
  } else {
    made.openDirectory();
    if (made) made.closeToOthers();
  }
  return made;
}

void RelocationDirectory::openTop() {
  const std::size_t end = mPath.find_last_not_of('/');
  if (end == std::string::npos) return fail(ENOENT);
  const std::size_t slash = mPath.rfind('/', end);
  if (slash == std::string::npos) return fail(ENOENT);
  mName = mPath.substr(slash + 1, end - slash);
  const std::string top = slash == 0 ? "/" : mPath.substr(0, slash);

  struct stat status {};
  UniqueFd opened = openWithoutLinks(top.c_str(), O_PATH | O_DIRECTORY);
  if (!opened || fstat(opened.get(), &status) != 0) {
    const int error = errno;
    failed("open", top, error);
    if (error == ELOOP) tell(mPath, "is reached through a symbolic link");
    return fail(error);
  }
  mTop = std::move(opened);
  mTopStatus = status;
}

void RelocationDirectory::openDirectory() {
  struct stat status {};
  // Under another name there is a directory that a user of the driver interface chose, the top of a file system too.
  const bool stated = mName == RELOC_FILE_LOCATION;
  mDirectory = (stated ? openEntry : openBeneath)(mTop.get(), mName.c_str(), O_RDONLY | O_DIRECTORY);
  if (!mDirectory) {
    fail(errno);
    failed("open", mPath, mError);
    if (mError == EXDEV) return tell(mPath, "is a mount point");
    if (mError != ENOTDIR && mError != ELOOP) return;
    if (fstatat(mTop.get(), mName.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) return;
    if (const auto why = whyNotOurDirectory(status, mTopStatus.st_dev)) tell(mPath, *why);
    return;
  }
  if (fstat(mDirectory.get(), &status) != 0) {
    failed("fstat", mPath, errno);
    return fail(errno);
  }
  if (!stated) mTopStatus.st_dev = status.st_dev;
  if (const auto why = whyNotRelocationDirectory(mTopStatus, status)) refuse(*why);
}

void RelocationDirectory::closeToOthers() {
  struct stat status {};
  if (fchmod(mDirectory.get(), kPrivateMode) != 0 || fstat(mDirectory.get(), &status) != 0) {
    failed("fchmod", mPath, errno);
    return fail(errno);
  }
  // FAT, for one: all that is on it has the mode that it was mounted with.
  if ((status.st_mode & kForOthers) != 0) refuse(kKeepsNoModes);
}

void RelocationDirectory::tell(const std::string& path, const std::string& why) const {
  tellPlanted(path, why);
  mCause = {path, why};
}

void RelocationDirectory::failed(const char* call, const std::string& path, int error) const {
  mCause = failedCall(call, path, error);
  errno = error;
}

void RelocationDirectory::refuse(const std::string& why) {
  tell(mPath, why);
  fail(EACCES);
}

void RelocationDirectory::fail(int error) {
  mDirectory.reset();
  mError = error;
}

UniqueDirectory RelocationDirectory::stream() const {
  if (!mDirectory) {
    errno = mError;
    return nullptr;
  }
  UniqueFd again(openat(mDirectory.get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  UniqueDirectory stream(again ? fdopendir(again.get()) : nullptr);
  if (stream) static_cast<void>(again.release());  // the stream's
  return stream;
}

int RelocationDirectory::readEntries(std::vector<std::string>& names) const {
  const UniqueDirectory directory = stream();
  if (!directory) {
    const int error = errno;
    syslog(LOG_DEBUG, "Error %d opening dir: %s.\n", error, mPath.c_str());
    return error;
  }
  while (const dirent* entry = readdir(directory.get())) {
    if (mirelsnapsdk_linuxcomputer::isSelfOrParent(entry->d_name)) continue;
    names.emplace_back(entry->d_name);
    syslog(LOG_DEBUG, "Filename found: %s.\n", entry->d_name);
  }
  return 0;
}

int RelocationDirectory::list(std::list<std::string>& files) const {
  std::vector<std::string> names;
  const int error = readEntries(names);
  for (const std::string& name : names) files.push_back(mPath + FILE_PATH_SEPERATOR + name);
  return error;
}

std::optional<FileIdentity> RelocationDirectory::ours(const std::string& name) const {
  struct stat status {};
  if (!mDirectory) {
    errno = mError;
    return std::nullopt;
  }
  if (fstatat(mDirectory.get(), name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
    failed("stat", mPath + FILE_PATH_SEPERATOR + name, errno);
    return std::nullopt;
  }
  const auto why = whyNotOurFile(status, mTopStatus.st_dev);
  if (!why) return FileIdentity{status.st_dev, status.st_ino};
  tell(mPath + FILE_PATH_SEPERATOR + name, *why);
  errno = S_ISDIR(status.st_mode) ? EISDIR : EACCES;
  return std::nullopt;
}

UniqueFd RelocationDirectory::create(const std::string& name) const {
  const std::string path = mPath + FILE_PATH_SEPERATOR + name;
  if (ours(name)) {
    if (unlinkat(mDirectory.get(), name.c_str(), 0) != 0) {
      failed("unlink", path, errno);
      return UniqueFd();
    }
  } else if (errno != ENOENT) {
    return UniqueFd();
  }
  UniqueFd file(
      openat(mDirectory.get(), name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, kStatedMode));
  if (!file) {
    failed("open", path, errno);
    return file;
  }
  struct stat status {};
  if (fchmod(file.get(), kPrivateMode) == 0 && fstat(file.get(), &status) == 0 && (status.st_mode & kForOthers) == 0) {
    return file;
  }
  tell(path, kKeepsNoModes);
  static_cast<void>(unlinkat(mDirectory.get(), name.c_str(), 0));
  errno = EACCES;
  return UniqueFd();
}

UniqueFd RelocationDirectory::open(const std::string& name) const {
  if (!ours(name)) return UniqueFd();
  return UniqueFd(openat(mDirectory.get(), name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
}

bool RelocationDirectory::remove(const std::string& name) const {
  return ours(name) && unlinkat(mDirectory.get(), name.c_str(), 0) == 0;
}

bool RelocationDirectory::remove(const std::string& name, const std::optional<FileIdentity>& expected) const {
  const std::optional<FileIdentity> found = ours(name);
  if (found && found == expected) return unlinkat(mDirectory.get(), name.c_str(), 0) == 0;
  if (found) errno = ESTALE;
  return false;
}

int RelocationDirectory::removeIfEmpty() const {
  std::vector<std::string> names;
  if (const int error = readEntries(names); error != 0) {
    syslog(LOG_ERR, "Unable to read directory: %s.\n", mPath.c_str());
    return error;
  }
  return !names.empty() || unlinkat(mTop.get(), mName.c_str(), AT_REMOVEDIR) == 0 ? 0 : errno;
}

std::optional<dev_t> deviceNumber(const std::string& device) {
  struct stat node {};
  if (stat(device.c_str(), &node) != 0 || !S_ISBLK(node.st_mode)) return std::nullopt;
  return node.st_rdev;
}

bool liesElsewhere(dev_t found, std::optional<dev_t> expected) {
  return expected && found != *expected && major(found) != 0;
}

std::optional<Cause> whyNotHoldingRelocationFiles(const std::string& mountPoint) {
  const RelocationDirectory directory(mountPoint + FILE_PATH_SEPERATOR + RELOC_FILE_LOCATION);
  if (directory || directory.error() == ENOENT) return std::nullopt;
  return directory.cause();
}
