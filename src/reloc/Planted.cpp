// SPDX-License-Identifier: Apache-2.0
#include "reloc/Planted.h"

#include <syslog.h>

#include <utility>

namespace {

constexpr mode_t kWritableForOthers = S_IWGRP | S_IWOTH;
constexpr mode_t kSearchable = S_IXUSR | S_IXGRP | S_IXOTH;

constexpr std::pair<mode_t, const char*> kKinds[] = {
    {S_IFREG, "is a file"},         {S_IFDIR, "is a directory"}, {S_IFLNK, "is a symbolic link"},
    {S_IFIFO, "is a FIFO"},         {S_IFSOCK, "is a socket"},   {S_IFCHR, "is a character device"},
    {S_IFBLK, "is a block device"},
};

std::string kindOf(mode_t mode) {
  for (const auto& [kind, text] : kKinds) {
    if ((mode & S_IFMT) == kind) return text;
  }
  return "is a special file";
}

// The owner of a directory renames what he likes in it, whoever that belongs to, and so does who may write to it,
// unless it is sticky.
bool mayBeRenamedByUsers(const struct stat& top) {
  if (top.st_uid != 0) return true;
  return (top.st_mode & kWritableForOthers) != 0 && (top.st_mode & S_ISVTX) == 0;
}

constexpr mode_t kForOthers = S_IRWXG | S_IRWXO;

thread_local ToldOnce* sOperation = nullptr;  // the outermost

std::string ownerText(uid_t owner) { return "belongs to user " + std::to_string(owner) + ", not root"; }

std::optional<std::string> whyNotOurs(const struct stat& found, mode_t kind, dev_t device) {
  if ((found.st_mode & S_IFMT) != kind) return kindOf(found.st_mode);
  if (found.st_dev != device) return "lies on another file system";
  if (found.st_uid != 0) return ownerText(found.st_uid);
  return std::nullopt;
}

}  // namespace

std::optional<std::string> whyNotOurFile(const struct stat& file, dev_t device) {
  if (auto why = whyNotOurs(file, S_IFREG, device)) return why;
  if (file.st_nlink != 1) return "has " + std::to_string(file.st_nlink) + " links";
  return std::nullopt;
}

std::optional<std::string> whyNotOurDirectory(const struct stat& directory, dev_t device) {
  if (auto why = whyNotOurs(directory, S_IFDIR, device)) return why;
  if ((directory.st_mode & kWritableForOthers) != 0) return "may be written to by others than root";
  return std::nullopt;
}

std::optional<std::string> whyNotRelocationDirectory(const struct stat& top, const struct stat& directory) {
  if (auto why = whyNotOurDirectory(directory, top.st_dev)) return why;
  if (mayBeRenamedByUsers(top) && (directory.st_mode & kSearchable) != 0)
    return "may be another directory of root's that a user renamed: it can be searched";
  return std::nullopt;
}

std::optional<std::string> whyOpenToOthers(const struct stat& top, mode_t file) {
  if (top.st_uid != 0) return ownerText(top.st_uid);
  if (((top.st_mode | file) & kForOthers) != 0) return "is open to others, and the file system keeps no modes";
  return std::nullopt;
}

ToldOnce::ToldOnce() noexcept {
  if (sOperation == nullptr) sOperation = this;
}

ToldOnce::~ToldOnce() {
  if (sOperation == this) sOperation = nullptr;
}

void tellPlanted(const std::string& path, const std::string& why) {
  if (sOperation != nullptr && !sOperation->mLines.insert(path + '\n' + why).second) return;
  syslog(LOG_ERR, "%s is not used: it %s.\n", path.c_str(), why.c_str());
}
