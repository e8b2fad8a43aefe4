// SPDX-License-Identifier: Apache-2.0
#include "BaseRecord.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <sstream>

#include "MountTable.h"
#include "Processes.h"
#include "base/ReadText.h"

namespace fs = std::filesystem;

namespace cli {
namespace {

constexpr char kSuffix[] = ".base";

Failure unusable(const std::string& cause) {
  return {kCannotExpose, kRunDirectory, cause, "remove it or give it to root alone (mode 0700)"};
}

// The directory, locked; nothing open, with errno set, where that cannot be.
UniqueFd locked() {
  UniqueFd directory(open(kRunDirectory, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  while (directory && flock(directory.get(), LOCK_EX) != 0) {
    if (errno != EINTR) directory.reset();
  }
  return directory;
}

// Whether it still stands at its path: whoever held it may have removed it meanwhile.
bool isCurrent(const UniqueFd& directory) {
  struct stat held {
  }, found{};
  return fstat(directory.get(), &held) == 0 && lstat(kRunDirectory, &found) == 0 && held.st_dev == found.st_dev &&
         held.st_ino == found.st_ino;
}

Outcome checkPrivate(const UniqueFd& directory) {
  struct stat status {};
  if (fstat(directory.get(), &status) != 0) return unusable(std::string("cannot be examined: ") + std::strerror(errno));
  if (status.st_uid != 0) return unusable("belongs to user " + std::to_string(status.st_uid));
  if ((status.st_mode & 022) != 0) return unusable("may be written by others than root");
  if ((status.st_mode & 077) != 0 && fchmod(directory.get(), 0700) != 0)
    return unusable(std::string("cannot be made private: ") + std::strerror(errno));
  return std::nullopt;
}

// A record is a sequence of "KEY VALUE\0", since a path may hold any other byte, and ends with "end".
constexpr char kProcess[] = "pid ", kBase[] = "base ", kFolder[] = "folder ", kBind[] = "bind ", kEnd[] = "end ";

std::string textOf(const BaseRecord& record) {
  std::string text;
  const auto add = [&](const char* key, const std::string& value) { text += key + value + '\0'; };
  add(kProcess, std::to_string(record.process));
  add(kBase, record.base);
  for (const std::string& folder : record.folders) add(kFolder, folder);
  for (const std::string& bind : record.binds) add(kBind, bind);
  add(kEnd, "");
  return text;
}

// What a file in the directory says. One that was not written to its end says nothing: nothing of what it was to
// announce has been made.
BaseRecord read(const fs::path& file) {
  BaseRecord record;
  std::istringstream stream(readText(file, O_NOFOLLOW | O_NONBLOCK).value_or(std::string()));
  for (std::string line; std::getline(stream, line, '\0');) {
    const auto valueOf = [&](const char* key) { return line.substr(std::strlen(key)); };
    if (line.starts_with(kProcess)) record.process = std::atoi(valueOf(kProcess).c_str());
    if (line.starts_with(kBase)) record.base = valueOf(kBase);
    if (line.starts_with(kFolder)) record.folders.push_back(valueOf(kFolder));
    if (line.starts_with(kBind)) record.binds.push_back(valueOf(kBind));
    if (line == kEnd) {
      record.file = file;
      return record;
    }
  }
  BaseRecord unfinished;
  unfinished.file = file;
  return unfinished;
}

// Whether a process has it locked, which ends with the process. Several may ask at the same time.
bool isHeld(const fs::path& path) {
  const UniqueFd file(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC));
  return file && flock(file.get(), LOCK_SH | LOCK_NB) != 0 && errno == EWOULDBLOCK;
}

std::vector<fs::path> entries() {
  std::vector<fs::path> found;
  std::error_code error;
  for (fs::directory_iterator entry(kRunDirectory, error), end; !error && entry != end; entry.increment(error))
    found.push_back(entry->path());
  std::sort(found.begin(), found.end());
  return found;
}

std::vector<BaseRecord> recordedBases(bool living) {
  std::vector<BaseRecord> found;
  for (const fs::path& file : entries()) {
    if (file.extension() != kSuffix || isHeld(file) != living) continue;
    found.push_back(read(file));
  }
  return found;
}

}  // namespace

std::variant<RunDirectory, Failure> RunDirectory::make() {
  for (;;) {
    if (mkdir(kRunDirectory, 0700) != 0 && errno != EEXIST)
      return unusable(std::string("cannot be made: ") + std::strerror(errno));
    if (auto directory = existing()) return std::move(*directory);
  }
}

std::optional<std::variant<RunDirectory, Failure>> RunDirectory::existing() {
  for (;;) {
    UniqueFd directory = locked();
    if (!directory && errno == ENOENT) return std::nullopt;
    if (!directory) return unusable(std::string("cannot be opened: ") + std::strerror(errno));
    if (!isCurrent(directory)) continue;
    if (const Outcome failure = checkPrivate(directory)) return *failure;
    return RunDirectory(std::move(directory));
  }
}

RunDirectory::~RunDirectory() {
  if (mHeld) rmdir(kRunDirectory);
}

std::vector<std::string> BaseRecord::shownFolders() const {
  std::vector<std::string> shown;
  for (const std::string& folder : folders) {
    const bool inside =
        std::any_of(shown.begin(), shown.end(), [&](const std::string& other) { return liesWithin(folder, other); });
    struct stat status {};
    if (!inside && lstat(folder.c_str(), &status) == 0) shown.push_back(folder);
  }
  return shown;
}

std::variant<UniqueFd, Failure> keep(BaseRecord& record) {
  const std::string text = textOf(record);
  UniqueFd file;
  // Where processes are counted anew (in a container that shares /run) another may have this number.
  for (unsigned int n = 0; !file; ++n) {
    record.file = std::string(kRunDirectory) + "/" + std::to_string(record.process) + "-" + std::to_string(n) + kSuffix;
    file.reset(open(record.file.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!file && errno != EEXIST) break;
  }
  if (!file || flock(file.get(), LOCK_EX) != 0 ||
      write(file.get(), text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
    const int error = errno;
    if (file) unlink(record.file.c_str());
    return Failure{kCannotExpose, record.file, std::string("cannot be written: ") + std::strerror(error),
                   "free some space in /run"};
  }
  return file;
}

std::vector<Failure> unknownBases() {
  std::vector<Failure> unknown;
  std::error_code error;
  fs::directory_iterator(kRunDirectory, error);
  if (error && error != std::errc::no_such_file_or_directory)
    return {{kCannotCleanUp, kRunDirectory, "cannot be read: " + error.message(),
             "look at what it is: mirelsnap makes it as a directory"}};
  const auto tell = [&](const std::string& base, int process) {
    unknown.push_back({kCannotCleanUp, base,
                       "is locked, though process " + std::to_string(process) + " is gone: " + usersText(usersOf(base)),
                       "stop it, unless it is a run in a container, then run this again"});
  };
  for (const BaseRecord& record : livingBases()) {
    if (!record.base.empty() && isGone(record.process)) tell(record.base, record.process);
  }
  for (const fs::path& folder : entries()) {
    const std::optional<int> owner = processNamedBy(folder);
    if (owner && isGone(*owner) && isHeld(folder)) tell(folder, *owner);
  }
  return unknown;
}

std::vector<BaseRecord> livingBases() { return recordedBases(true); }

std::vector<BaseRecord> abandonedBases() {
  std::vector<BaseRecord> found = recordedBases(false);
  const std::vector<BaseRecord> living = livingBases();
  const auto isRecorded = [](const std::vector<BaseRecord>& records, const std::string& base) {
    return std::any_of(records.begin(), records.end(), [&](const BaseRecord& record) { return record.base == base; });
  };
  for (const fs::path& folder : entries()) {
    const std::optional<int> owner = processNamedBy(folder);
    if (!owner || isRecorded(found, folder) || isRecorded(living, folder)) continue;
    // The lock tells of an owner that lives under another number.
    if (isGone(*owner) && !isHeld(folder)) found.push_back({*owner, folder, {folder}, {}, ""});
  }
  return found;
}

}  // namespace cli
